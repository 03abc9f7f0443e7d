#include "platform/linux/test_desktop.h"

#include <gtest/gtest.h>

#include <X11/Xlib.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace glimmerstrand::testing {

namespace {

std::string run(const std::string& command) {
  std::string output;
  FILE* pipe = ::popen(command.c_str(), "r");
  if (!pipe) throw std::runtime_error("cannot run " + command);
  std::array<char, 4096> buffer{};
  while (auto n = std::fread(buffer.data(), 1, buffer.size(), pipe)) output.append(buffer.data(), n);
  if (::pclose(pipe) != 0) throw std::runtime_error("failed: " + command + "\n" + output);
  return output;
}

std::string script(const std::string& folder) {
  return "GLIMMERSTRAND_DESKTOP_DIR='" + folder + "' " + GLIMMERSTRAND_SOURCE_DIR "/scripts/desktop.sh";
}

void stopDesktop(const std::string& folder) { std::system((script(folder) + " stop >/dev/null 2>&1").c_str()); }

/// Stops what runs on the desktop in `folder`, then removes the folder.
void removeDesktop(const std::string& folder) {
  if (!std::filesystem::exists(folder)) return;
  stopDesktop(folder);
  std::error_code ignored;  // a file still being written is left for the next run to take
  std::filesystem::remove_all(folder, ignored);
}

}  // namespace

TestDesktop::TestDesktop(const std::vector<std::string>& applications, bool windowManager,
                         const std::string& compositor)
    : folder_("/tmp/glimmerstrand-test-desktop-" + std::to_string(::getpid())) {
  // Pids come round again: a folder of this name is an earlier process's,
  // and its applications' settings (a session to restore) must not leak in.
  removeDesktop(folder_);
  for (const char* name : {"XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_STATE_HOME", "XDG_CACHE_HOME"}) {
    const std::string settings = folder_ + "/home/" + name;
    std::filesystem::create_directories(settings);
    ::setenv(name, settings.c_str(), 1);
  }
  std::string command = script(folder_) + " start" + (windowManager ? " --wm" : "");
  if (!compositor.empty()) {
    command += " --wayland " + compositor;
    // Its applications and this process find the compositor, never an X server.
    ::unsetenv("DISPLAY");
  }
  for (const auto& app : applications) command += " '" + app + "'";
  std::string printed;
  try {
    printed = run(command + " 2>&1");
  } catch (...) {
    // What did start must not outlive the failed suite.
    removeDesktop(folder_);
    throw;
  }
  static const std::regex line(R"(export (\w+)='?([^'\n]*)'?)");
  std::istringstream lines(printed);
  for (std::string text; std::getline(lines, text);) {
    std::smatch m;
    if (!std::regex_match(text, m, line)) continue;
    environment_[m[1]] = m[2];
    ::setenv(m[1].str().c_str(), m[2].str().c_str(), 1);
  }
}

TestDesktop::~TestDesktop() {
  // After a failure the applications' logs stay to be read; the next desktop
  // of this name clears them.
  if (::testing::UnitTest::GetInstance()->failed_test_count() == 0) {
    removeDesktop(folder_);
    return;
  }
  stopDesktop(folder_);
  std::cerr << "the desktop's logs are kept in " << folder_ << "\n";
}

std::int32_t TestDesktop::pid(const std::string& application) const {
  std::string key = "GLIMMERSTRAND_PID_" + application;
  for (auto& c : key)
    if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
  auto it = environment_.find(key);
  if (it == environment_.end()) throw std::runtime_error("no application " + application);
  return std::stoi(it->second);
}

TestDesktop* startDesktop(const std::vector<std::string>& applications, std::string& problem, bool windowManager,
                          const std::string& compositor) {
  try {
    return new TestDesktop(applications, windowManager, compositor);
  } catch (const std::exception& e) {
    problem = e.what();
    return nullptr;
  }
}

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < deadline) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return condition();
}

unsigned long inputFocus() {
  ::Display* display = XOpenDisplay(nullptr);
  if (!display) throw std::runtime_error("no display");
  ::Window focus = 0;
  int revert = 0;
  XGetInputFocus(display, &focus, &revert);
  XCloseDisplay(display);
  return focus;
}

}  // namespace glimmerstrand::testing
