#include "server/server_log.h"

#include <gtest/gtest.h>

#include <regex>

namespace glimmerstrand::server {
namespace {

struct Captured {
  std::vector<std::string> lines;
  ServerLog log(std::string_view level) {
    return makeLog("daemon", level, [this](std::string_view line) { lines.emplace_back(line); });
  }
};

TEST(ServerLog, ThresholdByLevelName) {
  struct Case {
    std::string threshold;
    std::vector<std::string> written;
  };
  std::vector<Case> cases{{"debug", {"debug", "info", "warn", "error"}},
                          {"Warn", {"info", "warn", "error"}},  // misspelt: acts as info
                          {"error", {"error"}},
                          {"silent", {}}};
  for (const auto& c : cases) {
    Captured captured;
    auto log = captured.log(c.threshold);
    log.debug("d");
    log.info("i");
    log.warn("w");
    log.error("e");
    log.log("silent", "s");
    std::vector<std::string> levels;
    for (const auto& line : captured.lines) {
      auto parsed = core::parseJSON(line);
      levels.push_back(*core::optionalString(parsed, "level"));
    }
    EXPECT_EQ(levels, c.written) << c.threshold;
  }
}

TEST(ServerLog, FixedKeysThenSortedFields) {
  Captured captured;
  captured.log("info").warn("接続を断りました", {{"reason", "x"}, {"conn", 3}, {"b", true}});
  ASSERT_EQ(captured.lines.size(), 1u);
  const std::string& line = captured.lines[0];
  std::regex form(
      R"(\{"t":"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z","level":"warn","name":"daemon","message":"接続を断りました",)"
      R"("b":true,"conn":3,"reason":"x"\}\n)");
  EXPECT_TRUE(std::regex_match(line, form)) << line;
}

TEST(ServerLog, DateTextIsUtcWithMilliseconds) {
  auto time = std::chrono::system_clock::time_point(std::chrono::milliseconds(1'700'000'000'123));
  EXPECT_EQ(internetDateText(time), "2023-11-14T22:13:20.123Z");
  EXPECT_EQ(internetDateText(std::chrono::system_clock::time_point(std::chrono::milliseconds(-1))),
            "1969-12-31T23:59:59.999Z");
}

}  // namespace
}  // namespace glimmerstrand::server
