// Browsers built on Chromium show their pages to accessibility only when told
// to at start or asked by an assistive technology, and refuse to run as root
// inside their own sandbox: whoever starts one (the desktop command, an
// application's launch, a URL's opener) gives it the words that let an agent
// see and act on its pages. One started while accessibility was off never
// shows anything, and is found among the processes instead.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace glimmerstrand::platform {

/// Whether the program (a path or a name) is Chromium or a browser built on it.
bool isChromiumFamily(std::string_view program);

/// The command with the flags its browser needs, after the program and once
/// each; any other command as it is.
std::vector<std::string> withAccessibilityOn(std::vector<std::string> words, bool asRoot);

/// A browser's main process.
struct BrowserProcess {
  std::int32_t pid = 0;
  std::string program;  // its executable's file name: "chromium"
  bool operator==(const BrowserProcess&) const = default;
};

/// A process's words from its /proc cmdline: separated by NULs, or by
/// spaces where a program rewrote them as one line.
std::vector<std::string> processWords(std::string_view cmdline);

/// Whether a process's words (its argv) are those of a Chromium browser's
/// main process, not of one of its helpers (renderers, zygotes, the GPU
/// process), which run the same program.
bool isChromiumBrowserProcess(const std::vector<std::string>& words);

/// The Chromium browsers of this user running now, from /proc: their main
/// processes, in no set order.
std::vector<BrowserProcess> chromiumBrowsers();

}  // namespace glimmerstrand::platform
