#include "platform/wayland/wayland_screen.h"

#include <sys/mman.h>
#include <unistd.h>
#include <wayland-client.h>

#include <algorithm>
#include <cmath>

#include "platform/wayland/sway_ipc.h"
#include "wlr-screencopy-unstable-v1-client.h"

namespace glimmerstrand::platform::wayland_desktop {

namespace {

constexpr auto copyLimit = std::chrono::seconds(5);

// What the compositor tells of one copy, on the capturing thread's queue.
struct Copy {
  std::optional<std::uint32_t> format;
  std::uint32_t width = 0, height = 0, stride = 0;
  bool described = false;  // every buffer type told (version 3), or the first (earlier)
  bool upsideDown = false;
  bool ready = false, failed = false;
};

void onBuffer(void* data, zwlr_screencopy_frame_v1*, std::uint32_t format, std::uint32_t width, std::uint32_t height,
              std::uint32_t stride) {
  auto* c = static_cast<Copy*>(data);
  if (c->format) return;
  c->format = format;
  c->width = width;
  c->height = height;
  c->stride = stride;
}
void onFlags(void* data, zwlr_screencopy_frame_v1*, std::uint32_t flags) {
  static_cast<Copy*>(data)->upsideDown = flags & ZWLR_SCREENCOPY_FRAME_V1_FLAGS_Y_INVERT;
}
void onReady(void* data, zwlr_screencopy_frame_v1*, std::uint32_t, std::uint32_t, std::uint32_t) {
  static_cast<Copy*>(data)->ready = true;
}
void onFailed(void* data, zwlr_screencopy_frame_v1*) { static_cast<Copy*>(data)->failed = true; }
void onDamage(void*, zwlr_screencopy_frame_v1*, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t) {}
void onDmabuf(void*, zwlr_screencopy_frame_v1*, std::uint32_t, std::uint32_t, std::uint32_t) {}
void onBufferDone(void* data, zwlr_screencopy_frame_v1*) { static_cast<Copy*>(data)->described = true; }

const zwlr_screencopy_frame_v1_listener frameListener{onBuffer, onFlags,  onReady,     onFailed,
                                                      onDamage, onDmabuf, onBufferDone};

struct Area {
  std::int64_t x = 0, y = 0, width = 0, height = 0;
};

Area intersect(const Area& a, const Area& b) {
  const auto left = std::max(a.x, b.x), top = std::max(a.y, b.y);
  const auto right = std::min(a.x + a.width, b.x + b.width), bottom = std::min(a.y + a.height, b.y + b.height);
  if (right <= left || bottom <= top) return {};
  return {left, top, right - left, bottom - top};
}

Area areaOf(const AxRect& r) {
  return {static_cast<std::int64_t>(std::floor(r.x)), static_cast<std::int64_t>(std::floor(r.y)),
          static_cast<std::int64_t>(std::ceil(r.width)), static_cast<std::int64_t>(std::ceil(r.height))};
}

}  // namespace

std::optional<Pixels> rgbaOf(const std::uint8_t* data, std::uint32_t format, std::int64_t width, std::int64_t height,
                             std::int64_t stride, bool upsideDown) {
  // Little-endian words: ARGB8888 lies in memory as B, G, R, A; ABGR8888 as R, G, B, A.
  bool redFirst = false, opaque = false;
  switch (format) {
    case WL_SHM_FORMAT_ARGB8888:
      break;
    case WL_SHM_FORMAT_XRGB8888:
      opaque = true;
      break;
    case WL_SHM_FORMAT_ABGR8888:
      redFirst = true;
      break;
    case WL_SHM_FORMAT_XBGR8888:
      redFirst = opaque = true;
      break;
    default:
      return std::nullopt;
  }
  Pixels out{width, height, std::vector<std::uint8_t>(static_cast<std::size_t>(width * height * 4))};
  for (std::int64_t y = 0; y < height; ++y) {
    const std::uint8_t* row = data + (upsideDown ? height - 1 - y : y) * stride;
    std::uint8_t* into = &out.rgba[static_cast<std::size_t>(y * width * 4)];
    for (std::int64_t x = 0; x < width; ++x, row += 4, into += 4) {
      into[0] = redFirst ? row[0] : row[2];
      into[1] = row[1];
      into[2] = redFirst ? row[2] : row[0];
      into[3] = opaque ? 255 : row[3];
    }
  }
  return out;
}

WaylandScreen::WaylandScreen(WaylandClient& client) : client_(client) {}

bool WaylandScreen::canCapture() const { return client_.globals().screencopy && client_.globals().shm; }

std::vector<Display> WaylandScreen::displays() {
  std::vector<Display> out;
  std::int64_t id = 0;
  for (const auto& o : client_.outputs()) out.push_back(Display{++id, o.bounds, double(o.scale), false});
  if (!out.empty()) {
    auto origin =
        std::find_if(out.begin(), out.end(), [](const Display& d) { return d.bounds.x == 0 && d.bounds.y == 0; });
    (origin != out.end() ? *origin : out.front()).main = true;
  }
  return out;
}

namespace {

// One output's part of a region, copied by the compositor into shared
// memory; none when it fails or takes too long.
std::optional<Pixels> copyPart(WaylandClient& client, const Output& output, const Area& part) {
  const Globals& g = client.globals();
  wl_event_queue* queue = client.makeQueue();
  Copy copy;
  zwlr_screencopy_frame_v1* frame = nullptr;
  {
    auto wire = client.wire();
    auto* manager = static_cast<zwlr_screencopy_manager_v1*>(wl_proxy_create_wrapper(g.screencopy));
    wl_proxy_set_queue(reinterpret_cast<wl_proxy*>(manager), queue);
    frame = zwlr_screencopy_manager_v1_capture_output_region(
        manager, 0, output.proxy, static_cast<std::int32_t>(part.x - output.bounds.x),
        static_cast<std::int32_t>(part.y - output.bounds.y), static_cast<std::int32_t>(part.width),
        static_cast<std::int32_t>(part.height));
    wl_proxy_wrapper_destroy(manager);
    zwlr_screencopy_frame_v1_add_listener(frame, &frameListener, &copy);
    client.flush();
  }
  const bool v3 = zwlr_screencopy_frame_v1_get_version(frame) >= 3;
  std::optional<Pixels> pixels;
  int fd = -1;
  void* memory = MAP_FAILED;
  std::size_t size = 0;
  wl_shm_pool* pool = nullptr;
  wl_buffer* buffer = nullptr;
  if (client.dispatchUntil(
          queue, [&] { return copy.failed || (copy.format && (!v3 || copy.described)); }, copyLimit) &&
      !copy.failed) {
    size = std::size_t{copy.stride} * copy.height;
    fd = ::memfd_create("glimmerstrand-capture", MFD_CLOEXEC);
    if (fd >= 0 && ::ftruncate(fd, static_cast<off_t>(size)) == 0)
      memory = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory != MAP_FAILED) {
      {
        auto wire = client.wire();
        auto* shm = static_cast<wl_shm*>(wl_proxy_create_wrapper(g.shm));
        wl_proxy_set_queue(reinterpret_cast<wl_proxy*>(shm), queue);
        pool = wl_shm_create_pool(shm, fd, static_cast<std::int32_t>(size));
        wl_proxy_wrapper_destroy(shm);
        buffer = wl_shm_pool_create_buffer(pool, 0, static_cast<std::int32_t>(copy.width),
                                           static_cast<std::int32_t>(copy.height),
                                           static_cast<std::int32_t>(copy.stride), *copy.format);
        zwlr_screencopy_frame_v1_copy(frame, buffer);
        client.flush();
      }
      if (client.dispatchUntil(
              queue, [&] { return copy.ready || copy.failed; }, copyLimit) &&
          copy.ready)
        pixels = rgbaOf(static_cast<const std::uint8_t*>(memory), *copy.format, copy.width, copy.height, copy.stride,
                        copy.upsideDown);
    }
  }
  {
    auto wire = client.wire();
    if (buffer) wl_buffer_destroy(buffer);
    if (pool) wl_shm_pool_destroy(pool);
    zwlr_screencopy_frame_v1_destroy(frame);
    client.flush();
  }
  if (memory != MAP_FAILED) ::munmap(memory, size);
  if (fd >= 0) ::close(fd);
  wl_event_queue_destroy(queue);
  return pixels;
}

// Puts `from`, which shows `part` at `scale` pixels a point, into `into`,
// which shows `want`: only where `keep` allows, when given.
void paint(const Pixels& from, const Area& part, const Area& want, Pixels& into, const std::vector<Area>* keep) {
  // A point a pixel, all of it: whole rows at once.
  if (!keep && from.width == part.width && from.height == part.height) {
    for (std::int64_t y = 0; y < part.height; ++y)
      std::copy_n(&from.rgba[static_cast<std::size_t>(y * from.width * 4)], part.width * 4,
                  &into.rgba[static_cast<std::size_t>(((part.y + y - want.y) * want.width + (part.x - want.x)) * 4)]);
    return;
  }
  for (std::int64_t y = 0; y < part.height; ++y)
    for (std::int64_t x = 0; x < part.width; ++x) {
      const std::int64_t gx = part.x + x, gy = part.y + y;
      if (keep && std::none_of(keep->begin(), keep->end(), [&](const Area& a) {
            return gx >= a.x && gy >= a.y && gx < a.x + a.width && gy < a.y + a.height;
          }))
        continue;
      const auto sx = std::min(from.width - 1, x * from.width / part.width);
      const auto sy = std::min(from.height - 1, y * from.height / part.height);
      std::copy_n(&from.rgba[static_cast<std::size_t>((sy * from.width + sx) * 4)], 4,
                  &into.rgba[static_cast<std::size_t>(((gy - want.y) * want.width + (gx - want.x)) * 4)]);
    }
}

}  // namespace

