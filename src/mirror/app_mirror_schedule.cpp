// AppMirror: notifications and the scheduling of walks. A notification marks
// what changed; the walk loop on the mirror's queue waits out a short
// debounce, paces walks by what the last one cost, refreshes or re-walks only
// the marked subtrees when it can, and follows a walk that ended quiet with
// short trailing walks until two in a row agree.
#include <algorithm>
#include <exception>
#include <map>
#include <set>

#include "mirror/app_mirror.h"

namespace glimmerstrand::native {

namespace {

constexpr std::int64_t msNs = 1'000'000;
constexpr std::int64_t minimumGapNs = 100 * msNs;
constexpr std::int64_t pacingSleepNs = 50 * msNs;

std::int64_t gapAfter(double walkMs) {
  return std::max<std::int64_t>(minimumGapNs, static_cast<std::int64_t>(2 * walkMs * 1e6));
}

}  // namespace

void AppMirror::handleNotification(const Element& element, const std::string& name) {
  std::optional<DirtyKind> kind;
  for (const auto& [known, marks] : mirrorNotifications())
    if (known == name) kind = marks;
  {
    std::lock_guard guard(stateLock_);
    ++notificationCount_;
    lastNotificationAt_ = clock_.nowNs();
    lastEventAt_ = lastNotificationAt_;
    if (name == "AXElementBusyChanged" && !loadingSince_) loadingSince_ = lastNotificationAt_;
    if (name == "AXLoadComplete") loadingSince_.reset();
    if (kind && !(element == app_))
      markDirtyLocked({DirtyTarget{element, *kind}});
    else
      markFullLocked();
    clock_.notifyAll(stateChanged_);
  }
  scheduleWalk();
}

void AppMirror::markDirtyLocked(const std::vector<DirtyTarget>& targets) {
  if (pendingFull_) return;
  pendingDirty_.insert(pendingDirty_.end(), targets.begin(), targets.end());
  if (pendingDirty_.size() > maxPendingDirty) markFullLocked();
}

void AppMirror::markFullLocked() {
  pendingFull_ = true;
  pendingDirty_.clear();
}

void AppMirror::scheduleWalk() {
  {
    std::lock_guard guard(stateLock_);
    if (walkScheduled_ || gone_) return;
    walkScheduled_ = true;
  }
  walkQueue_->async([self = shared_from_this()] { self->walkLoop(); });
}

void AppMirror::requestFullWalk() {
  {
    std::lock_guard guard(stateLock_);
    lastNotificationAt_ = clock_.nowNs();
    markFullLocked();
  }
  scheduleWalk();
}

void AppMirror::requestUrgentWalk() {
  {
    std::lock_guard guard(stateLock_);
    lastNotificationAt_ = clock_.nowNs();
    markFullLocked();
    urgent_ = true;
  }
  scheduleWalk();
}

void AppMirror::trailingWalkDue() {
  {
    std::lock_guard guard(stateLock_);
    if (!trailingPending_) return;
    markTrailingLocked();
  }
  scheduleWalk();
}

void AppMirror::lateLookDue() {
  {
    std::lock_guard guard(stateLock_);
    // Newer notifications have trailing walks and a late look of their own.
    if (lateLookFor_ != lastEventAt_ || trailingPending_) return;
    // The whole window: what changed without telling need not be near what
    // was notified (a browser's address bar pop-up closing under a page).
    nextWalkIsTrailing_ = true;
    lastNotificationAt_ = clock_.nowNs();
    markFullLocked();
  }
  scheduleWalk();
}

void AppMirror::markTrailingLocked() {
  nextWalkIsTrailing_ = true;
  lastNotificationAt_ = clock_.nowNs();
  // Look again at what the last walk looked at.
  if (lastTargets_ && !lastTargets_->empty())
    markDirtyLocked(*lastTargets_);
  else
    markFullLocked();
}

void AppMirror::walkLoop() {
  std::unique_lock lock(stateLock_);
  // A pause for the debounce or the pacing ends early when a read that waits
  // for this walk marks it urgent.
  auto pause = [&](std::int64_t ns) { clock_.waitUntil(lock, stateChanged_, clock_.nowNs() + ns); };
  std::int64_t debouncingSince = 0;
  for (;;) {
    const std::int64_t now = clock_.nowNs();
    const std::int64_t lastSeen = lastNotificationAt_;
    // Debounce: a burst of the application's notifications costs one walk.
    // The first walk waits for nothing, a storm that never pauses holds walks
    // off no longer than maxDebounceNs, and a read that waits for the walk has
    // waited out the application's quiet already.
    if (generation_ >= 1 && !urgent_ && now - lastEventAt_ < debounceNs) {
      if (debouncingSince == 0) debouncingSince = now;
      if (now - debouncingSince < maxDebounceNs) {
        pause(std::min(debounceNs - (now - lastEventAt_), maxDebounceNs - (now - debouncingSince)));
        continue;
      }
    }
    const bool full = generation_ == 0 || overBudget_ || pendingFull_ || pendingDirty_.empty();
    // Pacing: walks stay apart by twice what the last one of the sort cost.
    const std::int64_t gap = gapAfter(full ? fullWalkMs_ : partialWalkMs_);
    const bool urgentPass = urgent_;
    if (generation_ >= 1 && now - walkedAt_ < gap && !urgent_) {
      pause(std::min(gap - (now - walkedAt_), pacingSleepNs));
      continue;
    }

    debouncingSince = 0;
    urgent_ = false;
    walking_ = true;
    walkStartedAt_ = now;
    const bool trailing = nextWalkIsTrailing_;
    nextWalkIsTrailing_ = false;
    std::vector<DirtyTarget> targets = std::move(pendingDirty_);
    pendingDirty_.clear();
    pendingFull_ = false;
    const std::int64_t fullGap = gapAfter(fullWalkMs_);
    const std::int64_t lastWalkEnd = walkedAt_;
    const std::size_t lastNodeCount = nodes_ ? nodes_->size() : 0;
    const bool wasTruncated = truncated_;
    lock.unlock();

    PendingCommit commit;
    commit.startedAt = now;
    std::optional<PartialWalkResult> partial;
    if (!full) {
      try {
        partial = partialWalk(targets, trailing);
      } catch (const std::exception&) {
        partial.reset();  // whatever went wrong, the full walk below covers it
      }
    }
    if (partial) {
      commit.partial = true;
      commit.walk = std::move(partial->walk);
      // What an earlier walk left out stays left out where this one did not look.
      commit.walk.truncated = commit.walk.truncated || wasTruncated;
      commit.targets = std::move(partial->targets);
      commit.touched = partial->touched;
    } else {
      if (!full && !urgentPass) {
        const std::int64_t since = clock_.nowNs() - lastWalkEnd;
        if (since < fullGap) clock_.sleepNs(fullGap - since);
        commit.startedAt = clock_.nowNs();
      }
      commit.walk = walkTree(ax_, app_, "window", maxDepth, maxNodes, lastNodeCount);
    }
    commit.endedAt = clock_.nowNs();
    if (commit.walk.unanswered) {
      // A hung application: keep the copy, and walk it whole once it answers.
      lock.lock();
      walking_ = false;
      unanswered_ = true;
      unansweredWalkStartedAt_ = walkStartedAt_;
      markFullLocked();
      const bool quiet = lastNotificationAt_ <= walkStartedAt_;
      if (quiet) walkScheduled_ = false;
      clock_.notifyAll(stateChanged_);
      if (quiet) return;
      continue;
    }
    // A walk that found nothing may have found the application gone.
    const bool gone = commit.walk.nodes.empty() && applicationGone();
    prepareCommit(commit);
    lock.lock();
    finishCommitLocked(commit);
    unanswered_ = false;
    if (gone) {
      gone_ = true;
      walkScheduled_ = false;
      clock_.notifyAll(stateChanged_);
      lock.unlock();
      commit = PendingCommit{};
      if (onGone_) onGone_(*this);
      return;
    }

    // Unread elements: mark the walk again, a few times.
    if (commit.walk.incomplete >= 1 && incompleteRetries_ <= 2) {
      ++incompleteRetries_;
      lastNotificationAt_ = commit.endedAt;
      if (commit.partial)
        markDirtyLocked(commit.targets);
      else
        markFullLocked();
    } else if (commit.walk.incomplete == 0) {
      incompleteRetries_ = 0;
    }

    const bool quiet = lastNotificationAt_ <= walkStartedAt_;
    if (quiet) walkScheduled_ = false;
    const std::uint64_t oldSignature = signature_;
    signature_ = commit.signature;
    if (!trailing) trailingCount_ = 0;

    // An application often finishes a change after its notification: look
    // again shortly after a walk that ended quiet, until nothing moves; then
    // once more, late, where that came soon after the last notification.
    const bool eligible = lastSeen != 0 && quiet && (!commit.partial || !commit.targets.empty());
    bool follows = false;
    if (eligible && (!trailing || (signature_ != oldSignature && trailingCount_ < 4))) {
      follows = true;
      ++trailingCount_;
    }
    if (quiet) trailingPending_ = follows;
    std::int64_t lateLookInMs = 0;
    if (eligible && !follows && lastEventAt_ != lateLookFor_ && walkStartedAt_ - lastEventAt_ < lateLookMs * msNs) {
      lateLookFor_ = lastEventAt_;
      lateLookInMs = (lastEventAt_ + lateLookMs * msNs - walkStartedAt_) / msNs;
    }

    clock_.notifyAll(stateChanged_);
    lock.unlock();
    commit = PendingCommit{};  // frees the previous copy's tables outside the lock
    if (follows) afterDelay(trailingDelayMs, &AppMirror::trailingWalkDue);
    if (lateLookInMs > 0) afterDelay(lateLookInMs, &AppMirror::lateLookDue);
    if (quiet) return;
    lock.lock();
  }
}

std::optional<std::int64_t> AppMirror::findKnownAncestor(const Element& element, ElementIndex& memo,
                                                         ElementSet& outside) {
  Element current = element;
  std::vector<Element> path;
  for (int reads = 0;; ++reads) {
    std::optional<std::int64_t> index;
    if (auto it = indexOf_.find(current); it != indexOf_.end())
      index = it->second;
    else if (auto met = memo.find(current); met != memo.end())
      index = met->second;
    if (index) {
      for (const auto& step : path) memo[step] = *index;
      return index;
    }
    if (outside.count(current) || current == app_) {
      outside.insert(path.begin(), path.end());
      return outsideIndex;
    }
    path.push_back(current);
    if (reads == 64) return std::nullopt;
    const platform::AxValue parentValue = ax_.copy(current, "AXParent");
    // Gone, or detached, before it could be placed: an element made and
    // dropped between two walks, as editors do with what they show while
    // typing.
    if (auto error = parentValue.get<platform::AxError>();
        error && (*error == platform::AxError::invalidElement || *error == platform::AxError::noValue))
      return goneIndex;
    auto parent = parentValue.get<Element>();
    if (!parent || parent->isNull()) return std::nullopt;
    current = *parent;
  }
}

std::optional<PartialWalkResult> AppMirror::partialWalk(const std::vector<DirtyTarget>& targets, bool trailing) {
  // Only the walk queue writes these, so it reads them without the lock.
  const std::vector<core::AxNode>& nodes = *nodes_;
  const std::vector<Element>& current = *current_;

  // Check: a new focused window makes every old index worthless.
  if (current.empty() || current.size() != nodes.size()) return std::nullopt;
  if (!(rootElement(ax_, app_, "window") == current.front())) return std::nullopt;

  // Classify each target into subtrees to walk again and nodes to refresh.
  std::set<std::int64_t> rewalk, refresh;
  ElementIndex memo;
  ElementSet outside;
  auto parentOf = [&](std::int64_t n) { return nodes[static_cast<std::size_t>(n)].parent; };
  auto ancestorOf = [&](const Element& element, bool keepOutside) {
    auto ancestor = findKnownAncestor(element, memo, outside);
    if (!ancestor) return false;
    if (*ancestor == goneIndex) return true;  // nothing of it is in the copy
    if (keepOutside || *ancestor != outsideIndex) rewalk.insert(*ancestor);
    return true;
  };
  for (const auto& target : targets) {
    auto found = indexOf_.find(target.element);
    const bool known = found != indexOf_.end();
    const std::int64_t index = known ? found->second : -1;
    switch (target.kind) {
      case DirtyKind::attributes:
      case DirtyKind::focus:
        if (known) {
          if (trailing)
            rewalk.insert(parentOf(index));
          else
            refresh.insert(index);
        } else if (!ancestorOf(target.element, false)) {
          return std::nullopt;
        }
        // The old focused element still says so in the copy.
        if (target.kind == DirtyKind::focus)
          for (std::size_t n = 0; n < nodes.size(); ++n)
            if (nodes[n].focused) refresh.insert(static_cast<std::int64_t>(n));
        break;
      case DirtyKind::subtree:
        if (known)
          rewalk.insert(index);
        else if (!ancestorOf(target.element, false))
          return std::nullopt;
        break;
      case DirtyKind::destroyed:
        // An element the copy never held, and whose place can no longer be
        // read, takes nothing out of the copy.
        if (known)
          rewalk.insert(parentOf(index));
        else
          ancestorOf(target.element, true);
        break;
    }
  }
  // The root, a node without a parent or a change outside the tree: all of it.
  if (!rewalk.empty() && *rewalk.begin() < 1) return std::nullopt;
  if (rewalk.empty() && refresh.empty()) return PartialWalkResult{WalkResult{nodes, current}, {}, 0};

  auto ranges = subtreeRanges(nodes, {rewalk.begin(), rewalk.end()});
  auto inRange = [&](std::int64_t index) {
    auto n = static_cast<std::size_t>(index);
    return std::any_of(ranges.begin(), ranges.end(), [&](const SubtreeRange& r) { return n >= r.start && n < r.end; });
  };
  PartialWalkResult result;
  std::map<std::int64_t, core::AxNode> replacements;
  bool rangesChanged = false;
  for (auto index : refresh) {
    if (inRange(index)) continue;
    auto read = ax_.copyMultiple(current[static_cast<std::size_t>(index)], refreshAttributes());
    if (read.ok() && read.value.size() == refreshAttributes().size()) {
      if (anyTextCut(read.value)) result.walk.truncated = true;
      replacements[index] = buildNode(read.value);
    } else {
      const std::int64_t parent = parentOf(index);
      if (parent < 1) return std::nullopt;
      rewalk.insert(parent);
      rangesChanged = true;
    }
  }
  if (rangesChanged) ranges = subtreeRanges(nodes, {rewalk.begin(), rewalk.end()});

  // A walk of more than this is better done whole. A sheet or a long list
  // is most of a window's copy, and walked alone it still spares the rest.
  std::size_t covered = 0;
  for (const auto& range : ranges) covered += range.end - range.start;
  if (ranges.size() > maxDirtySubtrees || 5 * covered > 4 * nodes.size()) return std::nullopt;

  std::int64_t budget = maxNodes - static_cast<std::int64_t>(nodes.size() - covered);
  std::vector<WalkResult> walks;
  ElementSet walked;
  for (const auto& range : ranges) {
    WalkResult walk =
        walkElement(ax_, current[range.start], nodes[range.start].depth, maxDepth, budget, range.end - range.start);
    if (walk.overBudget || walk.unanswered || walk.nodes.empty()) return std::nullopt;
    // An element that moved here from a part of the copy this pass does not
    // walk would be in the copy twice: only a full walk places it once.
    for (const auto& element : walk.elements) {
      auto known = indexOf_.find(element);
      if (!walked.insert(element).second || (known != indexOf_.end() && !inRange(known->second))) return std::nullopt;
    }
    budget -= static_cast<std::int64_t>(walk.nodes.size());
    result.walk.truncated = result.walk.truncated || walk.truncated;
    result.walk.incomplete += walk.incomplete;
    result.touched += static_cast<std::int64_t>(walk.nodes.size());
    walks.push_back(std::move(walk));
  }

  std::vector<core::AxNode> base = nodes;
  for (auto& [index, node] : replacements) {
    if (inRange(index)) continue;
    const core::AxNode& old = nodes[static_cast<std::size_t>(index)];
    node.i = old.i;
    node.parent = old.parent;
    node.depth = old.depth;
    node.uid = old.uid;
    node.offscreen = old.offscreen;  // a refresh reads no children: what was left out stays so
    base[static_cast<std::size_t>(index)] = std::move(node);
    ++result.touched;
    result.targets.push_back(DirtyTarget{current[static_cast<std::size_t>(index)], DirtyKind::attributes});
  }
  std::vector<DirtyTarget> rangeTargets;
  for (const auto& range : ranges) rangeTargets.push_back(DirtyTarget{current[range.start], DirtyKind::subtree});
  result.targets.insert(result.targets.begin(), rangeTargets.begin(), rangeTargets.end());

  const std::int64_t incomplete = result.walk.incomplete;
  const bool truncated = result.walk.truncated;
  if (ranges.empty()) {
    result.walk.nodes = std::move(base);  // refreshes only: indices stand
    result.walk.elements = current;
  } else {
    result.walk = spliceSubtrees(std::move(base), current, ranges, std::move(walks));
    renumberNodes(result.walk.nodes);
  }
  result.walk.incomplete = incomplete;
  result.walk.truncated = truncated;
  return result;
}

}  // namespace glimmerstrand::native
