// The inside of a simulated desktop, shared by its services (accessibility,
// workspace, input, screen, ...). Not for use outside platform/sim.
//
// One lock guards all of it. Functions marked "lock held" expect the caller to
// hold `lock`; they never sleep. Effects of actions that may sleep (hangMs)
// come back as follow-ups, which runEffects runs with the lock released.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <unordered_map>
#include <vector>

#include "platform/sim/sim_desktop.h"

namespace glimmerstrand::platform::sim {

/// The handle of a simulated element. Node 0 stands for the application of
/// `pid` (resolved at each call, so it outlives a relaunch); systemWideNode for
/// the whole desktop.
struct SimElement final : ElementImpl {
  SimElement(const void* desktop, std::int32_t pid, std::uint64_t node) : desktop(desktop), pid(pid), node(node) {}
  std::size_t hash() const override;
  bool equals(const ElementImpl& other) const override;
  std::string describe() const override;

  const void* const desktop;
  const std::int32_t pid;
  const std::uint64_t node;
  /// Seconds a call on this handle may wait; 0 means the desktop's default.
  mutable std::atomic<double> timeoutSeconds = 0;
};

inline constexpr std::uint64_t systemWideNode = ~std::uint64_t{0};

struct Node {
  std::uint64_t id = 0;
  std::int32_t pid = 0;
  std::uint64_t parent = 0;  // the application's node for windows, the menu bar and menus
  std::vector<std::uint64_t> children;
  std::string key;
  std::string role;
  std::unordered_map<std::string, AxValue> attributes;
  std::optional<AxRect> frame;
  std::vector<std::string> actions;
  std::set<std::string> settable;
  std::vector<Effect> onPress, onReturn, onFocus, onSetValue;
  std::set<std::string> failAttributes;
  bool gone = false;
  bool ignoresFocus = false;
  bool ticks = false;
  std::int64_t reads = 0;
  std::shared_ptr<const SimElement> handle;
};

struct App {
  AppSpec spec;  // as loaded, for a relaunch
  bool running = false;
  bool hidden = false;
  bool frozen = false;
  bool terminated = false;
  std::uint64_t node = 0;              // the application element's node
  std::vector<std::uint64_t> windows;  // front to back
  std::uint64_t menuBar = 0;
  std::vector<std::uint64_t> menus;
  std::uint64_t focused = 0;
  std::unordered_map<std::string, std::uint64_t> keys;
  std::set<std::string> refused;
  bool manualAccessibility = false;
  bool enhancedUserInterface = false;
};

class SimObserver final : public Observer {
 public:
  SimObserver(std::int32_t pid, ObserverCallback callback) : pid_(pid), callback(std::move(callback)) {}
  std::int32_t pid() const override { return pid_; }

  const std::int32_t pid_;
  const ObserverCallback callback;
  std::atomic<bool> removed = false;                              // read on the main loop
  std::set<std::pair<std::uint64_t, std::string>> registrations;  // lock held
};

/// Effects to run once the lock is released.
struct FollowUp {
  std::int32_t pid = 0;
  std::uint64_t node = 0;
  std::vector<Effect> effects;
};

struct SimDesktop::State {
  State(const DesktopSpec& spec, Clock& clock, RunLoop& loop);

  Clock& clock;
  RunLoop& loop;

  std::mutex lock;  // guards everything below
  std::map<std::int32_t, App> apps;
  std::vector<std::int32_t> launchOrder;  // running applications, in the order they started
  std::unordered_map<std::uint64_t, Node> nodes;
  std::uint64_t nextNode = 1;
  std::int32_t frontmost = 0;
  std::vector<std::weak_ptr<SimObserver>> observers;
  std::vector<std::function<void(const RunningApplication&)>> activationCallbacks;
  std::vector<DisplaySpec> displays;
  bool trusted = true;
  bool screenRecording = true;
  bool screenLocked = false;
  double defaultTimeoutSeconds = 6;
  std::vector<std::string> openedURLs;
  std::vector<std::string> applicationDirectories;
  std::vector<Posted> posted;  // every input event, in order
  AxPoint pointer{0, 0};
  std::optional<std::string> pasteboardText;
  std::vector<std::uint8_t> pasteboardImage;
  std::int64_t pasteboardChanges = 0;

