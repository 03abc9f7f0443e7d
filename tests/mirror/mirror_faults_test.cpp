// What misbehaving applications do to walks and mirrors, on a driven clock:
// huge texts, subtrees that never answer, an application that hangs half-way
// through a walk, elements that move without word, notifications that never
// pause, and applications that leave or come back under a new element.
#include <gtest/gtest.h>

#include <set>

#include "mirror/mirror_sim.h"

namespace glimmerstrand::native {
namespace {

using namespace native::testing;
using platform::AxError;
using platform::AxResult;
using platform::AxValue;
using platform::sim::DesktopSpec;

// Breaks what a test asks: elements that never answer, an application that
// stops answering after some reads, an extra child under an element, and
// another element standing for the application.
class FaultyAccessibility final : public platform::AccessibilityWrapper {
 public:
  FaultyAccessibility(platform::Accessibility& target, platform::Clock&) : AccessibilityWrapper(target) {}

  AxResult<std::vector<AxValue>> copyMultiple(const Element& element, const std::vector<std::string>& names) override {
    if (silenced(element)) return {AxError::cannotComplete, {}};
    auto read = target_.copyMultiple(element, names);
    if (!read.ok()) return read;
    std::lock_guard guard(lock_);
    if (auto extra = extraChildren_.find(element); extra != extraChildren_.end())
      for (std::size_t k = 0; k < names.size(); ++k)
        if (names[k] == "AXChildren")
          if (auto list = read.value[k].get<platform::AxList>()) {
            auto longer = *list;
            longer.emplace_back(extra->second);
            read.value[k] = AxValue(std::move(longer));
          }
    return read;
  }
  AxValue copy(const Element& element, std::string_view name) override {
    if (silenced(element)) return AxError::cannotComplete;
    return target_.copy(element, name);
  }
  Element applicationElement(std::int32_t pid) override {
    std::lock_guard guard(lock_);
    if (auto standIn = standIns_.find(pid); standIn != standIns_.end()) return standIn->second;
    return target_.applicationElement(pid);
  }

  void silence(const Element& element) {
    std::lock_guard guard(lock_);
    silent_.insert(element);
  }
  /// After `reads` more reads, nothing answers.
  void hangAfter(std::int64_t reads) {
    std::lock_guard guard(lock_);
    readsBeforeHang_ = reads;
  }
  void addChild(const Element& parent, const Element& child) {
    std::lock_guard guard(lock_);
    extraChildren_[parent] = child;
  }
  void standIn(std::int32_t pid, const Element& application) {
    std::lock_guard guard(lock_);
    standIns_[pid] = application;
  }

 private:
  bool silenced(const Element& element) {
    std::lock_guard guard(lock_);
    if (readsBeforeHang_ && (*readsBeforeHang_)-- <= 0) return true;
    return silent_.count(element) > 0;
  }

