#include "platform/linux/cursor_picture.h"

#include <cmath>

namespace glimmerstrand::platform::linux_desktop {

namespace {

struct Point {
  double x, y;
};

// The outlines of the cursor shapes, from the tip, in points of a 56-point
// panel, y downwards.
const std::vector<Point>& outlineOf(CursorShape shape) {
  static const std::vector<Point> arrow{{0, 0},       {0, 18},     {4.6, 13.6}, {7.8, 20.6},
                                        {10.8, 19.3}, {7.7, 12.4}, {13.6, 12.4}};
  static const std::vector<Point> hand{{0, 0},   {3, 0},   {3, 7},  {6, 7},   {6, 8},   {9, 8},   {9, 9}, {12, 9},
                                       {12, 17}, {10, 21}, {1, 21}, {-4, 13}, {-4, 10}, {-2, 10}, {0, 12}};
  static const std::vector<Point> iBeam{{-6, 0}, {6, 0},   {6, 4},   {2, 4},   {2, 16}, {6, 16},
                                        {6, 20}, {-6, 20}, {-6, 16}, {-2, 16}, {-2, 4}, {-6, 4}};
  switch (shape) {
    case CursorShape::pointingHand:
      return hand;
    case CursorShape::iBeam:
      return iBeam;
    case CursorShape::arrow:
      break;
  }
  return arrow;
}

bool inside(const std::vector<Point>& polygon, Point p) {
  bool in = false;
  for (std::size_t i = 0, j = polygon.size() - 1; i < polygon.size(); j = i++) {
    const Point a = polygon[i], b = polygon[j];
    if ((a.y > p.y) != (b.y > p.y) && p.x < (b.x - a.x) * (p.y - a.y) / (b.y - a.y) + a.x) in = !in;
  }
  return in;
}

double distanceToEdge(const std::vector<Point>& polygon, Point p) {
  double best = 1e9;
  for (std::size_t i = 0, j = polygon.size() - 1; i < polygon.size(); j = i++) {
    const Point a = polygon[j], b = polygon[i];
    const double dx = b.x - a.x, dy = b.y - a.y;
    const double length = dx * dx + dy * dy;
    const double t = length > 0 ? std::clamp(((p.x - a.x) * dx + (p.y - a.y) * dy) / length, 0.0, 1.0) : 0;
    best = std::min(best, std::hypot(p.x - (a.x + t * dx), p.y - (a.y + t * dy)));
  }
  return best;
}

Rgba over(Rgba top, Rgba below) {
  return {top.r + below.r * (1 - top.a), top.g + below.g * (1 - top.a), top.b + below.b * (1 - top.a),
          top.a + below.a * (1 - top.a)};
}

Rgba tinted(std::uint32_t colour, double alpha) {
  return {((colour >> 16) & 0xff) / 255.0 * alpha, ((colour >> 8) & 0xff) / 255.0 * alpha,
          (colour & 0xff) / 255.0 * alpha, alpha};
}

}  // namespace

/// One panel's picture, `width` by `height` premultiplied pixels.
std::vector<Rgba> draw(int width, int height, CursorShape shape, std::uint32_t colour, std::optional<Ripple> ripple) {
  const double unit = width / 56.0;
  const Point tip{width * tipShare, height * tipShare};
  std::vector<Point> outline;
  for (auto p : outlineOf(shape)) outline.push_back({tip.x + p.x * unit, tip.y + p.y * unit});
  const double stroke = 0.75 * unit;
  std::vector<Rgba> out(static_cast<std::size_t>(width) * height);
  // Three by three samples a pixel, for smooth edges.
  constexpr int samples = 3;
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      Rgba sum;
      for (int sy = 0; sy < samples; ++sy)
        for (int sx = 0; sx < samples; ++sx) {
          const Point p{x + (sx + 0.5) / samples, y + (sy + 0.5) / samples};
          Rgba here;
          if (ripple && ripple->opacity > 0) {
            const double d = std::hypot(p.x - tip.x, p.y - tip.y);
            if (std::abs(d - ripple->radius) <= stroke)
              here = tinted(colour, 0.7 * ripple->opacity);
            else if (d < ripple->radius)
              here = tinted(colour, 0.25 * ripple->opacity);
          }
          if (distanceToEdge(outline, p) <= stroke)
            here = over(tinted(0xffffff, 1), here);
          else if (inside(outline, p))
            here = over(tinted(colour, 1), here);
          sum = {sum.r + here.r, sum.g + here.g, sum.b + here.b, sum.a + here.a};
        }
      constexpr double n = samples * samples;
      out[static_cast<std::size_t>(y) * width + x] = {sum.r / n, sum.g / n, sum.b / n, sum.a / n};
    }
  return out;
}

double easeOut(double t) { return 1 - (1 - t) * (1 - t); }

Tween tween(double from, double to, std::int64_t durationMs) {
  return {from, to, Tween::Clock::now(), std::chrono::milliseconds(std::max<std::int64_t>(durationMs, 0))};
}

// Off screen until the first move.
PanelMotion::PanelMotion(int width, int height)
    : width_(width), x_(tween(-width, -width, 0)), y_(tween(-height, -height, 0)) {}

void PanelMotion::moveTo(AxPoint origin, std::int64_t durationMs) {
  const auto now = Tween::Clock::now();
  x_ = tween(x_.at(now), origin.x, durationMs);
  y_ = tween(y_.at(now), origin.y, durationMs);
}

void PanelMotion::fadeTo(double alpha, std::int64_t durationMs) {
  alpha_ = tween(alpha_.at(Tween::Clock::now()), std::clamp(alpha, 0.0, 1.0), durationMs);
}

void PanelMotion::pulse(double scale, std::int64_t durationMs) {
  rippleFrom_ = scale;
  ripple_ = tween(scale, 1, std::max<std::int64_t>(durationMs, 1));
}

PanelFrame PanelMotion::at(Tween::Clock::time_point now, bool rippleFades) const {
  PanelFrame frame;
  frame.left = static_cast<int>(std::lround(x_.at(now)));
  frame.top = static_cast<int>(std::lround(y_.at(now)));
  frame.alpha = std::clamp(alpha_.at(now), 0.0, 1.0);
  if (ripple_) {
    frame.rippleScale = ripple_->at(now);
    const double progress = (frame.rippleScale - rippleFrom_) / std::max(1e-9, ripple_->to - rippleFrom_);
    frame.ripple = Ripple{frame.rippleScale * width_ * 16 / 56, rippleFades ? 1 - progress : (progress < 1 ? 1 : 0)};
  }
  return frame;
}

bool PanelMotion::shown(const PanelFrame& frame, Tween::Clock::time_point now) {
  shownX = frame.left;
  shownY = frame.top;
  shownAlpha = frame.alpha;
  shownRipple = frame.rippleScale;
  const bool rippleRunning = ripple_ && ripple_->running(now);
  if (ripple_ && !rippleRunning) ripple_.reset();
  return x_.running(now) || y_.running(now) || alpha_.running(now) || rippleRunning;
}

}  // namespace glimmerstrand::platform::linux_desktop
