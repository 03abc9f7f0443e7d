// A mirror over a simulated desktop on a driven clock, for deterministic
// tests of walks, scheduling and snapshots; an accessibility wrapper that
// counts what the mirror asks of the application; the element helpers every
// native test builds its desktop with.
#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "mirror/app_mirror.h"
#include "mirror/mirrors.h"
#include "platform/sim/driven_clock.h"
#include "platform/sim/sim_platform.h"

namespace glimmerstrand::native::testing {

using platform::sim::element;
using platform::sim::ElementSpec;

constexpr std::int64_t ms = 1'000'000;
/// The process of labDesktop's application.
constexpr std::int32_t labPid = 700;

class CountingAccessibility final : public platform::AccessibilityWrapper {
 public:
  CountingAccessibility(platform::Accessibility& target, platform::Clock& clock)
      : AccessibilityWrapper(target), clock_(clock) {}

  platform::AxResult<std::vector<platform::AxValue>> copyMultiple(const Element& element,
                                                                  const std::vector<std::string>& names) override {
    ++multipleReads;
    return target_.copyMultiple(element, names);
  }
  platform::AxError set(const Element& element, std::string_view name, const platform::AxValue& value) override {
    {
      std::lock_guard guard(lock_);
      sets.emplace_back(std::string(name), clock_.nowNs());
    }
    return target_.set(element, name, value);
  }
  std::vector<std::int64_t> setTimes(const std::string& name) {
    std::lock_guard guard(lock_);
    std::vector<std::int64_t> times;
    for (const auto& [set, at] : sets)
      if (set == name) times.push_back(at);
    return times;
  }

  std::atomic<std::int64_t> multipleReads = 0;

 private:
  platform::Clock& clock_;
  std::mutex lock_;  // guards sets
  std::vector<std::pair<std::string, std::int64_t>> sets;
};

/// An element whose identifier is its key, so that snapshot nodes name it.
inline ElementSpec keyed(std::string role, std::string key) {
  return element(std::move(role)).withKey(key).identifier(key);
}
inline ElementSpec keyed(std::string role, std::string key, double x, double y, double width, double height) {
  return keyed(std::move(role), std::move(key)).withFrame(x, y, width, height);
}

inline platform::sim::AppSpec appWith(std::int32_t pid, std::string name, std::vector<ElementSpec> windows) {
  platform::sim::AppSpec app;
  app.pid = pid;
  app.bundleId = "com.example." + name;
  app.name = std::move(name);
  app.windows = std::move(windows);
  return app;
}
inline platform::sim::AppSpec appWith(std::int32_t pid, std::vector<ElementSpec> windows) {
  return appWith(pid, "app" + std::to_string(pid), std::move(windows));
}

/// `Wrapper` stands between the mirrors and the simulated accessibility; it
/// is made from that and the clock.
template <typename Wrapper = CountingAccessibility>
struct MirrorSimWith {
  explicit MirrorSimWith(const platform::sim::DesktopSpec& spec) : platform(spec, clock, clock.mainLoop()) {}
  /// Lets every walk finish before the desktop and the clock go.
  ~MirrorSimWith() { clock.runUntilIdle(); }

  platform::sim::SimDesktop& desktop() { return platform.desktop(); }
  Element element(const std::string& key, std::int32_t pid = labPid) { return desktop().element(pid, key); }

  /// A mirror whose first walks are done.
  std::shared_ptr<AppMirror> settled(std::int32_t pid = labPid) {
    auto mirror = mirrors.mirror(pid);
    clock.runUntilIdle();
    return mirror;
  }
  /// Delivers what the desktop posted, and starts what that schedules.
  void deliver() { clock.advance(0); }

  MirrorSnapshot fresh(AppMirror& mirror, std::optional<std::int64_t> maxAgeMs = std::nullopt) {
    SnapshotRequest request;
    request.fresh = true;
    request.all = true;
    request.maxAgeMs = maxAgeMs;
    return mirror.snapshot(request);
  }
  MirrorSnapshot plain(AppMirror& mirror) {
    SnapshotRequest request;
    request.all = true;
    return mirror.snapshot(request);
  }

  platform::sim::DrivenClock clock;
  platform::sim::SimPlatform platform;
  Wrapper ax{platform.accessibility(), clock};
  Mirrors mirrors{MirrorEnvironment{ax, clock}, platform.workspace()};
};
using MirrorSim = MirrorSimWith<>;

/// The node with this identifier; nullptr when the copy has none.
inline const core::AxNode* findNode(const MirrorSnapshot& snapshot, const std::string& identifier) {
  if (snapshot.unchanged) return nullptr;
  for (const auto& node : snapshot.nodes.vector())
    if (node.identifier == identifier) return &node;
  return nullptr;
}

/// Identifier to uid over a whole copy.
inline std::map<std::string, std::int64_t> uidsByIdentifier(const MirrorSnapshot& snapshot) {
  std::map<std::string, std::int64_t> out;
  for (const auto& node : snapshot.nodes.vector())
    if (node.identifier && node.uid) out[*node.identifier] = *node.uid;
  return out;
}

/// Every node's index is its position and its parent is one level up.
inline bool consistent(const std::vector<core::AxNode>& nodes) {
  for (std::size_t n = 0; n < nodes.size(); ++n) {
    if (nodes[n].i != static_cast<std::int64_t>(n)) return false;
    if (nodes[n].parent >= 0 && nodes[static_cast<std::size_t>(nodes[n].parent)].depth != nodes[n].depth - 1)
      return false;
  }
  return true;
}

// The application most mirror tests watch: a window with a toolbar, a list
// of ten rows, a footer with a status text, and a group of 150 buttons.

inline platform::sim::DesktopSpec labDesktop(bool ticking = false) {
  auto tools = keyed("AXGroup", "tools", 0, 0, 800, 40)
                   .child(keyed("AXButton", "go", 10, 5, 60, 30).title("Go"))
                   .child(keyed("AXTextField", "field", 100, 5, 200, 30).withSettable({"AXValue", "AXFocused"}));
  auto list = keyed("AXList", "list", 0, 50, 800, 300);
  for (int i = 1; i <= 10; ++i)
    list.child(
        keyed("AXRow", "row" + std::to_string(i), 0, 50 + i * 20.0, 800, 20)
            .child(element("AXStaticText").value("Row " + std::to_string(i)).withFrame(0, 50 + i * 20.0, 800, 20)));
  auto footer = keyed("AXGroup", "footer", 0, 560, 800, 40)
                    .child(keyed("AXStaticText", "status", 10, 565, 200, 30).value("idle"));
  if (ticking) footer.child(keyed("AXStaticText", "clock", 300, 565, 100, 30).markTicking());
  auto many = keyed("AXGroup", "many", 0, 360, 800, 190);
  for (int i = 0; i < 150; ++i)
    many.child(keyed("AXButton", "b" + std::to_string(i), (i % 15) * 50.0, 360 + (i / 15) * 19.0, 50, 19)
                   .title("b" + std::to_string(i)));
  auto window =
      keyed("AXWindow", "window", 0, 0, 800, 600).title("Lab").child(tools).child(list).child(footer).child(many);
  window.child(element("AXSplitter").withFrame(0, 355, 800, 5));  // nothing to call it by: not labeled
  return platform::sim::DesktopSpec{{}, {appWith(labPid, {window})}};
}

}  // namespace glimmerstrand::native::testing
