#include "native/image_encoding.h"

#include <png.h>
#include <turbojpeg.h>

#include <algorithm>
#include <cmath>
#include <memory>

#include "native/rpc_error.h"

namespace glimmerstrand::native {
namespace {

constexpr std::int64_t minimumSide = 280;

[[noreturn]] void encodingFailed() { throw RPCError("native", "画像を変換できませんでした"); }

std::vector<std::uint8_t> encodePNG(const RgbaImage& image) {
  png_image png{};
  png.version = PNG_IMAGE_VERSION;
  png.width = static_cast<png_uint_32>(image.width);
  png.height = static_cast<png_uint_32>(image.height);
  png.format = PNG_FORMAT_RGBA;
  png_alloc_size_t size = 0;
  if (!png_image_write_to_memory(&png, nullptr, &size, 0, image.rgba.data(), 0, nullptr)) encodingFailed();
  std::vector<std::uint8_t> out(size);
  if (!png_image_write_to_memory(&png, out.data(), &size, 0, image.rgba.data(), 0, nullptr)) encodingFailed();
  out.resize(size);
  return out;
}

std::vector<std::uint8_t> encodeJPEG(const RgbaImage& image, double quality) {
  std::unique_ptr<void, int (*)(tjhandle)> encoder(tjInitCompress(), tjDestroy);
  if (!encoder) encodingFailed();
  unsigned char* jpeg = nullptr;
  unsigned long size = 0;
  int q = static_cast<int>(std::lround(std::clamp(quality, 0.0, 1.0) * 100));
  if (tjCompress2(encoder.get(), image.rgba.data(), static_cast<int>(image.width), 0, static_cast<int>(image.height),
                  TJPF_RGBA, &jpeg, &size, TJSAMP_420, std::max(q, 1), TJFLAG_FASTDCT) != 0) {
    tjFree(jpeg);
    encodingFailed();
  }
  std::vector<std::uint8_t> out(jpeg, jpeg + size);
  tjFree(jpeg);
  return out;
}

}  // namespace

PixelSize pixelSize(double width, double height, std::int64_t maxSide) {
  const double longer = std::max(width, height);
  const double scale = longer > static_cast<double>(maxSide) ? static_cast<double>(maxSide) / longer : 1.0;
  auto side = [&](double s) { return std::max(minimumSide, static_cast<std::int64_t>(std::lround(s * scale))); };
  return PixelSize{side(width), side(height)};
}

Region clipRegion(const Region& r, double smallestSide, double displayWidth, double displayHeight) {
  const double width = std::min(std::max(r.width, smallestSide), displayWidth);
  const double height = std::min(std::max(r.height, smallestSide), displayHeight);
  const double x = std::min(std::max(r.x + r.width / 2 - width / 2, 0.0), displayWidth - width);
  const double y = std::min(std::max(r.y + r.height / 2 - height / 2, 0.0), displayHeight - height);
  return Region{x, y, width, height};
}

RgbaImage resized(const RgbaImage& image, PixelSize size) {
  return platform::scaledPixels(image, size.width, size.height);
}

std::vector<std::uint8_t> encodeImage(const RgbaImage& image, std::string_view format, double quality) {
  if (image.width <= 0 || image.height <= 0 ||
      image.rgba.size() != static_cast<std::size_t>(image.width * image.height * 4))
    encodingFailed();
  return format == "png" ? encodePNG(image) : encodeJPEG(image, quality);
}

}  // namespace glimmerstrand::native
