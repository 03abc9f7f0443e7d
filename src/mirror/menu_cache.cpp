#include "mirror/menu_cache.h"

#include <algorithm>

#include "core/errors.h"

namespace glimmerstrand::native {

namespace {

double millisecondsBetween(std::int64_t from, std::int64_t to) { return static_cast<double>(to - from) / 1e6; }

std::optional<std::int64_t> keptUid(const MenuCache::Entry* previous, const Element& element) {
  if (!previous) return std::nullopt;
  auto it = previous->uids.find(element);
  if (it == previous->uids.end()) return std::nullopt;
  return it->second;
}

}  // namespace

std::shared_ptr<const MenuCache::Entry> MenuCache::entry(std::int32_t pid, std::int64_t maxAgeMs) {
  std::shared_ptr<const Entry> stored;
  {
    std::lock_guard guard(lock_);
    for (const auto& [known, entry] : entries_)
      if (known == pid) stored = entry;
  }
  // A negative age counts as 0; one beyond a million years as that, which no clock overflows.
  const std::int64_t maxAgeNs = std::clamp<std::int64_t>(maxAgeMs, 0, 1'000'000'000'000) * 1'000'000;
  if (stored && environment_.clock.nowNs() - stored->at <= maxAgeNs) return stored;
  return walkMenus(pid, stored);
}

std::shared_ptr<const MenuCache::Entry> MenuCache::walkMenus(std::int32_t pid,
                                                             const std::shared_ptr<const Entry>& previous) {
  auto& ax = environment_.accessibility;
  auto& clock = environment_.clock;
  const std::int64_t start = clock.nowNs();
  Element app = ax.applicationElement(pid);
  ax.setMessagingTimeout(app, 0.3);
  WalkResult walk = walkTree(ax, app, "menubar", maxDepth, maxNodes);
  const std::int64_t end = clock.nowNs();

  auto entry = std::make_shared<Entry>();
  entry->at = end;
  entry->walkMs = millisecondsBetween(start, end);
  entry->truncated = walk.truncated;
  std::lock_guard guard(lock_);
  for (std::size_t n = 0; n < walk.elements.size(); ++n) {
    const Element& element = walk.elements[n];
    std::int64_t uid = 0;
    if (auto kept = keptUid(previous.get(), element))
      uid = *kept;
    else if (auto met = entry->uids.find(element); met != entry->uids.end())
      uid = met->second;
    else
      uid = nextUid_++;
    entry->uids[element] = uid;
    entry->elements[uid] = element;
    walk.nodes[n].uid = uid;
  }
  entry->nodes = core::NodeList(std::move(walk.nodes));
  auto existing = std::find_if(entries_.begin(), entries_.end(), [&](const auto& e) { return e.first == pid; });
  if (existing != entries_.end()) {
    existing->second = entry;
  } else {
    if (entries_.size() >= maxEntries) {
      auto oldest = std::min_element(entries_.begin(), entries_.end(),
                                     [](const auto& a, const auto& b) { return a.second->at < b.second->at; });
      entries_.erase(oldest);
    }
    entries_.emplace_back(pid, entry);
  }
  return entry;
}

Element MenuCache::elementForMenuUid(std::int32_t pid, std::int64_t uid) {
  std::lock_guard guard(lock_);
  for (const auto& [known, entry] : entries_) {
    if (known != pid) continue;
    if (auto it = entry->elements.find(uid); it != entry->elements.end()) return it->second;
  }
  throw core::GlimmerstrandError("stale",
                                 "メニューの項目 m" + std::to_string(uid) + " は、最新のメニューの写しにありません");
}

}  // namespace glimmerstrand::native
