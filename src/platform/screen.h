// Displays and screen capture as raw pixels; encoding to PNG or JPEG is ours,
// not the backend's. Callable from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "platform/ax_value.h"

namespace glimmerstrand::platform {

struct Display {
  std::int64_t id = 0;
  AxRect bounds;  // points, in desktop coordinates
  double scale = 1;
  bool main = false;
  bool operator==(const Display&) const = default;
};

/// Top row first, four bytes a pixel: red, green, blue, alpha.
struct Pixels {
  std::int64_t width = 0;
  std::int64_t height = 0;
  std::vector<std::uint8_t> rgba;
};

/// `in` resampled to `width` by `height` pixels (both above 0): each pixel
/// the average of the source pixels it covers, a block of one when enlarging.
/// The one scaler of captures, for backends and encoders alike.
Pixels scaledPixels(const Pixels& in, std::int64_t width, std::int64_t height);

class Screen {
 public:
  virtual ~Screen() = default;
  virtual std::vector<Display> displays() = 0;
  virtual bool hasCapturePermission() = 0;
  /// Asks for the permission where the platform has a prompt; gives
  /// hasCapturePermission() afterwards.
  virtual bool requestCapturePermission() = 0;
  /// A region of the desktop in points, at `scale` pixels a point. With a
  /// pid, only that process's windows are drawn. Absent when capture fails.
  virtual std::optional<Pixels> capture(const AxRect& region, double scale, std::optional<std::int32_t> pid) = 0;
};

}  // namespace glimmerstrand::platform
