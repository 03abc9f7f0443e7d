#include "platform/select_platform.h"

#include <exception>
#include <optional>
#include <sstream>
#include <vector>

#include "platform/headless_desktop.h"
#include "platform/linux/glib_run_loop.h"
#include "platform/linux/linux_platform.h"
#include "platform/sim/demo_apps.h"
#include "platform/sim/fixture.h"
#include "platform/sim/sim_platform.h"
#include "platform/wayland/wayland_platform.h"

namespace glimmerstrand::platform {

namespace {

constexpr auto attemptInterval = std::chrono::seconds(1);

std::string trimmed(const std::string& text) {
  auto first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::vector<std::string> namesOf(const char* platformNames) {
  std::stringstream list(platformNames && *platformNames ? platformNames : "linux");
  std::vector<std::string> names;
  for (std::string name; std::getline(list, name, ',');) names.push_back(trimmed(name));
  return names;
}

PlatformChoice simulated(const char* simApps) {
  try {
    auto spec = simApps && *simApps ? sim::loadFixture(simApps) : sim::demoDesktop();
    return {std::make_unique<sim::SimPlatform>(spec), ""};
  } catch (const std::exception& e) {
    return {nullptr, std::string("模擬デスクトップを作れません: ") + e.what()};
  }
}

// The desktop session a name asks for: "linux" takes the one the
// environment shows, "wayland" or "x11" only that one.
enum class SessionKind { any, wayland, x11 };

std::optional<SessionKind> sessionKindOf(const std::string& name) {
  if (name == "linux") return SessionKind::any;
  if (name == "wayland") return SessionKind::wayland;
  if (name == "x11") return SessionKind::x11;
  return std::nullopt;
}

// Without a display nothing is asked of the buses: a session bus found then
// (the user manager's, under systemd) would tie the process for good to a
// session without a screen, and a launcher of its accessibility bus would be
// started for nothing. WAYLAND_DISPLAY chooses Wayland, on a compositor that
// speaks the wlroots protocols; DISPLAY alone, or beside a compositor that
// does not (Xwayland), X11.
PlatformChoice linuxDesktop(SessionKind kind) {
  adoptRunningDesktop();
  const bool wayland = processEnvironmentValue("WAYLAND_DISPLAY").has_value();
  const bool x11 = processEnvironmentValue("DISPLAY").has_value();
  if (!wayland && !x11)
    return {nullptr,
            "デスクトップが見つかりません (DISPLAY も WAYLAND_DISPLAY もありません)。画面のないマシンでは "
            "glimmerstrand desktop start でデスクトップを起動できます。起動すれば、次の呼び出しからそのデスクトップ"
            "を使います"};
  PlatformChoice choice;
  if (kind != SessionKind::x11 && wayland) {
    choice.platform = wayland_desktop::makeWaylandPlatform(choice.problem);
    if (choice.platform || kind == SessionKind::wayland || !x11) return choice;
  }
  if (!x11) return {nullptr, "DISPLAY がありません (X サーバーが見つかりません)"};
  std::string waylandProblem = std::move(choice.problem);
  choice.platform = linux_desktop::makeLinuxPlatform(choice.problem);
  if (!choice.platform && !waylandProblem.empty()) choice.problem = waylandProblem + "; " + choice.problem;
  return choice;
}

}  // namespace

PlatformChoice selectPlatform(const char* platformNames, const char* simApps) {
  std::string problem;
  for (const auto& name : namesOf(platformNames)) {
    PlatformChoice choice;
    if (name == "sim") {
      choice = simulated(simApps);
    } else if (auto kind = sessionKindOf(name)) {
      choice = linuxDesktop(*kind);
    } else {
      choice.problem = "未知のプラットフォームです: " + name;
    }
    if (choice.platform) return choice;
    if (!problem.empty()) problem += "; ";
    problem += choice.problem;
  }
  return {nullptr, problem};
}

PlatformSource::PlatformSource(const char* platformNames, const char* simApps) {
  const auto names = namesOf(platformNames);
  firstName_ = names.empty() ? "" : names.front();
  auto choice = selectPlatform(platformNames, simApps);
  atStart_ = std::move(choice.platform);
  problem_ = std::move(choice.problem);
  nextAttempt_ = Clock::now() + attemptInterval;
  if (atStart_) {
    platform_ = atStart_.get();
    mainLoop_ = &atStart_->mainLoop();
    return;
  }
  // Only a Linux desktop comes later: it runs on the loop waiting for it.
  for (const auto& name : names)
    if (auto kind = sessionKindOf(name)) {
      looksAgain_ = true;
      kindLater_ = static_cast<int>(*kind);
    }
  if (looksAgain_)
    waitingLoop_ = std::make_unique<linux_desktop::GlibRunLoop>();
  else
    waitingLoop_ = std::make_unique<TaskRunLoop>();
  mainLoop_ = waitingLoop_.get();
}

Platform* PlatformSource::find(std::string& problem) {
  if (auto* platform = platform_.load(std::memory_order_acquire)) return platform;
  {
    std::lock_guard guard(lock_);
    problem = problem_;
    if (!looksAgain_ || attempting_ || Clock::now() < nextAttempt_) return nullptr;
    attempting_ = true;
  }
  auto choice = linuxDesktop(static_cast<SessionKind>(kindLater_));
  std::lock_guard guard(lock_);
  attempting_ = false;
  nextAttempt_ = Clock::now() + attemptInterval;
  if (!choice.platform) {
    problem = problem_ = choice.problem;
    return nullptr;
  }
  later_ = std::move(choice.platform);
  platform_.store(later_.get(), std::memory_order_release);
  return later_.get();
}

std::string PlatformSource::desktopName() const {
  if (auto* platform = platform_.load(std::memory_order_acquire)) return std::string(platform->name());
  return looksAgain_ ? "linux" : firstName_;
}

}  // namespace glimmerstrand::platform
