#include "platform/wayland/wayland_client.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <wayland-client.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>

#include "virtual-keyboard-unstable-v1-client.h"
#include "wlr-data-control-unstable-v1-client.h"
#include "wlr-layer-shell-unstable-v1-client.h"
#include "wlr-screencopy-unstable-v1-client.h"
#include "wlr-virtual-pointer-unstable-v1-client.h"

namespace glimmerstrand::platform::wayland_desktop {

namespace {

using SteadyClock = std::chrono::steady_clock;

template <typename T>
T* bindAs(wl_registry* registry, std::uint32_t name, const wl_interface* interface, std::uint32_t version,
          std::uint32_t maxVersion) {
  return static_cast<T*>(wl_registry_bind(registry, name, interface, std::min(version, maxVersion)));
}

}  // namespace

struct WaylandClient::Listeners {
  static void global(void* data, wl_registry* registry, std::uint32_t name, const char* interface,
                     std::uint32_t version) {
    auto* self = static_cast<WaylandClient*>(data);
    {
      std::lock_guard guard(self->lock_);
      self->advertised_.push_back({name, interface, version});
    }
    const std::string_view which(interface);
    if (which == wl_output_interface.name) return self->addOutput(name, version);
    // Readers take the globals without a lock: they are bound once, while connecting.
    if (self->connected_) return;
    Globals& g = self->globals_;
    // Globals without events of their own are bound at once; the others by
    // the device that listens to them (bind()).
    if (which == wl_compositor_interface.name && !g.compositor)
      g.compositor = bindAs<wl_compositor>(registry, name, &wl_compositor_interface, version, 4);
    else if (which == wl_shm_interface.name && !g.shm)
      g.shm = bindAs<wl_shm>(registry, name, &wl_shm_interface, version, 1);
    else if (which == wl_seat_interface.name && !g.seat)
      g.seat = bindAs<wl_seat>(registry, name, &wl_seat_interface, version, 1);
    else if (which == zwp_virtual_keyboard_manager_v1_interface.name && !g.keyboards)
      g.keyboards = bindAs<zwp_virtual_keyboard_manager_v1>(registry, name, &zwp_virtual_keyboard_manager_v1_interface,
                                                            version, 1);
    else if (which == zwlr_virtual_pointer_manager_v1_interface.name && !g.pointers)
      g.pointers = bindAs<zwlr_virtual_pointer_manager_v1>(registry, name, &zwlr_virtual_pointer_manager_v1_interface,
                                                           version, 2);
    else if (which == zwlr_data_control_manager_v1_interface.name && !g.dataControl)
      g.dataControl =
          bindAs<zwlr_data_control_manager_v1>(registry, name, &zwlr_data_control_manager_v1_interface, version, 2);
    else if (which == zwlr_screencopy_manager_v1_interface.name && !g.screencopy)
      g.screencopy =
          bindAs<zwlr_screencopy_manager_v1>(registry, name, &zwlr_screencopy_manager_v1_interface, version, 3);
    else if (which == zwlr_layer_shell_v1_interface.name && !g.layerShell)
      g.layerShell = bindAs<zwlr_layer_shell_v1>(registry, name, &zwlr_layer_shell_v1_interface, version, 4);
  }

  static void globalRemove(void* data, wl_registry*, std::uint32_t name) {
    auto* self = static_cast<WaylandClient*>(data);
    std::lock_guard guard(self->lock_);
    std::erase_if(self->advertised_, [name](const Advertised& a) { return a.name == name; });
    std::erase_if(self->outputs_, [name](const Output& o) {
      if (o.name == name) wl_output_destroy(o.proxy);
      return o.name == name;
    });
  }

  static Output* outputOf(void* data, wl_output* proxy) {
    auto* self = static_cast<WaylandClient*>(data);
    for (auto& output : self->outputs_)
      if (output.proxy == proxy) return &output;
    return nullptr;
  }

