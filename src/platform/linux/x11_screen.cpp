#include "platform/linux/x11_screen.h"

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/XShm.h>
#include <X11/extensions/Xcomposite.h>
#include <X11/extensions/Xrandr.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <cmath>
#include <thread>

namespace glimmerstrand::platform::linux_desktop {

namespace {

// An application repaints a window after its contents are redirected off
// screen; until then the kept pixels are blank.
constexpr auto repaintAfterRedirect = std::chrono::milliseconds(150);

struct Area {
  int x = 0, y = 0, width = 0, height = 0;
};

Area intersect(Area a, Area b) {
  int x1 = std::max(a.x, b.x), y1 = std::max(a.y, b.y);
  int x2 = std::min(a.x + a.width, b.x + b.width), y2 = std::min(a.y + a.height, b.y + b.height);
  if (x2 <= x1 || y2 <= y1) return {};
  return {x1, y1, x2 - x1, y2 - y1};
}

int shiftOf(unsigned long mask) { return mask ? std::countr_zero(mask) : 0; }

// Reads `area` of a drawable (in its own coordinates) into an XImage, through
// shared memory when the server has it.
class Grab {
 public:
  Grab(::Display* d, Drawable drawable, Visual* visual, int depth, Area area, bool shm) : d_(d) {
    if (shm) {
      image_ = XShmCreateImage(d, visual, static_cast<unsigned>(depth), ZPixmap, nullptr, &info_,
                               static_cast<unsigned>(area.width), static_cast<unsigned>(area.height));
      if (image_) {
        info_.shmid =
            shmget(IPC_PRIVATE, static_cast<size_t>(image_->bytes_per_line) * image_->height, IPC_CREAT | 0600);
        if (info_.shmid >= 0) {
          info_.shmaddr = image_->data = static_cast<char*>(shmat(info_.shmid, nullptr, 0));
          info_.readOnly = False;
          attached_ = info_.shmaddr != reinterpret_cast<char*>(-1) && XShmAttach(d, &info_);
          // Removed now, gone once both sides detach.
          shmctl(info_.shmid, IPC_RMID, nullptr);
          if (attached_ && XShmGetImage(d, drawable, image_, area.x, area.y, AllPlanes)) return;
        }
        release();
      }
    }
    image_ = XGetImage(d, drawable, area.x, area.y, static_cast<unsigned>(area.width),
                       static_cast<unsigned>(area.height), AllPlanes, ZPixmap);
  }
  ~Grab() { release(); }
  XImage* image() const { return image_; }

