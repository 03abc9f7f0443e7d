#include "platform/screen.h"

#include <algorithm>
#include <cmath>

namespace glimmerstrand::platform {

Pixels scaledPixels(const Pixels& in, std::int64_t width, std::int64_t height) {
  if (in.width == width && in.height == height) return in;
  Pixels out{width, height, std::vector<std::uint8_t>(static_cast<std::size_t>(width * height * 4))};
  const double sx = static_cast<double>(in.width) / static_cast<double>(width);
  const double sy = static_cast<double>(in.height) / static_cast<double>(height);
  for (std::int64_t y = 0; y < height; ++y) {
    const auto y0 = static_cast<std::int64_t>(std::floor(y * sy));
    const auto y1 = std::clamp(static_cast<std::int64_t>(std::ceil((y + 1) * sy)), y0 + 1, in.height);
    for (std::int64_t x = 0; x < width; ++x) {
      const auto x0 = static_cast<std::int64_t>(std::floor(x * sx));
      const auto x1 = std::clamp(static_cast<std::int64_t>(std::ceil((x + 1) * sx)), x0 + 1, in.width);
      // Average the source block this pixel covers; a block of one when enlarging.
      unsigned sum[4] = {0, 0, 0, 0};
      for (auto v = y0; v < y1; ++v)
        for (auto u = x0; u < x1; ++u)
          for (int c = 0; c < 4; ++c) sum[c] += in.rgba[static_cast<std::size_t>((v * in.width + u) * 4 + c)];
      const auto count = static_cast<unsigned>((y1 - y0) * (x1 - x0));
      for (int c = 0; c < 4; ++c)
        out.rgba[static_cast<std::size_t>((y * width + x) * 4 + c)] = static_cast<std::uint8_t>(sum[c] / count);
    }
  }
  return out;
}

}  // namespace glimmerstrand::platform
