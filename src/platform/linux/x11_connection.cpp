#include "platform/linux/x11_connection.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <functional>
#include <mutex>

namespace glimmerstrand::platform::linux_desktop {

namespace {

// A request about a window that has just gone fails with BadWindow; the
// caller sees an empty answer, which is what a vanished window means.
int ignoreError(::Display*, XErrorEvent*) { return 0; }

std::vector<unsigned long> cardinals(::Display* d, ::Window w, const char* name, Atom type) {
  Atom actual;
  int format;
  unsigned long count, after;
  unsigned char* data = nullptr;
  std::vector<unsigned long> out;
  if (XGetWindowProperty(d, w, XInternAtom(d, name, False), 0, 4096, False, type, &actual, &format, &count, &after,
                         &data) == Success &&
      data) {
    if (format == 32) {
      auto* values = reinterpret_cast<unsigned long*>(data);
      out.assign(values, values + count);
    }
    XFree(data);
  }
  return out;
}

std::string titleOf(::Display* d, ::Window w) {
  Atom actual;
  int format;
  unsigned long count, after;
  unsigned char* data = nullptr;
  std::string out;
  if (XGetWindowProperty(d, w, XInternAtom(d, "_NET_WM_NAME", False), 0, 1024, False,
                         XInternAtom(d, "UTF8_STRING", False), &actual, &format, &count, &after, &data) == Success &&
      data) {
    out.assign(reinterpret_cast<char*>(data), count);
    XFree(data);
  }
  if (out.empty()) {
    char* name = nullptr;
    if (XFetchName(d, w, &name) && name) {
      out = name;
      XFree(name);
    }
  }
  return out;
}

std::optional<ClientWindow> describe(::Display* d, ::Window w) {
  XWindowAttributes attributes;
  if (!XGetWindowAttributes(d, w, &attributes)) return std::nullopt;
  ClientWindow c;
  c.window = w;
  auto pid = cardinals(d, w, "_NET_WM_PID", XA_CARDINAL);
  c.pid = pid.empty() ? 0 : static_cast<std::int32_t>(pid[0]);
  c.viewable = attributes.map_state == IsViewable;
  int x = 0, y = 0;
  ::Window child;
  XTranslateCoordinates(d, w, DefaultRootWindow(d), 0, 0, &x, &y, &child);
  c.frame = AxRect{double(x), double(y), double(attributes.width), double(attributes.height)};
  c.title = titleOf(d, w);
  return c;
}

std::vector<::Window> childrenOf(::Display* d, ::Window w) {
  ::Window parent, rootReturn;
  ::Window* children = nullptr;
  unsigned int count = 0;
  std::vector<::Window> out;
  if (XQueryTree(d, w, &rootReturn, &parent, &children, &count) && children) {
    out.assign(children, children + count);
    XFree(children);
  }
  return out;
}

// The window, or its nearest ancestor below the root, that names its
// process with _NET_WM_PID; and that process.
std::optional<std::pair<::Window, std::int32_t>> namingWindow(::Display* d, ::Window w) {
  const ::Window root = DefaultRootWindow(d);
  while (w && w != root) {
    if (auto pid = cardinals(d, w, "_NET_WM_PID", XA_CARDINAL); !pid.empty())
      return std::pair{w, static_cast<std::int32_t>(pid[0])};
    ::Window parent, rootReturn;
    ::Window* children = nullptr;
    unsigned int count = 0;
    if (!XQueryTree(d, w, &rootReturn, &parent, &children, &count)) return std::nullopt;
    if (children) XFree(children);
    w = parent;
  }
  return std::nullopt;
}

}  // namespace

XConnection* openX11() {
  static std::once_flag once;
  std::call_once(once, [] {
    XInitThreads();
    XSetErrorHandler(ignoreError);
    // The default handler ends the process; the exit handler below decides.
    XSetIOErrorHandler([](::Display*) { return 0; });
  });
  XConnection* connection = XOpenDisplay(nullptr);
  // By default Xlib ends the process when the server goes away. The daemon
  // outlives a desktop: the connection is marked broken instead, and every
  // later call on it fails, which the devices report as failures.
  if (connection)
    XSetIOErrorExitHandler(
        connection, [](::Display*, void*) {}, nullptr);
  return connection;
}

void closeX11(XConnection* connection) {
  if (connection) XCloseDisplay(connection);
}

bool hasWindowManager(XConnection* d) {
  auto check = cardinals(d, DefaultRootWindow(d), "_NET_SUPPORTING_WM_CHECK", XA_WINDOW);
  return !check.empty() && check[0] != 0;
}

std::optional<XWindowId> activeWindow(XConnection* d) {
  if (!hasWindowManager(d)) return std::nullopt;
  auto active = cardinals(d, DefaultRootWindow(d), "_NET_ACTIVE_WINDOW", XA_WINDOW);
  if (active.empty() || active[0] == 0) return std::nullopt;
  return active[0];
}

std::vector<ClientWindow> clientWindows(XConnection* d) {
  std::vector<ClientWindow> out;
  // The root's children in stacking order, each a client window or a window
  // manager's frame around one. Windows the manager does not list (menus,
  // override-redirect panels) are an application's windows too.
  std::function<void(::Window, int)> visit = [&](::Window w, int depth) {
    if (!cardinals(d, w, "_NET_WM_PID", XA_CARDINAL).empty()) {
      if (auto c = describe(d, w)) out.push_back(std::move(*c));
      return;
    }
    if (depth == 0) return;
    for (auto child : childrenOf(d, w)) visit(child, depth - 1);
  };
  for (auto w : childrenOf(d, DefaultRootWindow(d))) visit(w, 2);
  return out;
}

std::optional<std::int32_t> pidOfWindow(XConnection* d, XWindowId window) {
  auto named = namingWindow(d, window);
  return named ? std::optional(named->second) : std::nullopt;
}

std::optional<ClientWindow> focusedClient(XConnection* d) {
  ::Window focus = 0;
  int revert = 0;
  XGetInputFocus(d, &focus, &revert);
  if (focus == None || focus == PointerRoot) return std::nullopt;
  auto named = namingWindow(d, focus);
  return named ? describe(d, named->first) : std::nullopt;
}

std::optional<ClientWindow> topWindowOf(XConnection* d, std::int32_t pid) {
  // From the top of the stack down, describing only the window found: a key
  // for a process looks it up on every press, and each request is a round trip.
  std::function<std::optional<::Window>(::Window, int)> find = [&](::Window w, int depth) -> std::optional<::Window> {
    if (auto owner = cardinals(d, w, "_NET_WM_PID", XA_CARDINAL); !owner.empty()) {
      XWindowAttributes attributes;
      if (static_cast<std::int32_t>(owner[0]) == pid && XGetWindowAttributes(d, w, &attributes) &&
          attributes.map_state == IsViewable)
        return w;
      return std::nullopt;
    }
    if (depth == 0) return std::nullopt;
    auto children = childrenOf(d, w);
    for (auto it = children.rbegin(); it != children.rend(); ++it)
      if (auto found = find(*it, depth - 1)) return found;
    return std::nullopt;
  };
  auto top = childrenOf(d, DefaultRootWindow(d));
  for (auto it = top.rbegin(); it != top.rend(); ++it) {
    // A frame that is not viewable holds no viewable client.
    XWindowAttributes attributes;
    if (!XGetWindowAttributes(d, *it, &attributes) || attributes.map_state != IsViewable) continue;
    if (auto found = find(*it, 2)) return describe(d, *found);
  }
  return std::nullopt;
}

}  // namespace glimmerstrand::platform::linux_desktop