std::optional<Pixels> WaylandScreen::capture(const AxRect& region, double scale, std::optional<std::int32_t> pid) {
  if (!canCapture()) return std::nullopt;
  const Area want = areaOf(region);
  if (want.width <= 0 || want.height <= 0) return std::nullopt;
  std::optional<std::vector<Area>> keep;
  if (pid) {
    keep.emplace();
    if (auto socket = swaySocket(); socket)
      if (auto tree = swayRequest(*socket, 4, "", std::chrono::seconds(1)))
        for (const auto& view : parseSwayTree(*tree))
          if (view.pid == *pid && view.visible) keep->push_back(areaOf(view.frame));
  }
  Pixels out{want.width, want.height,
             std::vector<std::uint8_t>(static_cast<std::size_t>(want.width * want.height * 4))};
  for (const auto& output : client_.outputs()) {
    const Area part = intersect(want, areaOf(output.bounds));
    if (part.width == 0 || (keep && keep->empty())) continue;
    auto pixels = copyPart(client_, output, part);
    if (!pixels) return std::nullopt;
    // The common case, one output's region whole: its pixels are the picture.
    if (!keep && part.x == want.x && part.y == want.y && part.width == want.width && part.height == want.height &&
        pixels->width == want.width && pixels->height == want.height) {
      out = std::move(*pixels);
      continue;
    }
    paint(*pixels, part, want, out, keep ? &*keep : nullptr);
  }
  const auto width = std::max<std::int64_t>(std::lround(want.width * scale), 1);
  const auto height = std::max<std::int64_t>(std::lround(want.height * scale), 1);
  if (width != out.width || height != out.height) return scaledPixels(out, width, height);
  return out;
}

}  // namespace glimmerstrand::platform::wayland_desktop
