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
#include <vector>

#include "native/app_lookup.h"
#include "native/operations.h"
#include "platform/platform.h"

namespace glimmerstrand::native {

class MirrorHost;

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
/// Puts PNG data on the clipboard as an image. RPCError "invalid_argument"
/// "画像を読めません" when the data is no image.
ImageSize copyImage(platform::Platform& platform, const std::vector<std::uint8_t>& data);

/// activate, apps, launch, quit, windows, raiseWindow, clipboard,
/// setClipboard and openURL.
void addApplicationOperations(OperationTable& table, MirrorHost& host);

}  // namespace glimmerstrand::native
