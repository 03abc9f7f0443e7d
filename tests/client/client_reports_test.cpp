// The daemon's log cut-over, and the text that status and doctor print.
#include <unistd.h>

#include <gtest/gtest.h>

#include "client/client_process.h"
#include "client/daemon_process.h"
#include "client/reports.h"
#include "platform/headless_desktop.h"

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

TEST(Reports, StatusNamesTheInstanceAndItsDisplay) {
  auto named = facts();
  named.instance = "task-7";
  named.display = ":12, the headless desktop in /run/user/0/glimmerstrand-desktop-task-7";
  const auto text = statusText(named, parseJSON(R"({"ok":true,"result":{}})"), parseJSON(R"({"ok":true,"result":{}})"));
  EXPECT_NE(text.find("instance      task-7\ndisplay       :12, the headless desktop in "
                      "/run/user/0/glimmerstrand-desktop-task-7\nsocket        /s/glimmerstrand.sock\n"),
            std::string::npos)
      << text;
  EXPECT_NE(doctorText(named, parseJSON(R"({"ok":true,"result":{}})")).find("instance      task-7\n"),
            std::string::npos);
}

TEST(Reports, TheDisplayIsTheDaemonsOwnOrItsInstancesDesktops) {
  using Variables = std::map<std::string, std::string>;
  const Variables desktop{{"DISPLAY", ":5"}};
  struct Case {
    Variables daemon;
    std::optional<Variables> desktop;
    std::string text;
  };
  const std::vector<Case> cases{
      {{}, desktop, ":5, the headless desktop in /d"},
      {{{"DISPLAY", ":5"}}, desktop, ":5, the headless desktop in /d"},  // taken from it by the client
      {{{"DISPLAY", ":0"}}, desktop, ":0, its own"},
      {{{"DISPLAY", ":0"}}, std::nullopt, ":0, its own"},
      {{{"WAYLAND_DISPLAY", "wayland-0"}}, desktop, "Wayland wayland-0, its own"},
      {{}, std::nullopt, "none: it has none of its own, and no headless desktop runs in /d"},
  };
  for (const auto& c : cases) EXPECT_EQ(displayText(c.daemon, c.desktop, "/d"), c.text);
}

TEST(Instances, EachInstanceHasFoldersOfItsOwn) {
  const auto environment = [](std::map<std::string, std::string> variables) {
    return [variables](const char* name) -> std::optional<std::string> {
      auto found = variables.find(name);
      if (found == variables.end()) return std::nullopt;
      return found->second;
    };
  };
  const auto plain = environment({{"XDG_STATE_HOME", "/s"}, {"GLIMMERSTRAND_DESKTOP_DIR", "/d"}});
  const auto named = environment({{"XDG_STATE_HOME", "/s"}, {"GLIMMERSTRAND_INSTANCE", "task-7"}});
  EXPECT_EQ(daemonPaths(plain).socket, "/s/glimmerstrand/glimmerstrand.sock");
  EXPECT_EQ(daemonPaths(named).socket, "/s/glimmerstrand-task-7/glimmerstrand.sock");
  EXPECT_EQ(daemonPaths(named).stateFolder, "/s/glimmerstrand-task-7");
  const std::string desktop = platform::headlessDesktopFolder(named).filename();
  EXPECT_TRUE(desktop.starts_with("glimmerstrand-desktop-") && desktop.ends_with("-task-7")) << desktop;
  EXPECT_EQ(platform::headlessDesktopFolder(plain), "/d");  // a folder named outright stays
  for (const char* bad : {"a/b", "..", ".hidden", "x y", "0123456789012345678901234567890123"})
    EXPECT_THROW(daemonPaths(environment({{"GLIMMERSTRAND_INSTANCE", bad}})), std::invalid_argument) << bad;
}

TEST(Reports, DurationsReadInTheirLargestUnits) {
  const std::vector<std::pair<double, std::string>> cases{
      {12.4, "12 ms"}, {59999, "59 s"}, {61000, "1 min 1 s"}, {3 * 3600e3 + 120e3, "3 h 2 min"}, {90000e3, "1 d 1 h"}};
  for (const auto& [ms, text] : cases) EXPECT_EQ(durationText(ms), text) << ms;
}

}  // namespace
}  // namespace glimmerstrand::client
