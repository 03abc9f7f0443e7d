// Applications, windows, URLs and the clipboard on the simulated desktop.
#include "native/applications.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "action_sim.h"
#include "core/errors.h"
#include "native/image_encoding.h"
#include "native/in_process_driver.h"

namespace glimmerstrand::native::testing {
namespace {

using platform::sim::Activation;
using platform::sim::AppSpec;

AppSpec app(std::int32_t pid, std::string name, std::map<std::string, std::string> names = {}) {
  auto spec = appWith(pid, std::move(name),
                      {keyed("AXWindow", "main").title("Main Window").withFrame(0, 0, 300, 200),
                       keyed("AXWindow", "tools").title("Main").withFrame(320, 0, 100, 200)});
  spec.names = std::move(names);
  return spec;
}

platform::sim::DesktopSpec desktop() {
  platform::sim::DesktopSpec spec;
  auto finder = app(500, "Finder");
  finder.frontmost = true;
  auto memo = app(501, "Notes", {{"ja", "メモ"}, {"en", "Notes"}});
  memo.running = false;
  memo.bundlePath = "/usr/share/applications/org.example.Memo.desktop";
  auto slow = app(502, "Slowpoke");
  slow.running = false;
  slow.launchMs = 20'000;
  auto broken = app(503, "Broken");
  broken.running = false;
  broken.launchError = "実行ファイルがありません";
  auto stubborn = app(504, "Stubborn");
  stubborn.quitRefused = true;
  auto hidden = app(505, "Hidden");
  hidden.hidden = true;
  auto bare = appWith(506, "Bare", {});
  bare.running = false;
  auto browser = app(507, "Browser");
  browser.urlSchemes = {"https"};
  auto daemon = app(508, "Daemon");
  daemon.regular = false;
  auto lingering = app(509, "Lingering");
  lingering.quitMs = 200;
  auto files = app(510, "Files");
  files.urlSchemes = {"file"};
  spec.apps = {finder, memo, slow, broken, stubborn, hidden, bare, browser, daemon, lingering, files};
  return spec;
}

std::int32_t front(ActionSim& sim) { return sim.platform.workspace().frontmost()->pid; }

TEST(Launch, FindsAnInstalledApplicationByItsJapaneseName) {
  ActionSim sim(desktop());
  auto record = sim.call("launch", {{"name", "メモ"}});
  EXPECT_EQ(core::jsonText(record), R"({"pid":501,"bundleId":"com.example.Notes","name":"Notes"})");
  EXPECT_TRUE(sim.platform.workspace().application(501));
  // It has windows, so it was left where it started: behind.
  EXPECT_EQ(front(sim), 500);
}

// An older copy with the same bundle id, installed elsewhere and not running.
AppSpec olderCopy(const AppSpec& of, std::int32_t pid) {
  auto copy = app(pid, of.name + " (old)");
  copy.bundleId = of.bundleId;
  copy.bundlePath = "/opt/old/" + of.bundleId + ".desktop";
  copy.running = false;
  return copy;
}

TEST(Launch, FindsByBundleIdFileNameOrEnglishNameAndStartsTheCopyFound) {
  const std::tuple<const char*, std::int32_t> cases[] = {
      {"com.example.Notes", 498},  // the first installed copy with that id
      {"org.example.Memo", 501},
      {"notes", 501},
  };
  for (const auto& [name, pid] : cases) {
    auto spec = desktop();
    spec.apps.push_back(olderCopy(spec.apps[1], 498));
    ActionSim sim(spec);
    EXPECT_EQ(core::optionalInt(sim.call("launch", {{"name", name}}), "pid"), pid) << name;
    EXPECT_EQ(sim.platform.workspace().runningApplications().size(), 8u) << name;  // only that one started
  }
}

TEST(Launch, SaysWhyNothingStarted) {
  ActionSim sim(desktop());
  EXPECT_EQ(sim.failed("launch", {{"name", "Nothing"}}), "not_found: アプリが見つかりません: Nothing");
  EXPECT_EQ(sim.failed("launch", {{"name", "Slowpoke"}}), "timeout: Slowpoke の起動が終わりませんでした");
  EXPECT_EQ(sim.failed("launch", {{"name", "Broken"}}),
            "native: Broken を起動できませんでした: 実行ファイルがありません");
  // The slow one does start in the end.
  sim.clock.runUntilIdle();
  EXPECT_TRUE(sim.platform.workspace().application(502));
}

TEST(Launch, ActivatesOnlyWhatIsHiddenOrHasNoWindow) {
  const std::tuple<const char*, std::int32_t, std::int32_t> cases[] = {
      {"Hidden", 505, 505}, {"Bare", 506, 506},  // started without a window
  };
  for (const auto& [name, pid, frontmost] : cases) {
    ActionSim sim(desktop());
    EXPECT_EQ(core::optionalInt(sim.call("launch", {{"name", name}}), "pid"), pid);
    EXPECT_EQ(front(sim), frontmost) << name;
  }
}

TEST(ActivateApp, TriesStrongerMeansInTurn) {
  const std::tuple<Activation, bool, std::int64_t, std::int64_t> cases[] = {
      {Activation::workspace, true, 0, 300},
      {Activation::accessibility, true, 300, 800},
      {Activation::reopen, true, 800, 2300},
      {Activation::never, false, 2300, 2400},
  };
  for (const auto& [activation, reached, fromMs, toMs] : cases) {
    auto spec = desktop();
    spec.apps[4].activation = activation;
    spec.apps.push_back(olderCopy(spec.apps[4], 499));
    ActionSim sim(spec);
    const std::int64_t start = sim.clock.nowNs();
    EXPECT_EQ(core::optionalInt(sim.call("activate", {{"name", "stubborn"}}), "pid"), 504);
    EXPECT_EQ(front(sim) == 504, reached);
    EXPECT_FALSE(sim.platform.workspace().application(499));  // reopening is by the bundle's location
    // Each means has its own wait before the next one is tried.
    EXPECT_GE(sim.elapsedMs(start), fromMs);
    EXPECT_LT(sim.elapsedMs(start), toMs);
  }
}

TEST(Quit, AsksPolitelyAndReportsWhetherTheApplicationEnded) {
  const std::tuple<const char*, std::int64_t, bool> cases[] = {
      {"Stubborn", 5000, false}, {"Lingering", 5000, true}, {"Lingering", 0, false}};
  for (const auto& [name, timeoutMs, terminated] : cases) {
    ActionSim sim(desktop());
    auto result = sim.call("quit", {{"name", name}, {"timeoutMs", timeoutMs}});
    EXPECT_EQ(core::optionalString(result, "name"), name);
    EXPECT_EQ(core::optionalBool(result, "terminated"), terminated) << name << " " << timeoutMs;
  }
  ActionSim sim(desktop());
  EXPECT_EQ(sim.failure("quit").code(), "not_found");
}

TEST(Quit, AnApplicationThatAsksToSaveIsAnsweredWhenItsQuestionComesUp) {
  auto spec = desktop();
  auto editor = app(511, "Editor");
  editor.quitMs = 120;
  editor.quitAsks = keyed("AXWindow", "question").title("Question").withFrame(40, 40, 200, 100);
  spec.apps.push_back(editor);
  ActionSim sim(spec);
  const std::int64_t start = sim.clock.nowNs();
  auto result = sim.call("quit", {{"name", "Editor"}});
  EXPECT_EQ(core::optionalBool(result, "terminated"), false);
  EXPECT_EQ(core::optionalBool(result, "asked"), true);
  // Its question, not the limit, ended the wait.
  EXPECT_LT(sim.elapsedMs(start), 1000);
  EXPECT_TRUE(sim.platform.workspace().application(511));
  // Windows that were there before the request are no question.
  auto refused = sim.call("quit", {{"name", "Stubborn"}, {"timeoutMs", 300}});
  EXPECT_EQ(core::optionalBool(refused, "asked"), std::nullopt);
}

TEST(Apps, ListsRegularApplicationsWithFrontAndHidden) {
  ActionSim sim(desktop());
  auto list = *sim.call("apps").asArray();
  EXPECT_EQ(list.size(), 6u);  // the running ones, without the daemon
  EXPECT_EQ(core::optionalBool(list.front(), "active"), true);
  EXPECT_EQ(std::count_if(list.begin(), list.end(), [](auto& e) { return core::optionalBool(e, "hidden") == true; }),
            1);
}

TEST(Windows, ListsEachWithItsFrame) {
  ActionSim sim(desktop());
  auto list = sim.call("windows", {{"pid", 500}});
  ASSERT_EQ(list.asArray()->size(), 2u);
  EXPECT_EQ(core::jsonText(*list.asArray()->front().find("frame")), R"({"x":0,"y":0,"width":300,"height":200})");
  // Without a selector, the frontmost application's.
  EXPECT_EQ(sim.call("windows").asArray()->size(), 2u);
}

TEST(RaiseWindow, ChoosesByIndexOrByTitle) {
  const std::tuple<JSONValue::Object, std::string> cases[] = {
      {{{"index", 1}}, "Main"},
      {{{"title", "main"}}, "Main"},  // a whole title wins over a part of another
      {{{"title", "WINDOW"}}, "Main Window"},
      {{{"title", "nothing"}}, ""},
  };
  for (const auto& [params, title] : cases) {
    ActionSim sim(desktop());
    auto withApp = params;
    withApp.emplace_back("pid", 504);
    if (title.empty()) {
      EXPECT_EQ(sim.failed("raiseWindow", withApp), "not_found: ウィンドウが見つかりません");
      continue;
    }
    EXPECT_EQ(core::optionalString(sim.call("raiseWindow", withApp), "title"), title);
    EXPECT_EQ(core::optionalString(sim.call("windows", {{"pid", 504}}).asArray()->front(), "title"), title);
    EXPECT_EQ(front(sim), 504);
  }
}

std::vector<std::uint8_t> png(std::int64_t width, std::int64_t height) {
  return encodeImage({width, height, std::vector<std::uint8_t>(static_cast<std::size_t>(width * height * 4), 200)},
                     "png", 1);
}

TEST(Clipboard, HoldsTextOrAnImage) {
  ActionSim sim(desktop());
  EXPECT_EQ(core::optionalInt(sim.call("setClipboard", {{"text", "日本語 👍🏽"}}), "length"), 5);
  EXPECT_EQ(core::optionalString(sim.call("clipboard"), "text"), "日本語 👍🏽");
  auto size = copyImage(sim.platform, png(3, 2));
  EXPECT_EQ(size.width, 3);
  EXPECT_EQ(size.height, 2);
  EXPECT_TRUE(sim.call("clipboard").find("text")->isNull());

  // A statement's copy of a screenshot goes through the same routine, and
  // bytes that are no image leave the clipboard as it was.
  Queues queues;
  InProcessDriver driver(queues, sim.host, sim.capturer, nullptr);
  sim.call("setClipboard", {{"text", "kept"}});
  try {
    driver.copyImage({1, 2, 3});
    ADD_FAILURE() << "no image, no failure";
  } catch (const core::GlimmerstrandError& e) {
    EXPECT_EQ(e.code(), "invalid_argument");
    EXPECT_EQ(e.message(), "画像を読めません");
  }
  EXPECT_EQ(core::optionalString(sim.call("clipboard"), "text"), "kept");
}

TEST(OpenURL, OpensWithTheApplicationOfTheSchemeAndBringsItToTheFront) {
  ActionSim sim(desktop());
  auto result = sim.call("openURL", {{"url", "https://example.com/a?b=c"}});
  EXPECT_EQ(core::optionalString(result, "url"), "https://example.com/a?b=c");
  EXPECT_EQ(core::optionalInt(*result.find("app"), "pid"), 507);
  EXPECT_EQ(front(sim), 507);
  // A scheme is the same in any case.
  EXPECT_EQ(core::optionalInt(*sim.call("openURL", {{"url", "HTTPS://example.com/"}}).find("app"), "pid"), 507);
}

TEST(OpenURL, TakesPathsUnderTheHomeFolderAndRefusesWords) {
  ActionSim sim(desktop());
  const std::string home = std::getenv("HOME") ? std::getenv("HOME") : "";
  auto result = sim.call("openURL", {{"url", "~/My Notes/a.txt"}});
  EXPECT_EQ(core::optionalString(result, "url"), "file://" + home + "/My%20Notes/a.txt");
  EXPECT_EQ(sim.desktop().openedURLs().back(), "file://" + home + "/My%20Notes/a.txt");
  // A user nobody has leaves the tilde, and the path is then taken from the working folder.
  const std::string unknown = core::optionalString(sim.call("openURL", {{"url", "~nobody-here/a.txt"}}), "url").value();
  EXPECT_EQ(unknown.rfind("file:///", 0), 0u) << unknown;
  EXPECT_TRUE(unknown.ends_with("/~nobody-here/a.txt")) << unknown;
  EXPECT_EQ(sim.failed("openURL", {{"url", "notes"}}), "invalid_argument: URL かファイルのパスを渡してください: notes");
  EXPECT_EQ(sim.failure("openURL", {{"url", "gopher://old"}}).code(), "no_action");
}

}  // namespace
}  // namespace glimmerstrand::native::testing
