// Screen capture as line operations: `capture` of a whole display (the latest
// frame, or a fresh one) and `captureRegion` of a region, optionally of one
// application's windows only; with `displays` and the permission operations
// that go with them. Pixels come from the platform; encoding is ours.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>

#include "core/json_value.h"
#include "native/image_encoding.h"
#include "native/operations.h"
#include "platform/platform.h"

namespace glimmerstrand::native {

/// The display record of the line protocol: id, x, y, width, height, scale,
/// main.
core::JSONValue displayRecord(const platform::Display& display);

/// Keeps the latest frame of the display last captured whole, so that a
/// `capture` that does not ask for a fresh frame costs only an encode.
/// `frameLock_` guards the frame; capturing happens outside it.
class Capturer {
 public:
  explicit Capturer(platform::Platform& platform) : platform_(platform) {}

  core::JSONValue capture(const core::JSONValue& params);
  core::JSONValue captureRegion(const core::JSONValue& params);

 private:
  struct Frame {
    std::int64_t display = 0;
    PixelSize size;
    RgbaImage image;
    std::int64_t atNs = 0;
  };
  platform::Display displayFor(std::optional<std::int64_t> id);
  double millisecondsSince(std::int64_t startNs);

  platform::Platform& platform_;
  std::mutex frameLock_;  // guards latest_
  std::optional<Frame> latest_;
};

/// permissions, requestPermissions, displays, capture and captureRegion.
void addCaptureOperations(OperationTable& table, platform::Platform& platform, Capturer& capturer);

}  // namespace glimmerstrand::native
