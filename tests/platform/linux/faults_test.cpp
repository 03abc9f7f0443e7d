// Applications that misbehave the way real toolkits do, beside a healthy
// galculator, on a headless desktop of the test's own: one that freezes, one
// with 16 MB names, a subtree that never answers, a tree without end, a storm
// of events, one that leaves the bus and comes back under a new bus name, and
// one that ends. Each is tests/platform/linux/data/fault_app.py under the name
// of its mode, and writes down every call it gets.
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "mirror/mirrors.h"
#include "platform/desktop_suite.h"
#include "platform/linux/atspi_bus.h"
#include "platform/linux/atspi_element.h"

namespace glimmerstrand::platform::linux_desktop {
namespace {

namespace fs = std::filesystem;
using core::JSONValue;
using glimmerstrand::testing::LineClient;

const std::string faultApp = GLIMMERSTRAND_SOURCE_DIR "/tests/platform/linux/data/fault_app.py";
const std::vector<std::string> faults = {"fault-frozen", "fault-huge",   "fault-stuck", "fault-endless",
                                         "fault-storm",  "fault-rejoin", "fault-plain"};
// The storm's window: itself, a panel of 40 buttons, and two panels that
// share 14 items between them.
constexpr std::int64_t stormElements = 1 + 1 + 40 + 2 + 14;

class FaultsTest : public glimmerstrand::testing::DesktopSuite {
 protected:
  static void SetUpTestSuite() {
    folder_ = new fs::path(fs::temp_directory_path() / ("glimmerstrand-faults-" + std::to_string(::getpid())));
    fs::create_directories(*folder_ / "calls");
    std::vector<std::string> apps{"galculator"};
    for (const auto& name : faults) {
      fs::create_symlink(faultApp, *folder_ / name);
      apps.push_back((*folder_ / name).string());
    }
    ::setenv("FAULT_APP_LOG", (*folder_ / "calls").c_str(), 1);
    startSuite(apps, false);
    startPlatform(true);
    std::string problem;
    if (platform_) bus_ = new AtspiBus(*AtspiBus::connect(problem));
  }
  static void TearDownTestSuite() {
    endSuite();
    fs::remove_all(*folder_);
  }
  static JSONValue byName(const std::string& name) { return JSONValue::Object{{"name", name}}; }
  static JSONValue byPid(std::int32_t pid) { return JSONValue::Object{{"pid", std::int64_t{pid}}}; }

  // The first rows of a statement's reply; throws when it failed.
  static JSONValue rows(LineClient& client, const JSONValue& app, const std::string& statement) {
    auto result = client.call("cypher", JSONValue::Object{{"cypher", statement}, {"app", app}});
    return *result.find("results")->asArray()->front().find("rows");
  }
  static std::int64_t count(LineClient& client, const JSONValue& app) {
    auto r = rows(client, app, "MATCH (n) RETURN count(n) AS n");
    return core::optionalInt(r.asArray()->front(), "n").value_or(-1);
  }
  static JSONValue freshCopy(LineClient& client, JSONValue app) {
    app.asObject()->emplace_back("fresh", true);
    app.asObject()->emplace_back("all", true);
    return client.call("axSnapshot", app);
  }
  static std::vector<std::string> titles(const JSONValue& copy) {
    std::vector<std::string> out;
    for (const auto& node : *copy.find("nodes")->asArray())
      if (auto title = core::optionalString(node, "title")) out.push_back(*title);
    return out;
  }
  static bool has(const std::vector<std::string>& list, const std::string& item) {
    return std::find(list.begin(), list.end(), item) != list.end();
  }

  // A call the daemon never makes, to the application on `bus`.
  static Call locale(const std::string& bus) {
    return Call{bus, rootPath, "org.a11y.atspi.Application", "GetLocale", own(g_variant_new("(u)", 0u))};
  }
  static std::string busOf(const std::string& name) {
    return platform_->accessibility().applicationElement(desktop_->pid(name)).as<AtspiElement>()->bus();
  }

  // The calls an application has been asked so far, once it has answered
  // everything asked before: the test asks last, with a call the daemon
  // never makes, which is left out.
  static std::vector<std::string> callsOf(const std::string& name) {
    callSync(bus_->connection(), locale(busOf(name)), 30000);
    std::ifstream in(*folder_ / "calls" / (name + ".calls"));
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
      if (line.find("GetLocale") == std::string::npos) lines.push_back(line);
    return lines;
  }

