#include "native/applications.h"

#include <png.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <memory>

#include "core/errors.h"
#include "cypher/unicode_text.h"
#include "native/mirror_operations.h"
#include "native/text_case.h"

namespace glimmerstrand::native {

namespace {

using platform::AxValue;
using platform::OpenOutcome;
using platform::RunningApplication;

constexpr std::int64_t msNs = 1'000'000;

// Looks until `done` holds or `ms` have passed, every `stepMs`; the first look
// comes before the first sleep.
template <typename Done>
bool pollFor(platform::Clock& clock, std::int64_t ms, std::int64_t stepMs, Done done) {
  const std::int64_t start = clock.nowNs();
  for (;;) {
    if (done()) return true;
    if (clock.nowNs() - start >= ms * msNs) return false;
    clock.sleepNs(stepMs * msNs);
  }
}

// What a launch or an open brings back. The completion fills it on a thread
// of the platform's; the waiter reads it after its wait, and a completion
// that comes after the waiter gave up writes into a box nobody reads.
struct OpenBox {
  std::mutex lock;  // guards finished and outcome
  platform::Signal done;
  bool finished = false;
  OpenOutcome outcome;
};

platform::OpenCompletion completionInto(platform::Clock& clock, const std::shared_ptr<OpenBox>& box) {
  return [&clock, box](const OpenOutcome& outcome) {
    std::lock_guard guard(box->lock);
    box->outcome = outcome;
    box->finished = true;
    clock.notifyAll(box->done);
  };
}

// The outcome once the completion came, or as it stands after `ms`; whether it came.
std::pair<bool, OpenOutcome> waitForOpen(platform::Clock& clock, OpenBox& box, std::int64_t ms) {
  const std::int64_t deadline = clock.nowNs() + ms * msNs;
  std::unique_lock guard(box.lock);
  while (!box.finished)
    if (!clock.waitUntil(guard, box.done, deadline) && !box.finished) break;
  return {box.finished, box.outcome};
}

bool truthy(const AxValue& value) {
  if (auto b = value.get<bool>()) return *b;
  if (auto n = value.get<double>()) return *n != 0;
  return false;
}

// The application's windows; within the messaging limit of a mirror's
// application element, so that a frozen application answers with none.
std::vector<Element> windowsOf(platform::Accessibility& ax, std::int32_t pid) {
  std::vector<Element> windows;
  Element app = ax.applicationElement(pid);
  ax.setMessagingTimeout(app, 0.3);
  if (auto list = ax.copy(app, "AXWindows").as<platform::AxList>())
    for (const auto& value : *list)
      if (auto element = value.get<Element>()) windows.push_back(*element);
  return windows;
}

std::string titleOf(platform::Accessibility& ax, const Element& window) {
  return ax.copy(window, "AXTitle").as<std::string>().value_or("");
}

std::string parentFolder(const std::string& path) {
  auto slash = path.find_last_of('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

std::string fileStem(const std::string& path) {
  std::string name = path.substr(path.find_last_of('/') + 1);
  auto dot = name.find_last_of('.');
  return dot == std::string::npos || dot == 0 ? name : name.substr(0, dot);
}

bool hasDisplayName(const platform::InstalledApplication& app, const std::string& key) {
  return std::any_of(app.names.begin(), app.names.end(),
                     [&](const auto& entry) { return !entry.second.empty() && lowerText(entry.second) == key; });
}

// By bundle id, then by file name in an application folder, then by display
// name in any language, so that a Japanese name finds an application whose
// file has an English one.
std::optional<platform::InstalledApplication> installedApplication(platform::Workspace& workspace,
                                                                   const std::string& name) {
  const auto installed = workspace.installedApplications();
  for (const auto& app : installed)
    if (!app.bundleId.empty() && app.bundleId == name) return app;
  const auto folders = workspace.applicationDirectories();
  for (const auto& folder : folders)
    for (const auto& app : installed)
      if (parentFolder(app.path) == folder && fileStem(app.path) == name) return app;
  const std::string key = lowerText(name);
  for (const auto& folder : folders)
    for (const auto& app : installed)
      if (parentFolder(app.path) == folder && hasDisplayName(app, key)) return app;
  return std::nullopt;
}

// The bundle found is launched by its location: its id may name another copy.
platform::LaunchRequest bundleAt(const platform::InstalledApplication& app, bool activates) {
  if (app.path.empty()) return {app.bundleId, "", activates};
  return {"", app.path, activates};
}

}  // namespace

core::AppInfo activate(platform::Platform& platform, MirrorHost& host, const core::AppSelector& selector) {
  auto app = host.apps().findApp(selector);
  activateApp(platform, app);
  return appRecord(app);
}

std::vector<core::RunningApp> apps(platform::Platform& platform) {
  auto& workspace = platform.workspace();
  const auto front = workspace.frontmost();
  std::vector<core::RunningApp> list;
  for (const auto& app : workspace.runningApplications())
    if (app.regular) list.push_back({app.pid, app.bundleId, app.name, front && front->pid == app.pid, app.hidden});
  return list;
}

core::AppInfo launch(platform::Platform& platform, MirrorHost& host, const std::string& name) {
  auto& workspace = platform.workspace();
  auto& ax = platform.accessibility();
  auto& clock = platform.clock();
  std::optional<RunningApplication> running;
  try {
    core::AppSelector byName;
    byName.name = name;
    running = host.apps().findApp(byName);
  } catch (const core::GlimmerstrandError& error) {
    if (error.code() != "not_found") throw;
  }
  if (running) {
    if (running->hidden || windowsOf(ax, running->pid).empty()) activateApp(platform, *running);
    return appRecord(*running);
  }

  auto installed = installedApplication(workspace, name);
  if (!installed) throw core::GlimmerstrandError("not_found", "アプリが見つかりません: " + name);
  // Started in the background: the application does not take the front by itself.
  platform::LaunchRequest request = bundleAt(*installed, false);
  auto box = std::make_shared<OpenBox>();
  workspace.launch(request, completionInto(clock, box));
  auto [finished, outcome] = waitForOpen(clock, *box, 15000);
  if (!finished) throw core::GlimmerstrandError("timeout", name + " の起動が終わりませんでした");
  if (outcome.error || !outcome.app)
    throw core::GlimmerstrandError("native", name + " を起動できませんでした: " + outcome.error.value_or(""));

  RunningApplication app = *outcome.app;
  pollFor(clock, 5000, 50, [&] {
    auto now = workspace.application(app.pid);
    if (now) app = *now;
    return now && now->finishedLaunching;
  });
  const bool hasWindows = pollFor(clock, 2000, 100, [&] { return !windowsOf(ax, app.pid).empty(); });
  if (!hasWindows) activateApp(platform, app);
  return appRecord(app);
}

namespace {

// The windows of an application that may be busy ending: each look waits
// for its answer no longer than a mirror does.
std::vector<Element> windowsWhileQuitting(platform::Accessibility& ax, std::int32_t pid) {
  Element app = ax.applicationElement(pid);
  ax.setMessagingTimeout(app, 0.3);
  std::vector<Element> windows;
  auto elementsOf = [](const platform::AxValue& value) {
    std::vector<Element> out;
    if (auto list = value.as<platform::AxList>())
      for (const auto& item : *list)
        if (auto element = item.get<Element>()) out.push_back(*element);
    return out;
  };
  for (const auto& window : elementsOf(ax.copy(app, "AXWindows"))) {
    windows.push_back(window);
    // A question may come as a sheet of the window it is about.
    for (const auto& child : elementsOf(ax.copy(window, "AXChildren")))
      if (auto role = ax.copy(child, "AXRole"); role.as<std::string>() == "AXSheet") windows.push_back(child);
  }
  return windows;
}

bool anyNew(const std::vector<Element>& now, const std::vector<Element>& before) {
  return std::any_of(now.begin(), now.end(),
                     [&](const Element& w) { return std::find(before.begin(), before.end(), w) == before.end(); });
}

}  // namespace

QuitReport quit(platform::Platform& platform, MirrorHost& host, const core::AppSelector& selector,
                std::int64_t timeoutAskedMs) {
  auto app = host.apps().findApp(selector);
  auto& workspace = platform.workspace();
  auto& ax = platform.accessibility();
  // Cut where no clock overflows.
  const std::int64_t timeoutMs = std::clamp<std::int64_t>(timeoutAskedMs, 0, 1'000'000'000'000);
  // A window that comes up after the request is the application asking its
  // user ("save changes?"): that is its answer, and nobody will give one
  // before the limit.
  const auto before = windowsWhileQuitting(ax, app.pid);
  // A polite request; nothing forces an application that refuses or asks.
  workspace.terminate(app.pid);
  bool terminated = false, asked = false;
  pollFor(platform.clock(), timeoutMs, 50, [&] {
    auto now = workspace.application(app.pid);
    terminated = !now || now->terminated;
    asked = !terminated && anyNew(windowsWhileQuitting(ax, app.pid), before);
    return terminated || asked;
  });
  QuitReport report;
  report.name = app.name;
  report.pid = app.pid;
  report.terminated = terminated;
  report.asked = asked;
  return report;
}

namespace {

WindowReport windowRecord(platform::Accessibility& ax, const Element& window, std::size_t index) {
  static const std::vector<std::string> names{"AXTitle", "AXMain", "AXFocused", "AXMinimized", "AXPosition", "AXSize"};
  auto read = ax.copyMultiple(window, names);
  std::vector<AxValue> values = read.ok() ? read.value : std::vector<AxValue>(names.size());
  WindowReport out;
  out.index = static_cast<std::int64_t>(index);
  out.title = values[0].as<std::string>().value_or("");
  out.main = truthy(values[1]);
  out.focused = truthy(values[2]);
  out.minimized = truthy(values[3]);
  auto position = values[4].as<platform::AxPoint>();
  auto size = values[5].as<platform::AxSize>();
  if (position && size) out.frame = core::Rect{position->x, position->y, size->width, size->height};
  return out;
}

}  // namespace

std::vector<WindowReport> windows(platform::Platform& platform, MirrorHost& host, const AppQuery& query) {
  requireTrust(platform.accessibility());
  auto app = host.apps().selectApp(query);
  auto& ax = platform.accessibility();
  std::vector<WindowReport> list;
  auto elements = windowsOf(ax, app.pid);
  for (std::size_t n = 0; n < elements.size(); ++n) list.push_back(windowRecord(ax, elements[n], n));
  return list;
}

namespace {

std::optional<Element> chooseWindow(platform::Accessibility& ax, const std::vector<Element>& windows,
                                    const core::WindowSelector& choice) {
  if (auto index = std::get_if<double>(&choice.by)) {
    const double at = std::trunc(*index);
    if (at >= 0 && at < static_cast<double>(windows.size())) return windows[static_cast<std::size_t>(at)];
    return std::nullopt;
  }
  const std::string needle = lowerText(std::get<std::string>(choice.by));
  std::vector<std::string> titles;
  for (const auto& window : windows) titles.push_back(lowerText(titleOf(ax, window)));
  for (std::size_t n = 0; n < windows.size(); ++n)
    if (titles[n] == needle) return windows[n];
  for (std::size_t n = 0; n < windows.size(); ++n)
    if (titles[n].find(needle) != std::string::npos) return windows[n];
  return std::nullopt;
}

}  // namespace

std::string raiseWindow(platform::Platform& platform, MirrorHost& host, const AppQuery& query,
                        const core::WindowSelector& choice) {
  requireTrust(platform.accessibility());
  auto app = host.apps().selectApp(query);
  auto& ax = platform.accessibility();
  auto window = chooseWindow(ax, windowsOf(ax, app.pid), choice);
  if (!window) throw core::GlimmerstrandError("not_found", "ウィンドウが見つかりません");
  // None of these is checked: the caller sees the state afterwards.
  ax.set(*window, "AXMinimized", false);
  ax.perform(*window, "AXRaise");
  ax.set(*window, "AXMain", true);
  activateApp(platform, app);
  return titleOf(ax, *window);
}

std::optional<std::string> clipboard(platform::Platform& platform) { return platform.pasteboard().readText(); }

std::int64_t setClipboard(platform::Platform& platform, const std::string& text) {
  auto& pasteboard = platform.pasteboard();
  pasteboard.clear();
  pasteboard.writeText(text);
  return static_cast<std::int64_t>(cypher::graphemeCount(text));
}

namespace {

std::string homeFolder(const std::string& user) {
  if (user.empty())
    if (const char* home = std::getenv("HOME"); home && *home) return home;
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* found = nullptr;
  int error = user.empty() ? getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found)
                           : getpwnam_r(user.c_str(), &entry, buffer.data(), buffer.size(), &found);
  if (error != 0 || !found || !found->pw_dir) return {};
  return found->pw_dir;
}

// "~" and "~name" at the start stand for home folders; an unknown name stays.
std::string expandTilde(const std::string& path) {
  if (path.empty() || path[0] != '~') return path;
  const auto slash = path.find('/');
  const std::string user = path.substr(1, slash == std::string::npos ? std::string::npos : slash - 1);
  const std::string home = homeFolder(user);
  if (home.empty()) return path;
  return home + (slash == std::string::npos ? "" : path.substr(slash));
}

// A path that the tilde did not make absolute ("~nobody/a") is relative, and
// so taken from the working folder like any other.
std::string absolutePath(const std::string& path) {
  if (!path.empty() && path[0] == '/') return path;
  std::error_code error;
  const auto folder = std::filesystem::current_path(error);
  return (error ? std::string() : folder.string()) + "/" + path;
}

std::string fileURL(const std::string& path) {
  static const char hex[] = "0123456789ABCDEF";
  std::string url = "file://";
  for (unsigned char c : absolutePath(path)) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       std::string_view("/-._~!$&'()*+,;=:@").find(static_cast<char>(c)) != std::string_view::npos;
    if (plain) {
      url += static_cast<char>(c);
    } else {
      url += '%';
      url += hex[c >> 4];
      url += hex[c & 15];
    }
  }
  return url;
}

// A scheme, a colon, and no white space or control characters.
bool isURL(const std::string& text) {
  const auto colon = text.find(':');
  if (colon == std::string::npos || colon == 0 || !std::isalpha(static_cast<unsigned char>(text[0]))) return false;
  for (std::size_t n = 1; n < colon; ++n) {
    const unsigned char c = static_cast<unsigned char>(text[n]);
    if (!std::isalnum(c) && c != '+' && c != '-' && c != '.') return false;
  }
  return std::none_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) <= 0x20; });
}

