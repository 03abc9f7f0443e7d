// The daemon's log cut-over, and the text that status and doctor print.
#include <unistd.h>

#include <gtest/gtest.h>

#include "client/client_process.h"
#include "client/daemon_process.h"
#include "client/reports.h"

namespace glimmerstrand::client {
namespace {

using core::parseJSON;
using testing::readFile;

void copyThroughPipe(const std::string& text, const std::filesystem::path& log, off_t capBytes) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  ASSERT_EQ(::write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
  ::close(ends[1]);
  copyToLog(ends[0], log, capBytes);
  ::close(ends[0]);
}

TEST(DaemonLog, AFullLogMovesAsideAndOnlyTheLastOneIsKept) {
  const auto folder = std::filesystem::temp_directory_path() / ("daemon-log-" + std::to_string(::getpid()));
  std::filesystem::create_directories(folder);
  const auto log = folder / "daemon.log", previous = folder / "daemon.log.1";
  copyThroughPipe(std::string(900, 'a'), log, 1000);
  copyThroughPipe(std::string(100, 'b'), log, 1000);  // exactly full: stays
  EXPECT_EQ(readFile(log), std::string(900, 'a') + std::string(100, 'b'));
  copyThroughPipe("c", log, 1000);
  EXPECT_EQ(readFile(previous), std::string(900, 'a') + std::string(100, 'b'));
  EXPECT_EQ(readFile(log), "c");
  copyThroughPipe(std::string(1000, 'd'), log, 1000);
  EXPECT_EQ(readFile(previous), "c") << "only the last full log is kept";
  EXPECT_EQ(readFile(log), std::string(1000, 'd'));
  std::filesystem::remove_all(folder);
}

DaemonFacts facts() {
  return {42, GLIMMERSTRAND_VERSION, "linux", "/s/daemon.log", DaemonPaths{"/s", "/s/glimmerstrand.sock"}};
}

TEST(Reports, AnUnusablePlatformIsNamedWithItsFix) {
  const auto doctor = parseJSON(R"({"ok":false,"error":{"code":"internal","message":"no display","retry":"x"}})");
  const auto text = doctorText(facts(), doctor);
  EXPECT_NE(text.find("platform      linux, not usable: no display\n"), std::string::npos) << text;
  EXPECT_NE(text.find("run: glimmerstrand restart"), std::string::npos) << text;
  EXPECT_EQ(replyStatus(doctor), 1);
}

TEST(Reports, StatusShowsUptimeSessionsAndEachMirror) {
  const auto status =
      parseJSON(R"({"ok":true,"result":{"pid":42,"startedAt":"x","uptimeMs":125000,"sessions":2,"mirrors":[)"
                R"({"pid":7,"app":"Notes","bundleId":null,"elements":30,"walkMs":1.5,"ageMs":2500,"generation":3}]}})");
  const auto text = statusText(facts(), status, parseJSON(R"({"ok":true,"result":{}})"));
  EXPECT_TRUE(text.starts_with("glimmerstrand " GLIMMERSTRAND_VERSION ", daemon pid 42\n")) << text;
  EXPECT_NE(text.find("up            2 min 5 s\nMCP sessions  2\nmirrors       1\n"
                      "  Notes (pid 7): 30 elements, walked in 1.5 ms, copy 2 s old\n"),
            std::string::npos)
      << text;
}

TEST(Reports, ADaemonOfAnotherVersionIsToldToRestart) {
  auto old = facts();
  old.version = "0.0.1";
  EXPECT_NE(
      doctorText(old, parseJSON(R"({"ok":true,"result":{}})")).find("runs version 0.0.1; run: glimmerstrand restart"),
      std::string::npos);
}

TEST(Reports, DurationsReadInTheirLargestUnits) {
  const std::vector<std::pair<double, std::string>> cases{
      {12.4, "12 ms"}, {59999, "59 s"}, {61000, "1 min 1 s"}, {3 * 3600e3 + 120e3, "3 h 2 min"}, {90000e3, "1 d 1 h"}};
  for (const auto& [ms, text] : cases) EXPECT_EQ(durationText(ms), text) << ms;
}

}  // namespace
}  // namespace glimmerstrand::client
