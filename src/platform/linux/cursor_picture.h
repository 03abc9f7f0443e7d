// The agent's cursor as pixels, for painters that draw it themselves: the
// arrow, pointing hand and I-beam outlined in white and filled in a colour,
// with the ripple of a click, smoothed three by three samples a pixel; and
// the eased values that move, fade and pulse it. Plain functions and values.
#pragma once

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdint>
#include <optional>
#include <vector>

#include "platform/overlay_painter.h"

namespace glimmerstrand::platform::linux_desktop {

// Where the tip stands in a panel, as a share of its side: 20 points of 56.
constexpr double tipShare = 20.0 / 56.0;

struct Rgba {
  double r = 0, g = 0, b = 0, a = 0;  // premultiplied
};

/// The ripple as it stands: its radius in points and its opacity.
struct Ripple {
  double radius = 0;
  double opacity = 0;
};

/// One panel's picture, `width` by `height` premultiplied pixels, top row first.
std::vector<Rgba> draw(int width, int height, CursorShape shape, std::uint32_t colour, std::optional<Ripple> ripple);

double easeOut(double t);

/// A value that goes from one end to the other over a time.
struct Tween {
  using Clock = std::chrono::steady_clock;
  double from = 0, to = 0;
  Clock::time_point start;
  std::chrono::milliseconds duration{0};

  double at(Clock::time_point now) const {
    if (duration.count() <= 0 || now >= start + duration) return to;
    const double t = std::chrono::duration<double>(now - start) / duration;
    return from + (to - from) * easeOut(std::clamp(t, 0.0, 1.0));
  }
  bool running(Clock::time_point now) const { return duration.count() > 0 && now < start + duration; }
};

/// From `from` to `to`, starting now.
Tween tween(double from, double to, std::int64_t durationMs);

/// What a panel shows at one moment.
struct PanelFrame {
  int left = 0, top = 0;
  double alpha = 0;
  double rippleScale = -1;  // -1: no ripple
  std::optional<Ripple> ripple;
};

/// How one panel of the cursor moves, fades and pulses, and what its painter
/// showed last, so that a tick that changes nothing draws nothing.
struct PanelMotion {
  explicit PanelMotion(int width = 1, int height = 1);
  void moveTo(AxPoint origin, std::int64_t durationMs);
  void fadeTo(double alpha, std::int64_t durationMs);
  void pulse(double scale, std::int64_t durationMs);
  /// The frame at `now`; a ripple that cannot fade (no translucency) stays
  /// whole until it ends.
  PanelFrame at(Tween::Clock::time_point now, bool rippleFades = true) const;
  bool moved(const PanelFrame& frame) const { return frame.left != shownX || frame.top != shownY; }
  bool faded(const PanelFrame& frame) const { return frame.alpha != shownAlpha; }
  bool rippled(const PanelFrame& frame) const { return frame.rippleScale != shownRipple; }
  /// Records the frame as shown; whether anything still moves after it.
  bool shown(const PanelFrame& frame, Tween::Clock::time_point now);

 private:
  int width_;
  Tween x_, y_, alpha_;
  std::optional<Tween> ripple_;  // the ripple's scale, while it runs
  double rippleFrom_ = 0;
  int shownX = INT_MIN, shownY = INT_MIN;
  double shownAlpha = -1, shownRipple = -1;
};

}  // namespace glimmerstrand::platform::linux_desktop
