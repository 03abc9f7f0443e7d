// Closing the menus a pressed menu item sat in. A person's click on a menu
// item closes every menu it was in; an item's accessibility action may not:
// GTK 3 activates an item of a submenu that was never shown and leaves the
// menus above it open, holding the application's keyboard and pointer. What
// was open before such a press and is still open after it is closed as a
// person would close it, with the escape key.
//
// Calls into the application on the caller's thread, each bounded by a
// messaging timeout of 0.3 s; the keys go out on the caller's thread too,
// which for a press is the input queue.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/platform.h"

namespace glimmerstrand::native {

/// Whether pressing the element picks a menu item rather than opening a
/// submenu: an AXMenuItem without items or a menu below it.
bool isLeafMenuItem(platform::Accessibility& ax, const platform::Element& element);

/// The menus the application shows open: its top-level menus, alone or in a
/// window of their own, and the items of its menu bar whose menu is down.
std::vector<platform::Element> openMenus(platform::Accessibility& ax, std::int32_t pid);

/// Waits a moment for the menus of `before` to close by themselves after an
/// item's press; while any is still open, sends the escape key to the
/// application, one menu level at a time, a few times at most. The number of
/// escape keys sent.
int closeMenusLeftOpen(platform::Platform& platform, std::int32_t pid, const std::vector<platform::Element>& before);

}  // namespace glimmerstrand::native