  // Everything below: lock held.
  App* runningApp(std::int32_t pid);
  Node* node(std::uint64_t id);
  Element handle(const Node& node) const { return Element(node.handle); }
  Element appHandle(std::int32_t pid) const;
  /// The node of `key` in a running application.
  Node* keyed(std::int32_t pid, const std::string& key);

  struct Target {
    App* app = nullptr;
    Node* node = nullptr;
    const SimElement* handle = nullptr;
  };
  /// The live application and node behind a handle, or why there is none.
  AxError resolve(const Element& element, Target& target);
  /// How long a call through this handle hangs when the application is frozen;
  /// 0 when it is not.
  std::int64_t frozenWaitNs(const Target& target) const;

  AxValue read(App& app, Node& node, std::string_view name);
  AxList childrenOf(const App& app, const Node& node) const;
  std::vector<std::string> namesOf(const App& app, const Node& node) const;
  bool editable(const Node& node) const;

  void start(AppSpec spec);  // by value: a relaunch passes the description of the entry it resets
  std::uint64_t build(App& app, const ElementSpec& spec, std::uint64_t parent);
  void erase(App& app, std::uint64_t id);

  /// Posts `notification` about `node` to every observer that asked for it.
  void notify(const App& app, const Node& node, const std::string& notification);
  /// Sets one attribute with the notification it brings; follow-ups get the
  /// effects of a focus that moved.
  void setAttribute(App& app, Node& node, const std::string& name, const AxValue& value,
                    std::vector<FollowUp>& followUps);
  void focusNode(App& app, Node* node, std::vector<FollowUp>& followUps);
  void addChildren(App& app, Node& parent, const std::vector<ElementSpec>& elements);
  void removeNode(App& app, std::uint64_t id);
  void replaceFrontWindow(App& app, const ElementSpec& window);
  void raiseWindow(App& app, std::uint64_t window);
  void quit(App& app);
  void activate(App& app);
  RunningApplication record(const App& app) const;
  /// One effect other than hangMs.
  void apply(App& app, std::uint64_t self, const Effect& effect, std::vector<FollowUp>& followUps);
  /// The deepest element under a point, front to back.
  Node* hit(double x, double y, std::int32_t onlyPid = 0);

  /// Runs effects in order, sleeping for hangMs with the lock released.
  /// REQUIRES: lock not held.
  void runEffects(const FollowUp& work);

  /// Runs `task` once `ms` have passed on the clock, at once for 0: what an
  /// application does a while after it was asked, such as finishing a launch.
  /// The task takes the lock itself. A task due after the desktop has gone
  /// is dropped. REQUIRES: lock not held.
  void later(std::int64_t ms, std::function<void(State&)> task);

  /// The worker of later().
  std::unique_ptr<SerialQueue> laterQueue;
  /// Expires with the state, so that a late task knows it is too late.
  std::shared_ptr<State*> self = std::make_shared<State*>(this);
};

// The services over one state, each in its own file.
std::unique_ptr<Accessibility> makeAccessibility(SimDesktop::State& state);
std::unique_ptr<Workspace> makeWorkspace(SimDesktop::State& state);
std::unique_ptr<Input> makeInput(SimDesktop::State& state);
std::unique_ptr<Pasteboard> makePasteboard(SimDesktop::State& state);
std::unique_ptr<Screen> makeScreen(SimDesktop::State& state);
std::unique_ptr<Session> makeSession(SimDesktop::State& state);
std::unique_ptr<OverlayPainter> makeOverlay(SimDesktop::State& state);

}  // namespace glimmerstrand::platform::sim
