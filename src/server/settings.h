// The five environment variables that configure the daemon. The system has
// no configuration file.
#pragma once

#include <functional>
#include <optional>
#include <string>

namespace glimmerstrand::server {

struct Settings {
  std::string logLevel = "info";           // GLIMMERSTRAND_LOG_LEVEL: threshold of every log
  std::optional<std::string> socketPath;   // GLIMMERSTRAND_SOCKET
  bool bundled = false;                    // GLIMMERSTRAND_BUNDLED="1": the socket setting is ignored
  std::optional<std::string> requirement;  // GLIMMERSTRAND_REQUIREMENT: what peers must meet
  bool cursor = true;                      // GLIMMERSTRAND_CURSOR="0" turns the cursor overlay off
};

/// Reads through `lookup` (a variable's value, or nullptr when unset); empty
/// values count as unset.
Settings readSettings(const std::function<const char*(const char*)>& lookup);
/// The process environment as it is now.
Settings currentSettings();

}  // namespace glimmerstrand::server
