// For tests of the texts that differ between desktops: one desktop's texts
// for the length of a scope, and the words that give away a Mac.
#pragma once

#include <regex>
#include <string>
#include <vector>

#include "core/desktop.h"

namespace glimmerstrand::testing {

class DesktopScope {
 public:
  explicit DesktopScope(core::Desktop desktop) : before_(core::currentDesktop()) { core::setCurrentDesktop(desktop); }
  ~DesktopScope() { core::setCurrentDesktop(before_); }
  DesktopScope(const DesktopScope&) = delete;
  DesktopScope& operator=(const DesktopScope&) = delete;

 private:
  core::Desktop before_;
};

/// The Mac's words found in `text`: its name, its applications, settings and
/// tools, and its command key.
inline std::vector<std::string> macWordsIn(const std::string& text) {
  static const std::regex words(
      R"(\bMac\b|macOS|Finder|System Settings|System Events|システム設定|Touch ID|AppleScript|osascript|)"
      R"(screencapture|Spotify|Safari|loginwindow|/Applications|cmd\+)");
  std::vector<std::string> found;
  for (std::sregex_iterator m(text.begin(), text.end(), words), end; m != end; ++m) found.push_back(m->str());
  return found;
}

}  // namespace glimmerstrand::testing
