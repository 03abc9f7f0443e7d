// AppMirror: the live copy of one application's accessibility tree, and the
// reason a read costs milliseconds. Every read is served from the copy; the
// application is touched only by walks on the mirror's own serial queue,
// which its notifications schedule: a full walk of the focused window (and
// open context menus), or a partial walk into the few subtrees that changed.
//
// Threads and locks:
// - `walkQueue_` (serial, one per mirror) runs every walk and commit, and
//   every other call into the application (setup, registration), so a hung
//   application holds up its own queue and nothing else. It alone writes
//   `current_`, `indexOf_`, `uids_` and `nodes_`, and reads them without the
//   lock; other threads read them under `state_`.
// - A walk whose first element does not answer is not committed: the copy
//   stays as it was and reads show it `dirty` until a walk gets an answer.
// - The main run loop runs observer callbacks (handleNotification), which only
//   mark state and wake the walk queue.
// - Callers (line operations, the driver) wait on `state_` in snapshot and
//   waitSettle.
// - `state_` guards the scheduling and copy fields below; it is never held
//   across a call into the application. `registration_` guards the observer
//   and the unregistered names; when both are taken, `state_` comes first.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "core/records.h"
#include "platform/accessibility.h"
#include "platform/clock.h"

namespace glimmerstrand::native {

using platform::Element;

/// Immutable node and element lists, shared between the mirror and every
/// snapshot taken of one commit: a copy out of a mirror costs a reference.
using NodeList = std::shared_ptr<const std::vector<core::AxNode>>;
using ElementList = std::shared_ptr<const std::vector<Element>>;

enum class DirtyKind { attributes, focus, subtree, destroyed };

/// What a notification marks for the next walk.
struct DirtyTarget {
  Element element;
  DirtyKind kind = DirtyKind::attributes;
};

struct WalkResult {
  std::vector<core::AxNode> nodes;
  std::vector<Element> elements;  // same length and order as nodes, each element once
  /// The copy leaves out part of the tree: where the node budget ran out,
  /// below the depth limit, a text longer than platform::maxTextBytes, or a
  /// subtree that did not answer within the messaging timeout.
  bool truncated = false;
  /// The node budget ran out: only a full walk can complete such a copy.
  bool overBudget = false;
  std::int64_t incomplete = 0;  // elements that could not be read
  /// The application did not answer within its messaging timeout, at the
  /// first element or when asked again after a subtree did not answer: it is
  /// hung, and the result says nothing about its tree.
  bool unanswered = false;
};

struct PartialWalkResult {
  WalkResult walk;                   // never truncated
  std::vector<DirtyTarget> targets;  // what this walk refreshed
  std::int64_t touched = 0;          // nodes read
};

/// A clip rectangle on its way down a walk: unset, a rectangle, or the null
/// rectangle two disjoint clips make.
struct Clip {
  bool set = false;
  std::optional<core::Rect> rect;  // absent when set: the null rectangle
};

// --- Full walks: plain functions of the accessibility interface. ---

/// How many subtrees that do not answer one walk passes by before it stops.
inline constexpr std::int64_t maxSilentSubtrees = 4;

/// The 20 attributes a walk reads in one call per element, children last.
const std::vector<std::string>& walkAttributes();
/// The same without AXChildren: a refresh of one node.
const std::vector<std::string>& refreshAttributes();

/// A text or number as cleaned text: directional marks gone, white space
/// trimmed, at most `limit` characters and then "…". Absent when empty.
std::optional<std::string> cleanText(const platform::AxValue& value, std::size_t limit);
/// "shift+cmd+n" from a menu item's key and modifier bits.
std::optional<std::string> shortcutText(const platform::AxValue& key, const platform::AxValue& modifiers);
/// Whether a backend cut any text of these values (see platform::maxTextBytes).
bool anyTextCut(const std::vector<platform::AxValue>& values);
/// A node from the 19 or 20 values of walkAttributes, in that order.
core::AxNode buildNode(const std::vector<platform::AxValue>& values);
/// Has a frame and something to call it by.
bool isLabeled(const core::AxNode& node);
/// Hash of the visible texts of a copy, compared between walks.
std::uint64_t treeSignature(const std::vector<core::AxNode>& nodes);

/// Where a walk of `scope` ("window", "app", "menubar") starts.
Element rootElement(platform::Accessibility& ax, const Element& app, std::string_view scope);
/// What a walk reads of the menus of a menu bar: a window's copy holds a
/// menu's items only while it is open, as the application's menu bar is
/// read for its items on its own, and on demand.
enum class MenuContents { whenOpen, all };
/// Depth first, pre-order, from one element. `expectedNodes` (what the last
/// walk found, say) sizes the result up front: a walk of 10,000 nodes
/// otherwise spends a fifth of its time moving what it has already read.
/// A subtree that does not answer is left out, and the walk goes on while
/// the application still answers, past at most maxSilentSubtrees of them.
WalkResult walkElement(platform::Accessibility& ax, const Element& element, std::int64_t depth, std::int64_t maxDepth,
                       std::int64_t maxNodes, std::size_t expectedNodes = 0,
                       MenuContents menus = MenuContents::whenOpen);
/// From the root of `scope`; with "window", open context menus follow.
WalkResult walkTree(platform::Accessibility& ax, const Element& app, std::string_view scope, std::int64_t maxDepth,
                    std::int64_t maxNodes, std::size_t expectedNodes = 0);
/// The children within one clip height of the visible band, [first, end).
std::pair<std::size_t, std::size_t> visibleChildRange(platform::Accessibility& ax, const std::vector<Element>& children,
                                                      const core::Rect& clip);
/// The clip a full walk would have given this element's children.
Clip inheritedClip(platform::Accessibility& ax, const Element& element);

// --- Splicing subtrees back into a copy. ---

struct SubtreeRange {
  std::size_t start = 0;
  std::size_t end = 0;  // one past the subtree's last node
  bool operator==(const SubtreeRange&) const = default;
};

/// Sorted, disjoint ranges of the subtrees of `indices`; nested ones vanish.
std::vector<SubtreeRange> subtreeRanges(const std::vector<core::AxNode>& nodes, std::vector<std::int64_t> indices);
/// The old lists with each range replaced by its walk, in order.
WalkResult spliceSubtrees(std::vector<core::AxNode> nodes, const std::vector<Element>& elements,
                          const std::vector<SubtreeRange>& ranges, std::vector<WalkResult> walks);
/// Restores `i` and `parent` from `depth` alone.
void renumberNodes(std::vector<core::AxNode>& nodes);
/// Removes every later appearance of an element, with its subtree, and
/// renumbers what is left.
void dropRepeats(WalkResult& walk);

// --- The mirror. ---

struct MirrorEnvironment {
  platform::Accessibility& accessibility;
  platform::Clock& clock;
};

struct SnapshotRequest {
  bool fresh = false;
  std::optional<std::int64_t> ifGeneration;
  std::int64_t timeoutMs = 2000;
  bool all = false;
  std::optional<std::int64_t> maxAgeMs;
};

/// A copy out of a mirror: the snapshot core reads, as it is (the caller
/// fills in `app` and `elapsedMs`, which the mirror does not know), and the
/// walk counts that only the line protocol reports.
struct MirrorSnapshot : core::AxSnapshot {
  std::int64_t fullWalks = 0;
  std::int64_t partialWalks = 0;
  std::int64_t partialNodes = 0;
  std::string lastWalk = "full";
  std::int64_t unregisteredNotifications = 0;
  /// The caller's ifGeneration matched: `nodes` is left empty, the caller's
  /// own copy of that generation stands.
  bool unchanged = false;
  bool operator==(const MirrorSnapshot&) const = default;
};

class AppMirror : public std::enable_shared_from_this<AppMirror> {
 public:
  static constexpr std::int64_t maxDepth = 64;
  static constexpr std::int64_t maxNodes = 10000;
  static constexpr std::size_t maxDirtySubtrees = 16;
  static constexpr std::size_t maxPendingDirty = 128;
  static constexpr std::int64_t debounceNs = 15'000'000;
  /// The longest a stream of notifications without a pause holds a walk off.
  static constexpr std::int64_t maxDebounceNs = 100'000'000;
  static constexpr std::int64_t trailingDelayMs = 50;
  /// When trailing walks end sooner than this after the application's last
  /// notification, one more look at the whole window comes then: what it
  /// finishes without
  /// telling (a browser showing the tab left after one closed) shows by then,
  /// however soon a read took its own look. The copy does not count as dirty
  /// while that look waits.
  static constexpr std::int64_t lateLookMs = 500;
  /// How long a settle waits for a page that began to load.
  static constexpr std::int64_t maxLoadMs = 5000;
  static constexpr std::int64_t keepNs = 10'000'000'000;
  static constexpr std::int64_t outsideIndex = INT64_MIN;
  static constexpr std::int64_t goneIndex = INT64_MIN + 1;

