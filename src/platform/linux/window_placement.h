// Where an application's windows stand on the desktop, for toolkits that
// tell their elements' frames relative to their own window: every native
// Wayland client, which never learns where the compositor put it. The
// accessibility side adds the window's origin to each frame it reads, so
// that frames are desktop points on every desktop.
//
// Thread-safety: any thread; implementations guard their own state.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>

#include "platform/ax_value.h"

namespace glimmerstrand::platform::linux_desktop {

class WindowPlacement {
 public:
  virtual ~WindowPlacement() = default;
  /// The desktop position of the top-left corner of the window of `pid`
  /// titled `title`: of its only window, or the one in front, when no title
  /// matches or none is given. Absent when the process shows no window the
  /// compositor tells of.
  virtual std::optional<AxPoint> origin(std::int32_t pid, std::string_view title) = 0;
  /// From now on `callback` runs, on any thread, each time a window of a
  /// process moves (`resized` false) or changes its size; false when the
  /// compositor cannot tell, and nothing was registered. Called once.
  virtual bool watchGeometry(std::function<void(std::int32_t pid, bool resized)> callback) = 0;
};

}  // namespace glimmerstrand::platform::linux_desktop
