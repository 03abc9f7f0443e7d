#include "native/image_encoding.h"

#include <gtest/gtest.h>
#include <png.h>
#include <turbojpeg.h>

#include "native/rpc_error.h"

namespace glimmerstrand::native {
namespace {

TEST(PixelSizeAndClipRegion, ScaleWithAFloorAndStayOnTheScreen) {
  const std::tuple<double, double, std::int64_t, PixelSize> cases[] = {
      {3000, 2000, 1568, {1568, 1045}},
      {1000, 800, 1568, {1000, 800}},
      {3000, 100, 1568, {1568, 280}},
      {100, 100, 1568, {280, 280}},
  };
  for (const auto& [w, h, max, size] : cases) EXPECT_EQ(pixelSize(w, h, max), size) << w << "x" << h;
  // A clip grows about the centre and shifts inwards at the screen's edges.
  EXPECT_EQ(clipRegion({500, 500, 10, 10}, 140, 1440, 900), (Region{435, 435, 140, 140}));
  EXPECT_EQ(clipRegion({0, 895, 10, 10}, 140, 1440, 900), (Region{0, 760, 140, 140}));
  EXPECT_EQ(clipRegion({-50, 0, 3000, 50}, 140, 1440, 900), (Region{0, 0, 1440, 140}));
}

RgbaImage checker(std::int64_t w, std::int64_t h) {
  RgbaImage image{w, h, std::vector<std::uint8_t>(static_cast<std::size_t>(w * h * 4))};
  for (std::int64_t k = 0; k < w * h; ++k) {
    bool light = ((k % w) / 8 + (k / w) / 8) % 2;
    auto* p = &image.rgba[static_cast<std::size_t>(k * 4)];
    p[0] = light ? 240 : 10, p[1] = 100, p[2] = light ? 20 : 200, p[3] = 255;
  }
  return image;
}

TEST(EncodeImage, PngRoundTripsExactlyAndOtherFormatsGiveJpeg) {
  auto image = checker(40, 30);
  auto bytes = encodeImage(image, "png", 0.5);
  png_image png{};
  png.version = PNG_IMAGE_VERSION;
  ASSERT_TRUE(png_image_begin_read_from_memory(&png, bytes.data(), bytes.size()));
  png.format = PNG_FORMAT_RGBA;
  std::vector<std::uint8_t> back(PNG_IMAGE_SIZE(png));
  ASSERT_TRUE(png_image_finish_read(&png, nullptr, back.data(), 0, nullptr));
  EXPECT_EQ(png.width, 40u);
  EXPECT_EQ(back, image.rgba);

  // Other formats give a JPEG of the same size.
  auto jpeg = encodeImage(checker(64, 48), "webp", 0.8);
  tjhandle decoder = tjInitDecompress();
  int w = 0, h = 0, sub = 0, space = 0;
  ASSERT_EQ(tjDecompressHeader3(decoder, jpeg.data(), jpeg.size(), &w, &h, &sub, &space), 0);
  tjDestroy(decoder);
  EXPECT_EQ(w, 64);
  EXPECT_EQ(h, 48);
  EXPECT_THROW(encodeImage(RgbaImage{2, 2, {1, 2, 3}}, "png", 1), RPCError);
}

TEST(Resized, AveragesBlocksWhenShrinking) {
  RgbaImage image{2, 2, {0, 0, 0, 255, 200, 200, 200, 255, 100, 100, 100, 255, 100, 100, 100, 255}};
  EXPECT_EQ(resized(image, {1, 1}).rgba, (std::vector<std::uint8_t>{100, 100, 100, 255}));
  EXPECT_EQ(resized(image, {4, 4}).rgba.size(), 64u);
}

}  // namespace
}  // namespace glimmerstrand::native
