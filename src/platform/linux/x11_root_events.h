// What happens on the X server's root window, read on the main run loop from
// one connection and told to every listener: property changes (the window
// manager's _NET_ACTIVE_WINDOW) and top-level windows configured or
// destroyed (moves and resizes). Xlib's types stay out of this header.
//
// Thread-safety: `listen` from any thread (one mutex guards the listeners,
// never held while one runs); listeners run on the main run loop, the only
// place where `connection` may be used.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/linux/x11_connection.h"

namespace glimmerstrand::platform::linux_desktop {

struct RootEvent {
  enum class Kind { property, configure, destroy };
  Kind kind = Kind::property;
  XWindowId window = 0;
  unsigned long atom = 0;                   // the property that changed
  int x = 0, y = 0, width = 0, height = 0;  // a configured window's new geometry
};

class RootWindowEvents {
 public:
  using Listener = std::function<void(const RootEvent&)>;

  /// Watches the root window of $DISPLAY; null when no X server answers.
  static std::unique_ptr<RootWindowEvents> open();
  ~RootWindowEvents();
  RootWindowEvents(const RootWindowEvents&) = delete;
  RootWindowEvents& operator=(const RootWindowEvents&) = delete;

  void listen(Listener listener);
  /// For the round trips listeners make; main run loop only.
  XConnection* connection() const { return x_; }

 private:
  explicit RootWindowEvents(XConnection* x);
  // On the main run loop: every queued event to every listener. A listener's
  // round trips may read later events into Xlib's queue, where they no
  // longer wake the loop, so the queue is read until it is empty.
  void dispatch();

  XConnection* x_;
  unsigned source_ = 0;  // the main context's watch of the connection
  std::mutex lock_;      // guards listeners_
  std::vector<Listener> listeners_;
};

}  // namespace glimmerstrand::platform::linux_desktop