  static void geometry(void* data, wl_output* proxy, std::int32_t x, std::int32_t y, std::int32_t, std::int32_t,
                       std::int32_t, const char*, const char*, std::int32_t) {
    std::lock_guard guard(static_cast<WaylandClient*>(data)->lock_);
    if (auto* o = outputOf(data, proxy)) {
      o->bounds.x = x;
      o->bounds.y = y;
    }
  }

  static void mode(void* data, wl_output* proxy, std::uint32_t flags, std::int32_t width, std::int32_t height,
                   std::int32_t) {
    if (!(flags & WL_OUTPUT_MODE_CURRENT)) return;
    std::lock_guard guard(static_cast<WaylandClient*>(data)->lock_);
    if (auto* o = outputOf(data, proxy)) {
      o->pixelWidth = width;
      o->pixelHeight = height;
    }
  }

  static void done(void* data, wl_output* proxy) {
    std::lock_guard guard(static_cast<WaylandClient*>(data)->lock_);
    if (auto* o = outputOf(data, proxy)) {
      o->bounds.width = double(o->pixelWidth) / std::max(o->scale, 1);
      o->bounds.height = double(o->pixelHeight) / std::max(o->scale, 1);
      o->described = true;
    }
  }

  static void scale(void* data, wl_output* proxy, std::int32_t factor) {
    std::lock_guard guard(static_cast<WaylandClient*>(data)->lock_);
    if (auto* o = outputOf(data, proxy)) o->scale = std::max(factor, 1);
  }

  // Names and descriptions come with version 4, which is not asked for.
  static void text(void*, wl_output*, const char*) {}
};

namespace {

const wl_registry_listener registryListener{WaylandClient::Listeners::global, WaylandClient::Listeners::globalRemove};
const wl_output_listener outputListener{WaylandClient::Listeners::geometry, WaylandClient::Listeners::mode,
                                        WaylandClient::Listeners::done,     WaylandClient::Listeners::scale,
                                        WaylandClient::Listeners::text,     WaylandClient::Listeners::text};

}  // namespace

std::uint32_t eventTime() {
  return static_cast<std::uint32_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(SteadyClock::now().time_since_epoch()).count());
}

std::unique_ptr<WaylandClient> WaylandClient::connect(std::string& problem) {
  wl_display* display = wl_display_connect(nullptr);
  if (!display) {
    problem = std::string("Wayland のコンポジターに接続できません (WAYLAND_DISPLAY): ") + std::strerror(errno);
    return nullptr;
  }
  std::unique_ptr<WaylandClient> client(new WaylandClient(display));
  client->registry_ = wl_display_get_registry(display);
  wl_registry_add_listener(client->registry_, &registryListener, client.get());
  // The globals, then what the outputs say of themselves.
  if (wl_display_roundtrip(display) < 0 || wl_display_roundtrip(display) < 0) {
    problem = "Wayland のコンポジターが答えません";
    return nullptr;
  }
  client->connected_ = true;
  client->wake_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  client->events_ = std::thread([c = client.get()] { c->run(); });
  return client;
}

WaylandClient::WaylandClient(wl_display* display) : display_(display) {}

WaylandClient::~WaylandClient() {
  stopping_ = true;
  if (wake_ >= 0) {
    const std::uint64_t one = 1;
    if (::write(wake_, &one, sizeof one) < 0) {
      // The thread then ends at its next event; nothing else to do.
    }
  }
  if (events_.joinable()) events_.join();
  if (wake_ >= 0) ::close(wake_);
  wl_display_disconnect(display_);
}

void WaylandClient::addOutput(std::uint32_t name, std::uint32_t version) {
  Output output;
  output.name = name;
  output.proxy =
      static_cast<wl_output*>(wl_registry_bind(registry_, name, &wl_output_interface, std::min(version, 3u)));
  wl_output_add_listener(output.proxy, &outputListener, this);
  std::lock_guard guard(lock_);
  outputs_.push_back(output);
}

void WaylandClient::flush() { wl_display_flush(display_); }