  /// Sets the messaging timeout on the application element (`application`,
  /// or the platform's for `pid` when null); calls nothing in the
  /// application, so it is cheap even for a hung one. start() begins.
  static std::shared_ptr<AppMirror> create(std::int32_t pid, MirrorEnvironment environment,
                                           Element application = Element());
  /// Queues, on the walk queue, AXManualAccessibility, the registration of
  /// notifications and the first walk. Returns at once.
  void start();
  ~AppMirror();
  AppMirror(const AppMirror&) = delete;
  AppMirror& operator=(const AppMirror&) = delete;

  std::int32_t pid() const { return pid_; }
  /// The application element the mirror reads.
  const Element& application() const { return app_; }
  /// Called once, on the walk queue, when a walk finds the application
  /// element gone: the application has left. Set before start().
  void onGone(std::function<void(AppMirror&)> callback) { onGone_ = std::move(callback); }
  /// A walk found the application gone.
  bool gone();

  // Notifications and scheduling.
  /// True when at least one name was registered now or before. Calls the
  /// application; runs on the walk queue.
  bool registerNotifications();
  /// Queues registerNotifications on the walk queue, at most every 500 ms
  /// while names are missing; returns at once.
  void retryRegistration();
  /// The body of the observer callback, on the main run loop.
  void handleNotification(const Element& element, const std::string& name);
  void scheduleWalk();
  void requestFullWalk();
  /// A full walk that may skip the minimum gap between walks.
  void requestUrgentWalk();

