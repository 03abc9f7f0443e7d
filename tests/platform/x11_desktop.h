// A headless desktop for the tests of the X11 devices: started once for a
// test suite through scripts/desktop.sh, in a folder of its own, and stopped
// by the pids that script recorded. Also reads what applications show through
// the platform's accessibility, polling until a condition holds.
#pragma once

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include <cctype>

#include "platform/linux/linux_platform.h"

namespace glimmerstrand::testing {

class X11Desktop {
 public:
  /// Starts Xvfb, the buses, openbox when `wm`, and `apps`; exports what the
  /// script prints into this process's environment.
  X11Desktop(const std::string& name, bool wm, const std::vector<std::string>& apps)
      : dir_("/tmp/glimmerstrand-test-" + name + "-" + std::to_string(::getpid())) {
    // Settings and saved sessions of its own: an editor that finds the state of
    // one stopped by an earlier desktop asks to restore it.
    for (const char* name : {"XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_STATE_HOME", "XDG_CACHE_HOME"}) {
      std::string folder = dir_ + "/home/" + name;
      std::filesystem::create_directories(folder);
      ::setenv(name, folder.c_str(), 1);
    }
    std::string command =
        "GLIMMERSTRAND_DESKTOP_DIR=" + dir_ + " " GLIMMERSTRAND_SOURCE_DIR "/scripts/desktop.sh start";
    if (wm) command += " --wm";
    for (const auto& app : apps) command += " " + app;
    FILE* out = ::popen(command.c_str(), "r");
    if (!out) return;
    char line[4096];
    std::string text;
    while (std::fgets(line, sizeof line, out)) text += line;
    ok_ = ::pclose(out) == 0;
    std::istringstream lines(text);
    for (std::string l; std::getline(lines, l);) exportLine(l);
  }
  ~X11Desktop() {
    std::string command =
        "GLIMMERSTRAND_DESKTOP_DIR=" + dir_ + " " GLIMMERSTRAND_SOURCE_DIR "/scripts/desktop.sh stop 2>/dev/null";
    [[maybe_unused]] int status = std::system(command.c_str());
  }
  bool ok() const { return ok_; }
  const std::string& dir() const { return dir_; }
  /// The pid the script recorded for an application, by its executable's name.
  std::int32_t pid(const std::string& app) const {
    std::string key = "GLIMMERSTRAND_PID_" + app;
    for (auto& c : key)
      if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
    const char* value = std::getenv(key.c_str());
    return value ? std::atoi(value) : 0;
  }

 private:
  // export NAME='value' [NAME=value ...]
  static void exportLine(const std::string& line) {
    if (line.rfind("export ", 0) != 0) return;
    std::istringstream words(line.substr(7));
    for (std::string word; words >> word;) {
      auto eq = word.find('=');
      if (eq == std::string::npos) continue;
      std::string value = word.substr(eq + 1);
      if (value.size() >= 2 && value.front() == '\'' && value.back() == '\'') value = value.substr(1, value.size() - 2);
      ::setenv(word.substr(0, eq).c_str(), value.c_str(), 1);
    }
  }

  std::string dir_;
  bool ok_ = false;
};

/// Polls `condition` every 20 ms until it holds or `limit` passes.
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds limit = std::chrono::seconds(5)) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < deadline) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return condition();
}

}  // namespace glimmerstrand::testing
