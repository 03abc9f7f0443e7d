#include "platform/linux/x11_overlay.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/Xfixes.h>
#include <X11/extensions/shape.h>
#include <glib-unix.h>
// X.h names a query class CursorShape; ours is the enum of the seam.
#undef CursorShape

#include <algorithm>
#include <chrono>
#include <cmath>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/cursor_picture.h"
#include "platform/linux/x11_connection.h"

namespace glimmerstrand::platform::linux_desktop {

namespace {

using SteadyClock = std::chrono::steady_clock;

// About sixty frames a second while anything moves.
constexpr auto frameInterval = std::chrono::milliseconds(16);
// Without a compositor a pixel is either drawn or cut away: this much
// coverage draws it. The ripple's faint fill is cut away; its ring stays.
constexpr double shapedCoverage = 0.35;

struct Panel {
  ::Window window = 0;
  GC gc = nullptr;
  int width = 0, height = 0;
  CursorShape shape = CursorShape::arrow;
  std::uint32_t colour = 0;
  PanelMotion motion;
  bool mapped = false;
};

}  // namespace

struct X11Overlay::State {
  XConnection* x = nullptr;
  bool argb = false;  // a compositor runs: translucent windows of 32 bits
  Visual* visual = nullptr;
  int depth = 0;
  Colormap colormap = 0;
  std::map<PanelId, Panel> panels;
  PanelId last = 0;
  bool ticking = false;
  guint watch = 0;  // the source that reads the root's stacking changes

  ~State() {
    if (watch) g_source_remove(watch);
    if (!x) return;
    for (auto& [id, panel] : panels) destroy(panel);
    if (argb) XFreeColormap(x, colormap);
    closeX11(x);
  }

  // A window manager raises the window it focuses above everything, the
  // cursor's panels too: they go back on top whenever another window is
  // mapped or restacked.
  void keepOnTop() {
    bool restacked = false;
    while (XPending(x)) {
      XEvent event;
      XNextEvent(x, &event);
      const ::Window about = event.type == ConfigureNotify ? event.xconfigure.window
                             : event.type == MapNotify     ? event.xmap.window
                                                           : 0;
      if (about && std::none_of(panels.begin(), panels.end(), [&](auto& p) { return p.second.window == about; }))
        restacked = true;
    }
    if (!restacked) return;
    for (auto& [id, panel] : panels)
      if (panel.mapped) XRaiseWindow(x, panel.window);
    XFlush(x);
  }

  void watchStacking() {
    XSelectInput(x, DefaultRootWindow(x), SubstructureNotifyMask);
    // The fd source belongs to the default main context, the main run loop's.
    watch = g_unix_fd_add(
        ConnectionNumber(x), G_IO_IN,
        [](gint, GIOCondition, gpointer self) {
          static_cast<State*>(self)->keepOnTop();
          return gboolean(G_SOURCE_CONTINUE);
        },
        this);
  }

  void destroy(Panel& panel) {
    XFreeGC(x, panel.gc);
    XDestroyWindow(x, panel.window);
    XFlush(x);
  }

  // A compositor owns the selection _NET_WM_CM_Sn of its screen.
  bool compositing() {
    const std::string name = "_NET_WM_CM_S" + std::to_string(DefaultScreen(x));
    return XGetSelectionOwner(x, XInternAtom(x, name.c_str(), False)) != 0;
  }

  void chooseVisual() {
    XVisualInfo info;
    if (compositing() && XMatchVisualInfo(x, DefaultScreen(x), 32, TrueColor, &info)) {
      argb = true;
      visual = info.visual;
      depth = 32;
      colormap = XCreateColormap(x, DefaultRootWindow(x), visual, AllocNone);
      return;
    }
    visual = DefaultVisual(x, DefaultScreen(x));
    depth = DefaultDepth(x, DefaultScreen(x));
  }

  ::Window makeWindow(int width, int height) {
    XSetWindowAttributes attributes{};
    attributes.override_redirect = True;  // no manager frames, moves or focuses it
    attributes.save_under = True;
    unsigned long mask = CWOverrideRedirect | CWSaveUnder;
    if (argb) {
      attributes.colormap = colormap;
      attributes.border_pixel = 0;
      attributes.background_pixel = 0;
      mask |= CWColormap | CWBorderPixel | CWBackPixel;
    }
    ::Window w = XCreateWindow(x, DefaultRootWindow(x), -width, -height, static_cast<unsigned>(width),
                               static_cast<unsigned>(height), 0, depth, InputOutput, visual, mask, &attributes);
    // Clicks fall through: the input shape is empty.
    XserverRegion none = XFixesCreateRegion(x, nullptr, 0);
    XFixesSetWindowShapeRegion(x, w, ShapeInput, 0, 0, none);
    XFixesDestroyRegion(x, none);
    XWMHints hints{};
    hints.flags = InputHint;
    hints.input = False;
    XSetWMHints(x, w, &hints);
    XStoreName(x, w, "glimmerstrand cursor");
    return w;
  }

