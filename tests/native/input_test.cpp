// Keyboard and pointer input on the simulated desktop: what goes out, in
// which order, to which process, and what typing reports.
#include "native/input.h"

#include <gtest/gtest.h>

#include <sstream>

#include "action_sim.h"

namespace glimmerstrand::native::testing {
namespace {

using platform::sim::Posted;

platform::sim::DesktopSpec desktop() {
  auto window = keyed("AXWindow", "window").title("Notes").withFrame(0, 0, 400, 300);
  window.child(keyed("AXTextField", "field")
                   .value("")
                   .withSettable({"AXValue", "AXFocused"})
                   .withFrame(10, 10, 200, 20)
                   .markFocused());
  auto notes = appWith(501, "Notes", {window});
  notes.frontmost = true;
  // An application whose open panel has the focus; another process draws it.
  auto panel = keyed("AXWindow", "panel").identifier("open-panel").title("Open");
  panel.child(keyed("AXTextField", "path").value("").withSettable({"AXValue"}).markFocused());
  auto viewer = appWith(502, "Viewer", {panel});
  viewer.filePanelPid = 503;
  auto service = appWith(503, "PanelService",
                         {keyed("AXWindow", "sheet").child(keyed("AXTextField", "typed").value("").markFocused())});
  service.regular = false;
  platform::sim::DesktopSpec spec;
  spec.apps = {notes, viewer, service};
  return spec;
}

// "down 55 0x100000 @503 'a'": one posted key.
std::vector<std::string> keys(const std::vector<Posted>& posted) {
  std::vector<std::string> out;
  for (const auto& event : posted)
    if (auto key = std::get_if<platform::KeyEvent>(&event.event)) {
      std::ostringstream line;
      line << (key->down ? "down " : "up ") << key->keyCode << " 0x" << std::hex << key->flags << std::dec;
      if (event.pid) line << " @" << *event.pid;
      if (!key->text.empty()) {
        line << " '";
        for (char16_t unit : key->text) line << (unit < 0x80 ? std::string(1, static_cast<char>(unit)) : "?");
        line << "'";
      }
      out.push_back(line.str());
    }
  return out;
}

std::vector<platform::PointerEvent> pointers(const std::vector<Posted>& posted) {
  std::vector<platform::PointerEvent> out;
  for (const auto& event : posted)
    if (auto pointer = std::get_if<platform::PointerEvent>(&event.event)) out.push_back(*pointer);
  return out;
}

std::vector<std::pair<int, int>> scrolls(const std::vector<Posted>& posted) {
  std::vector<std::pair<int, int>> out;
  for (const auto& event : posted)
    if (auto scroll = std::get_if<platform::ScrollEvent>(&event.event))
      out.emplace_back(scroll->verticalLines, scroll->horizontalLines);
  return out;
}

TEST(Key, PressesModifiersInOrderReleasesThemInReverseAndChecksNamesFirst) {
  ActionSim sim(desktop());
  auto result = sim.call("key", {{"key", "CMD+Shift+4"}});
  EXPECT_EQ(core::optionalString(result, "key"), "cmd+shift+4");
  EXPECT_EQ(keys(sim.desktop().posted()),
            (std::vector<std::string>{"down 55 0x100000", "down 56 0x120000", "down 21 0x120000", "up 21 0x120000",
                                      "up 56 0x100000", "up 55 0x0"}));

  // Names are checked before any event goes out.
  sim.desktop().clearPosted();
  EXPECT_EQ(sim.failed("key", {{"key", "cmd+shift"}}), "invalid_argument: 未知のキーです: cmd+shift");
  EXPECT_EQ(sim.failed("key", {{"key", "Hyper+A"}}), "invalid_argument: 未知の修飾キーです: hyper");
  EXPECT_TRUE(sim.desktop().posted().empty());
  sim.call("key", {{"key", "command++a"}, {"pid", 501}});
  EXPECT_EQ(keys(sim.desktop().posted()), (std::vector<std::string>{"down 55 0x100000 @501", "down 0 0x100000 @501",
                                                                    "up 0 0x100000 @501", "up 55 0x0 @501"}));
}

TEST(Type, SendsOneKeyPerGraphemeWithItsText) {
  ActionSim sim(desktop());
  auto result = sim.call("type", {{"text", "a\nB"}});
  EXPECT_EQ(core::optionalInt(result, "length"), 3);
  EXPECT_EQ(core::optionalBool(result, "seen"), true);
  EXPECT_EQ(keys(sim.desktop().posted()),
            (std::vector<std::string>{"down 0 0x0 'a'", "up 0 0x0 'a'", "down 36 0x0 '\n'", "up 36 0x0 '\n'",
                                      "down 11 0x0 'B'", "up 11 0x0 'B'"}));

  // An accent that combines, and an emoji with its skin tone: one key each, code 0.
  auto events = typingEvents(sim.platform.input(), "e\u0301\U0001F44D\U0001F3FD");
  ASSERT_EQ(events.size(), 4u);
  EXPECT_EQ(events[0].text, u"e\u0301");
  EXPECT_EQ(events[2].text, u"\U0001F44D\U0001F3FD");
  EXPECT_EQ(events[2].keyCode, 0);
}

TEST(Type, WithAPidWatchesTheFocusedElementAndSendsPanelKeysToTheirProcess) {
  ActionSim sim(desktop());
  auto result = sim.call("type", {{"text", "hello"}, {"pid", 501}});
  EXPECT_EQ(core::optionalBool(result, "seen"), true);
  EXPECT_EQ(sim.text(501, "field"), "hello");

  // Keys for an open panel go to the process that draws it.
  sim.desktop().clearPosted();
  result = sim.call("type", {{"text", "ab"}, {"pid", 502}});
  for (const auto& key : keys(sim.desktop().posted())) EXPECT_NE(key.find("@503"), std::string::npos) << key;
  EXPECT_EQ(sim.text(503, "typed"), "ab");
  // What is watched is the application's own focused field, which the keys never reached.
  EXPECT_EQ(core::optionalBool(result, "seen"), false);
}

TEST(Click, CountsClicksAndHoldsNoButtonButTheRight) {
  ActionSim sim(desktop());
  auto result = sim.call("click", {{"x", 50}, {"y", 60}, {"count", 2}, {"button", "middle"}});
  EXPECT_EQ(core::optionalInt(result, "count"), 2);
  auto events = pointers(sim.desktop().posted());
  ASSERT_EQ(events.size(), 5u);  // a move, then down and up twice
  EXPECT_EQ(events[0].action, platform::PointerAction::moved);
  EXPECT_EQ(events[3].action, platform::PointerAction::down);
  EXPECT_EQ(events[3].clickState, 2);
  EXPECT_EQ(events[4].action, platform::PointerAction::up);
  EXPECT_EQ(events[3].button, platform::MouseButton::left);
  EXPECT_EQ(core::optionalInt(sim.call("click", {{"x", 50}, {"y", 60}, {"count", "two"}}), "count"), 1);
  sim.desktop().clearPosted();
  sim.call("click", {{"x", 50}, {"y", 60}, {"button", "right"}});
  EXPECT_EQ(pointers(sim.desktop().posted())[1].button, platform::MouseButton::right);
}

TEST(Drag, TakesAtLeastTwoStepsAndEndsExactlyAtTheEnd) {
  ActionSim sim(desktop());
  auto result = sim.call("drag", {{"x1", 0}, {"y1", 0}, {"x2", 30}, {"y2", 10}, {"steps", 1}});
  EXPECT_EQ(core::jsonText(result), R"({"from":[0,0],"to":[30,10]})");
  auto events = pointers(sim.desktop().posted());
  ASSERT_EQ(events.size(), 5u);
  EXPECT_EQ(events[1].action, platform::PointerAction::down);
  EXPECT_EQ(events[2].location, (platform::AxPoint{15, 5}));
  EXPECT_EQ(events[3].location, (platform::AxPoint{30, 10}));
  EXPECT_EQ(events[3].action, platform::PointerAction::dragged);
  EXPECT_EQ(events[4].action, platform::PointerAction::up);

  // Fractions whose sum misses the end by a rounding error.
  sim.desktop().clearPosted();
  sim.call("drag", {{"x1", 13.37}, {"y1", 0.7}, {"x2", 0.1}, {"y2", 0.1}, {"steps", 3}});
  events = pointers(sim.desktop().posted());
  ASSERT_EQ(events.size(), 6u);
  EXPECT_EQ(events[4].location, (platform::AxPoint{0.1, 0.1}));
  EXPECT_EQ(events[5].location, (platform::AxPoint{0.1, 0.1}));
}

TEST(Scroll, SendsWholeLinesOneAtATime) {
  const std::tuple<double, std::size_t, int> cases[] = {{19, 1, 0}, {-100, 3, -1}, {100000, 400, 1}};
  for (const auto& [dy, events, line] : cases) {
    ActionSim sim(desktop());
    auto result = sim.call("scroll", {{"dy", dy}});
    EXPECT_EQ(core::optionalNumber(result, "dy"), dy);
    auto posted = scrolls(sim.desktop().posted());
    ASSERT_EQ(posted.size(), events) << dy;
    for (const auto& [vertical, horizontal] : posted) {
      EXPECT_EQ(vertical, line);
      EXPECT_EQ(horizontal, 0);
    }
  }
}

TEST(Scroll, AtAPointReturnsThePointerAfterwards) {
  ActionSim sim(desktop());
  sim.platform.input().warpPointer({5, 5});
  sim.call("scroll", {{"dx", -45}, {"x", 100}, {"y", 200}});
  EXPECT_EQ(scrolls(sim.desktop().posted()), (std::vector<std::pair<int, int>>{{0, -1}}));
  EXPECT_EQ(sim.platform.input().pointerLocation(), (platform::AxPoint{5, 5}));
  EXPECT_EQ(sim.failure("scroll", {{"dy", 40}, {"x", 100}}).message(), "y が必要です");
  EXPECT_EQ(scrolls(sim.desktop().posted()).size(), 1u);
}

// The simulated desktop's input, which can make only `allowed` more events.
class RationedInput final : public platform::Input {
 public:
  explicit RationedInput(platform::Input& input) : input_(input) {}
  bool postPointer(const platform::PointerEvent& event, std::optional<std::int32_t> pid) override {
    return take() && input_.postPointer(event, pid);
  }
  bool postKey(const platform::KeyEvent& event, std::optional<std::int32_t> pid) override {
    return take() && input_.postKey(event, pid);
  }
  bool postScroll(const platform::ScrollEvent& event, std::optional<std::int32_t> pid) override {
    return take() && input_.postScroll(event, pid);
  }
  platform::AxPoint pointerLocation() override { return input_.pointerLocation(); }
  void warpPointer(platform::AxPoint location) override { input_.warpPointer(location); }
  const std::unordered_map<std::string, std::uint16_t>& keyCodes() override { return input_.keyCodes(); }
  const std::unordered_map<std::string, platform::ModifierKey>& modifierKeys() override {
    return input_.modifierKeys();
  }
  int allowed = 0;

