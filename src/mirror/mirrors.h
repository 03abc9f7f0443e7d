// Mirrors: the live mirrors of the process, at most six, the least recently
// used one evicted for a seventh. A mirror goes, with its memory, as soon as
// a walk finds its application gone (it left the accessibility bus or its
// process ended), and is made anew when the application's element is no
// longer the one it reads (the application came back under a new identity).
// Also the watch on application activation, which starts the copy of an
// application that comes to the front before anybody asks, and the turning
// of an element reference back into a live element.
//
// `lock_` guards the table. It is held while a new mirror is made, which
// calls nothing in the application (registration runs on the mirror's own
// queue); no code takes it while holding a mirror's lock. `link_->lock` is
// taken before `lock_`, by a mirror's walk queue telling that its
// application is gone, and by the destructor, which cuts that way back.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "core/desktop.h"
#include "core/records.h"
#include "mirror/app_mirror.h"
#include "platform/workspace.h"

namespace glimmerstrand::native {

/// What every operation that needs the accessibility permission says
/// without it: on Linux, without the toolkits' accessibility switched on.
inline const core::DesktopText permissionMessage{
    .mac =
        "アクセシビリティが許可されていません。システム設定のプライバシーとセキュリティで、ターミナルにアクセシビリ"
        "ティを許可してください",
    .linuxDesktop =
        "アクセシビリティ (AT-SPI) が有効になっていません。gsettings set org.gnome.desktop.interface "
        "toolkit-accessibility true で有効にしてから、アプリを起動し直してください",
};

/// Fails "permission" with `permissionMessage` unless the process may read
/// and drive other applications.
void requireTrust(platform::Accessibility& ax);

class Mirrors {
 public:
  static constexpr std::size_t maxMirrors = 6;

  Mirrors(MirrorEnvironment environment, platform::Workspace& workspace);
  /// Detaches every mirror from its observer.
  ~Mirrors();
  Mirrors(const Mirrors&) = delete;
  Mirrors& operator=(const Mirrors&) = delete;

  /// The mirror of `pid`, made, registered and scheduled when there is none
  /// or when the one there reads an element that is no longer the
  /// application's.
  std::shared_ptr<AppMirror> mirror(std::int32_t pid);
  /// The mirror of `pid` if there is one and its application has not gone;
  /// does not count as a use.
  std::shared_ptr<AppMirror> existing(std::int32_t pid);
  /// Every mirror, in the order made.
  std::vector<std::shared_ptr<AppMirror>> all();
  /// Watches activation on the main run loop; once, at start. REQUIRES: this
  /// Mirrors outlives the workspace (the process-wide one does).
  void startObserving();

  MirrorEnvironment environment() const { return environment_; }

 private:
  // The way from a mirror's walk queue back to this registry, cut when it goes.
  struct Link {
    explicit Link(Mirrors* mirrors) : owner(mirrors) {}
    std::mutex lock;  // guards owner
    Mirrors* owner;
  };
  /// Drops `mirror` if it is still the one of its pid: its application is gone.
  void forget(AppMirror& mirror);
  /// Hands memory that dropped mirrors freed back to the system, soon.
  void releaseMemoryLater();

  MirrorEnvironment environment_;
  platform::Workspace& workspace_;
  std::shared_ptr<Link> link_;
  std::unique_ptr<platform::SerialQueue> housekeeping_;
  std::mutex lock_;                                                           // guards mirrors_ and releaseQueued_
  std::vector<std::pair<std::int32_t, std::shared_ptr<AppMirror>>> mirrors_;  // in the order made
  bool releaseQueued_ = false;
};

struct ResolvedElement {
  std::shared_ptr<AppMirror> mirror;
  Element element;
};

/// The live element of a menu item's uid, from the menu cache.
using MenuElementLookup = std::function<Element(AppMirror& mirror, std::int64_t uid)>;

/// The mirror and live element a reference names: by `uid`, or by
/// `generation` and `i`; a menu item by `uid` through `menus`. Failures
/// "permission", "invalid_argument" (a menu item without uid, an index out of
/// range) or "stale" (no copy of the pid, an element or generation gone).
ResolvedElement resolveElement(Mirrors& mirrors, const core::ElementRef& ref, const MenuElementLookup& menus);

}  // namespace glimmerstrand::native
