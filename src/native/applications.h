// Applications as a whole: starting one by what a person calls it (a running
// application, a bundle id, a file name in an application folder, or an
// installed application's display name in Japanese or English), bringing it
// to the front, asking it to quit, its windows, opening URLs and files, and
// the clipboard.
//
// Activation never fails: it tries three ever stronger means, each with its
// own wait, and the caller sees the state afterwards. Launches and opens are
// asynchronous on the platform; their completions write into a box shared
// with the waiter, which may have given up by then.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "native/app_lookup.h"
#include "native/mirror_operations.h"
#include "platform/platform.h"

namespace glimmerstrand::native {

/// Whether `app` is the frontmost application.
bool isFrontmost(platform::Workspace& workspace, std::int32_t pid);

/// Brings the application to the front: unhide and activate (0.3 s), then
/// AXFrontmost (0.5 s), then reopening its bundle (1.5 s); each step ends as
/// soon as it is in front. Never fails.
void activateApp(platform::Platform& platform, const platform::RunningApplication& app);

struct ImageSize {
  std::int64_t width = 0;
  std::int64_t height = 0;
};
/// Puts PNG data on the clipboard as an image. Fails "invalid_argument"
/// "画像を読めません" when the data is no image.
ImageSize copyImage(platform::Platform& platform, const std::vector<std::uint8_t>& data);

/// Brings the selected application to the front; never the frontmost by default.
core::AppInfo activate(platform::Platform& platform, MirrorHost& host, const core::AppSelector& app);
/// The regular applications, which one is active and which hidden.
std::vector<core::RunningApp> apps(platform::Platform& platform);
/// The running application of that name, bundle id or window title, brought
/// forward when it shows no window; else the installed one of that name,
/// started in the background (15 s at most).
core::AppInfo launch(platform::Platform& platform, MirrorHost& host, const std::string& name);

/// Whether the application ended within the time, and whether a window it
/// opened meanwhile asks its user instead.
struct QuitReport : core::QuitResult {
  bool asked = false;
};
QuitReport quit(platform::Platform& platform, MirrorHost& host, const core::AppSelector& app,
                std::int64_t timeoutMs = 5000);

struct WindowReport : core::WindowInfo {
  std::optional<core::Rect> frame;
};
std::vector<WindowReport> windows(platform::Platform& platform, MirrorHost& host, const AppQuery& app);
/// Unminimises, raises and activates the window; its title. Fails
/// "not_found" when no window has that index or title.
std::string raiseWindow(platform::Platform& platform, MirrorHost& host, const AppQuery& app,
                        const core::WindowSelector& window);

std::optional<std::string> clipboard(platform::Platform& platform);
/// Puts text on the clipboard; its length in graphemes.
std::int64_t setClipboard(platform::Platform& platform, const std::string& text);

struct OpenReport {
  std::string url;                   // as opened: a path becomes a file URL
  std::optional<core::AppInfo> app;  // the application that took it, when known
};
/// Opens a URL or a file path (absolute, or from "~").
OpenReport openURL(platform::Platform& platform, const std::string& urlOrPath);

}  // namespace glimmerstrand::native