  std::mutex lock_;  // guards everything below
  std::unordered_set<Element, platform::ElementHash> silent_;
  std::optional<std::int64_t> readsBeforeHang_;
  std::unordered_map<Element, Element, platform::ElementHash> extraChildren_;
  std::map<std::int32_t, Element> standIns_;
};

using FaultSim = MirrorSimWith<FaultyAccessibility>;

std::size_t countIdentifier(const MirrorSnapshot& snapshot, const std::string& identifier) {
  return static_cast<std::size_t>(std::count_if(snapshot.nodes.begin(), snapshot.nodes.end(),
                                                [&](const auto& node) { return node.identifier == identifier; }));
}

bool uidsUnique(const MirrorSnapshot& snapshot) {
  std::set<std::int64_t> uids;
  for (const auto& node : snapshot.nodes.vector())
    if (!node.uid || !uids.insert(*node.uid).second) return false;
  return true;
}

TEST(MirrorFaults, TextsCutByTheBackendAreCountedAsCut) {
  EXPECT_EQ(platform::cutText("short"), "short");
  // Three-byte characters: the cut keeps the whole character that reaches past the limit.
  std::string wide;
  while (wide.size() < platform::maxTextBytes + 10) wide += "\u3042";
  const std::string cut = platform::cutText(wide);
  EXPECT_TRUE(platform::textWasCut(cut));
  EXPECT_EQ(cut.size() % 3, 0u);
  EXPECT_LT(cut.size(), platform::maxTextBytes + 4);

  struct Case {
    std::size_t bytes;
    bool expectTruncated;
  };
  for (const auto& c : {Case{platform::maxTextBytes, false}, Case{platform::maxTextBytes + 1, true}}) {
    SCOPED_TRACE(c.bytes);
    auto window = keyed("AXWindow", "window", 0, 0, 100, 100)
                      .child(keyed("AXStaticText", "huge", 0, 0, 100, 20).value(std::string(c.bytes, 'x')));
    FaultSim sim(DesktopSpec{{}, {appWith(labPid, {window})}});
    auto walk = walkTree(sim.ax, sim.ax.applicationElement(labPid), "window", 64, 10000);
    ASSERT_EQ(walk.nodes.size(), 2u);
    EXPECT_EQ(walk.truncated, c.expectTruncated);
    EXPECT_FALSE(walk.overBudget);
    EXPECT_EQ(walk.nodes[1].value, std::string(120, 'x') + "…");
  }
}

TEST(MirrorFaults, ASubtreeThatNeverAnswersIsLeftOutAndTheRestIsCommitted) {
  FaultSim sim(labDesktop());
  sim.ax.silence(sim.element("list"));
  auto mirror = sim.settled();
  auto copy = sim.plain(*mirror);
  EXPECT_GE(copy.generation, 1);
  EXPECT_TRUE(copy.truncated);
  EXPECT_EQ(countIdentifier(copy, "list"), 0u);
  EXPECT_EQ(countIdentifier(copy, "row1"), 0u);
  EXPECT_EQ(countIdentifier(copy, "status"), 1u);
  EXPECT_EQ(countIdentifier(copy, "b149"), 1u);
  EXPECT_TRUE(consistent(copy.nodes.vector()));
}

TEST(MirrorFaults, AWalkPassesByAFewSilentSubtreesAndNoMore) {
  // One silent subtree more than a walk passes by: the walk stops there.
  FaultSim sim(labDesktop());
  for (int i = 0; i <= maxSilentSubtrees; ++i) sim.ax.silence(sim.element("b" + std::to_string(i)));
  auto walk = walkTree(sim.ax, sim.ax.applicationElement(labPid), "window", 64, 10000);
  EXPECT_TRUE(walk.truncated);
  EXPECT_FALSE(walk.unanswered);
  EXPECT_EQ(walk.incomplete, maxSilentSubtrees + 1);
  EXPECT_EQ(std::count_if(walk.nodes.begin(), walk.nodes.end(), [](auto& n) { return n.identifier == "b149"; }), 0);
  EXPECT_EQ(std::count_if(walk.nodes.begin(), walk.nodes.end(), [](auto& n) { return n.identifier == "status"; }), 1);
}

TEST(MirrorFaults, AnApplicationThatHangsHalfWayKeepsItsLastWholeCopy) {
  FaultSim sim(labDesktop());
  auto mirror = sim.settled();
  auto before = sim.plain(*mirror);
  ASSERT_FALSE(before.truncated);
  sim.ax.hangAfter(20);
  mirror->requestFullWalk();
  sim.clock.runUntilIdle();
  auto after = sim.plain(*mirror);
  EXPECT_EQ(after.generation, before.generation);
  EXPECT_EQ(after.nodes.size(), before.nodes.size());
  EXPECT_TRUE(after.dirty);
  EXPECT_FALSE(mirror->answering());
}

TEST(MirrorFaults, AnElementThatMovedWithoutWordIsNeverInTheCopyTwice) {
  FaultSim sim(labDesktop());
  auto mirror = sim.settled();
  // The button moves into the footer, and only the footer says so.
  sim.ax.addChild(sim.element("footer"), sim.element("go"));
  sim.platform.desktop().postNotification(labPid, "footer", "AXLayoutChanged");
  sim.clock.advance(0);
  auto after = sim.fresh(*mirror);
  EXPECT_GE(after.generation, 2);
  EXPECT_EQ(countIdentifier(after, "go"), 1u);
  EXPECT_TRUE(uidsUnique(after));
  EXPECT_TRUE(consistent(after.nodes.vector()));
}

TEST(MirrorFaults, ContextMenusAlsoInsideTheWindowAreInTheCopyOnce) {
  auto menu = keyed("AXMenu", "menu", 0, 0, 50, 50).child(keyed("AXMenuItem", "copy", 0, 0, 50, 20).title("Copy"));
  auto app = appWith(labPid, {keyed("AXWindow", "window", 0, 0, 100, 100).child(keyed("AXButton", "b", 0, 0, 10, 10))});
  app.menus.push_back(menu);
  FaultSim sim(DesktopSpec{{}, {app}});
  sim.ax.addChild(sim.element("window"), sim.element("menu"));
  auto walk = walkTree(sim.ax, sim.ax.applicationElement(labPid), "window", 64, 10000);
  EXPECT_EQ(std::count_if(walk.nodes.begin(), walk.nodes.end(), [](auto& n) { return n.identifier == "menu"; }), 1);
  EXPECT_EQ(std::count_if(walk.nodes.begin(), walk.nodes.end(), [](auto& n) { return n.identifier == "copy"; }), 1);
  EXPECT_EQ(walk.nodes.size(), walk.elements.size());
  EXPECT_TRUE(consistent(walk.nodes));
}

TEST(MirrorFaults, NotificationsThatNeverPauseStillLetWalksThrough) {
  FaultSim sim(labDesktop());
  auto mirror = sim.settled();
  const auto before = sim.plain(*mirror).generation;
  // A notification every 5 ms for a second, closer together than the debounce.
  for (int i = 0; i < 200; ++i) {
    sim.platform.desktop().postNotification(labPid, "b" + std::to_string(i % 150), "AXValueChanged");
    sim.clock.advance(5 * ms);
  }
  EXPECT_GE(sim.plain(*mirror).generation, before + 3);
}

TEST(MirrorFaults, AMirrorGoesWithItsApplication) {
  FaultSim sim(labDesktop());
  auto mirror = sim.settled();
  ASSERT_EQ(sim.mirrors.all().size(), 1u);
  ASSERT_TRUE(sim.platform.workspace().terminate(labPid));
  sim.clock.runUntilIdle();
  EXPECT_TRUE(mirror->gone());
  EXPECT_TRUE(sim.mirrors.all().empty());
  EXPECT_EQ(sim.mirrors.existing(labPid), nullptr);
}

TEST(MirrorFaults, AnApplicationBackUnderANewElementGetsAFreshMirror) {
  auto other = appWith(labPid + 1, {keyed("AXWindow", "again", 0, 0, 100, 100).title("Again")});
  auto spec = labDesktop();
  spec.apps.push_back(other);
  FaultSim sim(spec);
  auto first = sim.settled();
  // The same process, under an element of its own anew.
  sim.ax.standIn(labPid, sim.ax.applicationElement(labPid + 1));
  auto second = sim.mirrors.mirror(labPid);
  sim.clock.runUntilIdle();
  EXPECT_NE(first, second);
  EXPECT_EQ(countIdentifier(sim.plain(*second), "again"), 1u);
  EXPECT_EQ(sim.mirrors.all().size(), 1u);
}

}  // namespace
}  // namespace glimmerstrand::native