  // Reads.
  /// The copy when it is good enough or the deadline passed; never fails.
  MirrorSnapshot snapshot(const SnapshotRequest& request);
  /// Waits for notifications after `since` and then for `quietMs` without one.
  core::SettleResult waitSettle(std::optional<std::int64_t> since, std::int64_t quietMs, std::int64_t firstMs,
                                std::int64_t timeoutMs);
  std::int64_t notificationCount();
  /// False while the last walk got no answer from the application.
  bool answering();
  /// The live element of a uid of the last commit; fails "stale" otherwise.
  Element elementForUid(std::int64_t uid);
  /// The element at index `i` of a generation still kept.
  Element elementForIndex(std::int64_t generation, std::int64_t i);

  /// The figures of the copy for a status listing.
  struct Summary {
    std::int64_t elements = 0;
    double walkMs = 0;
    std::optional<double> ageMs;  // absent until a walk has ended
    std::int64_t generation = 0;
  };
  Summary summary();

  /// For Mirrors: least recently used goes first.
  std::int64_t lastUsedAt() const { return lastUsedAt_.load(); }
  void touch(std::int64_t now) { lastUsedAt_ = now; }
  /// Eviction: no notification reaches this mirror afterwards.
  void detach();

 private:
  AppMirror(std::int32_t pid, MirrorEnvironment environment, Element application);

  using ElementIndex = std::unordered_map<Element, std::int64_t, platform::ElementHash>;
  using ElementSet = std::unordered_set<Element, platform::ElementHash>;

  /// A walk on its way into the copy.
  struct PendingCommit {
    WalkResult walk;
    bool partial = false;
    std::vector<DirtyTarget> targets;
    std::int64_t touched = 0;
    std::int64_t startedAt = 0;  // for walkMs: after any wait for the gap
    std::int64_t endedAt = 0;
    // Made outside the lock by prepareCommit.
    NodeList nodes;
    NodeList labeled;  // the replaced one, freed outside the lock
    ElementIndex uids;
    std::unordered_map<std::int64_t, Element> uidElements;
    std::uint64_t signature = 0;
  };
  void walkLoop();
  std::optional<PartialWalkResult> partialWalk(const std::vector<DirtyTarget>& targets, bool trailing);
  /// The index of the nearest ancestor in the copy, outsideIndex when the
  /// climb leaves the tree, goneIndex when an element on the way is gone,
  /// absent when a parent cannot be read.
  std::optional<std::int64_t> findKnownAncestor(const Element& element, ElementIndex& memo, ElementSet& outside);
  /// Steps of a commit that may call the application; on the walk queue,
  /// without the lock.
  void prepareCommit(PendingCommit& commit);
  /// The rest, with `state_` held; the replaced tables are left in `commit`.
  void finishCommitLocked(PendingCommit& commit);
  /// The labeled nodes of the copy, under `state`.
  NodeList labeledLocked();
  void markDirtyLocked(const std::vector<DirtyTarget>& targets);
  void markFullLocked();
  void trailingWalkDue();
  void lateLookDue();
  /// Marks again what the last walk looked at, for a trailing walk.
  void markTrailingLocked();
  /// Whether the application element itself is gone; calls the application.
  bool applicationGone();
  void retryRegistrationOnQueue();
  void afterDelay(std::int64_t delayMs, void (AppMirror::*step)());
  bool essentialUnregistered();
  std::int64_t unregisteredCount();

