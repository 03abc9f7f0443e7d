#include "platform/wayland/wayland_pasteboard.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>
#include <wayland-client.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "wlr-data-control-unstable-v1-client.h"

namespace glimmerstrand::platform::wayland_desktop {

namespace {

using SteadyClock = std::chrono::steady_clock;
constexpr auto readLimit = std::chrono::seconds(2);
constexpr auto settleLimit = std::chrono::seconds(1);

// The names text goes by, the one we prefer first.
constexpr const char* textTypes[] = {"text/plain;charset=utf-8", "UTF8_STRING", "text/plain", "TEXT", "STRING"};

using Contents = std::map<std::string, std::shared_ptr<const std::string>>;

// Writes the bytes to the pipe and closes it, on a thread of its own: a
// reader that takes its time must not hold up the compositor's events. A
// reader that leaves early ends the write, not the process: the thread
// blocks SIGPIPE, and the signal is dropped with the thread.
void serve(int fd, std::shared_ptr<const std::string> bytes) {
  std::thread([fd, bytes = std::move(bytes)] {
    sigset_t pipeSignal;
    sigemptyset(&pipeSignal);
    sigaddset(&pipeSignal, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeSignal, nullptr);
    std::size_t sent = 0;
    while (sent < bytes->size()) {
      const ssize_t n = ::write(fd, bytes->data() + sent, bytes->size() - sent);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      sent += static_cast<std::size_t>(n);
    }
    ::close(fd);
  }).detach();
}

}  // namespace

struct WaylandPasteboard::State {
  explicit State(WaylandClient& c) : client(c) {}

  WaylandClient& client;
  zwlr_data_control_device_v1* device = nullptr;

  std::mutex lock;                                                      // guards everything below
  std::map<zwlr_data_control_offer_v1*, std::set<std::string>> offers;  // offers told, with their types
  zwlr_data_control_offer_v1* selection = nullptr;                      // the clipboard's offer; null when empty
  std::map<zwlr_data_control_source_v1*, Contents> sources;             // what we serve
  std::int64_t changes = 0;
};

namespace {

using State = WaylandPasteboard::State;

void onOfferType(void* data, zwlr_data_control_offer_v1* offer, const char* type) {
  auto* s = static_cast<State*>(data);
  std::lock_guard guard(s->lock);
  s->offers[offer].insert(type);
}

const zwlr_data_control_offer_v1_listener offerListener{onOfferType};

void onDataOffer(void* data, zwlr_data_control_device_v1*, zwlr_data_control_offer_v1* offer) {
  auto* s = static_cast<State*>(data);
  zwlr_data_control_offer_v1_add_listener(offer, &offerListener, s);
  std::lock_guard guard(s->lock);
  s->offers[offer];
}

void onSelection(void* data, zwlr_data_control_device_v1*, zwlr_data_control_offer_v1* offer) {
  auto* s = static_cast<State*>(data);
  std::lock_guard guard(s->lock);
  if (s->selection && s->selection != offer) {
    s->offers.erase(s->selection);
    zwlr_data_control_offer_v1_destroy(s->selection);
  }
  s->selection = offer;
  ++s->changes;
}

void onFinished(void* data, zwlr_data_control_device_v1*) {
  auto* s = static_cast<State*>(data);
  std::lock_guard guard(s->lock);
  s->selection = nullptr;
}

// The primary selection is not the clipboard: its offers are let go.
void onPrimary(void* data, zwlr_data_control_device_v1*, zwlr_data_control_offer_v1* offer) {
  if (!offer) return;
  auto* s = static_cast<State*>(data);
  std::lock_guard guard(s->lock);
  s->offers.erase(offer);
  zwlr_data_control_offer_v1_destroy(offer);
}

const zwlr_data_control_device_v1_listener deviceListener{onDataOffer, onSelection, onFinished, onPrimary};

void onSend(void* data, zwlr_data_control_source_v1* source, const char* type, std::int32_t fd) {
  auto* s = static_cast<State*>(data);
  std::shared_ptr<const std::string> bytes;
  {
    std::lock_guard guard(s->lock);
    auto found = s->sources.find(source);
    if (found != s->sources.end())
      if (auto of = found->second.find(type); of != found->second.end()) bytes = of->second;
  }
  if (!bytes) {
    ::close(fd);
    return;
  }
  serve(fd, std::move(bytes));
}

// Another client took the clipboard: ours is no longer served.
void onCancelled(void* data, zwlr_data_control_source_v1* source) {
  auto* s = static_cast<State*>(data);
  {
    std::lock_guard guard(s->lock);
    s->sources.erase(source);
  }
  zwlr_data_control_source_v1_destroy(source);
}

const zwlr_data_control_source_v1_listener sourceListener{onSend, onCancelled};

}  // namespace

WaylandPasteboard::WaylandPasteboard(WaylandClient& client) : s_(std::make_shared<State>(client)) {
  const Globals& g = client.globals();
  if (!g.dataControl || !g.seat) return;
  {
    auto wire = client.wire();
    s_->device = zwlr_data_control_manager_v1_get_data_device(g.dataControl, g.seat);
    zwlr_data_control_device_v1_add_listener(s_->device, &deviceListener, s_.get());
    client.flush();
  }
  // What the clipboard holds now.
  client.settle(settleLimit);
}

WaylandPasteboard::~WaylandPasteboard() {
  if (!s_->device) return;
  auto wire = s_->client.wire();
  zwlr_data_control_device_v1_destroy(s_->device);
  s_->client.flush();
}

bool WaylandPasteboard::available() const { return s_->device != nullptr; }

void WaylandPasteboard::clear() {
  if (!s_->device) return;
  {
    auto wire = s_->client.wire();
    zwlr_data_control_device_v1_set_selection(s_->device, nullptr);
    s_->client.flush();
  }
  s_->client.settle(settleLimit);
}

std::optional<std::string> WaylandPasteboard::readText() {
  if (!s_->device) return std::nullopt;
  int pipe[2];
  {
    auto wire = s_->client.wire();
    std::lock_guard guard(s_->lock);
    if (!s_->selection) return std::nullopt;
    const auto& types = s_->offers[s_->selection];
    const char* type = nullptr;
    for (const char* t : textTypes)
      if (!type && types.count(t)) type = t;
    if (!type || ::pipe2(pipe, O_CLOEXEC) != 0) return std::nullopt;
    zwlr_data_control_offer_v1_receive(s_->selection, type, pipe[1]);
    s_->client.flush();
  }
  ::close(pipe[1]);
  std::string text;
  const auto deadline = SteadyClock::now() + readLimit;
  bool ended = false;
  char buffer[65536];
  while (!ended) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - SteadyClock::now()).count();
    pollfd ready{pipe[0], POLLIN, 0};
    if (left <= 0 || ::poll(&ready, 1, static_cast<int>(left)) <= 0) break;
    const ssize_t n = ::read(pipe[0], buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) ended = true;
    if (n > 0) text.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(pipe[0]);
  // An owner that never finished writing gave no text.
  if (!ended) return std::nullopt;
  return text;
}

