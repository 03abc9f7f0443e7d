// Each operation called as a typed function and as a line request, on two
// copies of one simulated desktop: the same result (the line's record holds
// what the typed record holds, under the same names), the same failure, and
// the same effect on the application.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <thread>

#include "action_sim.h"
#include "native/applications.h"
#include "native/element_actions.h"
#include "native/in_process_driver.h"
#include "native/input.h"

namespace glimmerstrand::native::testing {
namespace {

using platform::sim::appendEffect;

constexpr std::int32_t pid = 640;

platform::sim::DesktopSpec desktop() {
  auto window = keyed("AXWindow", "window").title("Bench").withFrame(0, 0, 400, 300);
  window.child(keyed("AXStaticText", "status").value("").withFrame(10, 10, 200, 20));
  window.child(keyed("AXButton", "ok").title("OK").withFrame(10, 40, 80, 30).pressDoes({appendEffect("status", "ok")}));
  window.child(
      keyed("AXTextField", "field").value("abc").withSettable({"AXFocused", "AXValue"}).withFrame(10, 80, 200, 20));
  window.child(keyed("AXRow", "row").withSettable({"AXSelected"}).withFrame(10, 110, 200, 20));
  window.child(keyed("AXImage", "image").withActions({"AXShowMenu"}).withFrame(10, 140, 20, 20));
  auto app = appWith(pid, "Bench", {window});
  app.frontmost = true;
  return platform::sim::DesktopSpec{{}, {app}};
}

// Time on the two clocks is not what the roads are compared on.
JSONValue withoutTimes(JSONValue value) {
  if (auto object = value.asObject())
    std::erase_if(*object, [](const auto& pair) { return pair.first == "elapsedMs" || pair.first == "waitedMs"; });
  return value;
}

// The typed call's result, or its failure as "code: message".
std::string outcome(const std::function<JSONValue()>& call) {
  try {
    return core::jsonText(withoutTimes(call()));
  } catch (const core::GlimmerstrandError& e) {
    return e.code() + ": " + e.message();
  }
}

core::ElementRef refOf(const JSONValue::Object& params) {
  const JSONValue ref(params);
  return core::ElementRef{*core::optionalInt(ref, "pid"), 0, 0, core::optionalInt(ref, "uid"), std::nullopt};
}

struct Case {
  const char* operation;
  const char* element;  // named by identifier in each copy; none for operations without one
  JSONValue::Object params;
  std::function<JSONValue(ActionSim& sim, const core::ElementRef& ref)> typed;
  bool fails = false;
};

JSONValue::Object object(JSONValue::Object pairs) { return pairs; }

TEST(TypedOperations, AnOperationGivesTheSameThroughItsLineAsCalledTyped) {
  const auto on = [](ActionSim& sim, const core::ElementRef& ref) { return resolveElement(sim.host, ref); };
  const Case cases[] = {
      {"press",
       "ok",
       {},
       [&](ActionSim& sim, const core::ElementRef& ref) -> JSONValue {
         auto r = press(sim.platform, on(sim, ref));
         return object(
             {{"method", r.method}, {"completed", r.completed}, {"notificationsBefore", r.notificationsBefore}});
       }},
      {"focus",
       "field",
       {},
       [&](ActionSim& sim, const core::ElementRef& ref) -> JSONValue {
         auto r = focus(sim.platform, on(sim, ref));
         return object({{"notificationsBefore", r.notificationsBefore}, {"method", r.method}, {"moved", r.moved}});
       }},
      {"setValue",
       "field",
       {{"text", "typed"}},
       [&](ActionSim& sim, const core::ElementRef& ref) -> JSONValue {
         auto r = setValue(sim.platform, on(sim, ref), "typed");
         return object({{"applied", r.applied}, {"notificationsBefore", r.notificationsBefore}});
       }},
      {"selectAll",
       "field",
       {},
       [&](ActionSim& sim, const core::ElementRef& ref) -> JSONValue {
         return object({{"length", selectAll(sim.platform, on(sim, ref))}});
       }},
      {"readText",
       "window",
       {{"maxChars", 5}},
       [&](ActionSim& sim, const core::ElementRef& ref) {
         return core::toJSON(readText(sim.platform, on(sim, ref), true, 5));
       }},
      {"inspect",
       "row",
       {},
       [&](ActionSim& sim, const core::ElementRef& ref) { return core::toJSON(inspect(sim.platform, on(sim, ref))); }},
      {"elementFrame",
       "ok",
       {},
       [&](ActionSim& sim, const core::ElementRef& ref) {
         return core::toJSON(elementFrame(sim.platform, on(sim, ref)));
       }},
      {"showMenu",
       "image",
       {},
       [&](ActionSim& sim, const core::ElementRef& ref) -> JSONValue {
         return object({{"notificationsBefore", showMenu(sim.platform, on(sim, ref))}});
       }},
      {"readText",
       nullptr,
       {{"pid", 999}, {"uid", 1}},
       [&](ActionSim& sim, const core::ElementRef&) {
         return core::toJSON(readText(sim.platform, on(sim, core::ElementRef{999, 0, 0, 1, std::nullopt})));
       },
       true},
      {"axCounter",
       nullptr,
       {{"name", "bench"}},
       [](ActionSim& sim, const core::ElementRef&) -> JSONValue {
         core::AppSelector app;
         app.name = "bench";
         auto r = axCounter(sim.host, app);
         return object({{"pid", std::int64_t{r.pid}}, {"notifications", r.notifications}});
       }},
      {"frontmost",
       nullptr,
       {},
       [](ActionSim& sim, const core::ElementRef&) { return core::toJSON(frontmost(sim.host)); }},
      {"waitSettle",
       nullptr,
       {{"pid", 999}},
       [](ActionSim& sim, const core::ElementRef&) {
         return core::toJSON(waitSettle(sim.host, core::SettleOptions{999, {}, {}, {}, {}}));
       },
       true},
      {"apps",
       nullptr,
       {},
       [](ActionSim& sim, const core::ElementRef&) {
         JSONValue::Array list;
         for (const auto& app : apps(sim.platform)) list.push_back(core::toJSON(app));
         return JSONValue(list);
       }},
      {"windows",
       nullptr,
       {{"pid", pid}},
       [](ActionSim& sim, const core::ElementRef&) {
         JSONValue::Array list;
         for (const auto& w : windows(sim.platform, sim.host, core::AppSelector{pid, {}, {}})) {
           JSONValue record = core::toJSON(static_cast<const core::WindowInfo&>(w));
           if (w.frame) core::put(*record.asObject(), "frame", core::toJSON(*w.frame));
           list.push_back(record);
         }
         return JSONValue(list);
       }},
      {"launch",
       nullptr,
       {{"name", "Nowhere"}},
       [](ActionSim& sim, const core::ElementRef&) { return core::toJSON(launch(sim.platform, sim.host, "Nowhere")); },
       true},
      {"setClipboard",
       nullptr,
       {{"text", "héllo"}},
       [](ActionSim& sim, const core::ElementRef&) -> JSONValue {
         return object({{"length", setClipboard(sim.platform, "héllo")}});
       }},
      {"key",
       nullptr,
       {{"key", "Cmd+A"}, {"pid", pid}},
       [](ActionSim& sim, const core::ElementRef&) -> JSONValue {
         return object({{"key", key(sim.platform, "Cmd+A", pid)}});
       }},
      {"key",
       nullptr,
       {{"key", "cmd+nothing"}},
       [](ActionSim& sim, const core::ElementRef&) -> JSONValue {
         return object({{"key", key(sim.platform, "cmd+nothing", std::nullopt)}});
       },
       true},
      {"type",
       nullptr,
       {{"text", "hi"}, {"pid", pid}},
       [](ActionSim& sim, const core::ElementRef&) -> JSONValue {
         auto r = type(sim.platform, "hi", pid);
         return object({{"length", r.length}, {"seen", r.seen}});
       }},
  };
  // Each road on a desktop of its own, one after the other: a driven clock
  // keeps its thread to itself.
  const auto travel = [](const Case& c, bool typed) {
    ActionSim sim(desktop());
    std::string result;
    if (typed) {
      const auto ref = c.element ? refOf(sim.ref(pid, c.element)) : core::ElementRef{};
      result = outcome([&] { return c.typed(sim, ref); });
    } else {
      const auto params = c.element ? sim.ref(pid, c.element, c.params) : c.params;
      result = outcome([&] { return sim.call(c.operation, params); });
    }
    return std::vector<std::string>{result, sim.text(pid, "status"), sim.text(pid, "field"),
                                    sim.platform.pasteboard().readText().value_or("(none)")};
  };
  for (const auto& c : cases) {
    const auto typed = travel(c, true);
    const auto line = travel(c, false);
    EXPECT_EQ(typed, line) << c.operation;
    // The failures the table means to compare, and results everywhere else.
    const bool fails = line[0].rfind("stale: ", 0) == 0 || line[0].rfind("invalid_argument: ", 0) == 0 ||
                       line[0].rfind("not_found: ", 0) == 0;
    EXPECT_EQ(fails, c.fails) << c.operation << ": " << line[0];
    EXPECT_NE(line[0], "{}") << c.operation << ": the case compares nothing";
  }
}

// The driver is the typed road a statement takes: its records carry what the
// line's replies carry.
TEST(TypedOperations, TheDriverReadsWhatTheLineReports) {
  struct Seen {
    std::vector<std::string> nodes;
    std::string app;
    std::int64_t generation = 0;
    std::string text;
    std::string inspected;
  };
  Seen typed, line;
  {
    ActionSim sim(desktop());
    Queues queues;
    InProcessDriver driver(queues, sim.host, sim.capturer, nullptr);
    core::SnapshotOptions options;
    options.app.pid = pid;
    options.fresh = true;
    options.all = true;
    const auto snapshot = driver.axSnapshot(options);
    // Uids come from one counter of the process: each desktop has its own.
    for (auto node : snapshot.nodes) {
      node.uid.reset();
      typed.nodes.push_back(core::jsonText(core::toJSON(node)));
    }
    typed.app = core::jsonText(core::toJSON(snapshot.app));
    typed.generation = snapshot.generation;
    auto ok = std::find_if(snapshot.nodes.begin(), snapshot.nodes.end(), [](auto& n) { return n.identifier == "ok"; });
    ASSERT_NE(ok, snapshot.nodes.end());
    // The driver's element reads run on the caller's thread; its actions go
    // through the input queue, whose worker a driven clock does not know.
    const core::ElementRef okRef{pid, 0, 0, ok->uid, std::nullopt};
    typed.text = driver.readText(okRef).text;
    typed.inspected = core::jsonText(core::toJSON(driver.inspect(okRef)));
  }
  {
    ActionSim sim(desktop());
    const auto snapshot = sim.snapshot(pid);
    for (auto node : *snapshot.find("nodes")->asArray()) {
      std::erase_if(*node.asObject(), [](const auto& pair) { return pair.first == "uid"; });
      line.nodes.push_back(core::jsonText(node));
    }
    line.app = core::jsonText(*snapshot.find("app"));
    line.generation = core::optionalInt(snapshot, "generation").value_or(-1);
    line.text = core::optionalString(sim.call("readText", sim.ref(pid, "ok")), "text").value_or("");
    line.inspected = core::jsonText(sim.call("inspect", sim.ref(pid, "ok")));
  }
  EXPECT_FALSE(typed.nodes.empty());
  EXPECT_EQ(typed.nodes, line.nodes);
  EXPECT_EQ(typed.app, line.app);
  EXPECT_EQ(typed.generation, line.generation);
  EXPECT_EQ(typed.text, "OK");
  EXPECT_EQ(typed.text, line.text);
  EXPECT_EQ(typed.inspected, line.inspected);
}

// The driver's actions run on the serial input queue, whose worker is a real
// thread: on the system clock, as in the daemon.
TEST(TypedOperations, TheDriversActionsReachTheApplicationThroughTheInputQueue) {
  // Made for the life of the process, as in the daemon: walks and timers of
  // the mirror may still run after the test.
  auto* platform = new platform::sim::SimPlatform(desktop());
  std::thread([platform] { platform->mainLoop().run(); }).detach();
  auto* host = new MirrorHost(platform, "");
  auto* capturer = new Capturer([host]() -> platform::Platform& { return host->platform(); });
  auto* queues = new Queues;
  InProcessDriver driver(*queues, *host, *capturer, nullptr);
  core::SnapshotOptions options;
  options.app.pid = pid;
  options.fresh = true;
  options.all = true;
  const auto snapshot = driver.axSnapshot(options);
  const auto uidOf = [&](const std::string& identifier) {
    for (const auto& node : snapshot.nodes)
      if (node.identifier == identifier) return node.uid;
    return std::optional<std::int64_t>();
  };
  const core::ElementRef ok{pid, 0, 0, uidOf("ok"), std::nullopt}, field{pid, 0, 0, uidOf("field"), std::nullopt};
  ASSERT_TRUE(ok.uid && field.uid);
  EXPECT_EQ(driver.press(ok).method, "press");
  EXPECT_TRUE(driver.setValue(field, "set").applied);
  EXPECT_NO_THROW(driver.focus(field));
  EXPECT_NO_THROW(driver.key("cmd+a", pid));
  EXPECT_NO_THROW(driver.type("x", pid));
  EXPECT_NO_THROW(driver.click(20, 50, core::ClickOptions{}));
  EXPECT_EQ(driver.activate(core::AppSelector{pid, {}, {}}).pid, pid);
  try {
    driver.key("cmd+a", std::int64_t{1} << 40);
    ADD_FAILURE() << "a pid beyond 32 bits was taken";
  } catch (const core::GlimmerstrandError& e) {
    EXPECT_EQ(e.code() + ": " + e.message(), "invalid_argument: pid が範囲外です: 1099511627776");
  }
  auto text = [&](const char* key) {
    auto value = platform->desktop().attribute(pid, key, "AXValue");
    return value ? value->as<std::string>().value_or("") : "";
  };
  EXPECT_EQ(text("status"), "okok") << "the press, then the click on the button";
  EXPECT_NE(text("field").find("set"), std::string::npos);
}

}  // namespace
}  // namespace glimmerstrand::native::testing