  // Waits until the application does not answer a call within 200 ms.
  static void waitFrozen(const std::string& name) {
    for (int attempt = 0; attempt < 100; ++attempt) {
      if (callSync(bus_->connection(), locale(busOf(name)), 200).error == AxError::cannotComplete) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    FAIL() << name << " did not freeze";
  }

  inline static fs::path* folder_ = nullptr;
  inline static AtspiBus* bus_ = nullptr;
};

TEST_F(FaultsTest, AFrozenApplicationIsNotAskedWhileAnotherIsServedAndShowsDirty) {
  auto client = lineClient();
  client->call("apps", JSONValue::Object{});  // every name learnt while all answer
  const auto galculator = desktop_->pid("galculator");
  const auto frozen = desktop_->pid("fault-frozen");
  const auto before = callsOf("fault-frozen").size();
  ::kill(frozen, SIGUSR1);
  waitFrozen("fault-frozen");
  for (const auto& app : {byName("galculator"), byPid(galculator), byName("galculator"), byPid(galculator)})
    EXPECT_GT(count(*client, app), 20);
  ::kill(frozen, SIGUSR2);
  auto calls = callsOf("fault-frozen");
  EXPECT_EQ(calls.size(), before) << "asked for another: " << calls.back();

  // The front is asked of every application at once: a frozen one is asked
  // once, then left out until it answers again.
  ::kill(frozen, SIGUSR1);
  waitFrozen("fault-frozen");
  for (int list = 0; list < 3; ++list) {
    const auto apps = core::jsonText(client->call("apps", JSONValue::Object{}));
    EXPECT_NE(apps.find("galculator"), std::string::npos);
  }
  ::kill(frozen, SIGUSR2);
  calls = callsOf("fault-frozen");
  EXPECT_EQ(std::count(calls.begin() + static_cast<std::ptrdiff_t>(before), calls.end(),
                       "org.a11y.atspi.Accessible.GetChildren /org/a11y/atspi/accessible/root"),
            1);

  // Its own query finds it, and answers with what there is, marked stale.
  ::kill(frozen, SIGUSR1);
  waitFrozen("fault-frozen");
  auto own = client->call("cypher",
                          JSONValue::Object{{"cypher", "MATCH (n) RETURN count(n)"}, {"app", byName("fault-frozen")}});
  ::kill(frozen, SIGUSR2);
  EXPECT_EQ(core::optionalBool(own, "fresh"), false);
  EXPECT_EQ(core::optionalInt(own, "pid"), frozen);
}

TEST_F(FaultsTest, HugeNamesAreCutCountedAndNeverReadForAnother) {
  auto client = lineClient();
  client->call("apps", JSONValue::Object{});
  const auto before = callsOf("fault-huge").size();
  for (int query = 0; query < 3; ++query) EXPECT_GT(count(*client, byName("galculator")), 20);
  const auto calls = callsOf("fault-huge");
  EXPECT_EQ(calls.size(), before) << "asked for another: " << calls.back();

  auto copy = freshCopy(*client, byPid(desktop_->pid("fault-huge")));
  EXPECT_EQ(core::optionalBool(copy, "truncated"), true);
  const auto names = titles(copy);
  EXPECT_TRUE(has(names, "Button 39"));
  bool cut = false;
  for (const auto& node : *copy.find("nodes")->asArray())
    if (auto value = core::optionalString(node, "value")) cut = cut || *value == std::string(120, 'a') + "…";
  EXPECT_TRUE(cut);
  // The application's own name is cut too, in the list of applications.
  const auto apps = client->call("apps", JSONValue::Object{});
  for (const auto& app : *apps.asArray()) EXPECT_LE(core::optionalString(app, "name").value_or("").size(), 256u);
}

TEST_F(FaultsTest, AStuckSubtreeOrATreeWithoutEndIsLeftOutOfACopyMarkedAsCut) {
  struct Case {
    const char* app;
    std::vector<std::string> shown, left;
  };
  const Case cases[] = {
      {"fault-stuck", {"Button 0", "Button 39"}, {"Stuck"}},
      // Cut at the depth limit: the window at depth 0, its levels from depth 1 to 64.
      {"fault-endless", {"Button 39", "Level 0", "Level 63"}, {"Level 64"}},
  };
  auto client = lineClient();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.app);
    auto copy = freshCopy(*client, byName(c.app));
    EXPECT_GE(core::optionalInt(copy, "generation").value_or(0), 1);
    EXPECT_EQ(core::optionalBool(copy, "truncated"), true);
    const auto names = titles(copy);
    for (const auto& name : c.shown) EXPECT_TRUE(has(names, name)) << name;
    for (const auto& name : c.left) EXPECT_FALSE(has(names, name)) << name;
  }
}

TEST_F(FaultsTest, AStormOfEventsLeavesEveryCopyFreshAndEachElementOnce) {
  auto client = lineClient();
  ASSERT_EQ(count(*client, byName("fault-storm")), stormElements);
  ::kill(desktop_->pid("fault-storm"), SIGUSR1);
  for (int query = 0; query < 12; ++query) {
    auto result = client->call(
        "cypher", JSONValue::Object{{"cypher", "MATCH (n) RETURN n.id AS id"}, {"app", byName("fault-storm")}});
    EXPECT_EQ(core::optionalBool(result, "fresh"), true);
    std::set<std::string> ids;
    const auto& found = *result.find("results")->asArray()->front().find("rows")->asArray();
    for (const auto& row : found) ids.insert(core::optionalString(row, "id").value_or(""));
    EXPECT_EQ(ids.size(), found.size());
    EXPECT_LE(static_cast<std::int64_t>(found.size()), stormElements);
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
  }
  ::kill(desktop_->pid("fault-storm"), SIGUSR2);
}

TEST_F(FaultsTest, AnApplicationBackUnderANewBusNameIsFoundAtTheNextQuery) {
  auto client = lineClient();
  const auto pid = desktop_->pid("fault-rejoin");
  ASSERT_GT(count(*client, byName("fault-rejoin")), 40);
  auto& ax = platform_->accessibility();
  const Element before = ax.applicationElement(pid);
  ::kill(pid, SIGUSR1);
  bool back = false;
  for (int attempt = 0; attempt < 100 && !back; ++attempt) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const Element now = ax.applicationElement(pid);
    back = !(now == before) && now.as<AtspiElement>()->bus()[0] == ':';
  }
  ASSERT_TRUE(back);
  const std::string title = "MATCH (w:Window) RETURN w.title AS title";
  EXPECT_EQ(core::jsonText(rows(*client, byName("fault-rejoin"), title)), R"([{"title":"Faults 1"}])");
  EXPECT_EQ(core::jsonText(rows(*client, byPid(pid), title)), R"([{"title":"Faults 1"}])");
  EXPECT_GT(count(*client, byPid(pid)), 40);
}

