// The agent's cursor as pixels, for painters that draw it themselves: the
// arrow, pointing hand and I-beam outlined in white and filled in a colour,
// with the ripple of a click, smoothed three by three samples a pixel; and
// the eased values that move, fade and pulse it. Plain functions and values.
#pragma once

#include <algorithm>
#include <chrono>
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

}  // namespace glimmerstrand::platform::linux_desktop
