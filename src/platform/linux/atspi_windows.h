// An application's top-level objects as a person sees them: its windows, and
// the dialogs that belong to one of them. A dialog (a modal window, an alert,
// a file chooser, or any top level that is not a plain window) reads as a
// sheet under the window it belongs to, so that opening and closing it
// changes a part of that window and the window's ids survive; a dialog is a
// window of its own only when the application has no other. Internal to the
// Linux backend; pure functions of what was read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/linux/atspi_reader.h"

namespace glimmerstrand::platform::linux_desktop {

enum class TopLevelKind {
  window,  // a window of its own, a plain one or a dialog standing alone
  sheet,   // a dialog under the window it belongs to
  menu,    // a context menu or a pop-up window (a combo box's list) hanging from the application
  hidden,  // kept by the toolkit, not on screen
};

struct TopLevel {
  ObjectRef ref;
  std::uint32_t role = 0;  // the AT-SPI role
  TopLevelKind kind = TopLevelKind::window;
  bool active = false;
  std::optional<std::size_t> owner;  // a sheet's window, by index into the list
};

/// Classifies an application's top-level children. `records` holds the
/// basic part of each of `refs`, in order; one that could not be read is left
/// out. `lastActivePath` is the path of the application's window that was
/// last made active, where one is known: it owns a dialog when none is active.
std::vector<TopLevel> classifyTopLevels(const std::vector<ObjectRef>& refs, const std::vector<ElementRecord>& records,
                                        std::string_view toolkit, std::string_view lastActivePath);

/// The window a person sees as the application's front: the active top
/// level, or the window that owns the active sheet. Absent when none is active.
std::optional<std::size_t> frontWindow(const std::vector<TopLevel>& tops);

}  // namespace glimmerstrand::platform::linux_desktop
