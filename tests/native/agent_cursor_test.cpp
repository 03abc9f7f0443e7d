// The agent's cursor logic over a recording painter and a run loop driven by
// hand: colours, eviction, fades and pulses.
#include "native/agent_cursor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <queue>

#include "native/session_context.h"
#include "platform/sim/recording_painter.h"

namespace glimmerstrand::native {
namespace {

using std::chrono::milliseconds;

// A main loop whose time moves only when the test says so. Single-threaded:
// tasks run on the test's thread inside advance().
class ManualLoop final : public platform::RunLoop {
 public:
  void post(Task task) override { postAfter(std::chrono::nanoseconds(0), std::move(task)); }
  void postAfter(std::chrono::nanoseconds delay, Task task) override {
    tasks_.push(Timed{now_ + delay, order_++, std::move(task)});
  }
  void run() override {}
  void stop() override {}

  /// Runs everything due within the next `span`, in time order.
  void advance(milliseconds span) {
    const auto end = now_ + span;
    while (!tasks_.empty() && tasks_.top().due <= end) {
      Timed next = tasks_.top();
      tasks_.pop();
      now_ = std::max(now_, next.due);
      next.task();
    }
    now_ = end;
  }

 private:
  struct Timed {
    std::chrono::nanoseconds due;
    std::uint64_t order;
    Task task;
    bool operator>(const Timed& other) const { return due != other.due ? due > other.due : order > other.order; }
  };
  std::chrono::nanoseconds now_{0};
  std::uint64_t order_ = 0;
  std::priority_queue<Timed, std::vector<Timed>, std::greater<>> tasks_;
};

struct Cursor {
  platform::sim::RecordingPainter painter;
  ManualLoop loop;
  AgentCursor cursor{painter, loop, true};

  void show(const std::string& session, double x, double y, bool click = false) {
    SessionScope scope(session);
    cursor.showPointer(x, y, click);
    loop.advance(milliseconds(0));
  }
  const AgentCursor::Pointer& pointer(const std::string& session) { return *cursor.pointers().at(session); }
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

const milliseconds hideAfter{1600 + 400};

TEST(AgentCursor, SessionsTakeTheFirstFreeColourInPaletteOrder) {
  Cursor c;
  const auto& palette = AgentCursor::palette();
  for (int n = 0; n < 7; ++n) c.show("s" + std::to_string(n), 10, 10);
  for (int n = 0; n < 6; ++n)
    EXPECT_EQ(c.pointer("s" + std::to_string(n)).colour, palette[static_cast<std::size_t>(n)]);
  // With all six taken: the palette at the number of sessions, modulo six.
  EXPECT_EQ(c.pointer("s6").colour, palette[0]);

  c.loop.advance(hideAfter);
  c.show("s7", 10, 10);
  c.show("s8", 10, 10);  // the ninth: s0, the oldest hidden, goes
  EXPECT_FALSE(c.cursor.pointers().count("s0"));
  // s6 still holds the first colour: all six are taken, and seven sessions remain.
  EXPECT_EQ(c.pointer("s8").colour, palette[1]);
}

TEST(AgentCursor, ANinthSessionEvictsTheOldestHiddenPointerOrNone) {
  Cursor c;
  for (int n = 0; n < 8; ++n) c.show("s" + std::to_string(n), 10, 10);
  c.loop.advance(hideAfter);
  c.show("s0", 20, 20);  // visible again: not to be evicted
  auto panelOfS1 = c.pointer("s1").panel;
  c.calls();
  c.show("ninth", 30, 30);
  EXPECT_FALSE(c.cursor.pointers().count("s1"));
  EXPECT_TRUE(c.cursor.pointers().count("s0"));
  EXPECT_EQ(c.calls().front(), "close " + std::to_string(panelOfS1));
  EXPECT_TRUE(c.painter.panel(panelOfS1)->closed);

  Cursor all;
  for (int n = 0; n < 9; ++n) all.show("s" + std::to_string(n), 10, 10);
  EXPECT_EQ(all.cursor.pointers().size(), 9u);
}

TEST(AgentCursor, AMoveDuringTheFadeKeepsThePointer) {
  Cursor c;
  c.show("a", 100, 100);
  auto panel = c.pointer("a").panel;
  EXPECT_EQ(c.calls(), (std::vector<std::string>{"create " + std::to_string(panel) + " 56x56 0x007aff",
                                                 "move " + std::to_string(panel) + " (80, 80) 0",
                                                 "alpha " + std::to_string(panel) + " 1 120"}));
  c.loop.advance(milliseconds(1600));
  EXPECT_EQ(c.calls(), (std::vector<std::string>{"alpha " + std::to_string(panel) + " 0 400"}));
  c.loop.advance(milliseconds(100));
  c.show("a", 200, 150);  // during the fade: the pointer still counts as visible, so it glides
  EXPECT_EQ(c.calls(), (std::vector<std::string>{"move " + std::to_string(panel) + " (180, 130) 180",
                                                 "alpha " + std::to_string(panel) + " 1 180"}));
  c.loop.advance(milliseconds(300));  // the first fade's end
  EXPECT_TRUE(c.pointer("a").visible);
  c.loop.advance(hideAfter);
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
  c.loop.advance(milliseconds(179));
  EXPECT_TRUE(c.calls().empty());
  c.loop.advance(milliseconds(1));
  EXPECT_EQ(c.calls(), (std::vector<std::string>{"pulse " + panel + " 0.3 350"}));
}

TEST(AgentCursor, DisabledOrNonFinitePointsDrawNothing) {
  platform::sim::RecordingPainter painter;
  ManualLoop loop;
  AgentCursor off(painter, loop, false);
  off.showPointer(10, 10, true);
  AgentCursor on(painter, loop, true);
  on.showPointer(std::nan(""), 10, false);
  loop.advance(milliseconds(0));
  EXPECT_TRUE(painter.calls().empty());
}

}  // namespace
}  // namespace glimmerstrand::native
