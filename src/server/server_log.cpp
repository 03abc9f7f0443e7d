#include "server/server_log.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>

namespace glimmerstrand::server {
namespace {

constexpr std::array<std::string_view, 5> levelNames{"debug", "info", "warn", "error", "silent"};

void writeToStandardError(std::string_view line) {
  // One write per line keeps lines of concurrent threads apart; a log that
  // cannot be written has nowhere to report that.
  [[maybe_unused]] auto written = ::write(2, line.data(), line.size());
}

}  // namespace

int logLevelRank(std::string_view name) {
  for (std::size_t i = 0; i < levelNames.size(); ++i)
    if (levelNames[i] == name) return static_cast<int>(i);
  return 1;
}

ServerLog makeLog(std::string name, std::string_view levelName, ServerLog::Sink sink) {
  return ServerLog{std::move(name), logLevelRank(levelName), std::move(sink)};
}

void ServerLog::log(std::string_view levelName, std::string_view message, LogFields fields) const {
  int rank = logLevelRank(levelName);
  if (rank < level || rank >= logLevelRank("silent")) return;  // "silent" is a threshold, never a message level
  core::JSONValue::Object object;
  core::put(object, "t", internetDateText(std::chrono::system_clock::now()));
  core::put(object, "level", levelName);
  core::put(object, "name", name);
  core::put(object, "message", message);
  std::stable_sort(fields.begin(), fields.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  for (auto& field : fields) object.push_back(std::move(field));
  std::string line = core::jsonText(object);
  line += '\n';
  if (sink)
    sink(line);
  else
    writeToStandardError(line);
}

std::string internetDateText(std::chrono::system_clock::time_point time) {
  auto millis = std::chrono::floor<std::chrono::milliseconds>(time).time_since_epoch().count();
  std::time_t seconds = static_cast<std::time_t>(millis / 1000);
  long fraction = static_cast<long>(millis % 1000);
  if (fraction < 0) {
    fraction += 1000;
    seconds -= 1;
  }
  std::tm utc{};
  ::gmtime_r(&seconds, &utc);
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03ldZ", utc.tm_year + 1900, utc.tm_mon + 1,
                utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, fraction);
  return text;
}

}  // namespace glimmerstrand::server