std::optional<RunningApplication> runningHandler(platform::Workspace& workspace, const std::string& url) {
  auto path = workspace.applicationForURL(url);
  if (!path) return std::nullopt;
  for (const auto& installed : workspace.installedApplications()) {
    if (installed.path != *path || installed.bundleId.empty()) continue;
    for (const auto& app : workspace.runningApplications())
      if (app.bundleId == installed.bundleId) return app;
  }
  return std::nullopt;
}

}  // namespace

OpenReport openURL(platform::Platform& platform, const std::string& text) {
  std::string url;
  if (!text.empty() && (text[0] == '/' || text[0] == '~'))
    url = fileURL(expandTilde(text));
  else if (isURL(text))
    url = text;
  else
    throw core::GlimmerstrandError("invalid_argument", "URL かファイルのパスを渡してください: " + text);
  auto& workspace = platform.workspace();
  auto box = std::make_shared<OpenBox>();
  workspace.openURL(url, true, completionInto(platform.clock(), box));
  // No answer in time is no failure: the box is read as it stands.
  auto [finished, outcome] = waitForOpen(platform.clock(), *box, 3000);
  if (outcome.error) throw core::GlimmerstrandError("no_action", "開けませんでした: " + text + ": " + *outcome.error);
  auto app = outcome.app ? outcome.app : runningHandler(workspace, url);
  OpenReport report{url, std::nullopt};
  if (app) {
    activateApp(platform, *app);
    report.app = appRecord(*app);
  }
  return report;
}

