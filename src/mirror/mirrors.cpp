#include "mirror/mirrors.h"

#include <algorithm>
#include <limits>

#include "core/errors.h"
#include "mirror/allocator.h"

namespace glimmerstrand::native {

namespace {

constexpr std::int64_t releaseDelayNs = 1'000'000'000;

}  // namespace

Mirrors::Mirrors(MirrorEnvironment environment, platform::Workspace& workspace)
    : environment_(environment),
      workspace_(workspace),
      link_(std::make_shared<Link>(this)),
      housekeeping_(environment.clock.makeSerialQueue("glimmerstrand.mirrors")) {}

Mirrors::~Mirrors() {
  {
    std::lock_guard guard(link_->lock);
    link_->owner = nullptr;
  }
  std::lock_guard guard(lock_);
  for (auto& [pid, mirror] : mirrors_) mirror->detach();
}

std::shared_ptr<AppMirror> Mirrors::mirror(std::int32_t pid) {
  // Asked before the lock: finding the application's element may ask the
  // desktop, never the application.
  Element application = environment_.accessibility.applicationElement(pid);
  std::lock_guard guard(lock_);
  const std::int64_t now = environment_.clock.nowNs();
  for (auto it = mirrors_.begin(); it != mirrors_.end(); ++it) {
    if (it->first != pid) continue;
    auto& mirror = it->second;
    if (!mirror->gone() && mirror->application() == application) {
      mirror->touch(now);
      return mirror;
    }
    // The application left, or came back under another element: start anew.
    mirror->detach();
    mirrors_.erase(it);
    releaseMemoryLater();
    break;
  }
  if (mirrors_.size() >= maxMirrors) {
    // A walk in progress finishes on the evicted mirror, which then goes.
    auto oldest = std::min_element(mirrors_.begin(), mirrors_.end(), [](const auto& a, const auto& b) {
      return a.second->lastUsedAt() < b.second->lastUsedAt();
    });
    oldest->second->detach();
    mirrors_.erase(oldest);
    releaseMemoryLater();
  }
  // Cheap: whatever waits for the application runs on the mirror's queue,
  // so a hung application never holds this lock.
  auto created = AppMirror::create(pid, environment_, std::move(application));
  created->onGone([link = link_](AppMirror& gone) {
    std::lock_guard guard(link->lock);
    if (link->owner) link->owner->forget(gone);
  });
  created->start();
  mirrors_.emplace_back(pid, created);
  return created;
}

std::shared_ptr<AppMirror> Mirrors::existing(std::int32_t pid) {
  std::lock_guard guard(lock_);
  for (auto& [known, mirror] : mirrors_)
    if (known == pid) return mirror->gone() ? nullptr : mirror;
  return nullptr;
}

void Mirrors::forget(AppMirror& gone) {
  std::shared_ptr<AppMirror> dropped;  // its last reference may go outside the lock
  std::lock_guard guard(lock_);
  auto it =
      std::find_if(mirrors_.begin(), mirrors_.end(), [&](const auto& entry) { return entry.second.get() == &gone; });
  if (it == mirrors_.end()) return;
  dropped = std::move(it->second);
  dropped->detach();
  mirrors_.erase(it);
  releaseMemoryLater();
}

void Mirrors::releaseMemoryLater() {
  if (releaseQueued_) return;
  releaseQueued_ = true;
  // Once the dropped mirror's last walk has let go of it.
  housekeeping_->asyncAfter(releaseDelayNs, [link = link_] {
    {
      std::lock_guard guard(link->lock);
      if (!link->owner) return;
      std::lock_guard tableGuard(link->owner->lock_);
      link->owner->releaseQueued_ = false;
    }
    returnFreedMemory();
  });
}

void Mirrors::startObserving() {
  workspace_.observeActivation([this](const platform::RunningApplication& app) {
    if (environment_.accessibility.isTrusted()) mirror(app.pid);
  });
  if (!environment_.accessibility.isTrusted()) return;
  if (auto front = workspace_.frontmost()) mirror(front->pid);
}

void requireTrust(platform::Accessibility& ax) {
  if (!ax.isTrusted()) throw core::GlimmerstrandError("permission", permissionMessage());
}

ResolvedElement resolveElement(Mirrors& mirrors, const core::ElementRef& ref, const MenuElementLookup& menus) {
  requireTrust(mirrors.environment().accessibility);
  // A pid beyond 32 bits names no process, and so no copy.
  const bool fits =
      ref.pid >= std::numeric_limits<std::int32_t>::min() && ref.pid <= std::numeric_limits<std::int32_t>::max();
  const auto pid = fits ? static_cast<std::int32_t>(ref.pid) : 0;
  const auto noCopy = [&] {
    return core::GlimmerstrandError(core::codes::stale, "pid " + std::to_string(ref.pid) + " の写しがありません");
  };
  if (ref.menu == true) {
    if (!ref.uid) throw core::GlimmerstrandError(core::codes::invalidArgument, "メニューの項目には uid が必要です");
    if (!menus) throw core::GlimmerstrandError(core::codes::native, "メニューの写しがありません");
    // Such a pid must not make a copy of its own, which could evict a real one.
    if (!fits) throw noCopy();
    auto mirror = mirrors.mirror(pid);
    return {mirror, menus(*mirror, *ref.uid)};
  }
  auto mirror = fits ? mirrors.existing(pid) : nullptr;
  if (!mirror) throw noCopy();
  if (ref.uid) return {mirror, mirror->elementForUid(*ref.uid)};
  return {mirror, mirror->elementForIndex(ref.generation, ref.i)};
}

std::vector<std::shared_ptr<AppMirror>> Mirrors::all() {
  std::lock_guard guard(lock_);
  std::vector<std::shared_ptr<AppMirror>> out;
  for (const auto& entry : mirrors_)
    if (!entry.second->gone()) out.push_back(entry.second);
  return out;
}

}  // namespace glimmerstrand::native
