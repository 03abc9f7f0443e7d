#include "platform/linux/window_geometry_watch.h"

#include <X11/Xlib.h>

#include <unordered_map>

namespace glimmerstrand::platform::linux_desktop {

struct Geometry {
  int x = 0, y = 0, width = 0, height = 0;
  bool operator==(const Geometry&) const = default;
};

// Used on the main run loop only.
struct WindowGeometryWatch::State {
  XConnection* connection;
  Callback callback;
  std::unordered_map<XWindowId, Geometry> known;  // last geometry of each top-level window
  std::unordered_map<XWindowId, std::int32_t> pids;

  // Where every top-level window is now, so that its first change counts.
  void seed() {
    ::Window root = 0, parent = 0, *children = nullptr;
    unsigned int count = 0;
    if (!XQueryTree(connection, DefaultRootWindow(connection), &root, &parent, &children, &count)) return;
    for (unsigned int k = 0; k < count; ++k) {
      XWindowAttributes a;
      if (XGetWindowAttributes(connection, children[k], &a))
        known.try_emplace(children[k], Geometry{a.x, a.y, a.width, a.height});
    }
    if (children) XFree(children);
  }

  void handle(const RootEvent& event) {
    if (event.kind == RootEvent::Kind::destroy) {
      known.erase(event.window);
      pids.erase(event.window);
      return;
    }
    if (event.kind != RootEvent::Kind::configure) return;
    const Geometry now{event.x, event.y, event.width, event.height};
    auto [it, first] = known.try_emplace(event.window, now);
    if (first) return;  // nothing to compare with yet
    const Geometry was = it->second;
    it->second = now;
    if (was == now) return;  // a restack
    const bool resized = was.width != now.width || was.height != now.height;
    if (auto pid = pidOf(event.window)) callback(*pid, resized ? Change::resized : Change::moved);
  }

  std::optional<std::int32_t> pidOf(XWindowId window) {
    if (auto it = pids.find(window); it != pids.end()) return it->second;
    auto pid = pidOfWindow(connection, window);
    if (pid) pids[window] = *pid;
    return pid;
  }
};

WindowGeometryWatch::WindowGeometryWatch(RootWindowEvents& events, RunLoop& mainLoop, Callback callback)
    : s_(std::make_shared<State>(State{events.connection(), std::move(callback), {}, {}})) {
  events.listen([s = s_](const RootEvent& event) { s->handle(event); });
  mainLoop.post([s = s_] { s->seed(); });
}

}  // namespace glimmerstrand::platform::linux_desktop
