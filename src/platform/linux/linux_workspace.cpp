#include "platform/linux/linux_workspace.h"

#include <unistd.h>

#include <climits>

namespace glimmerstrand::platform::linux_desktop {

namespace {

std::string executableOf(std::int32_t pid) {
  char path[PATH_MAX];
  std::string link = "/proc/" + std::to_string(pid) + "/exe";
  ssize_t n = readlink(link.c_str(), path, sizeof path - 1);
  return n > 0 ? std::string(path, static_cast<std::size_t>(n)) : "";
}

RunningApplication recordOf(const BusApplication& app) {
  RunningApplication r;
  r.pid = app.pid;
  r.name = app.name;
  r.bundlePath = executableOf(app.pid);
  return r;
}

}  // namespace

std::vector<RunningApplication> LinuxWorkspace::runningApplications() {
  std::vector<RunningApplication> out;
  for (const auto& app : ax_.applications()) out.push_back(recordOf(app));
  return out;
}

std::optional<RunningApplication> LinuxWorkspace::application(std::int32_t pid) {
  for (const auto& app : ax_.applications())
    if (app.pid == pid) return recordOf(app);
  return std::nullopt;
}

std::optional<RunningApplication> LinuxWorkspace::frontmost() {
  // The application whose window holds the active state.
  for (const auto& app : ax_.applications()) {
    Element element = ax_.applicationElement(app.pid);
    if (ax_.copy(element, "AXFrontmost").as<bool>().value_or(false)) return recordOf(app);
  }
  return std::nullopt;
}

void LinuxWorkspace::observeActivation(std::function<void(const RunningApplication&)> callback) {
  ax_.observeActivation([this, callback = std::move(callback)](std::int32_t pid) {
    if (auto app = application(pid)) callback(*app);
  });
}

// Window management, launching and opening come with the X11 workspace;
// until then these report that nothing was done.
bool LinuxWorkspace::activate(std::int32_t) { return false; }
bool LinuxWorkspace::hide(std::int32_t) { return false; }
bool LinuxWorkspace::unhide(std::int32_t) { return false; }
bool LinuxWorkspace::terminate(std::int32_t) { return false; }

void LinuxWorkspace::launch(const LaunchRequest&, OpenCompletion done) {
  done(OpenOutcome{std::nullopt, std::string("アプリケーションを起動できません")});
}

void LinuxWorkspace::openURL(const std::string&, bool, OpenCompletion done) {
  done(OpenOutcome{std::nullopt, std::string("URL を開けません")});
}

std::optional<std::string> LinuxWorkspace::applicationForURL(const std::string&) { return std::nullopt; }
std::vector<InstalledApplication> LinuxWorkspace::installedApplications() { return {}; }
std::vector<std::string> LinuxWorkspace::applicationDirectories() { return {}; }
std::optional<std::int32_t> LinuxWorkspace::filePanelProcess(std::int32_t) { return std::nullopt; }

}  // namespace glimmerstrand::platform::linux_desktop
