// Encoding of captured pixels, and the geometry that decides how many pixels
// a capture has. Backend-free: every backend hands over RGBA pixels.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/screen.h"

namespace glimmerstrand::native {

/// Top row first, four bytes a pixel: red, green, blue, alpha; as a
/// backend captures them.
using RgbaImage = platform::Pixels;

struct PixelSize {
  std::int64_t width = 0;
  std::int64_t height = 0;
  bool operator==(const PixelSize&) const = default;
};

struct Region {
  double x = 0, y = 0, width = 0, height = 0;
  bool operator==(const Region&) const = default;
};

/// Scales the longer side down to `maxSide`, keeping proportions as far as a
/// floor of 280 pixels a side allows.
PixelSize pixelSize(double width, double height, std::int64_t maxSide);

/// Raises each side to `smallestSide`, cuts it to the display, and keeps the
/// centre, so a region near an edge shifts inwards instead of shrinking.
Region clipRegion(const Region& region, double smallestSide, double displayWidth, double displayHeight);

/// Resamples to the given size (platform::scaledPixels).
RgbaImage resized(const RgbaImage& image, PixelSize size);

/// "png" gives PNG; anything else JPEG at `quality` (0 to 1). Throws RPCError
/// "native" "画像を変換できませんでした" when the encoder fails.
std::vector<std::uint8_t> encodeImage(const RgbaImage& image, std::string_view format, double quality);

}  // namespace glimmerstrand::native
