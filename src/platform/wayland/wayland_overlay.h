// The agent's cursor on a wlroots desktop: each panel is a layer-shell
// surface on the overlay layer, above every window, that takes no keyboard
// focus and whose input region is empty, so clicks fall through to the
// window below. It is drawn into shared memory with premultiplied alpha,
// moved by its margins from the output's top-left corner, and animated on the
// main run loop as on X11 (cursor_picture.h).
//
// Thread-safety: the painter is called on the main run loop only, and
// animates there. The surfaces' configure events arrive on the client's event
// thread; one mutex, in the shared state, guards whether each is configured.
#pragma once

#include <memory>

#include "platform/overlay_painter.h"
#include "platform/run_loop.h"
#include "platform/wayland/wayland_client.h"

namespace glimmerstrand::platform::wayland_desktop {

class WaylandOverlay final : public OverlayPainter {
 public:
  /// Both outlive this object.
  WaylandOverlay(WaylandClient& client, RunLoop& mainLoop);
  ~WaylandOverlay() override;

  /// Whether the compositor offers the layer shell.
  bool available() const;

  PanelId createPanel(AxSize size, CursorShape shape, std::uint32_t colour) override;
  void move(PanelId panel, AxPoint origin, std::int64_t durationMs) override;
  void close(PanelId panel) override;
  void setAlpha(PanelId panel, double alpha, std::int64_t durationMs) override;
  void pulse(PanelId panel, double scale, std::int64_t durationMs) override;

  struct State;

 private:
  void animate();

  RunLoop& loop_;
  // Shared with the animation ticks posted to the loop, which hold it weakly.
  std::shared_ptr<State> state_;
};

}  // namespace glimmerstrand::platform::wayland_desktop
