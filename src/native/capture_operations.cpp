#include "native/capture_operations.h"

#include <cmath>

#include "core/errors.h"

namespace glimmerstrand::native {

namespace {

constexpr std::int64_t defaultMaxSide = 1568;
constexpr double smallestCaptureSide = 280;

std::int64_t maxSideOf(std::int64_t side) {
  return side > 0 ? side : defaultMaxSide;  // a side of 0 or less has no sensible meaning
}

CaptureReport imageRecord(const std::string& format, const RgbaImage& image, double quality,
                          const platform::Display& display, const Region& region, double frameAgeMs, double elapsedMs) {
  CaptureReport report;
  report.format = format;
  report.bytes = encodeImage(image, format, quality);
  report.width = image.width;
  report.height = image.height;
  report.region = core::Rect{region.x, region.y, region.width, region.height};
  report.display = display;
  report.frameAgeMs = frameAgeMs;
  report.elapsedMs = elapsedMs;
  return report;
}

RgbaImage fromPixels(platform::Pixels pixels) { return RgbaImage{pixels.width, pixels.height, std::move(pixels.rgba)}; }

}  // namespace

double displayScale(const platform::Display& display) {
  return display.scale > 0 && std::isfinite(display.scale) ? display.scale : 1.0;
}

platform::Display Capturer::displayFor(std::optional<std::int64_t> id) {
  if (id && (*id < 0 || *id > 0xFFFFFFFFLL))
    throw core::GlimmerstrandError("invalid_argument", "display は 32 ビットの正の整数です");
  auto displays = platform_().screen().displays();
  for (const auto& d : displays)
    if (id ? d.id == *id : d.main) return d;
  if (!id && !displays.empty()) return displays.front();
  throw core::GlimmerstrandError("not_found", "ディスプレイ " + std::to_string(id.value_or(0)) + " が見つかりません");
}

double Capturer::millisecondsSince(std::int64_t startNs) {
  return static_cast<double>(platform_().clock().nowNs() - startNs) / 1e6;
}

CaptureReport Capturer::capture(const ScreenRequest& request) {
  const auto start = platform_().clock().nowNs();
  auto display = displayFor(request.display);
  const auto size = pixelSize(display.bounds.width, display.bounds.height, maxSideOf(request.maxSide));
  const auto& format = request.format;
  const auto quality = request.quality;
  const bool fresh = request.fresh;
  if (!platform_().screen().hasCapturePermission()) throw core::GlimmerstrandError("permission", captureDenied());

  std::optional<Frame> frame;
  {
    std::lock_guard guard(frameLock_);
    if (!fresh && latest_ && latest_->display == display.id && latest_->size == size) frame = latest_;
  }
  if (!frame) {
    // Without a frame stream of our own, a fresh frame is a new grab of the display.
    const double scale = static_cast<double>(size.width) / display.bounds.width;
    auto pixels = platform_().screen().capture(display.bounds, scale, std::nullopt);
    if (!pixels) throw core::GlimmerstrandError("timeout", "画面のフレームが届きません");
    frame = Frame{display.id, size, resized(fromPixels(std::move(*pixels)), size), platform_().clock().nowNs()};
    std::lock_guard guard(frameLock_);
    latest_ = frame;
  }
  const Region region{0, 0, display.bounds.width, display.bounds.height};
  return imageRecord(format, frame->image, quality, display, region,
                     static_cast<double>(platform_().clock().nowNs() - frame->atNs) / 1e6, millisecondsSince(start));
}

CaptureReport Capturer::captureRegion(const RegionRequest& request) {
  const auto start = platform_().clock().nowNs();
  const auto displayId = request.display;
  const Region asked{request.area.x, request.area.y, request.area.width, request.area.height};
  const auto& format = request.format;
  const auto quality = request.quality;
  const auto pid = request.pid;
  if (!platform_().screen().hasCapturePermission()) throw core::GlimmerstrandError("permission", regionCaptureDenied());
  auto display = displayFor(displayId);
  const double scale = displayScale(display);
  const auto region = clipRegion(asked, smallestCaptureSide / scale, display.bounds.width, display.bounds.height);
  const auto size = pixelSize(region.width * scale, region.height * scale, maxSideOf(request.maxSide));
  auto pixels = platform_().screen().capture(
      platform::AxRect{display.bounds.x + region.x, display.bounds.y + region.y, region.width, region.height},
      static_cast<double>(size.width) / region.width, pid);
  if (!pixels) {
    if (pid) throw core::GlimmerstrandError("not_found", "撮るアプリのウインドウが見つかりません");
    throw core::GlimmerstrandError("native", "画面を撮れませんでした");
  }
  return imageRecord(format, resized(fromPixels(std::move(*pixels)), size), quality, display, region, 0,
                     millisecondsSince(start));
}

Permissions permissions(platform::Platform& platform) {
  return Permissions{platform.accessibility().isTrusted(), platform.screen().hasCapturePermission()};
}

Permissions requestPermissions(platform::Platform& platform) {
  const bool accessibility = platform.accessibility().requestTrust();
  const bool screen = platform.screen().hasCapturePermission() || platform.screen().requestCapturePermission();
  return Permissions{accessibility, screen};
}

}  // namespace glimmerstrand::native