bool isFrontmost(platform::Workspace& workspace, std::int32_t pid) {
  auto front = workspace.frontmost();
  return front && front->pid == pid;
}

void activateApp(platform::Platform& platform, const RunningApplication& app) {
  auto& workspace = platform.workspace();
  auto& clock = platform.clock();
  auto& ax = platform.accessibility();
  auto inFront = [&] { return isFrontmost(workspace, app.pid); };
  workspace.unhide(app.pid);
  workspace.activate(app.pid);
  if (pollFor(clock, 300, 20, inFront)) return;
  ax.set(ax.applicationElement(app.pid), "AXFrontmost", true);
  if (pollFor(clock, 500, 20, inFront)) return;
  if (app.bundlePath.empty()) return;
  // Reopened by its location: another copy may have the same bundle id.
  workspace.launch(platform::LaunchRequest{"", app.bundlePath, true}, [](const OpenOutcome&) {});
  pollFor(clock, 1500, 20, inFront);
}

ImageSize copyImage(platform::Platform& platform, const std::vector<std::uint8_t>& data) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  if (data.empty() || !png_image_begin_read_from_memory(&image, data.data(), data.size()))
    throw core::GlimmerstrandError("invalid_argument", "画像を読めません");
  const ImageSize size{image.width, image.height};
  png_image_free(&image);
  auto& pasteboard = platform.pasteboard();
  pasteboard.clear();
  pasteboard.writeImage(platform::ImageFormat::png, data);
  return size;
}

}  // namespace glimmerstrand::native