  void paint(Panel& panel, double alpha, std::optional<Ripple> ripple) {
    auto picture = draw(panel.width, panel.height, panel.shape, panel.colour, ripple);
    std::vector<std::uint32_t> pixels(picture.size());
    std::vector<XRectangle> spans;  // what stays of the window when it is shaped
    for (int row = 0; row < panel.height; ++row) {
      int runStart = -1;
      for (int col = 0; col <= panel.width; ++col) {
        const bool covered =
            col < panel.width && picture[static_cast<std::size_t>(row) * panel.width + col].a >= shapedCoverage;
        if (covered && runStart < 0) runStart = col;
        if (!covered && runStart >= 0) {
          spans.push_back(
              {static_cast<short>(runStart), static_cast<short>(row), static_cast<unsigned short>(col - runStart), 1});
          runStart = -1;
        }
      }
    }
    for (std::size_t n = 0; n < picture.size(); ++n) {
      Rgba p = picture[n];
      // Shaped windows are opaque where they show: the colour without its coverage.
      const double scale = argb ? alpha : (p.a > 0 ? 1 / p.a : 0);
      auto channel = [&](double v) {
        return static_cast<std::uint32_t>(std::lround(std::clamp(v * scale, 0.0, 1.0) * 255));
      };
      pixels[n] = (argb ? channel(p.a) << 24 : 0xff000000u) | channel(p.r) << 16 | channel(p.g) << 8 | channel(p.b);
    }
    XImage* image =
        XCreateImage(x, visual, static_cast<unsigned>(depth), ZPixmap, 0, reinterpret_cast<char*>(pixels.data()),
                     static_cast<unsigned>(panel.width), static_cast<unsigned>(panel.height), 32, panel.width * 4);
    if (!argb)
      XShapeCombineRectangles(x, panel.window, ShapeBounding, 0, 0, spans.data(), static_cast<int>(spans.size()),
                              ShapeSet, Unsorted);
    if (image) {
      XPutImage(x, panel.window, panel.gc, image, 0, 0, 0, 0, static_cast<unsigned>(panel.width),
                static_cast<unsigned>(panel.height));
      image->data = nullptr;  // the vector owns the pixels
      XDestroyImage(image);
    }
  }

  /// Brings the window to what its tweens say now; true while any still runs.
  bool show(Panel& panel, SteadyClock::time_point now) {
    // Without a compositor the ring cannot fade: it grows, then goes.
    const PanelFrame frame = panel.motion.at(now, argb);
    // Without translucency a panel is there or not.
    const bool visible = argb ? frame.alpha > 0 : frame.alpha > 0.01;
    if (panel.motion.moved(frame)) XMoveWindow(x, panel.window, frame.left, frame.top);
    const bool repaint =
        panel.motion.rippled(frame) || (argb && panel.motion.faded(frame)) || (visible && !panel.mapped);
    if (visible && !panel.mapped) {
      XMapRaised(x, panel.window);
      panel.mapped = true;
    } else if (!visible && panel.mapped) {
      XUnmapWindow(x, panel.window);
      panel.mapped = false;
    }
    if (visible && repaint) paint(panel, frame.alpha, frame.ripple);
    return panel.motion.shown(frame, now);
  }
};

X11Overlay::X11Overlay(RunLoop& mainLoop) : loop_(mainLoop), state_(std::make_shared<State>()) {
  state_->x = openX11();
  if (!state_->x) return;
  state_->chooseVisual();
  state_->watchStacking();
}

X11Overlay::~X11Overlay() = default;

OverlayPainter::PanelId X11Overlay::createPanel(AxSize size, CursorShape shape, std::uint32_t colour) {
  const PanelId id = ++state_->last;
  if (!state_->x) return id;  // no display: a panel that shows nowhere
  Panel panel;
  panel.width = std::max(1, static_cast<int>(std::lround(size.width)));
  panel.height = std::max(1, static_cast<int>(std::lround(size.height)));
  panel.shape = shape;
  panel.colour = colour;
  panel.window = state_->makeWindow(panel.width, panel.height);
  panel.gc = XCreateGC(state_->x, panel.window, 0, nullptr);
  panel.motion = PanelMotion(panel.width, panel.height);
  state_->panels.emplace(id, panel);
  XFlush(state_->x);
  return id;
}

void X11Overlay::move(PanelId id, AxPoint origin, std::int64_t durationMs) {
  auto found = state_->panels.find(id);
  if (found == state_->panels.end()) return;
  auto& panel = found->second;
  panel.motion.moveTo(origin, durationMs);
  // Windows raised since the last move may cover the cursor.
  if (panel.mapped) XRaiseWindow(state_->x, panel.window);
  animate();
}

void X11Overlay::close(PanelId id) {
  auto found = state_->panels.find(id);
  if (found == state_->panels.end()) return;
  state_->destroy(found->second);
  state_->panels.erase(found);
}

void X11Overlay::setAlpha(PanelId id, double alpha, std::int64_t durationMs) {
  auto found = state_->panels.find(id);
  if (found == state_->panels.end()) return;
  found->second.motion.fadeTo(alpha, durationMs);
  animate();
}

void X11Overlay::pulse(PanelId id, double scale, std::int64_t durationMs) {
  auto found = state_->panels.find(id);
  if (found == state_->panels.end()) return;
  found->second.motion.pulse(scale, durationMs);
  animate();
}

// Shows every panel as it stands now, and comes back a frame later while
// anything still moves.
void X11Overlay::animate() {
  State& state = *state_;
  if (!state.x) return;
  bool running = false;
  const auto now = SteadyClock::now();
  for (auto& [id, panel] : state.panels) running = state.show(panel, now) || running;
  // Events read in while drawing would not wake the loop: they are seen now.
  state.keepOnTop();
  if (!running || state.ticking) return;
  state.ticking = true;
  std::weak_ptr<State> weak = state_;
  loop_.postAfter(frameInterval, [this, weak] {
    auto alive = weak.lock();
    if (!alive) return;
    alive->ticking = false;
    animate();
  });
}

}  // namespace glimmerstrand::platform::linux_desktop
