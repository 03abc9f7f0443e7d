// Browsers built on Chromium show their pages to accessibility only when told
// to at start, and refuse to run as root inside their own sandbox: whoever
// starts one (the desktop command, an application's launch, a URL's opener)
// gives it the words that let an agent see and act on its pages.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace glimmerstrand::platform {

/// Whether the program (a path or a name) is Chromium or a browser built on it.
bool isChromiumFamily(std::string_view program);

/// The command with the flags its browser needs, after the program and once
/// each; any other command as it is.
std::vector<std::string> withAccessibilityOn(std::vector<std::string> words, bool asRoot);

}  // namespace glimmerstrand::platform
