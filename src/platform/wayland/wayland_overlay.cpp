#include "platform/wayland/wayland_overlay.h"

#include <sys/mman.h>
#include <unistd.h>
#include <wayland-client.h>

#include <cmath>
#include <map>
#include <mutex>

#include "platform/linux/cursor_picture.h"
#include "wlr-layer-shell-unstable-v1-client.h"

namespace glimmerstrand::platform::wayland_desktop {

namespace {

using linux_desktop::PanelFrame;
using linux_desktop::PanelMotion;
using linux_desktop::Ripple;
using SteadyClock = std::chrono::steady_clock;

// About sixty frames a second while anything moves.
constexpr auto frameInterval = std::chrono::milliseconds(16);

// The surface's side of the panel, shared with its configure events.
struct Surface {
  std::mutex lock;
  bool configured = false;  // guarded by lock
  bool closed = false;      // guarded by lock
};

struct Panel {
  wl_surface* surface = nullptr;
  zwlr_layer_surface_v1* layer = nullptr;
  std::shared_ptr<Surface> state;
  int width = 0, height = 0;
  CursorShape shape = CursorShape::arrow;
  std::uint32_t colour = 0;
  PanelMotion motion;
};

void onConfigure(void* data, zwlr_layer_surface_v1* layer, std::uint32_t serial, std::uint32_t, std::uint32_t) {
  auto* surface = static_cast<std::shared_ptr<Surface>*>(data);
  zwlr_layer_surface_v1_ack_configure(layer, serial);
  std::lock_guard guard((*surface)->lock);
  (*surface)->configured = true;
}

void onClosed(void* data, zwlr_layer_surface_v1*) {
  auto* surface = static_cast<std::shared_ptr<Surface>*>(data);
  std::lock_guard guard((*surface)->lock);
  (*surface)->closed = true;
}

const zwlr_layer_surface_v1_listener layerListener{onConfigure, onClosed};

void onRelease(void*, wl_buffer* buffer) { wl_buffer_destroy(buffer); }

const wl_buffer_listener bufferListener{onRelease};

}  // namespace

struct WaylandOverlay::State {
  explicit State(WaylandClient& c) : client(c) {}
  ~State() {
    auto wire = client.wire();
    for (auto& [id, panel] : panels) destroy(panel);
    client.flush();
  }

  WaylandClient& client;
  std::map<PanelId, Panel> panels;
  PanelId last = 0;
  bool ticking = false;

  // REQUIRES: wire() held.
  void destroy(Panel& panel) {
    zwlr_layer_surface_v1_destroy(panel.layer);
    wl_surface_destroy(panel.surface);
  }

  // A buffer of the panel's picture at `alpha`; the compositor lets it go
  // when it has shown it. REQUIRES: wire() held.
  wl_buffer* paint(const Panel& panel, double alpha, std::optional<Ripple> ripple) {
    const auto picture = linux_desktop::draw(panel.width, panel.height, panel.shape, panel.colour, ripple);
    const int stride = panel.width * 4;
    const std::size_t size = static_cast<std::size_t>(stride) * panel.height;
    const int fd = ::memfd_create("glimmerstrand-cursor", MFD_CLOEXEC);
    if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(size)) != 0) {
      if (fd >= 0) ::close(fd);
      return nullptr;
    }
    void* memory = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) {
      ::close(fd);
      return nullptr;
    }
    auto* pixels = static_cast<std::uint32_t*>(memory);
    auto channel = [&](double v) {
      return static_cast<std::uint32_t>(std::lround(std::clamp(v * alpha, 0.0, 1.0) * 255));
    };
    // ARGB8888, premultiplied, as Wayland takes it.
    for (std::size_t n = 0; n < picture.size(); ++n) {
      const auto& p = picture[n];
      pixels[n] = channel(p.a) << 24 | channel(p.r) << 16 | channel(p.g) << 8 | channel(p.b);
    }
    ::munmap(memory, size);
    wl_shm_pool* pool = wl_shm_create_pool(client.globals().shm, fd, static_cast<std::int32_t>(size));
    wl_buffer* buffer = wl_shm_pool_create_buffer(pool, 0, panel.width, panel.height, stride, WL_SHM_FORMAT_ARGB8888);
    wl_buffer_add_listener(buffer, &bufferListener, nullptr);
    wl_shm_pool_destroy(pool);
    ::close(fd);
    return buffer;
  }

  /// Brings the surface to what its tweens say now; true while any still runs.
  bool show(Panel& panel, SteadyClock::time_point now) {
    {
      std::lock_guard guard(panel.state->lock);
      if (panel.state->closed) return false;
      if (!panel.state->configured) return true;  // shown once configured
    }
    const PanelFrame frame = panel.motion.at(now);
    const bool moved = panel.motion.moved(frame);
    const bool repaint = panel.motion.rippled(frame) || panel.motion.faded(frame);
    if (moved || repaint) {
      auto wire = client.wire();
      if (moved) zwlr_layer_surface_v1_set_margin(panel.layer, frame.top, 0, 0, frame.left);
      if (repaint)
        if (wl_buffer* buffer = paint(panel, frame.alpha, frame.ripple)) {
          wl_surface_attach(panel.surface, buffer, 0, 0);
          wl_surface_damage(panel.surface, 0, 0, panel.width, panel.height);
        }
      wl_surface_commit(panel.surface);
      client.flush();
    }
    return panel.motion.shown(frame, now);
  }
};

