// What the tests of the X11 devices share: their desktop (the one of
// test_desktop.h, started once a suite), polling until a condition holds,
// plain windows of one colour, and reading pixels.
#pragma once

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/linux_platform.h"
#include "platform/linux/test_desktop.h"
#include "platform/screen.h"

// Last: its macros (None, Bool, Status) clash with names in the headers above.
#include <X11/Xatom.h>
#include <X11/Xlib.h>

namespace glimmerstrand::testing {

/// The suite's desktop, or null with the reason in `problem`, so that each
/// test can say why it cannot run.
inline TestDesktop* startDesktop(const std::vector<std::string>& apps, std::string& problem) {
  try {
    return new TestDesktop(apps, true);
  } catch (const std::exception& e) {
    problem = e.what();
    return nullptr;
  }
}

/// Polls `condition` every 20 ms until it holds or `limit` passes.
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds limit = std::chrono::seconds(5)) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < deadline) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return condition();
}

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

/// The colour of one pixel as 0xRRGGBB.
inline std::uint32_t pixelAt(const platform::Pixels& p, std::int64_t x, std::int64_t y) {
  const auto* px = &p.rgba[static_cast<std::size_t>((y * p.width + x) * 4)];
  return (std::uint32_t{px[0]} << 16) | (std::uint32_t{px[1]} << 8) | px[2];
}

}  // namespace glimmerstrand::testing
