// AppMirror: construction, the commit of a walk, registration of
// notifications, and the reads that callers make (snapshot, waitSettle,
// element references).
#include "mirror/app_mirror.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "core/errors.h"

namespace glimmerstrand::native {

namespace {

constexpr std::int64_t msNs = 1'000'000;

const char* const essentialNotifications[] = {"AXValueChanged", "AXCreated", "AXUIElementDestroyed"};

NodeList emptyNodes() {
  static const NodeList empty = std::make_shared<const std::vector<core::AxNode>>();
  return empty;
}

std::string integerText(std::int64_t n) { return std::to_string(n); }

}  // namespace

std::int64_t nextUid() {
  static std::atomic<std::int64_t> counter = 0;
  return ++counter;
}

const std::vector<std::pair<std::string, std::optional<DirtyKind>>>& mirrorNotifications() {
  static const std::vector<std::pair<std::string, std::optional<DirtyKind>>> table{
      {"AXFocusedWindowChanged", std::nullopt},
      {"AXFocusedUIElementChanged", DirtyKind::focus},
      {"AXMainWindowChanged", std::nullopt},
      {"AXWindowCreated", std::nullopt},
      {"AXCreated", DirtyKind::subtree},
      {"AXUIElementDestroyed", DirtyKind::destroyed},
      {"AXValueChanged", DirtyKind::attributes},
      {"AXTitleChanged", DirtyKind::attributes},
      {"AXLayoutChanged", DirtyKind::subtree},
      {"AXMoved", std::nullopt},
      {"AXResized", std::nullopt},
      {"AXSelectedChildrenChanged", DirtyKind::subtree},
      {"AXRowCountChanged", DirtyKind::subtree},
      {"AXMenuOpened", std::nullopt},
      {"AXMenuClosed", std::nullopt},
      {"AXLoadComplete", DirtyKind::subtree},
      {"AXElementBusyChanged", DirtyKind::attributes},
      {"AXExpandedChanged", DirtyKind::subtree},
  };
  return table;
}

AppMirror::AppMirror(std::int32_t pid, MirrorEnvironment environment, Element application)
    : pid_(pid),
      ax_(environment.accessibility),
      clock_(environment.clock),
      app_(application ? std::move(application) : ax_.applicationElement(pid)),
      walkQueue_(clock_.makeSerialQueue("glimmerstrand.mirror." + std::to_string(pid))),
      nodes_(emptyNodes()),
      current_(std::make_shared<const std::vector<Element>>()),
      lastUsedAt_(clock_.nowNs()) {
  for (const auto& [name, kind] : mirrorNotifications()) unregistered_.insert(name);
  ax_.setMessagingTimeout(app_, 0.3);
}

void AppMirror::start() {
  // Everything that waits for the application happens on its own queue, so
  // that making the mirror of a hung application holds up nobody else.
  walkQueue_->async([self = shared_from_this()] {
    self->manualAccessibilitySet_ =
        self->ax_.set(self->app_, "AXManualAccessibility", true) == platform::AxError::success;
    self->registerNotifications();
  });
  scheduleWalk();
}

AppMirror::~AppMirror() = default;

std::shared_ptr<AppMirror> AppMirror::create(std::int32_t pid, MirrorEnvironment environment, Element application) {
  return std::shared_ptr<AppMirror>(new AppMirror(pid, environment, std::move(application)));
}

bool AppMirror::applicationGone() {
  static const std::vector<std::string> probe{"AXRole"};
  return ax_.copyMultiple(app_, probe).error == platform::AxError::invalidElement;
}

bool AppMirror::gone() {
  std::lock_guard guard(stateLock_);
  return gone_;
}

void AppMirror::afterDelay(std::int64_t delayMs, void (AppMirror::*step)()) {
  walkQueue_->asyncAfter(delayMs * msNs, [weak = weak_from_this(), step] {
    if (auto self = weak.lock()) ((*self).*step)();
  });
}

void AppMirror::prepareCommit(PendingCommit& commit) {
  auto& nodes = commit.walk.nodes;
  auto& elements = commit.walk.elements;
  // Identities: an element the last commit knew keeps its uid.
  ElementIndex newIndexOf;
  commit.uids.reserve(elements.size());
  commit.uidElements.reserve(elements.size());
  newIndexOf.reserve(elements.size());
  for (std::size_t n = 0; n < elements.size(); ++n) {
    const Element& element = elements[n];
    std::int64_t uid;
    if (auto known = uids_.find(element); known != uids_.end())
      uid = known->second;
    else if (auto met = commit.uids.find(element); met != commit.uids.end())
      uid = met->second;
    else
      uid = nextUid();
    commit.uids[element] = uid;
    commit.uidElements[uid] = element;
    newIndexOf.emplace(element, static_cast<std::int64_t>(n));
    if (nodes[n].uid != uid) nodes[n].uid = uid;
  }
  current_ = std::make_shared<const std::vector<Element>>(std::move(elements));
  indexOf_ = std::move(newIndexOf);
  commit.signature = treeSignature(nodes);

  // The application may build its tree only when asked: keep asking.
  if (!manualAccessibilitySet_ && manualAttempts_ <= 19) {
    ++manualAttempts_;
    if (ax_.set(app_, "AXManualAccessibility", true) == platform::AxError::success) {
      manualAccessibilitySet_ = true;
      afterDelay(300, &AppMirror::requestFullWalk);
      afterDelay(1000, &AppMirror::requestFullWalk);
    }
  }
  // A tree that shows almost nothing may be waiting for the enhanced switch.
  std::int64_t named = std::count_if(nodes.begin(), nodes.end(), [](const core::AxNode& node) {
    return node.title || node.description || node.value;
  });
  lastNamed_ = named;
  if (named < 5 && nodes.size() >= 2 && enhancedAttempts_ <= 4 && commit.endedAt - enhancedAt_ > 1000 * msNs) {
    ++enhancedAttempts_;
    enhancedAt_ = commit.endedAt;
    ax_.set(app_, "AXEnhancedUserInterface", true);
    {
      std::lock_guard guard(stateLock_);
      lastNotificationAt_ = clock_.nowNs();
      markFullLocked();
    }
    afterDelay(300, &AppMirror::requestFullWalk);
    afterDelay(1000, &AppMirror::requestFullWalk);
    afterDelay(2000, &AppMirror::requestFullWalk);
  }

  commit.nodes = std::make_shared<const std::vector<core::AxNode>>(std::move(nodes));
}

void AppMirror::finishCommitLocked(PendingCommit& commit) {
  ++generation_;
  // The old tables go back in the commit, to be freed once the lock is released.
  std::swap(uids_, commit.uids);
  std::swap(uidElements_, commit.uidElements);
  std::swap(nodes_, commit.nodes);
  // The old labeled list goes with the old tables; the new one is made when
  // first asked for, as the statement runner reads every node.
  commit.labeled = std::exchange(labeled_, nullptr);
  truncated_ = commit.walk.truncated;
  overBudget_ = commit.walk.overBudget;

  // The newest three lists always stay; older ones for up to keepNs.
  elements_[generation_] = KeptElements{commit.endedAt, current_};
  const std::int64_t now = clock_.nowNs();
  for (auto it = elements_.begin(); it != elements_.end();) {
    if (it->first < generation_ - 2 && now - it->second.at > keepNs)
      it = elements_.erase(it);
    else
      ++it;
  }

  walkedAt_ = commit.endedAt;
  completedWalkStartedAt_ = walkStartedAt_;
  walkMs_ = static_cast<double>(commit.endedAt - commit.startedAt) / 1e6;
  if (commit.partial) {
    ++partialWalks_;
    partialWalkMs_ = walkMs_;
    partialNodes_ = commit.touched;
    lastTargets_ = commit.targets;
  } else {
    ++fullWalks_;
    fullWalkMs_ = walkMs_;
    lastTargets_.reset();
  }
  walking_ = false;
}

NodeList AppMirror::labeledLocked() {
  if (!labeled_) {
    auto labeled = std::make_shared<std::vector<core::AxNode>>();
    labeled->reserve(static_cast<std::size_t>(std::count_if(nodes_->begin(), nodes_->end(), isLabeled)));
    std::copy_if(nodes_->begin(), nodes_->end(), std::back_inserter(*labeled), isLabeled);
    labeled_ = std::move(labeled);
  }
  return labeled_;
}

bool AppMirror::registerNotifications() {
  std::shared_ptr<platform::Observer> observer;
  std::vector<std::string> names;
  {
    std::lock_guard guard(registrationLock_);
    if (unregistered_.empty() || detached_) return false;
    lastRegisterAttempt_ = clock_.nowNs();
    observer = observer_;
    names.assign(unregistered_.begin(), unregistered_.end());
  }
  // The calls into the application run without the lock: readers look at
  // the missing names, and must not wait out a hung application's timeouts.
  if (!observer) {
    auto created = ax_.createObserver(pid_, [weak = weak_from_this()](const Element& element, const std::string& name) {
      if (auto self = weak.lock()) self->handleNotification(element, name);
    });
    if (!created.ok() || !created.value) return false;
    observer = created.value;
    std::lock_guard guard(registrationLock_);
    if (detached_) {
      ax_.removeObserver(*observer);  // evicted meanwhile: no notification may reach it
      return false;
    }
    observer_ = observer;
  }
  bool registered = false;
  std::vector<std::string> settled;
  for (const auto& name : names) {
    auto result = ax_.addNotification(*observer, app_, name);
    if (result == platform::AxError::success || result == platform::AxError::notificationAlreadyRegistered) {
      settled.push_back(name);
      registered = true;
    } else if (result == platform::AxError::notificationUnsupported) {
      settled.push_back(name);  // never sent by this application: not missing either
    } else if (result == platform::AxError::cannotComplete) {
      break;  // a hung application: every further name would wait out its timeout too
    }
  }
  std::lock_guard guard(registrationLock_);
  for (const auto& name : settled) unregistered_.erase(name);
  return registered;
}

void AppMirror::retryRegistration() {
  {
    std::lock_guard guard(registrationLock_);
    if (unregistered_.empty() || registrationQueued_ || clock_.nowNs() - lastRegisterAttempt_ <= 500 * msNs) return;
    registrationQueued_ = true;
  }
  walkQueue_->async([weak = weak_from_this()] {
    if (auto self = weak.lock()) self->retryRegistrationOnQueue();
  });
}

void AppMirror::retryRegistrationOnQueue() {
  {
    std::lock_guard guard(registrationLock_);
    registrationQueued_ = false;
  }
  if (!ax_.isTrusted() || !registerNotifications()) return;
  {
    // What the application changed before the registration went unseen.
    std::lock_guard guard(stateLock_);
    lastNotificationAt_ = clock_.nowNs();
    markFullLocked();
  }
  scheduleWalk();
}

void AppMirror::detach() {
  std::lock_guard guard(registrationLock_);
  detached_ = true;
  if (observer_) ax_.removeObserver(*observer_);
  observer_.reset();
}

bool AppMirror::essentialUnregistered() {
  std::lock_guard guard(registrationLock_);
  return std::any_of(std::begin(essentialNotifications), std::end(essentialNotifications),
                     [&](const char* name) { return unregistered_.count(name) > 0; });
}

std::int64_t AppMirror::unregisteredCount() {
  std::lock_guard guard(registrationLock_);
  return static_cast<std::int64_t>(unregistered_.size());
}

MirrorSnapshot AppMirror::snapshot(const SnapshotRequest& request) {
  touch(clock_.nowNs());
  retryRegistration();
  std::unique_lock lock(stateLock_);
  auto scheduleUnlocked = [&] {
    lock.unlock();
    scheduleWalk();
    lock.lock();
  };
  if (!request.fresh) {
    if (generation_ == 0) scheduleUnlocked();
  } else if (generation_ >= 1) {
    // A copy that cannot follow the application, or that shows almost
    // nothing, is walked again for a fresh read.
    if (essentialUnregistered()) {
      lastNotificationAt_ = clock_.nowNs();
      markFullLocked();
    }
    if (lastNamed_ <= 4 && clock_.nowNs() - walkedAt_ > 500 * msNs) {
      lastNotificationAt_ = clock_.nowNs();
      markFullLocked();
    }
    if (walkStartedAt_ < lastNotificationAt_) scheduleUnlocked();
  } else {
    scheduleUnlocked();
  }
  // A hung application is tried again. A plain read doesn't wait for that; a
  // fresh one waits for this one walk, which ends within the application's
  // messaging timeout when it still does not answer.
  if (unanswered_) {
    if (request.fresh) {
      lastNotificationAt_ = clock_.nowNs();
      markFullLocked();
    }
    scheduleUnlocked();
  }

  std::int64_t waitMs = request.timeoutMs;
  if (request.fresh)
    waitMs = std::max<std::int64_t>(request.timeoutMs,
                                    std::min<std::int64_t>(static_cast<std::int64_t>(3 * fullWalkMs_ + 500), 7000));
  const std::int64_t now = clock_.nowNs();
  const std::int64_t deadline = now + waitMs * msNs;
  std::int64_t required;
  bool needTrailing = false;
  if (request.maxAgeMs) {
    required = std::min(std::max<std::int64_t>(now - *request.maxAgeMs * msNs, 0), lastNotificationAt_);
  } else {
    required = lastNotificationAt_;
    needTrailing = trailingPending_;
    if (request.fresh && required >= completedWalkStartedAt_) urgent_ = true;
  }
  auto goodEnough = [&] {
    if (unanswered_ && unansweredWalkStartedAt_ > required) return true;  // a walk begun for this read got no answer
    if (generation_ == 0) return false;
    if (!request.fresh) return true;
    return required < completedWalkStartedAt_ && (!needTrailing || !trailingPending_);
  };
  bool ownLook = false;
  while (!goodEnough()) {
    if (request.fresh && !ownLook && needTrailing && trailingPending_ && required < completedWalkStartedAt_) {
      // The walk of what was notified is in, and trailing walks follow at
      // their pace. A fresh read comes after a settle waited out the
      // application's quiet: it takes its own look now. Where that look
      // finds the application still moving, the read waits for the trailing
      // walks as before.
      markTrailingLocked();
      urgent_ = true;
      required = lastNotificationAt_;
      ownLook = true;
      scheduleUnlocked();
      clock_.notifyAll(stateChanged_);  // ends a pause of the walk loop
    }
    if (!clock_.waitUntil(lock, stateChanged_, deadline)) break;
  }

  MirrorSnapshot out;
  out.pid = pid_;
  out.generation = generation_;
  out.ageMs = static_cast<double>(clock_.nowNs() - walkedAt_) / 1e6;
  out.walkMs = walkMs_;
  if (generation_ == 0 || unanswered_ || gone_)
    out.dirty = true;
  else if (request.fresh)
    out.dirty = required < completedWalkStartedAt_ ? (needTrailing && trailingPending_) : true;
  else
    out.dirty = walkStartedAt_ >= lastNotificationAt_ ? trailingPending_ : true;
  out.truncated = truncated_;
  out.notifications = notificationCount_;
  out.fullWalks = fullWalks_;
  out.partialWalks = partialWalks_;
  out.partialNodes = partialNodes_;
  out.lastWalk = lastTargets_ ? "partial" : "full";
  out.unregisteredNotifications = unregisteredCount();
  if (request.ifGeneration != generation_)
    out.nodes = core::NodeList(request.all ? nodes_ : labeledLocked());
  else
    out.unchanged = true;
  return out;
}

core::SettleResult AppMirror::waitSettle(std::optional<std::int64_t> since, std::int64_t quietMs, std::int64_t firstMs,
                                         std::int64_t timeoutMs) {
  const std::int64_t start = clock_.nowNs();
  std::unique_lock lock(stateLock_);
  const std::int64_t base = since.value_or(notificationCount_);
  const std::int64_t firstDeadline = start + firstMs * msNs;
  while (notificationCount_ <= base)
    if (!clock_.waitUntil(lock, stateChanged_, firstDeadline)) break;
  core::SettleResult result;
  result.changed = notificationCount_ > base;
  if (!result.changed) {
    result.settled = true;
  } else {
    for (;;) {
      const std::int64_t now = clock_.nowNs();
      // A page that is loading is not settled, however quiet it is, for as
      // long as a load may take.
      const std::int64_t loadEndsBy = loadingSince_ ? *loadingSince_ + maxLoadMs * msNs : 0;
      const bool loading = loadEndsBy > now;
      const std::int64_t giveUpAt = std::max(start + timeoutMs * msNs, std::min(loadEndsBy, start + maxLoadMs * msNs));
      const std::int64_t quietAt = lastEventAt_ + quietMs * msNs;
      if (!loading && now >= quietAt) {
        result.settled = true;
        break;
      }
      if (now >= giveUpAt) break;
      clock_.waitUntil(lock, stateChanged_, std::min(loading ? loadEndsBy : quietAt, giveUpAt));
    }
  }
  result.notifications = notificationCount_ - base;
  result.waitedMs = static_cast<double>(clock_.nowNs() - start) / 1e6;
  return result;
}

std::int64_t AppMirror::notificationCount() {
  std::lock_guard guard(stateLock_);
  return notificationCount_;
}

bool AppMirror::answering() {
  std::lock_guard guard(stateLock_);
  return !unanswered_;
}

Element AppMirror::elementForUid(std::int64_t uid) {
  std::lock_guard guard(stateLock_);
  auto it = uidElements_.find(uid);
  if (it == uidElements_.end())
    throw core::GlimmerstrandError(
        "stale", "要素 e" + integerText(uid) + " は、最新の写しにありません。画面から消えたか、作り直されました");
  return it->second;
}

Element AppMirror::elementForIndex(std::int64_t generation, std::int64_t i) {
  std::lock_guard guard(stateLock_);
  auto it = elements_.find(generation);
  if (it == elements_.end())
    throw core::GlimmerstrandError("stale", "世代 " + integerText(generation) + " の写しはもう残っていません");
  const auto& list = *it->second.list;
  if (i < 0 || i >= static_cast<std::int64_t>(list.size()))
    throw core::GlimmerstrandError("invalid_argument", "要素の番号が範囲外です: " + integerText(i));
  return list[static_cast<std::size_t>(i)];
}

AppMirror::Summary AppMirror::summary() {
  std::lock_guard guard(stateLock_);
  Summary out;
  out.elements = nodes_ ? static_cast<std::int64_t>(nodes_->size()) : 0;
  out.walkMs = walkMs_;
  if (walkedAt_ > 0) out.ageMs = static_cast<double>(clock_.nowNs() - walkedAt_) / 1e6;
  out.generation = generation_;
  return out;
}

}  // namespace glimmerstrand::native
