#include "platform/browser_accessibility.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <iterator>

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

bool isChromiumBrowserProcess(const std::vector<std::string>& words) {
  if (words.empty() || !isChromiumFamily(words.front())) return false;
  return std::none_of(words.begin() + 1, words.end(), [](const std::string& w) { return w.starts_with("--type="); });
}

namespace {

std::vector<std::string> split(std::string_view text, char separator) {
  std::vector<std::string> words;
  for (std::size_t start = 0; start < text.size();) {
    const auto end = std::min(text.find(separator, start), text.size());
    if (end > start) words.emplace_back(text.substr(start, end - start));
    start = end + 1;
  }
  return words;
}

}  // namespace

std::vector<std::string> processWords(std::string_view cmdline) {
  auto words = split(cmdline, '\0');
  // Chromium rewrites its command line as one line, separated by spaces.
  if (words.size() == 1 && words.front().find(' ') != std::string::npos) return split(words.front(), ' ');
  return words;
}

std::vector<BrowserProcess> chromiumBrowsers() {
  std::vector<BrowserProcess> out;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
    const std::string name = entry.path().filename().string();
    if (name.empty() || !std::isdigit(static_cast<unsigned char>(name[0]))) continue;
    struct stat info {};
    if (::stat(entry.path().c_str(), &info) != 0 || info.st_uid != ::geteuid()) continue;
    std::ifstream in(entry.path() / "cmdline", std::ios::binary);
    const std::string cmdline{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    const auto words = processWords(cmdline);
    if (!isChromiumBrowserProcess(words)) continue;
    out.push_back(BrowserProcess{static_cast<std::int32_t>(std::stol(name)),
                                 std::filesystem::path(words.front()).filename().string()});
  }
  return out;
}

}  // namespace glimmerstrand::platform
