// Small transparent panels above every window, for the agent's cursor. The
// cursor logic (which pointer, which colour, when shown and hidden) is shared;
// the painter only draws. Called on the main run loop only.
#pragma once

#include <cstdint>

#include "platform/ax_value.h"

namespace glimmerstrand::platform {

enum class CursorShape { arrow, pointingHand, iBeam };

class OverlayPainter {
 public:
  using PanelId = std::int64_t;
  virtual ~OverlayPainter() = default;

  /// A new panel of `size` points, hidden (alpha 0), showing `shape` in the
  /// colour given as 0xRRGGBB.
  virtual PanelId createPanel(AxSize size, CursorShape shape, std::uint32_t colour) = 0;
  /// Moves the panel's top-left corner to `origin`, gliding over
  /// `durationMs` (0: at once).
  virtual void move(PanelId panel, AxPoint origin, std::int64_t durationMs) = 0;
  /// Takes the panel off the screen for good; its id is not used again.
  virtual void close(PanelId panel) = 0;
  /// Animates the panel's opacity to `alpha` (0 to 1) over `durationMs`.
  virtual void setAlpha(PanelId panel, double alpha, std::int64_t durationMs) = 0;
  /// A ripple out of the arrow's tip, once: it grows from `scale` of its size
  /// to the full size while it fades out, over `durationMs`.
  virtual void pulse(PanelId panel, double scale, std::int64_t durationMs) = 0;
};

}  // namespace glimmerstrand::platform
