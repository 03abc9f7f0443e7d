#include "platform/linux/linux_workspace.h"

#include <fcntl.h>
#include <gio/gdesktopappinfo.h>
#include <gio/gio.h>
#include <glib-unix.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <set>
#include <sstream>
#include <thread>

#include "platform/process_family.h"

extern char** environ;

namespace glimmerstrand::platform::linux_desktop {

namespace {

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

/// One `.desktop` entry of type Application.
struct DesktopEntry {
  std::string id;  // the file name without `.desktop`
  std::string path;
  std::map<std::string, std::string> names;  // "en" from Name, others from Name[xx]
  std::string exec;
  bool hidden = false;
};

std::optional<DesktopEntry> readEntry(const std::filesystem::path& file) {
  std::ifstream in(file);
  if (!in) return std::nullopt;
  DesktopEntry entry;
  entry.id = file.stem().string();
  entry.path = file.string();
  bool inMain = false, application = false;
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    if (line[0] == '[') {
      inMain = line == "[Desktop Entry]";
      continue;
    }
    if (!inMain) continue;
    auto eq = line.find('=');
    if (eq == std::string::npos) continue;
    std::string key = line.substr(0, eq), value = line.substr(eq + 1);
    while (!key.empty() && key.back() == ' ') key.pop_back();
    while (!value.empty() && value.front() == ' ') value.erase(0, 1);
    if (key == "Type") application = value == "Application";
    if (key == "Exec") entry.exec = value;
    if (key == "Hidden" || key == "NoDisplay") entry.hidden = entry.hidden || value == "true";
    if (key == "Name") entry.names["en"] = value;
    if (key.rfind("Name[", 0) == 0 && key.back() == ']') {
      std::string language = key.substr(5, key.size() - 6);
      // "ja_JP" and "ja" both name the Japanese display name; the plain one wins.
      auto cut = language.find_first_of("_.@");
      std::string base = language.substr(0, cut);
      if (cut == std::string::npos || !entry.names.count(base)) entry.names[base] = value;
    }
  }
  if (!application || entry.exec.empty()) return std::nullopt;
  return entry;
}

std::vector<std::string> dataFolders() {
  std::vector<std::string> out;
  const char* home = std::getenv("XDG_DATA_HOME");
  if (home && *home)
    out.push_back(home);
  else if (const char* h = std::getenv("HOME"))
    out.push_back(std::string(h) + "/.local/share");
  const char* dirs = std::getenv("XDG_DATA_DIRS");
  std::istringstream list(dirs && *dirs ? dirs : "/usr/local/share:/usr/share");
  for (std::string dir; std::getline(list, dir, ':');)
    if (!dir.empty()) out.push_back(dir);
  return out;
}

std::vector<DesktopEntry> desktopEntries() {
  std::vector<DesktopEntry> out;
  std::set<std::string> seen;
  for (const auto& folder : dataFolders()) {
    std::error_code error;
    std::vector<std::filesystem::path> files;
    for (const auto& file : std::filesystem::directory_iterator(folder + "/applications", error))
      if (file.path().extension() == ".desktop") files.push_back(file.path());
    std::sort(files.begin(), files.end());
    for (const auto& file : files) {
      // The first folder that has an id decides it, hidden or not.
      if (!seen.insert(file.stem().string()).second) continue;
      if (auto entry = readEntry(file); entry && !entry->hidden) out.push_back(std::move(*entry));
    }
  }
  return out;
}

/// The words of an Exec line without its field codes, quotes undone.
std::vector<std::string> commandOf(const std::string& exec) {
  std::vector<std::string> words;
  std::string word;
  bool quoted = false, any = false;
  for (std::size_t i = 0; i < exec.size(); ++i) {
    char c = exec[i];
    if (c == '"') {
      quoted = !quoted;
      any = true;
    } else if (c == '\\' && quoted && i + 1 < exec.size()) {
      word += exec[++i];
    } else if (c == ' ' && !quoted) {
      if (any || !word.empty()) words.push_back(word);
      word.clear();
      any = false;
    } else {
      word += c;
    }
  }
  if (any || !word.empty()) words.push_back(word);
  std::vector<std::string> out;
  for (auto& w : words) {
    if (w.size() == 2 && w[0] == '%') continue;  // %f, %U, %i, ...: nothing to fill in
    std::string plain;
    for (std::size_t i = 0; i < w.size(); ++i) {
      if (w[i] == '%' && i + 1 < w.size()) ++i;  // "%%" is a percent sign; other codes go
      plain += w[i];
    }
    out.push_back(plain);
  }
  return out;
}

/// Starts a command in a session of its own, so that it outlives this
/// process's terminal and signals, with its standard streams on /dev/null:
/// an application holding the daemon's log would keep whoever reads that log
/// waiting after the daemon ended, and fill it with its own chatter. The
/// pid, or absent when it could not start.
std::optional<pid_t> spawn(const std::vector<std::string>& command) {
  if (command.empty()) return std::nullopt;
  std::vector<char*> argv;
  for (const auto& word : command) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
  posix_spawn_file_actions_t streams;
  posix_spawn_file_actions_init(&streams);
  posix_spawn_file_actions_addopen(&streams, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&streams, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&streams, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = 0;
  int failed = posix_spawnp(&pid, argv[0], &streams, &attributes, argv.data(), environ);
  posix_spawn_file_actions_destroy(&streams);
  posix_spawnattr_destroy(&attributes);
  if (failed) return std::nullopt;
  // Reaped by a waiter of its own, so that it leaves no zombie behind.
  std::thread([pid] { waitpid(pid, nullptr, 0); }).detach();
  return pid;
}

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
  std::vector<std::string> command;
  for (const auto& entry : desktopEntries())
    if ((!request.path.empty() && entry.path == request.path) ||
        (!request.bundleId.empty() && entry.id == request.bundleId))
      command = commandOf(entry.exec);
  if (command.empty() && !request.path.empty() && access(request.path.c_str(), X_OK) == 0 &&
      !std::filesystem::is_directory(request.path))
    command = {request.path};
  if (command.empty()) {
    done(OpenOutcome{std::nullopt, std::string("アプリケーションが見つかりません")});
    return;
  }
  const auto before = windowIds();
  auto pid = spawn(command);
  if (!pid) {
    done(OpenOutcome{std::nullopt, std::string("起動できませんでした: ") + command[0]});
    return;
  }
  // Done when the application shows itself on the accessibility bus; waited
  // for on a thread of its own, as the application may take its time.
  std::thread([this, pid = *pid, before, activates = request.activates, done = std::move(done)] {
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

std::optional<RunningApplication> LinuxWorkspace::launchedApplication(std::int32_t launcher,
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
  const auto family = processFamily(launcher, processParents());
  for (std::int32_t pid : family)
    if (auto app = shown(pid)) return app;
  if (alive(launcher) || family.size() > 1) return std::nullopt;
  for (const auto& w : windows_.shownWindows())
    if (!before.count(w.id) && w.pid > 0)
      if (auto app = shown(w.pid)) return app;
  return std::nullopt;
}

void LinuxWorkspace::openURL(const std::string& url, bool activates, OpenCompletion done) {
  std::string program;
  if (auto handler = applicationForURL(url))
    for (const auto& entry : desktopEntries())
      if (entry.path == *handler)
        if (auto command = commandOf(entry.exec); !command.empty())
          program = std::filesystem::path(command.front()).filename().string();
  std::set<std::int32_t> before;
  for (const auto& app : runningApplications())
    if (!program.empty() && std::filesystem::path(app.bundlePath).filename() == program) before.insert(app.pid);
  if (!spawn({"xdg-open", url})) {
    done(OpenOutcome{std::nullopt, std::string("xdg-open を起動できませんでした")});
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

// The desktop file of the default application, as the XDG MIME settings
// name it: by the file's content type, or by the URL's scheme.
std::optional<std::string> LinuxWorkspace::applicationForURL(const std::string& url) {
  GAppInfo* info = nullptr;
  if (url.rfind("file:", 0) == 0) {
    GFile* file = g_file_new_for_uri(url.c_str());
    if (GFileInfo* about =
            g_file_query_info(file, G_FILE_ATTRIBUTE_STANDARD_CONTENT_TYPE, G_FILE_QUERY_INFO_NONE, nullptr, nullptr)) {
      if (const char* type = g_file_info_get_content_type(about)) info = g_app_info_get_default_for_type(type, FALSE);
      g_object_unref(about);
    }
    g_object_unref(file);
  } else if (char* scheme = g_uri_parse_scheme(url.c_str())) {
    info = g_app_info_get_default_for_uri_scheme(scheme);
    g_free(scheme);
  }
  if (!info) return std::nullopt;
  std::optional<std::string> path;
  if (G_IS_DESKTOP_APP_INFO(info))
    if (const char* file = g_desktop_app_info_get_filename(G_DESKTOP_APP_INFO(info))) path = file;
  g_object_unref(info);
  return path;
}

std::vector<InstalledApplication> LinuxWorkspace::installedApplications() {
  std::vector<InstalledApplication> out;
  for (auto& entry : desktopEntries())
    out.push_back(InstalledApplication{entry.id, entry.path, std::move(entry.names)});
  return out;
}

std::vector<std::string> LinuxWorkspace::applicationDirectories() {
  std::vector<std::string> out;
  for (const auto& folder : dataFolders()) out.push_back(folder + "/applications");
  return out;
}

std::optional<std::int32_t> LinuxWorkspace::filePanelProcess(std::int32_t) { return std::nullopt; }

}  // namespace glimmerstrand::platform::linux_desktop
