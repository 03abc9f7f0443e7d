// The shell's way to the daemon: plain requests over its socket, and the MCP
// bridge an agent host launches. Both start the daemon when none answers.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace glimmerstrand::client {

/// The socket the daemon listens on, by the same settings the daemon reads.
std::string socketPath();

/// A connected socket to the daemon, starting `glimmerstrand-native daemon`
/// (found beside this executable) when none answers. -1 when none comes up.
int connectOrStart();

/// One request line and its reply line.
std::optional<std::string> request(int fd, const std::string& line);

/// Copies lines both ways between standard input/output and the socket,
/// after switching the connection to MCP. Returns the exit status.
int bridgeMcp(int fd);

/// The command line client; returns the exit status.
int runClient(const std::vector<std::string>& args);

}  // namespace glimmerstrand::client