 private:
  bool take() { return allowed-- > 0; }
  platform::Input& input_;
};

// The simulated platform with rationed input.
class RationedPlatform final : public platform::Platform {
 public:
  explicit RationedPlatform(platform::Platform& sim) : rationed(sim.input()), sim_(sim) {}
  std::string_view name() const override { return "rationed"; }
  platform::Accessibility& accessibility() override { return sim_.accessibility(); }
  platform::Input& input() override { return rationed; }
  platform::Workspace& workspace() override { return sim_.workspace(); }
  platform::Pasteboard& pasteboard() override { return sim_.pasteboard(); }
  platform::Screen& screen() override { return sim_.screen(); }
  platform::Session& session() override { return sim_.session(); }
  platform::OverlayPainter& overlay() override { return sim_.overlay(); }
  platform::Clock& clock() override { return sim_.clock(); }
  platform::RunLoop& mainLoop() override { return sim_.mainLoop(); }

  RationedInput rationed;

 private:
  platform::Platform& sim_;
};

TEST(InputOperations, AnEventThatCannotBeMadeEndsTheOperationWhereItStands) {
  const std::tuple<const char*, JSONValue::Object, int> cases[] = {
      {"click", {{"x", 1}, {"y", 2}, {"count", 2}}, 2},  // the button stays down
      {"key", {{"key", "cmd+shift+4"}}, 2},              // both modifiers stay down
  };
  for (const auto& [operation, params, allowed] : cases) {
    SCOPED_TRACE(operation);
    ActionSim sim(desktop());
    RationedPlatform rationed(sim.platform);
    rationed.rationed.allowed = allowed;
    MirrorHost host{&rationed, ""};
    OperationTable table;
    addInputOperations(table, host);
    try {
      (*table.find(operation))(JSONValue(params));
      ADD_FAILURE() << "no failure";
    } catch (const core::GlimmerstrandError& e) {
      EXPECT_EQ(e.code(), "native");
      EXPECT_EQ(e.message(), "入力イベントを作れませんでした");
    }
    EXPECT_EQ(sim.desktop().posted().size(), static_cast<std::size_t>(allowed));
  }
}

}  // namespace
}  // namespace glimmerstrand::native::testing
