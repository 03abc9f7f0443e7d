// The shell's way to the daemon: plain requests over its socket, the MCP
// bridge an agent host launches, and the daemon's start and stop. Every
// command but a usage error reaches the daemon, and starts it when none
// answers.
#pragma once

#include <string>
#include <vector>

namespace glimmerstrand::client {

/// The command line client, given the arguments after the program name;
/// returns the exit status: 0 done, 1 failed, 2 usage error.
int runClient(const std::vector<std::string>& args);

}  // namespace glimmerstrand::client
