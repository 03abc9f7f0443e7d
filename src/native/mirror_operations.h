// The mirror family of line operations: axTree, axSnapshot, axRefresh,
// axCounter, waitSettle, elementAt and frontmost, over one MirrorHost.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "native/app_lookup.h"
#include "native/menu_cache.h"
#include "native/mirrors.h"
#include "native/operations.h"
#include "platform/platform.h"

namespace glimmerstrand::native {

/// What the mirror operations hold: the platform (or why there is none), the
/// process's Mirrors, the application lookup, and the JSON of recent node
/// lists, encoded once per list. Made once at start; lives for the process.
/// `cacheLock_` guards the encoded lists and is held only around the cache.
class MirrorHost {
 public:
  /// Without a platform, every operation fails with RPCError "native" and
  /// `problem` as its message.
  MirrorHost(platform::Platform* platform, std::string problem);
  MirrorHost(const MirrorHost&) = delete;
  MirrorHost& operator=(const MirrorHost&) = delete;

  /// RPCError "native" without a platform.
  platform::Platform& platform();
  Mirrors& mirrors();
  AppLookup& apps();
  /// The process's menu bar copies.
  MenuCache& menus();
  /// Watches activation when there is a platform.
  void startObserving();

  /// `[...]`: the nodes as JSON, from the cache when this list was encoded
  /// before.
  std::string nodesText(const NodeList& nodes);

 private:
  void requirePlatform() const;

  platform::Platform* platform_;
  std::string problem_;
  std::unique_ptr<Mirrors> mirrors_;
  std::unique_ptr<AppLookup> apps_;
  std::unique_ptr<MenuCache> menus_;

  struct Encoded {
    std::weak_ptr<const std::vector<core::AxNode>> list;
    std::shared_ptr<const std::string> text;
  };
  std::mutex cacheLock_;  // guards encoded_
  std::vector<Encoded> encoded_;
};

void addMirrorOperations(OperationTable& table, MirrorHost& host);

}  // namespace glimmerstrand::native
