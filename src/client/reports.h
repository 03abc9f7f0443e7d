// `status` and `doctor` as short text for a person; --json keeps the raw
// replies instead.
#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>

#include "client/daemon_process.h"
#include "core/json_value.h"

namespace glimmerstrand::client {

/// What the client knows of the daemon beside its replies.
struct DaemonFacts {
  pid_t pid = 0;
  std::optional<std::string> version;  // from the MCP server's serverInfo
  std::string platform;                // the platform setting it was started with
  std::string log;                     // where its log goes
  DaemonPaths paths;
  std::string instance = "default";  // GLIMMERSTRAND_INSTANCE, the one of several side by side
  std::string display = "";          // the display it works on, and whose desktop that is
};

/// The display a daemon works on, told from its environment at start and the
/// headless desktop of its instance: a daemon without a display of its own
/// takes that desktop's.
std::string displayText(const std::map<std::string, std::string>& daemonEnvironment,
                        const std::optional<std::map<std::string, std::string>>& desktopEnvironment,
                        const std::string& desktopFolder);

/// 0 when the reply is ok and no statement failed, else 1.
int replyStatus(const core::JSONValue& reply);

/// The error of a failed reply as lines for standard error.
std::string replyErrorText(const core::JSONValue& reply);

std::string statusText(const DaemonFacts& facts, const core::JSONValue& status, const core::JSONValue& doctor);
std::string doctorText(const DaemonFacts& facts, const core::JSONValue& doctor);

/// "3 h 2 min", "5 min 12 s", "40 s".
std::string durationText(double milliseconds);

}  // namespace glimmerstrand::client
