#include "platform/linux/linux_workspace.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <climits>
#include <filesystem>
#include <future>
#include <set>
#include <thread>

#include "platform/browser_accessibility.h"
#include "platform/linux/desktop_entries.h"
#include "platform/process_family.h"

namespace glimmerstrand::platform::linux_desktop {

namespace {

// An entry, or a program given by its path; a Chromium browser with the words
// that show its pages to accessibility.
Started startApplication(const std::optional<std::string>& entry, const std::string& path) {
  const std::string program = entry ? entryProgram(*entry).value_or("") : path;
  if (isChromiumFamily(program)) return startCommand(withAccessibilityOn({program}, ::geteuid() == 0));
  return entry ? startEntry(*entry) : startCommand({path});
}

// How long an application may take to say whether it is in front.
constexpr double frontLimitSeconds = 0.3;
// How long a launched application has to show itself on the accessibility bus.
constexpr auto launchLimit = std::chrono::seconds(15);
// How long an opened URL's handler may take to start anew before a copy that
// was already running is taken to have it.
constexpr auto handOverWait = std::chrono::milliseconds(800);

std::string executableOf(std::int32_t pid) {
  char path[PATH_MAX];
  std::string link = "/proc/" + std::to_string(pid) + "/exe";
  ssize_t n = readlink(link.c_str(), path, sizeof path - 1);
  return n > 0 ? std::string(path, static_cast<std::size_t>(n)) : "";
}

bool alive(std::int32_t pid) { return ::kill(pid, 0) == 0 || errno == EPERM; }

}  // namespace

LinuxWorkspace::LinuxWorkspace(AtspiAccessibility& accessibility, WindowSystem& windows)
    : ax_(accessibility), windows_(windows) {}

RunningApplication LinuxWorkspace::recordOf(const BusApplication& app) {
  RunningApplication r;
  r.pid = app.pid;
  r.name = app.name;
  r.bundlePath = executableOf(app.pid);
  r.terminated = !alive(app.pid);
  r.hidden = windows_.isHidden(app.pid);
  return r;
}

std::vector<RunningApplication> LinuxWorkspace::runningApplications() {
  std::vector<RunningApplication> out;
  for (const auto& app : ax_.applications()) out.push_back(recordOf(app));
  return out;
}

std::optional<RunningApplication> LinuxWorkspace::application(std::int32_t pid) {
  if (auto app = ax_.application(pid)) return recordOf(*app);
  return std::nullopt;
}

std::optional<RunningApplication> LinuxWorkspace::frontmost() {
  if (auto pid = windows_.frontPid()) return application(*pid);
  // Where the window system cannot tell, the application whose window holds the active state: all
  // asked at once, each within the messaging limit, so that one that does
  // not answer holds up no other answer; one that did not answer before is
  // left out until it answers again.
  auto apps = ax_.applications();
  std::erase_if(apps, [](const BusApplication& app) { return !app.answering; });
  std::vector<std::future<AxValue>> answers;
  for (const auto& app : apps)
    answers.push_back(std::async(std::launch::async, [this, pid = app.pid] {
      Element element = ax_.applicationElement(pid);
      ax_.setMessagingTimeout(element, frontLimitSeconds);
      return ax_.copy(element, "AXFrontmost");
    }));
  std::optional<RunningApplication> front;
  for (std::size_t k = 0; k < apps.size(); ++k) {
    const AxValue answer = answers[k].get();
    if (answer.as<AxError>() == AxError::cannotComplete) ax_.markSilent(apps[k].pid);
    if (!front && answer.as<bool>().value_or(false)) front = recordOf(apps[k]);
  }
  return front;
}

void LinuxWorkspace::observeActivation(std::function<void(const RunningApplication&)> callback) {
  auto told = [this, callback = std::move(callback)](std::int32_t pid) {
    if (auto app = application(pid)) callback(*app);
  };
  if (windows_.watchActivation(told)) return;
  ax_.observeActivation(std::move(told));
}

bool LinuxWorkspace::activate(std::int32_t pid) { return windows_.activate(pid); }
bool LinuxWorkspace::hide(std::int32_t pid) { return windows_.hide(pid); }
bool LinuxWorkspace::unhide(std::int32_t pid) { return windows_.unhide(pid); }
bool LinuxWorkspace::terminate(std::int32_t pid) { return windows_.close(pid); }

void LinuxWorkspace::launch(const LaunchRequest& request, OpenCompletion done) {
  std::optional<std::string> entry;
  for (const auto& app : installedEntries())
    if ((!request.path.empty() && app.path == request.path) ||
        (!request.bundleId.empty() && app.bundleId == request.bundleId))
      entry = app.path;
  const bool program = !entry && !request.path.empty() && access(request.path.c_str(), X_OK) == 0 &&
                       !std::filesystem::is_directory(request.path);
  if (!entry && !program) {
    done(OpenOutcome{std::nullopt, std::string("アプリケーションが見つかりません")});
    return;
  }
  const auto before = windowIds();
  const Started started = startApplication(entry, request.path);
  if (started.error) {
    done(OpenOutcome{std::nullopt, "起動できませんでした: " + *started.error});
    return;
  }
  // Done when the application shows itself on the accessibility bus; waited
  // for on a thread of its own, as the application may take its time.
  std::thread([this, pid = started.pid, before, activates = request.activates, done = std::move(done)] {
    const auto deadline = std::chrono::steady_clock::now() + launchLimit;
    while (std::chrono::steady_clock::now() < deadline) {
      if (auto app = launchedApplication(pid, before)) {
        if (activates) activate(app->pid);
        done(OpenOutcome{app, std::nullopt});
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    // An application without a tree: done, with no application known.
    done(OpenOutcome{});
  }).detach();
}

std::optional<std::int32_t> LinuxWorkspace::windowOwner(const std::string& text) {
  auto lower = [](std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
    return s;
  };
  const std::string wanted = lower(text);
  if (wanted.empty()) return std::nullopt;
  for (const auto& w : windows_.shownWindows())
    if (w.pid > 0 && lower(w.title).find(wanted) != std::string::npos) return w.pid;
  return std::nullopt;
}

std::set<std::uint64_t> LinuxWorkspace::windowIds() {
  std::set<std::uint64_t> ids;
  for (const auto& w : windows_.shownWindows()) ids.insert(w.id);
  return ids;
}

std::optional<RunningApplication> LinuxWorkspace::launchedApplication(std::optional<std::int32_t> launcher,
                                                                      const std::set<std::uint64_t>& before) {
  // Shown once it has a window: LibreOffice's first process on a new profile
  // registers, then ends to be started again under another pid.
  auto shown = [this](std::int32_t pid) -> std::optional<RunningApplication> {
    auto app = application(pid);
    if (!app) return std::nullopt;
    auto windows = ax_.copy(ax_.applicationElement(pid), "AXChildren");
    auto list = windows.get<AxList>();
    return list && !list->empty() ? app : std::nullopt;
  };
  if (launcher) {
    const auto family = processFamily(*launcher, processParents());
    for (std::int32_t pid : family)
      if (auto app = shown(pid)) return app;
    if (alive(*launcher) || family.size() > 1) return std::nullopt;
  }
  for (const auto& w : windows_.shownWindows())
    if (!before.count(w.id) && w.pid > 0)
      if (auto app = shown(w.pid)) return app;
  return std::nullopt;
}

void LinuxWorkspace::openURL(const std::string& url, bool activates, OpenCompletion done) {
  std::string program;
  if (auto handler = handlerEntry(url)) program = entryProgram(*handler).value_or("");
  std::set<std::int32_t> before;
  for (const auto& app : runningApplications())
    if (!program.empty() && std::filesystem::path(app.bundlePath).filename() == program) before.insert(app.pid);
  // A Chromium browser is started with its pages shown to accessibility (a
  // running one takes the URL over); anything else by the desktop's own
  // opener, which knows more openers than the MIME defaults (a browser by
  // $BROWSER, the desktop's settings).
  const auto opener = isChromiumFamily(program) ? withAccessibilityOn({program, url}, ::geteuid() == 0)
                                                : std::vector<std::string>{"xdg-open", url};
  if (auto error = startCommand(opener).error) {
    done(OpenOutcome{std::nullopt, opener.front() + " を起動できませんでした: " + *error});
    return;
  }
  if (program.empty()) {
    done(OpenOutcome{});
    return;
  }
  // The handler is a new process, or a running one that took the URL over:
  // a new one is waited for a moment before the running one is named.
  std::thread([this, program, before, activates, done = std::move(done)] {
    const auto start = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - start < launchLimit) {
      std::optional<RunningApplication> known;
      for (const auto& app : runningApplications()) {
        if (std::filesystem::path(app.bundlePath).filename() != program) continue;
        if (!before.count(app.pid) || std::chrono::steady_clock::now() - start > handOverWait) known = app;
        if (known && !before.count(app.pid)) break;
      }
      if (known) {
        if (activates) activate(known->pid);
        done(OpenOutcome{known, std::nullopt});
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    done(OpenOutcome{});
  }).detach();
}

std::optional<std::string> LinuxWorkspace::applicationForURL(const std::string& url) { return handlerEntry(url); }

std::vector<InstalledApplication> LinuxWorkspace::installedApplications() { return installedEntries(); }

std::vector<std::string> LinuxWorkspace::applicationDirectories() { return entryFolders(); }

std::optional<std::int32_t> LinuxWorkspace::filePanelProcess(std::int32_t) { return std::nullopt; }

}  // namespace glimmerstrand::platform::linux_desktop
