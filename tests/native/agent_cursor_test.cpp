// The agent's cursor logic over a recording painter and a driven clock's main
// loop: colours, eviction, fades and pulses.
#include "native/agent_cursor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "native/session_context.h"
#include "platform/sim/driven_clock.h"
#include "platform/sim/recording_painter.h"

namespace glimmerstrand::native {
namespace {

constexpr std::int64_t ms = 1'000'000;

struct Cursor {
  platform::sim::RecordingPainter painter;
  platform::sim::DrivenClock clock;
  AgentCursor cursor{painter, clock.mainLoop(), true};

  ~Cursor() { clock.runUntilIdle(); }
  void show(const std::string& session, double x, double y, bool click = false) {
    SessionScope scope(session);
    cursor.showPointer(x, y, click);
    clock.advance(0);
  }
  const AgentCursor::Pointer& pointer(const std::string& session) { return *cursor.pointers().at(session); }
  bool has(const std::string& session) { return cursor.pointers().count(session) != 0; }
  /// Calls to the painter since the last look.
  std::vector<std::string> calls() {
    auto all = painter.calls();
    std::vector<std::string> fresh(all.begin() + static_cast<std::ptrdiff_t>(seen_), all.end());
    seen_ = all.size();
    return fresh;
  }

 private:
  std::size_t seen_ = 0;
};

constexpr std::int64_t hideAfter = (1600 + 400) * ms;

TEST(AgentCursor, SessionsTakeTheFirstFreeColourAndANinthEvictsTheOldestHidden) {
  Cursor c;
  const auto& palette = AgentCursor::palette();
  for (int n = 0; n < 7; ++n) c.show("s" + std::to_string(n), 10, 10);
  for (int n = 0; n < 6; ++n)
    EXPECT_EQ(c.pointer("s" + std::to_string(n)).colour, palette[static_cast<std::size_t>(n)]);
  // With all six taken: the palette at the number of sessions, modulo six.
  EXPECT_EQ(c.pointer("s6").colour, palette[0]);

  c.clock.advance(hideAfter);
  c.show("s0", 20, 20);  // visible again: not to be evicted
  c.show("s7", 10, 10);
  const auto panelOfS1 = c.pointer("s1").panel;
  c.show("s8", 10, 10);  // the ninth: s1, the oldest hidden, goes
  EXPECT_FALSE(c.has("s1"));
  EXPECT_TRUE(c.has("s0"));
  EXPECT_TRUE(c.painter.panel(panelOfS1)->closed);
  // All six are still taken, and seven sessions remain: the palette at seven, modulo six.
  EXPECT_EQ(c.pointer("s8").colour, palette[1]);
}

TEST(AgentCursor, AMoveDuringTheFadeKeepsThePointer) {
  Cursor c;
  c.show("a", 100, 100);
  auto panel = c.pointer("a").panel;
  EXPECT_EQ(c.calls(), (std::vector<std::string>{"create " + std::to_string(panel) + " 56x56 0x007aff",
                                                 "move " + std::to_string(panel) + " (80, 80) 0",
                                                 "alpha " + std::to_string(panel) + " 1 120"}));
  c.clock.advance(1600 * ms);
  EXPECT_EQ(c.calls(), (std::vector<std::string>{"alpha " + std::to_string(panel) + " 0 400"}));
  c.clock.advance(100 * ms);
  c.show("a", 200, 150);  // during the fade: the pointer still counts as visible, so it glides
  EXPECT_EQ(c.calls(), (std::vector<std::string>{"move " + std::to_string(panel) + " (180, 130) 180",
                                                 "alpha " + std::to_string(panel) + " 1 180"}));
  c.clock.advance(300 * ms);  // the first fade's end
  EXPECT_TRUE(c.pointer("a").visible);
  c.clock.advance(hideAfter);
  EXPECT_FALSE(c.pointer("a").visible);
}

TEST(AgentCursor, AClickPulsesAtOnceWhenHiddenAndAfterTheGlideWhenVisible) {
  Cursor c;
  c.show("a", 100, 100, true);
  auto panel = std::to_string(c.pointer("a").panel);
  EXPECT_EQ(c.calls().back(), "pulse " + panel + " 0.3 350");
  c.show("a", 300, 100, true);
  auto calls = c.calls();
  EXPECT_TRUE(std::none_of(calls.begin(), calls.end(), [](auto& call) { return call.rfind("pulse", 0) == 0; }));
  c.clock.advance(179 * ms);
  EXPECT_TRUE(c.calls().empty());
  c.clock.advance(1 * ms);
  EXPECT_EQ(c.calls(), (std::vector<std::string>{"pulse " + panel + " 0.3 350"}));
}

TEST(AgentCursor, DisabledOrNonFinitePointsDrawNothing) {
  Cursor c;
  AgentCursor off(c.painter, c.clock.mainLoop(), false);
  off.showPointer(10, 10, true);
  c.show("a", std::nan(""), 10);
  EXPECT_TRUE(c.painter.calls().empty());
}

}  // namespace
}  // namespace glimmerstrand::native
