#include "platform/linux/window_geometry_watch.h"

#include <X11/Xlib.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <thread>
#include <unordered_map>

#include "platform/linux/x11_connection.h"

namespace glimmerstrand::platform::linux_desktop {

struct Geometry {
  int x = 0, y = 0, width = 0, height = 0;
};

// Everything below belongs to the watch thread alone, but for `wake`, which
// the destructor writes to end it.
struct WindowGeometryWatch::State {
  XConnection* connection = nullptr;
  int wake = -1;
  Callback callback;
  std::unordered_map<XWindowId, Geometry> known;  // last geometry of each top-level window
  std::unordered_map<XWindowId, std::int32_t> pids;
  std::thread thread;

  void run() {
    const int xfd = ConnectionNumber(connection);
    for (;;) {
      while (XPending(connection)) {
        XEvent event;
        XNextEvent(connection, &event);
        handle(event);
      }
      pollfd fds[2] = {{xfd, POLLIN, 0}, {wake, POLLIN, 0}};
      if (::poll(fds, 2, -1) < 0 && errno != EINTR) return;
      if (fds[1].revents) return;
      if (fds[0].revents & (POLLHUP | POLLERR)) return;
    }
  }

  void handle(const XEvent& event) {
    if (event.type == DestroyNotify) {
      known.erase(event.xdestroywindow.window);
      pids.erase(event.xdestroywindow.window);
      return;
    }
    if (event.type != ConfigureNotify) return;
    const auto& c = event.xconfigure;
    const Geometry now{c.x, c.y, c.width, c.height};
    auto [it, first] = known.try_emplace(c.window, now);
    if (first) return;  // nothing to compare with yet
    const Geometry was = it->second;
    it->second = now;
    const bool resized = was.width != now.width || was.height != now.height;
    const bool moved = was.x != now.x || was.y != now.y;
    if (!resized && !moved) return;  // a restack
    auto pid = pidOf(c.window);
    if (pid) callback(*pid, resized ? Change::resized : Change::moved);
  }

  // Where every top-level window is now, so that its first change counts.
  void seed() {
    ::Window root = 0, parent = 0, *children = nullptr;
    unsigned int count = 0;
    if (!XQueryTree(connection, DefaultRootWindow(connection), &root, &parent, &children, &count)) return;
    for (unsigned int k = 0; k < count; ++k) {
      XWindowAttributes a;
      if (XGetWindowAttributes(connection, children[k], &a)) known[children[k]] = {a.x, a.y, a.width, a.height};
    }
    if (children) XFree(children);
  }

  std::optional<std::int32_t> pidOf(XWindowId window) {
    if (auto it = pids.find(window); it != pids.end()) return it->second;
    auto pid = pidOfWindow(connection, window);
    if (pid) pids[window] = *pid;
    return pid;
  }
};

std::unique_ptr<WindowGeometryWatch> WindowGeometryWatch::start(Callback callback) {
  auto state = std::make_unique<State>();
  state->connection = openX11();
  if (!state->connection) return nullptr;
  state->wake = ::eventfd(0, EFD_CLOEXEC);
  state->callback = std::move(callback);
  // Window managers move their frames, which are the root's children too.
  XSelectInput(state->connection, DefaultRootWindow(state->connection), SubstructureNotifyMask);
  state->seed();
  State* s = state.get();
  state->thread = std::thread([s] { s->run(); });
  return std::unique_ptr<WindowGeometryWatch>(new WindowGeometryWatch(std::move(state)));
}

WindowGeometryWatch::WindowGeometryWatch(std::unique_ptr<State> state) : s_(std::move(state)) {}

WindowGeometryWatch::~WindowGeometryWatch() {
  const std::uint64_t one = 1;
  // Writing one to an eventfd fails only when its counter would overflow.
  [[maybe_unused]] const auto written = ::write(s_->wake, &one, sizeof one);
  s_->thread.join();
  closeX11(s_->connection);
  ::close(s_->wake);
}

}  // namespace glimmerstrand::platform::linux_desktop