  const std::int32_t pid_;
  platform::Accessibility& ax_;
  platform::Clock& clock_;
  const Element app_;
  const std::unique_ptr<platform::SerialQueue> walkQueue_;

  std::mutex stateLock_;  // `state`: guards the fields below, down to `unansweredWalkStartedAt_`
  platform::Signal stateChanged_;
  std::int64_t generation_ = 0;
  NodeList nodes_;
  NodeList labeled_;  // made from nodes_ when first asked for; none until then
  bool truncated_ = false;
  bool overBudget_ = false;  // the last commit's node budget ran out
  bool gone_ = false;        // a walk found the application element gone
  struct KeptElements {
    std::int64_t at = 0;
    ElementList list;
  };
  std::map<std::int64_t, KeptElements> elements_;  // by generation
  std::int64_t walkedAt_ = 0;
  std::int64_t walkStartedAt_ = 0;
  std::int64_t completedWalkStartedAt_ = 0;
  double walkMs_ = 0;
  bool walking_ = false;
  bool walkScheduled_ = false;
  bool urgent_ = false;
  std::int64_t incompleteRetries_ = 0;
  bool trailingPending_ = false;
  bool nextWalkIsTrailing_ = false;
  std::uint64_t signature_ = 0;
  std::int64_t trailingCount_ = 0;
  std::int64_t lateLookFor_ = 0;  // the notification a late look waits to follow; 0: none waits
  std::unordered_map<std::int64_t, Element> uidElements_;
  bool pendingFull_ = false;
  std::vector<DirtyTarget> pendingDirty_;
  std::optional<std::vector<DirtyTarget>> lastTargets_;
  std::int64_t fullWalks_ = 0;
  std::int64_t partialWalks_ = 0;
  std::int64_t partialNodes_ = 0;
  double fullWalkMs_ = 0;
  double partialWalkMs_ = 0;
  std::int64_t notificationCount_ = 0;
  std::int64_t lastNotificationAt_ = 0;       // a walk is wanted of what changed since: notified or asked for
  std::int64_t lastEventAt_ = 0;              // the application's own last notification, for its quiet
  std::optional<std::int64_t> loadingSince_;  // a page began to load and has not finished
  // The last walk got no answer from the application; the start of that
  // walk. Cleared by a commit.
  bool unanswered_ = false;
  std::int64_t unansweredWalkStartedAt_ = 0;

  // Written on the walk queue only (see the top of the file).
  ElementIndex uids_;
  ElementList current_;
  ElementIndex indexOf_;
  std::atomic<std::int64_t> lastNamed_ = 0;  // also read by snapshot, hence atomic
  std::int64_t enhancedAttempts_ = 0;
  bool manualAccessibilitySet_ = false;
  std::int64_t manualAttempts_ = 0;
  std::int64_t enhancedAt_ = 0;

  std::atomic<std::int64_t> lastUsedAt_;
  std::function<void(AppMirror&)> onGone_;  // set before start, then only read

  // `registration`: guards the five fields below. Never held across a call
  // into the application: the walk queue alone registers, so it reads the
  // names under the lock, calls without it, and writes back under it.
  std::mutex registrationLock_;
  std::shared_ptr<platform::Observer> observer_;
  std::set<std::string> unregistered_;
  std::int64_t lastRegisterAttempt_ = 0;
  bool registrationQueued_ = false;  // a retry waits on the walk queue
  bool detached_ = false;            // evicted: registers nothing more
};

/// The process-wide uid counter: first value 1, never reused, shared by all
/// mirrors.
std::int64_t nextUid();

/// The 17 notifications a mirror registers, and the kind each marks (absent:
/// the whole tree).
const std::vector<std::pair<std::string, std::optional<DirtyKind>>>& mirrorNotifications();

}  // namespace glimmerstrand::native