bool WaylandPasteboard::offer(std::vector<std::pair<std::string, std::shared_ptr<const std::string>>> contents) {
  if (!s_->device) return false;
  {
    auto wire = s_->client.wire();
    zwlr_data_control_source_v1* source =
        zwlr_data_control_manager_v1_create_data_source(s_->client.globals().dataControl);
    zwlr_data_control_source_v1_add_listener(source, &sourceListener, s_.get());
    Contents served;
    for (auto& [type, bytes] : contents) {
      zwlr_data_control_source_v1_offer(source, type.c_str());
      served[type] = bytes;
    }
    {
      std::lock_guard guard(s_->lock);
      s_->sources[source] = std::move(served);
    }
    zwlr_data_control_device_v1_set_selection(s_->device, source);
    s_->client.flush();
  }
  // Done when the compositor has told the new selection back.
  return s_->client.settle(settleLimit);
}

bool WaylandPasteboard::writeText(const std::string& text) {
  auto bytes = std::make_shared<const std::string>(text);
  std::vector<std::pair<std::string, std::shared_ptr<const std::string>>> contents;
  for (const char* type : textTypes) contents.emplace_back(type, bytes);
  return offer(std::move(contents));
}

bool WaylandPasteboard::writeImage(ImageFormat format, const std::vector<std::uint8_t>& bytes) {
  auto data = std::make_shared<const std::string>(bytes.begin(), bytes.end());
  return offer({{format == ImageFormat::png ? "image/png" : "image/tiff", data}});
}

std::int64_t WaylandPasteboard::changeCount() {
  std::lock_guard guard(s_->lock);
  return s_->changes;
}

}  // namespace glimmerstrand::platform::wayland_desktop
