#include "server/settings.h"

#include <cstdlib>

namespace glimmerstrand::server {

Settings readSettings(const std::function<const char*(const char*)>& lookup) {
  auto value = [&](const char* name) -> std::optional<std::string> {
    const char* text = lookup(name);
    if (!text || !*text) return std::nullopt;
    return std::string(text);
  };
  Settings settings;
  if (auto level = value("GLIMMERSTRAND_LOG_LEVEL")) settings.logLevel = *level;
  settings.socketPath = value("GLIMMERSTRAND_SOCKET");
  settings.bundled = value("GLIMMERSTRAND_BUNDLED") == "1";
  settings.requirement = value("GLIMMERSTRAND_REQUIREMENT");
  settings.cursor = value("GLIMMERSTRAND_CURSOR") != "0";
  return settings;
}

Settings currentSettings() {
  return readSettings([](const char* name) { return std::getenv(name); });
}

}  // namespace glimmerstrand::server
