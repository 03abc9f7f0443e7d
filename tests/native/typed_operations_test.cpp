// The in-process driver, the typed road a statement takes, beside the line
// operations on two copies of one simulated desktop: its records carry what
// the line's replies carry, and its actions reach the application through the
// serial input queue.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "action_sim.h"
#include "native/in_process_driver.h"

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
  auto app = appWith(pid, "Bench", {window});
  app.frontmost = true;
  return platform::sim::DesktopSpec{{}, {app}};
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