 private:
  void release() {
    if (attached_) {
      XShmDetach(d_, &info_);
      XSync(d_, False);
    }
    if (info_.shmaddr && info_.shmaddr != reinterpret_cast<char*>(-1)) shmdt(info_.shmaddr);
    info_.shmaddr = nullptr;
    attached_ = false;
    if (image_) {
      image_->data = nullptr;
      XDestroyImage(image_);
    }
    image_ = nullptr;
  }
  ::Display* d_;
  XShmSegmentInfo info_{};
  XImage* image_ = nullptr;
  bool attached_ = false;
};

// Copies an image into the desktop-sized picture `out` whose top-left corner
// is at `origin`, the image's own top-left corner being at `at`. An image of
// a pixmap has no colour masks: the visual's are used.
void paint(const XImage& image, Visual* visual, Area at, Area origin, Pixels& out) {
  unsigned long rm = image.red_mask ? image.red_mask : visual->red_mask;
  unsigned long gm = image.green_mask ? image.green_mask : visual->green_mask;
  unsigned long bm = image.blue_mask ? image.blue_mask : visual->blue_mask;
  int rs = shiftOf(rm), gs = shiftOf(gm), bs = shiftOf(bm);
  const bool fast = image.bits_per_pixel == 32 && image.byte_order == LSBFirst;
  for (int row = 0; row < at.height; ++row) {
    auto* dst = &out.rgba[((static_cast<std::size_t>(at.y - origin.y + row) * out.width) + (at.x - origin.x)) * 4];
    const auto* src =
        reinterpret_cast<const std::uint32_t*>(image.data + static_cast<std::ptrdiff_t>(row) * image.bytes_per_line);
    for (int col = 0; col < at.width; ++col, dst += 4) {
      unsigned long p = fast ? src[col] : XGetPixel(const_cast<XImage*>(&image), col, row);
      dst[0] = static_cast<std::uint8_t>((p & rm) >> rs);
      dst[1] = static_cast<std::uint8_t>((p & gm) >> gs);
      dst[2] = static_cast<std::uint8_t>((p & bm) >> bs);
      dst[3] = 255;
    }
  }
}

}  // namespace

X11Screen::X11Screen() : x_(openX11()) {
  if (x_) shm_ = XShmQueryExtension(x_);
}

X11Screen::~X11Screen() {
  if (!x_) return;
  for (auto window : redirected_) XCompositeUnredirectWindow(x_, window, CompositeRedirectAutomatic);
  closeX11(x_);
}

std::vector<Display> X11Screen::displays() {
  std::lock_guard guard(lock_);
  std::vector<Display> out;
  if (!x_) return out;
  ::Window root = DefaultRootWindow(x_);
  int event, error;
  if (XRRQueryExtension(x_, &event, &error)) {
    if (XRRScreenResources* resources = XRRGetScreenResourcesCurrent(x_, root)) {
      RROutput primary = XRRGetOutputPrimary(x_, root);
      for (int n = 0; n < resources->noutput; ++n) {
        XRROutputInfo* output = XRRGetOutputInfo(x_, resources, resources->outputs[n]);
        if (!output) continue;
        if (output->connection == RR_Connected && output->crtc) {
          if (XRRCrtcInfo* crtc = XRRGetCrtcInfo(x_, resources, output->crtc)) {
            Display d;
            d.id = static_cast<std::int64_t>(resources->outputs[n]);
            d.bounds = AxRect{double(crtc->x), double(crtc->y), double(crtc->width), double(crtc->height)};
            d.main = resources->outputs[n] == primary;
            out.push_back(d);
            XRRFreeCrtcInfo(crtc);
          }
        }
        XRRFreeOutputInfo(output);
      }
      XRRFreeScreenResources(resources);
    }
  }
  if (out.empty()) {
    Display d;
    d.id = 1;
    d.bounds = AxRect{0, 0, double(DisplayWidth(x_, DefaultScreen(x_))), double(DisplayHeight(x_, DefaultScreen(x_)))};
    out.push_back(d);
  }
  // Without a primary output the one at the origin is the main display.
  if (std::none_of(out.begin(), out.end(), [](const Display& d) { return d.main; })) {
    auto origin =
        std::find_if(out.begin(), out.end(), [](const Display& d) { return d.bounds.x == 0 && d.bounds.y == 0; });
    (origin != out.end() ? *origin : out.front()).main = true;
  }
  return out;
}

std::optional<Pixels> X11Screen::capture(const AxRect& region, double scale, std::optional<std::int32_t> pid) {
  std::lock_guard guard(lock_);
  if (!x_) return std::nullopt;
  const Area want{static_cast<int>(std::floor(region.x)), static_cast<int>(std::floor(region.y)),
                  static_cast<int>(std::ceil(region.width)), static_cast<int>(std::ceil(region.height))};
  if (want.width <= 0 || want.height <= 0) return std::nullopt;
  const int screen = DefaultScreen(x_);
  ::Window root = RootWindow(x_, screen);
  Visual* rootVisual = DefaultVisual(x_, screen);
  Pixels out{want.width, want.height,
             std::vector<std::uint8_t>(static_cast<std::size_t>(want.width) * want.height * 4)};
  if (!pid) {
    const Area desktop{0, 0, DisplayWidth(x_, screen), DisplayHeight(x_, screen)};
    const Area part = intersect(want, desktop);
    if (part.width > 0) {
      Grab grab(x_, root, rootVisual, DefaultDepth(x_, screen), part, shm_);
      if (!grab.image()) return std::nullopt;
      paint(*grab.image(), rootVisual, part, want, out);
    }
  } else {
    int event, error;
    if (!XCompositeQueryExtension(x_, &event, &error)) return std::nullopt;
    bool waitForRepaint = false;
    auto windows = clientWindows(x_);
    std::erase_if(windows, [&](const ClientWindow& w) { return w.pid != *pid || !w.viewable; });
    for (const auto& w : windows)
      if (redirected_.insert(w.window).second) {
        XCompositeRedirectWindow(x_, w.window, CompositeRedirectAutomatic);
        waitForRepaint = true;
      }
    if (waitForRepaint) {
      XSync(x_, False);
      std::this_thread::sleep_for(repaintAfterRedirect);
    }
    // Bottom of the stack first, so that the application's own upper
    // windows cover its lower ones.
    for (const auto& w : windows) {
      XWindowAttributes attributes;
      if (!XGetWindowAttributes(x_, w.window, &attributes)) continue;
      const Area frame{static_cast<int>(w.frame.x), static_cast<int>(w.frame.y), attributes.width, attributes.height};
      const Area part = intersect(want, frame);
      if (part.width == 0) continue;
      Pixmap pixmap = XCompositeNameWindowPixmap(x_, w.window);
      {
        Grab grab(x_, pixmap, attributes.visual, attributes.depth,
                  Area{part.x - frame.x, part.y - frame.y, part.width, part.height}, shm_);
        if (grab.image()) paint(*grab.image(), attributes.visual, part, want, out);
      }
      XFreePixmap(x_, pixmap);
    }
  }
  const auto width = static_cast<std::int64_t>(std::lround(want.width * scale));
  const auto height = static_cast<std::int64_t>(std::lround(want.height * scale));
  if (width != out.width || height != out.height)
    return scaledPixels(out, std::max<std::int64_t>(width, 1), std::max<std::int64_t>(height, 1));
  return out;
}

}  // namespace glimmerstrand::platform::linux_desktop
