#include "platform/linux/x11_root_events.h"

#include <X11/Xlib.h>
#include <glib-unix.h>

namespace glimmerstrand::platform::linux_desktop {

std::unique_ptr<RootWindowEvents> RootWindowEvents::open() {
  XConnection* x = openX11();
  if (!x) return nullptr;
  return std::unique_ptr<RootWindowEvents>(new RootWindowEvents(x));
}

RootWindowEvents::RootWindowEvents(XConnection* x) : x_(x) {
  // Window managers move their frames, which are the root's children too.
  XSelectInput(x_, DefaultRootWindow(x_), PropertyChangeMask | SubstructureNotifyMask);
  XSync(x_, False);
  // The fd source belongs to the default main context, the main run loop's.
  source_ = g_unix_fd_add(
      ConnectionNumber(x_), G_IO_IN,
      [](gint, GIOCondition, gpointer self) {
        static_cast<RootWindowEvents*>(self)->dispatch();
        return gboolean(G_SOURCE_CONTINUE);
      },
      this);
}

RootWindowEvents::~RootWindowEvents() {
  if (source_) g_source_remove(source_);
  closeX11(x_);
}

void RootWindowEvents::listen(Listener listener) {
  std::lock_guard guard(lock_);
  listeners_.push_back(std::move(listener));
}

void RootWindowEvents::dispatch() {
  while (XPending(x_)) {
    XEvent event;
    XNextEvent(x_, &event);
    RootEvent told;
    if (event.type == PropertyNotify) {
      told = {RootEvent::Kind::property, event.xproperty.window, event.xproperty.atom};
    } else if (event.type == ConfigureNotify) {
      const auto& c = event.xconfigure;
      told = {RootEvent::Kind::configure, c.window, 0, c.x, c.y, c.width, c.height};
    } else if (event.type == DestroyNotify) {
      told = {RootEvent::Kind::destroy, event.xdestroywindow.window};
    } else {
      continue;
    }
    std::vector<Listener> listeners;
    {
      std::lock_guard guard(lock_);
      listeners = listeners_;
    }
    for (const auto& listener : listeners) listener(told);
  }
}

}  // namespace glimmerstrand::platform::linux_desktop
