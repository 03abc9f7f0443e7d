// Screen capture as line operations: `capture` of a whole display (the latest
// frame, or a fresh one) and `captureRegion` of a region, optionally of one
// application's windows only; with `displays` and the permission operations
// that go with them. Pixels come from the platform; encoding is ours.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>

#include "core/desktop.h"
#include "core/json_value.h"
#include "native/image_encoding.h"
#include "native/operations.h"
#include "platform/platform.h"

namespace glimmerstrand::native {

/// The display record of the line protocol: id, x, y, width, height, scale,
/// main.
core::JSONValue displayRecord(const platform::Display& display);

/// Without the permission to capture: of `capture`, of `captureRegion`. On
/// X11 any client of the display may read it, and on a wlroots compositor any
/// client that has screencopy, so there the only cause is a display that
/// cannot be read.
inline const core::DesktopText captureDenied{
    .mac =
        "画面収録が許可されていません。システム設定のプライバシーとセキュリティで、ターミナルに画面収録を許可"
        "してください",
    .linuxDesktop =
        "画面を読み取れません。X サーバー (DISPLAY) か、screencopy を持つ Wayland のコンポジター (WAYLAND_DISPLAY) "
        "に接続できるか確かめてください。画面のないマシンでは glimmerstrand desktop start でデスクトップを用意できます",
};
inline const core::DesktopText regionCaptureDenied{
    .mac = "画面収録が許可されていません",
    .linuxDesktop =
        "画面を読み取れません。X サーバー (DISPLAY) か、screencopy を持つ Wayland のコンポジター "
        "(WAYLAND_DISPLAY) に接続できるか確かめてください",
};

/// The process's platform, asked at each use: it may come after start, and
/// throws while there is none.
using PlatformOf = std::function<platform::Platform&()>;

/// Keeps the latest frame of the display last captured whole, so that a
/// `capture` that does not ask for a fresh frame costs only an encode.
/// `frameLock_` guards the frame; capturing happens outside it.
class Capturer {
 public:
  explicit Capturer(PlatformOf platform) : platform_(std::move(platform)) {}

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

  PlatformOf platform_;
  std::mutex frameLock_;  // guards latest_
  std::optional<Frame> latest_;
};

/// permissions, requestPermissions, displays, capture and captureRegion.
void addCaptureOperations(OperationTable& table, PlatformOf platform, Capturer& capturer);

}  // namespace glimmerstrand::native