TEST_F(FaultsTest, ACallToNoValidNameFailsAtOnceBesideOnesThatAnswer) {
  const std::string bus = busOf("fault-plain");
  std::vector<Call> calls;
  calls.push_back(locale(bus));
  calls.push_back(locale(""));  // an application the registry has not named yet
  calls.push_back(locale(bus));
  const auto replies = callAll(bus_->connection(), calls, 2000);
  ASSERT_EQ(replies.size(), 3u);
  EXPECT_TRUE(replies[0].ok());
  EXPECT_EQ(replies[1].error, AxError::invalidElement);
  EXPECT_TRUE(replies[2].ok());
  EXPECT_EQ(callSync(bus_->connection(), locale(""), 2000).error, AxError::invalidElement);
}

TEST_F(FaultsTest, AMirrorGoesWhenItsApplicationEnds) {
  auto& ax = platform_->accessibility();
  native::Mirrors mirrors({ax, platform_->clock()}, platform_->workspace());
  const auto pid = desktop_->pid("fault-plain");
  auto mirror = mirrors.mirror(pid);
  native::SnapshotRequest first;
  first.fresh = true;
  ASSERT_GE(mirror->snapshot(first).generation, 1);
  ASSERT_EQ(mirrors.all().size(), 1u);
  ::kill(pid, SIGTERM);
  for (int attempt = 0; attempt < 200 && !mirrors.all().empty(); ++attempt)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_TRUE(mirrors.all().empty());
  EXPECT_TRUE(mirror->gone());
  EXPECT_EQ(mirrors.existing(pid), nullptr);
}

}  // namespace
}  // namespace glimmerstrand::platform::linux_desktop
