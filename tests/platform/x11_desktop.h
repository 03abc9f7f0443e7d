// Plain windows of one colour, for the tests of the X11 devices.
#pragma once

#include <unistd.h>

#include "platform/linux/test_desktop.h"

// Last: its macros (None, Bool, Status) clash with names in the headers above.
#include <X11/Xatom.h>
#include <X11/Xlib.h>

namespace glimmerstrand::testing {

/// A plain window of one colour on a connection of its own, drawn by the
/// server itself, named as this process's when asked, and noting the clicks
/// it receives.
class ColourWindow {
 public:
  ColourWindow(int left, int top, unsigned long rgb, bool named) : x_(XOpenDisplay(nullptr)) {
    XSetWindowAttributes attributes{};
    attributes.background_pixel = rgb;
    attributes.override_redirect = True;  // where it is put, whatever the window manager thinks
    attributes.event_mask = ButtonPressMask;
    window_ = XCreateWindow(x_, DefaultRootWindow(x_), left, top, 200, 150, 0, CopyFromParent, InputOutput,
                            CopyFromParent, CWBackPixel | CWOverrideRedirect | CWEventMask, &attributes);
    if (named) {
      unsigned long pid = static_cast<unsigned long>(::getpid());
      XChangeProperty(x_, window_, XInternAtom(x_, "_NET_WM_PID", False), XA_CARDINAL, 32, PropModeReplace,
                      reinterpret_cast<unsigned char*>(&pid), 1);
    }
    XMapRaised(x_, window_);
    XSync(x_, False);
  }
  ~ColourWindow() {
    XDestroyWindow(x_, window_);
    XCloseDisplay(x_);
  }
  ColourWindow(const ColourWindow&) = delete;
  ColourWindow& operator=(const ColourWindow&) = delete;

  bool clicked() {
    XEvent event;
    return XCheckWindowEvent(x_, window_, ButtonPressMask, &event);
  }

 private:
  ::Display* x_;
  ::Window window_;
};

}  // namespace glimmerstrand::testing
