#include "native/capture_operations.h"

#include <cmath>

#include "core/base64.h"
#include "native/rpc_error.h"

namespace glimmerstrand::native {

using core::JSONValue;

namespace {

constexpr std::int64_t defaultMaxSide = 1568;
constexpr double smallestCaptureSide = 280;

std::int64_t maxSideOf(const JSONValue& params) {
  auto side = core::optionalInt(params, "maxSide");
  return side && *side > 0 ? *side : defaultMaxSide;  // a side of 0 or less has no sensible meaning
}

JSONValue imageRecord(const std::string& format, const RgbaImage& image, double quality, const JSONValue& display,
                      const Region& region, double frameAgeMs, double elapsedMs) {
  return JSONValue::Object{
      {"format", format},
      {"data", core::base64Text(encodeImage(image, format, quality))},
      {"width", image.width},
      {"height", image.height},
      {"display", display},
      {"region",
       JSONValue::Object{{"x", region.x}, {"y", region.y}, {"width", region.width}, {"height", region.height}}},
      {"frameAgeMs", frameAgeMs},
      {"elapsedMs", elapsedMs}};
}

RgbaImage fromPixels(platform::Pixels pixels) { return RgbaImage{pixels.width, pixels.height, std::move(pixels.rgba)}; }

}  // namespace

JSONValue displayRecord(const platform::Display& d) {
  return JSONValue::Object{{"id", d.id},
                           {"x", d.bounds.x},
                           {"y", d.bounds.y},
                           {"width", d.bounds.width},
                           {"height", d.bounds.height},
                           {"scale", d.scale > 0 && std::isfinite(d.scale) ? d.scale : 1.0},
                           {"main", d.main}};
}

platform::Display Capturer::displayFor(std::optional<std::int64_t> id) {
  if (id && (*id < 0 || *id > 0xFFFFFFFFLL)) throw RPCError("invalid_argument", "display は 32 ビットの正の整数です");
  auto displays = platform_().screen().displays();
  for (const auto& d : displays)
    if (id ? d.id == *id : d.main) return d;
  if (!id && !displays.empty()) return displays.front();
  throw RPCError("not_found", "ディスプレイ " + std::to_string(id.value_or(0)) + " が見つかりません");
}

double Capturer::millisecondsSince(std::int64_t startNs) {
  return static_cast<double>(platform_().clock().nowNs() - startNs) / 1e6;
}

JSONValue Capturer::capture(const JSONValue& params) {
  const auto start = platform_().clock().nowNs();
  auto display = displayFor(core::optionalInt(params, "display"));
  const auto size = pixelSize(display.bounds.width, display.bounds.height, maxSideOf(params));
  const auto format = core::optionalString(params, "format").value_or("jpeg");
  const auto quality = core::optionalNumber(params, "quality").value_or(0.6);
  const bool fresh = core::optionalBool(params, "fresh").value_or(false);
  if (!platform_().screen().hasCapturePermission()) throw RPCError("permission", captureDenied());

  std::optional<Frame> frame;
  {
    std::lock_guard guard(frameLock_);
    if (!fresh && latest_ && latest_->display == display.id && latest_->size == size) frame = latest_;
  }
  if (!frame) {
    // Without a frame stream of our own, a fresh frame is a new grab of the display.
    const double scale = static_cast<double>(size.width) / display.bounds.width;
    auto pixels = platform_().screen().capture(display.bounds, scale, std::nullopt);
    if (!pixels) throw RPCError("timeout", "画面のフレームが届きません");
    frame = Frame{display.id, size, resized(fromPixels(std::move(*pixels)), size), platform_().clock().nowNs()};
    std::lock_guard guard(frameLock_);
    latest_ = frame;
  }
  const Region region{0, 0, display.bounds.width, display.bounds.height};
  return imageRecord(format, frame->image, quality, displayRecord(display), region,
                     static_cast<double>(platform_().clock().nowNs() - frame->atNs) / 1e6, millisecondsSince(start));
}

JSONValue Capturer::captureRegion(const JSONValue& params) {
  const auto start = platform_().clock().nowNs();
  const auto displayId = core::optionalInt(params, "display");
  const Region asked{requiredNumber("x", params), requiredNumber("y", params), requiredNumber("width", params),
                     requiredNumber("height", params)};
  const auto format = core::optionalString(params, "format").value_or("jpeg");
  const auto quality = core::optionalNumber(params, "quality").value_or(0.8);
  const auto pid = core::optionalInt(params, "pid");
  if (!platform_().screen().hasCapturePermission()) throw RPCError("permission", regionCaptureDenied());
  auto display = displayFor(displayId);
  const double scale = display.scale > 0 && std::isfinite(display.scale) ? display.scale : 1.0;
  const auto region = clipRegion(asked, smallestCaptureSide / scale, display.bounds.width, display.bounds.height);
  const auto size = pixelSize(region.width * scale, region.height * scale, maxSideOf(params));
  auto pixels = platform_().screen().capture(
      platform::AxRect{display.bounds.x + region.x, display.bounds.y + region.y, region.width, region.height},
      static_cast<double>(size.width) / region.width,
      pid ? std::optional<std::int32_t>(static_cast<std::int32_t>(*pid)) : std::nullopt);
  if (!pixels) {
    if (pid) throw RPCError("not_found", "撮るアプリのウインドウが見つかりません");
    throw RPCError("native", "画面を撮れませんでした");
  }
  return imageRecord(format, resized(fromPixels(std::move(*pixels)), size), quality, displayRecord(display), region, 0,
                     millisecondsSince(start));
}

void addCaptureOperations(OperationTable& table, PlatformOf platformOf, Capturer& capturer) {
  auto permissions = [platformOf] {
    auto& platform = platformOf();
    return JSONValue::Object{{"accessibility", platform.accessibility().isTrusted()},
                             {"screenRecording", platform.screen().hasCapturePermission()}};
  };
  table.add("permissions", [permissions](const JSONValue&) -> HandlerResult { return permissions(); });
  table.add("requestPermissions", [platformOf](const JSONValue&) -> HandlerResult {
    auto& platform = platformOf();
    bool accessibility = platform.accessibility().requestTrust();
    bool screen = platform.screen().hasCapturePermission() || platform.screen().requestCapturePermission();
    return JSONValue::Object{{"accessibility", accessibility}, {"screenRecording", screen}};
  });
  table.add("displays", [platformOf](const JSONValue&) -> HandlerResult {
    JSONValue::Array list;
    for (const auto& d : platformOf().screen().displays()) list.push_back(displayRecord(d));
    return JSONValue::Object{{"displays", std::move(list)}};
  });
  table.add("capture", [&capturer](const JSONValue& params) -> HandlerResult { return capturer.capture(params); });
  table.add("captureRegion",
            [&capturer](const JSONValue& params) -> HandlerResult { return capturer.captureRegion(params); });
}

}  // namespace glimmerstrand::native
