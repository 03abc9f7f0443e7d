#include "platform/linux/x11_windows.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <array>

namespace glimmerstrand::platform::linux_desktop {

namespace {

void sendMessage(::Display* d, ::Window to, ::Window about, const char* type, std::array<long, 5> data, long mask) {
  XEvent event{};
  event.xclient.type = ClientMessage;
  event.xclient.window = about;
  event.xclient.message_type = XInternAtom(d, type, False);
  event.xclient.format = 32;
  for (int n = 0; n < 5; ++n) event.xclient.data.l[n] = data[static_cast<std::size_t>(n)];
  XSendEvent(d, to, False, mask, &event);
}

}  // namespace

X11Windows::X11Windows(RunLoop& mainLoop, RootWindowEvents* rootEvents)
    : mainLoop_(mainLoop), rootEvents_(rootEvents), x_(openX11()) {}

X11Windows::~X11Windows() { closeX11(x_); }

// The window manager's active window, else the window with the focus.
std::optional<std::int32_t> X11Windows::frontPid() {
  std::lock_guard guard(lock_);
  if (!x_) return std::nullopt;
  if (auto active = activeWindow(x_)) return pidOfWindow(x_, *active);
  if (auto focused = focusedClient(x_)) return focused->pid;
  return std::nullopt;
}

// Only with a window manager that keeps _NET_ACTIVE_WINDOW: it knows every
// activation, also of applications without a tree, and tells each once.
bool X11Windows::watchActivation(std::function<void(std::int32_t pid)> callback) {
  std::lock_guard guard(lock_);
  if (!watching_) {
    if (!x_ || !rootEvents_ || !hasWindowManager(x_)) return false;
    activeWindowAtom_ = XInternAtom(x_, "_NET_ACTIVE_WINDOW", False);
    rootEvents_->listen([this](const RootEvent& event) {
      if (event.kind == RootEvent::Kind::property && event.atom == activeWindowAtom_) activeWindowChanged();
    });
    // The process in front now is no news.
    mainLoop_.post([this] {
      auto active = activeWindow(rootEvents_->connection());
      if (active) lastActivePid_ = pidOfWindow(rootEvents_->connection(), *active);
    });
    watching_ = true;
  }
  callbacks_.push_back(std::move(callback));
  return true;
}

// On the main run loop: tells the callbacks when another process has come
// to the front.
void X11Windows::activeWindowChanged() {
  auto active = activeWindow(rootEvents_->connection());
  auto pid = active ? pidOfWindow(rootEvents_->connection(), *active) : std::nullopt;
  if (!pid || pid == lastActivePid_) return;
  lastActivePid_ = pid;
  std::vector<std::function<void(std::int32_t)>> callbacks;
  {
    std::lock_guard guard(lock_);
    callbacks = callbacks_;
  }
  for (const auto& callback : callbacks) callback(*pid);
}

bool X11Windows::activate(std::int32_t pid) {
  std::lock_guard guard(lock_);
  if (!x_) return false;
  std::optional<ClientWindow> target;
  for (const auto& w : clientWindows(x_))
    if (w.pid == pid && (w.viewable || !target)) target = w;
  if (!target) return false;
  ::Window root = DefaultRootWindow(x_);
  if (hasWindowManager(x_)) {
    // Source 2: asked for by the user, so the manager does not refuse it.
    sendMessage(x_, root, target->window, "_NET_ACTIVE_WINDOW", {2, CurrentTime, 0, 0, 0},
                SubstructureRedirectMask | SubstructureNotifyMask);
  } else {
    XMapRaised(x_, target->window);
    XSetInputFocus(x_, target->window, RevertToParent, CurrentTime);
  }
  hidden_.erase(pid);
  XFlush(x_);
  return true;
}

bool X11Windows::hide(std::int32_t pid) {
  std::lock_guard guard(lock_);
  if (!x_) return false;
  bool any = false;
  const bool managed = hasWindowManager(x_);
  for (const auto& w : clientWindows(x_)) {
    if (w.pid != pid || !w.viewable) continue;
    // A manager iconifies; without one, unmapping is all there is.
    if (managed)
      XIconifyWindow(x_, w.window, DefaultScreen(x_));
    else
      XUnmapWindow(x_, w.window);
    hidden_[pid].insert(w.window);
    any = true;
  }
  XFlush(x_);
  return any;
}

bool X11Windows::unhide(std::int32_t pid) {
  std::lock_guard guard(lock_);
  if (!x_) return false;
  auto it = hidden_.find(pid);
  if (it == hidden_.end()) return true;
  // Mapping an iconic window makes it normal again, with or without a manager.
  for (auto window : it->second) XMapWindow(x_, window);
  hidden_.erase(it);
  XFlush(x_);
  return true;
}

bool X11Windows::isHidden(std::int32_t pid) {
  std::lock_guard guard(lock_);
  return hidden_.count(pid) > 0;
}

std::vector<ShownWindow> X11Windows::shownWindows() {
  std::lock_guard guard(lock_);
  std::vector<ShownWindow> shown;
  if (x_)
    for (const auto& w : clientWindows(x_))
      if (w.viewable) shown.push_back(ShownWindow{w.window, w.pid, w.title});
  return shown;
}

bool X11Windows::close(std::int32_t pid) {
  std::lock_guard guard(lock_);
  if (!x_) return false;
  bool delivered = false;
  const Atom protocols = XInternAtom(x_, "WM_PROTOCOLS", False);
  const Atom deleteWindow = XInternAtom(x_, "WM_DELETE_WINDOW", False);
  const bool managed = hasWindowManager(x_);
  for (const auto& w : clientWindows(x_)) {
    if (w.pid != pid || !w.viewable) continue;
    // Closing every window is how a person quits; nothing is killed.
    if (managed) {
      sendMessage(x_, DefaultRootWindow(x_), w.window, "_NET_CLOSE_WINDOW", {CurrentTime, 2, 0, 0, 0},
                  SubstructureRedirectMask | SubstructureNotifyMask);
      delivered = true;
      continue;
    }
    Atom* list = nullptr;
    int count = 0;
    bool polite = false;
    if (XGetWMProtocols(x_, w.window, &list, &count)) {
      for (int n = 0; n < count; ++n) polite = polite || list[n] == deleteWindow;
      XFree(list);
    }
    if (!polite) continue;
    XEvent event{};
    event.xclient.type = ClientMessage;
    event.xclient.window = w.window;
    event.xclient.message_type = protocols;
    event.xclient.format = 32;
    event.xclient.data.l[0] = static_cast<long>(deleteWindow);
    event.xclient.data.l[1] = CurrentTime;
    XSendEvent(x_, w.window, False, NoEventMask, &event);
    delivered = true;
  }
  XFlush(x_);
  return delivered;
}

}  // namespace glimmerstrand::platform::linux_desktop
