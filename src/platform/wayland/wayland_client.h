// One connection of ours to the Wayland compositor: the globals every device
// binds (the seat, shared memory, outputs and the wlroots managers), and a
// thread of its own that reads and handles the compositor's events, so that
// devices learn of windows, the clipboard and outputs as they change. Wayland's
// types stay out of this header but for their names.
//
// Thread-safety: any thread. Requests go out from any thread under `wire()`,
// which the event thread also holds while it flushes: a new object's listener
// is set before its request can reach the compositor, so no event of it is
// lost. Listeners of objects on the main queue run on the event thread, never
// under `wire()`. A device that waits for the answer to its own request puts
// the objects on a queue of its own and dispatches it on its own thread
// (`dispatchUntil`). `lock_` guards the outputs.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/ax_value.h"

struct wl_display;
struct wl_interface;
struct wl_event_queue;
struct wl_registry;
struct wl_compositor;
struct wl_shm;
struct wl_seat;
struct wl_output;
struct zwp_virtual_keyboard_manager_v1;
struct zwlr_virtual_pointer_manager_v1;
struct zwlr_data_control_manager_v1;
struct zwlr_screencopy_manager_v1;
struct zwlr_layer_shell_v1;

namespace glimmerstrand::platform::wayland_desktop {

/// One output as the compositor describes it.
struct Output {
  wl_output* proxy = nullptr;
  std::uint32_t name = 0;  // the registry's name of the global
  AxRect bounds;           // in the compositor's logical points
  std::int32_t pixelWidth = 0, pixelHeight = 0;
  std::int32_t scale = 1;
  bool described = false;  // its first `done` came
};

/// The globals bound at connection; null where the compositor offers none.
struct Globals {
  wl_compositor* compositor = nullptr;
  wl_shm* shm = nullptr;
  wl_seat* seat = nullptr;
  zwp_virtual_keyboard_manager_v1* keyboards = nullptr;
  zwlr_virtual_pointer_manager_v1* pointers = nullptr;
  zwlr_data_control_manager_v1* dataControl = nullptr;
  zwlr_screencopy_manager_v1* screencopy = nullptr;
  zwlr_layer_shell_v1* layerShell = nullptr;
};

class WaylandClient {
 public:
  /// Connects to $WAYLAND_DISPLAY and binds the globals, or gives null with
  /// the reason in `problem`.
  static std::unique_ptr<WaylandClient> connect(std::string& problem);
  ~WaylandClient();
  WaylandClient(const WaylandClient&) = delete;
  WaylandClient& operator=(const WaylandClient&) = delete;

  wl_display* display() const { return display_; }
  const Globals& globals() const { return globals_; }
  /// Held while requests are made and listeners set; see the top of the file.
  std::unique_lock<std::mutex> wire() { return std::unique_lock(wire_); }
  /// Sends what was asked for. REQUIRES: wire() held.
  void flush();

  /// Binds the first global of `interface`, at most `maxVersion`; null when
  /// the compositor offers none. For globals that send events at once (the
  /// foreign-toplevel manager): the caller sets its listener before it lets
  /// go of wire(). REQUIRES: wire() held.
  void* bind(const wl_interface* interface, std::uint32_t maxVersion);
  /// Whether the compositor offers a global of this interface.
  bool offers(const std::string& interface);

  /// The outputs that have described themselves, in the order they came.
  std::vector<Output> outputs();
  /// Whether the connection still stands.
  bool alive() const { return !broken_.load(); }

  /// Handles `queue`'s events on the calling thread until `done` holds,
  /// `limit` passes, or the connection breaks; whether `done` held.
  bool dispatchUntil(wl_event_queue* queue, const std::function<bool()>& done, std::chrono::milliseconds limit);
  /// Waits until the event thread has handled every event the compositor
  /// sent before now; false after `limit`.
  bool settle(std::chrono::milliseconds limit);

  /// A new queue of the caller's own; destroy it with wl_event_queue_destroy.
  wl_event_queue* makeQueue();

  struct Listeners;

 private:
  explicit WaylandClient(wl_display* display);
  void run();
  // On the thread that handles registry events: binds and watches an output.
  void addOutput(std::uint32_t name, std::uint32_t version);

  wl_display* display_;
  wl_registry* registry_ = nullptr;
  Globals globals_;         // written while connecting only
  bool connected_ = false;  // set before the event thread starts
  std::mutex wire_;
  std::mutex lock_;
  struct Advertised {
    std::uint32_t name = 0;
    std::string interface;
    std::uint32_t version = 0;
  };
  std::vector<Advertised> advertised_;  // guarded by lock_
  std::vector<Output> outputs_;         // guarded by lock_
  std::atomic<bool> broken_{false};
  std::atomic<bool> stopping_{false};
  int wake_ = -1;  // an eventfd that ends the event thread's wait
  std::thread events_;
};

/// Milliseconds of a monotonic clock, as input events carry them.
std::uint32_t eventTime();

}  // namespace glimmerstrand::platform::wayland_desktop
