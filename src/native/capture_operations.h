// Screen capture: `capture` of a whole display (the latest frame, or a fresh
// one) and `captureRegion` of a region, optionally of one application's
// windows only; with `displays` and the permission operations that go with
// them. Pixels come from the platform; encoding is ours.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "core/desktop.h"
#include "core/records.h"
#include "native/image_encoding.h"
#include "platform/platform.h"

namespace glimmerstrand::native {

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
/// An encoded image, with the display it shows and how old its frame is.
struct CaptureReport : core::Capture {
  platform::Display display;
  double frameAgeMs = 0;
  double elapsedMs = 0;
};

struct ScreenRequest {
  std::optional<std::int64_t> display;  // the main display when absent
  std::int64_t maxSide = 0;             // the longer side's pixels; 0 or less means 1568
  std::string format = "jpeg";
  double quality = 0.6;
  bool fresh = false;  // a new frame even when the latest would do
};

struct RegionRequest {
  core::Rect area;  // in the display's points
  std::optional<std::int64_t> display;
  std::int64_t maxSide = 0;
  std::string format = "jpeg";
  double quality = 0.8;
  std::optional<std::int32_t> pid;  // only this application's windows
};

class Capturer {
 public:
  explicit Capturer(PlatformOf platform) : platform_(std::move(platform)) {}

  CaptureReport capture(const ScreenRequest& request);
  CaptureReport captureRegion(const RegionRequest& request);

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

struct Permissions {
  bool accessibility = false;
  bool screenRecording = false;
};
Permissions permissions(platform::Platform& platform);
/// Asks for what is missing; what the process has afterwards.
Permissions requestPermissions(platform::Platform& platform);
/// The display's scale, 1 when the platform gives none that makes sense.
double displayScale(const platform::Display& display);

}  // namespace glimmerstrand::native
