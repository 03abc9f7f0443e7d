// The clipboard of a wlroots desktop through the data-control protocol, which
// lets a client without a window read and set the selection. What this
// process sets is served from here for as long as it stays the selection:
// the compositor asks for it by mime type and gives a pipe to write it to.
//
// Thread-safety: any thread. The device's and sources' events arrive on the
// client's event thread; one mutex, in the shared state, guards the current
// offer with its mime types, the contents served and the count of changes.
// Reads wait on their pipe, at most a couple of seconds, with no lock held.
#pragma once

#include <memory>

#include "platform/pasteboard.h"
#include "platform/wayland/wayland_client.h"

namespace glimmerstrand::platform::wayland_desktop {

class WaylandPasteboard final : public Pasteboard {
 public:
  /// `client` outlives this object.
  explicit WaylandPasteboard(WaylandClient& client);
  ~WaylandPasteboard() override;

  /// Whether the compositor offers data control.
  bool available() const;

  void clear() override;
  std::optional<std::string> readText() override;
  bool writeText(const std::string& text) override;
  bool writeImage(ImageFormat format, const std::vector<std::uint8_t>& bytes) override;
  std::int64_t changeCount() override;

  struct State;

 private:
  bool offer(std::vector<std::pair<std::string, std::shared_ptr<const std::string>>> contents);
  std::shared_ptr<State> s_;
};

}  // namespace glimmerstrand::platform::wayland_desktop