WaylandOverlay::WaylandOverlay(WaylandClient& client, RunLoop& mainLoop)
    : loop_(mainLoop), state_(std::make_shared<State>(client)) {}

WaylandOverlay::~WaylandOverlay() = default;

bool WaylandOverlay::available() const {
  const Globals& g = state_->client.globals();
  return g.layerShell && g.compositor && g.shm;
}

OverlayPainter::PanelId WaylandOverlay::createPanel(AxSize size, CursorShape shape, std::uint32_t colour) {
  const PanelId id = ++state_->last;
  if (!available()) return id;  // a panel that shows nowhere
  const Globals& g = state_->client.globals();
  Panel panel;
  panel.width = std::max(1, static_cast<int>(std::lround(size.width)));
  panel.height = std::max(1, static_cast<int>(std::lround(size.height)));
  panel.shape = shape;
  panel.colour = colour;
  panel.state = std::make_shared<Surface>();
  panel.motion = PanelMotion(panel.width, panel.height);
  {
    auto wire = state_->client.wire();
    panel.surface = wl_compositor_create_surface(g.compositor);
    // Clicks fall through: the input region is empty.
    wl_region* none = wl_compositor_create_region(g.compositor);
    wl_surface_set_input_region(panel.surface, none);
    wl_region_destroy(none);
    panel.layer = zwlr_layer_shell_v1_get_layer_surface(g.layerShell, panel.surface, nullptr,
                                                        ZWLR_LAYER_SHELL_V1_LAYER_OVERLAY, "glimmerstrand-cursor");
    // The listener's share is kept for the life of the process: an event may
    // still be on its way when the panel goes.
    zwlr_layer_surface_v1_add_listener(panel.layer, &layerListener, new std::shared_ptr<Surface>(panel.state));
    zwlr_layer_surface_v1_set_size(panel.layer, static_cast<std::uint32_t>(panel.width),
                                   static_cast<std::uint32_t>(panel.height));
    zwlr_layer_surface_v1_set_anchor(panel.layer, ZWLR_LAYER_SURFACE_V1_ANCHOR_TOP | ZWLR_LAYER_SURFACE_V1_ANCHOR_LEFT);
    // Placed from the output's corner, whatever panels and bars reserve.
    zwlr_layer_surface_v1_set_exclusive_zone(panel.layer, -1);
    zwlr_layer_surface_v1_set_keyboard_interactivity(panel.layer, 0);
    zwlr_layer_surface_v1_set_margin(panel.layer, -panel.height, 0, 0, -panel.width);
    wl_surface_commit(panel.surface);
    state_->client.flush();
  }
  state_->panels.emplace(id, panel);
  return id;
}

void WaylandOverlay::move(PanelId id, AxPoint origin, std::int64_t durationMs) {
  auto found = state_->panels.find(id);
  if (found == state_->panels.end()) return;
  found->second.motion.moveTo(origin, durationMs);
  animate();
}

void WaylandOverlay::close(PanelId id) {
  auto found = state_->panels.find(id);
  if (found == state_->panels.end()) return;
  {
    auto wire = state_->client.wire();
    state_->destroy(found->second);
    state_->client.flush();
  }
  state_->panels.erase(found);
}

void WaylandOverlay::setAlpha(PanelId id, double alpha, std::int64_t durationMs) {
  auto found = state_->panels.find(id);
  if (found == state_->panels.end()) return;
  found->second.motion.fadeTo(alpha, durationMs);
  animate();
}

void WaylandOverlay::pulse(PanelId id, double scale, std::int64_t durationMs) {
  auto found = state_->panels.find(id);
  if (found == state_->panels.end()) return;
  found->second.motion.pulse(scale, durationMs);
  animate();
}

// Shows every panel as it stands now, and comes back a frame later while
// anything still moves or waits for its surface.
void WaylandOverlay::animate() {
  State& state = *state_;
  bool running = false;
  const auto now = SteadyClock::now();
  for (auto& [id, panel] : state.panels) running = state.show(panel, now) || running;
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

}  // namespace glimmerstrand::platform::wayland_desktop
