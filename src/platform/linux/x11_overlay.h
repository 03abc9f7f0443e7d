// The agent's cursor on X11: each panel is a small override-redirect window
// above every other, that no window manager sees, that never takes the
// focus, and whose input shape is empty, so that clicks fall through to the
// window below. With a compositor the window has a 32-bit ARGB visual and
// real translucency; without one it is cut to the cursor's outline with the
// shape extension, and shown or hidden by its alpha. Panels name no process,
// so a capture of one application's windows never shows them.
//
// Thread-safety: none needed. The painter is called on the main run loop
// only, and animates there; its X connection and panels belong to that loop.
#pragma once

#include <memory>

#include "platform/overlay_painter.h"
#include "platform/run_loop.h"

namespace glimmerstrand::platform::linux_desktop {

class X11Overlay final : public OverlayPainter {
 public:
  explicit X11Overlay(RunLoop& mainLoop);
  ~X11Overlay() override;

  PanelId createPanel(AxSize size, CursorShape shape, std::uint32_t colour) override;
  void move(PanelId panel, AxPoint origin, std::int64_t durationMs) override;
  void close(PanelId panel) override;
  void setAlpha(PanelId panel, double alpha, std::int64_t durationMs) override;
  void pulse(PanelId panel, double scale, std::int64_t durationMs) override;

 private:
  struct State;
  void animate();

  RunLoop& loop_;
  // Shared with the animation ticks posted to the loop, which hold it weakly:
  // a tick that comes after the painter is gone does nothing.
  std::shared_ptr<State> state_;
};

}  // namespace glimmerstrand::platform::linux_desktop
