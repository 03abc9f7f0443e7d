#include "platform/browser_accessibility.h"

#include <algorithm>
#include <array>
#include <filesystem>

namespace glimmerstrand::platform {

bool isChromiumFamily(std::string_view program) {
  static constexpr std::array<std::string_view, 9> family{
      "chromium",      "chromium-browser", "google-chrome", "google-chrome-stable", "chrome", "microsoft-edge",
      "brave-browser", "vivaldi",          "opera"};
  const std::string name = std::filesystem::path(program).filename().string();
  return std::find(family.begin(), family.end(), name) != family.end();
}

std::vector<std::string> withAccessibilityOn(std::vector<std::string> words, bool asRoot) {
  if (words.empty() || !isChromiumFamily(words.front())) return words;
  auto add = [&](const std::string& flag) {
    if (std::find(words.begin(), words.end(), flag) == words.end()) words.insert(words.begin() + 1, flag);
  };
  add("--force-renderer-accessibility");
  if (asRoot) add("--no-sandbox");
  return words;
}

}  // namespace glimmerstrand::platform
