// MenuCache: one walked copy of each application's menu bar, with identities
// of its own (shown as m12 where a mirror's element shows as e12). No
// notification refreshes it: a copy older than the caller accepts is walked
// again, and identities of items that survive the walk are kept.
//
// `lock_` guards the entries and the uid counter. It is never held during a
// walk, so two callers may walk one application at once; the later store wins.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "core/records.h"
#include "mirror/app_mirror.h"

namespace glimmerstrand::native {

class MenuCache {
 public:
  static constexpr std::size_t maxEntries = 6;
  static constexpr std::int64_t maxDepth = 16;
  static constexpr std::int64_t maxNodes = 8000;

  /// One walk of one menu bar. Immutable once stored.
  struct Entry {
    std::int64_t at = 0;  // end of the walk, clock nanoseconds
    double walkMs = 0;
    core::NodeList nodes;  // each with its uid
    bool truncated = false;
    std::unordered_map<Element, std::int64_t, platform::ElementHash> uids;
    std::unordered_map<std::int64_t, Element> elements;
  };

  explicit MenuCache(MirrorEnvironment environment) : environment_(environment) {}
  MenuCache(const MenuCache&) = delete;
  MenuCache& operator=(const MenuCache&) = delete;

  /// The stored entry when it is at most `maxAgeMs` old, else a new walk.
  std::shared_ptr<const Entry> entry(std::int32_t pid, std::int64_t maxAgeMs);
  /// Walks, stores and returns a new entry; items of `previous` keep their uids.
  std::shared_ptr<const Entry> walkMenus(std::int32_t pid, const std::shared_ptr<const Entry>& previous);
  /// The element of a menu item of the stored entry; fails "stale" when the
  /// entry or the uid is gone.
  Element elementForMenuUid(std::int32_t pid, std::int64_t uid);

 private:
  MirrorEnvironment environment_;
  std::mutex lock_;                                                             // guards entries_ and nextUid_
  std::vector<std::pair<std::int32_t, std::shared_ptr<const Entry>>> entries_;  // in the order stored
  std::int64_t nextUid_ = 1;
};

}  // namespace glimmerstrand::native