void* WaylandClient::bind(const wl_interface* interface, std::uint32_t maxVersion) {
  std::optional<Advertised> found;
  {
    std::lock_guard guard(lock_);
    for (const auto& a : advertised_)
      if (a.interface == interface->name && !found) found = a;
  }
  if (!found) return nullptr;
  return wl_registry_bind(registry_, found->name, interface, std::min(found->version, maxVersion));
}

bool WaylandClient::offers(const std::string& interface) {
  std::lock_guard guard(lock_);
  return std::any_of(advertised_.begin(), advertised_.end(),
                     [&](const Advertised& a) { return a.interface == interface; });
}

std::vector<Output> WaylandClient::outputs() {
  std::lock_guard guard(lock_);
  std::vector<Output> described;
  for (const auto& o : outputs_)
    if (o.described) described.push_back(o);
  return described;
}

// The event thread: reads whatever the compositor sends and handles the main
// queue's events, until the client ends or the connection breaks.
void WaylandClient::run() {
  const int fd = wl_display_get_fd(display_);
  while (!stopping_) {
    while (wl_display_prepare_read(display_) != 0) wl_display_dispatch_pending(display_);
    {
      std::lock_guard guard(wire_);
      wl_display_flush(display_);
    }
    pollfd ready[2] = {{fd, POLLIN, 0}, {wake_, POLLIN, 0}};
    if (::poll(ready, 2, -1) < 0 && errno != EINTR) {
      wl_display_cancel_read(display_);
      break;
    }
    if (ready[0].revents & (POLLIN | POLLHUP | POLLERR)) {
      if (wl_display_read_events(display_) < 0) {
        broken_ = true;
        break;
      }
    } else {
      wl_display_cancel_read(display_);
    }
    if (wl_display_dispatch_pending(display_) < 0) {
      broken_ = true;
      break;
    }
  }
}

wl_event_queue* WaylandClient::makeQueue() { return wl_display_create_queue(display_); }

bool WaylandClient::dispatchUntil(wl_event_queue* queue, const std::function<bool()>& done,
                                  std::chrono::milliseconds limit) {
  const auto deadline = SteadyClock::now() + limit;
  const int fd = wl_display_get_fd(display_);
  while (!done()) {
    if (broken_ || SteadyClock::now() >= deadline) return false;
    if (wl_display_prepare_read_queue(display_, queue) != 0) {
      if (wl_display_dispatch_queue_pending(display_, queue) < 0) return false;
      continue;
    }
    {
      std::lock_guard guard(wire_);
      wl_display_flush(display_);
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - SteadyClock::now()).count();
    pollfd ready{fd, POLLIN, 0};
    if (::poll(&ready, 1, static_cast<int>(std::max<long long>(left, 0))) > 0) {
      if (wl_display_read_events(display_) < 0) return false;
    } else {
      wl_display_cancel_read(display_);
    }
    if (wl_display_dispatch_queue_pending(display_, queue) < 0) return false;
  }
  return true;
}

namespace {

// A callback's answer, told to a waiting thread.
struct Settled {
  std::mutex lock;
  std::condition_variable changed;
  bool done = false;
};

void settledDone(void* data, wl_callback* callback, std::uint32_t) {
  auto* settled = static_cast<std::shared_ptr<Settled>*>(data);
  {
    std::lock_guard guard((*settled)->lock);
    (*settled)->done = true;
  }
  (*settled)->changed.notify_all();
  delete settled;
  wl_callback_destroy(callback);
}

const wl_callback_listener settledListener{settledDone};

}  // namespace

bool WaylandClient::settle(std::chrono::milliseconds limit) {
  auto settled = std::make_shared<Settled>();
  {
    auto guard = wire();
    wl_callback* callback = wl_display_sync(display_);
    // The listener owns a share: an answer after the wait ended finds it alive.
    wl_callback_add_listener(callback, &settledListener, new std::shared_ptr<Settled>(settled));
    flush();
  }
  std::unique_lock guard(settled->lock);
  return settled->changed.wait_for(guard, limit, [&] { return settled->done; });
}

}  // namespace glimmerstrand::platform::wayland_desktop
