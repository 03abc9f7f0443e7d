// The running and installed applications of the simulated desktop.
#include <algorithm>
#include <cctype>

#include "platform/sim/sim_state.h"

namespace glimmerstrand::platform::sim {

namespace {

// A scheme is the same in any case; it is compared in lower case.
std::string lowerScheme(std::string scheme) {
  for (char& c : scheme) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return scheme;
}

std::string schemeOf(const std::string& url) {
  auto colon = url.find(':');
  return colon == std::string::npos ? std::string() : lowerScheme(url.substr(0, colon));
}

class SimWorkspace final : public Workspace {
 public:
  explicit SimWorkspace(SimDesktop::State& state) : s_(state) {}

  std::vector<RunningApplication> runningApplications() override {
    std::lock_guard guard(s_.lock);
    std::vector<RunningApplication> list;
    for (auto pid : s_.launchOrder) list.push_back(s_.record(s_.apps[pid]));
    return list;
  }

  std::optional<RunningApplication> application(std::int32_t pid) override {
    std::lock_guard guard(s_.lock);
    App* app = s_.runningApp(pid);
    if (!app) return std::nullopt;
    return s_.record(*app);
  }

  std::optional<RunningApplication> frontmost() override { return application(currentFront()); }

  void observeActivation(std::function<void(const RunningApplication&)> callback) override {
    std::lock_guard guard(s_.lock);
    s_.activationCallbacks.push_back(std::move(callback));
  }

  bool activate(std::int32_t pid) override {
    std::lock_guard guard(s_.lock);
    App* app = s_.runningApp(pid);
    if (!app) return false;
    if (app->spec.activation == Activation::workspace) s_.activate(*app);
    return true;
  }

  bool hide(std::int32_t pid) override { return setHidden(pid, true); }
  bool unhide(std::int32_t pid) override { return setHidden(pid, false); }

  bool terminate(std::int32_t pid) override {
    std::int64_t delayMs = 0;
    {
      std::lock_guard guard(s_.lock);
      App* app = s_.runningApp(pid);
      if (!app) return false;
      // A frozen application never handles the request, and some refuse it.
      if (app->frozen || app->spec.quitRefused) return true;
      delayMs = app->spec.quitMs;
    }
    s_.later(delayMs, [pid](SimDesktop::State& s) {
      std::lock_guard guard(s.lock);
      App* app = s.runningApp(pid);
      if (!app) return;
      if (app->spec.quitAsks)
        s.addChildren(*app, *s.node(app->node), {*app->spec.quitAsks});
      else
        s.quit(*app);
    });
    return true;
  }

  void launch(const LaunchRequest& request, OpenCompletion done) override {
    std::optional<std::int32_t> wanted;
    std::int64_t delayMs = 0;
    {
      std::lock_guard guard(s_.lock);
      for (auto& [pid, app] : s_.apps) {
        RunningApplication record = s_.record(app);
        if ((!request.bundleId.empty() && record.bundleId == request.bundleId) ||
            (request.bundleId.empty() && !request.path.empty() && record.bundlePath == request.path)) {
          wanted = pid;
          delayMs = app.running ? 0 : app.spec.launchMs;
          break;
        }
      }
    }
    if (!wanted) {
      done(OpenOutcome{std::nullopt, "このアプリは入っていません"});
      return;
    }
    s_.later(delayMs, [pid = *wanted, activates = request.activates, done = std::move(done)](SimDesktop::State& s) {
      OpenOutcome outcome;
      {
        std::lock_guard guard(s.lock);
        App& app = s.apps[pid];
        if (!app.running && !app.spec.launchError.empty()) {
          outcome.error = app.spec.launchError;
        } else {
          if (!app.running) s.start(app.spec);
          App& started = s.apps[pid];
          if (activates && started.spec.activation != Activation::never) s.activate(started);
          outcome.app = s.record(started);
        }
      }
      done(outcome);
    });
  }

  void openURL(const std::string& url, bool activates, OpenCompletion done) override {
    OpenOutcome outcome;
    {
      std::lock_guard guard(s_.lock);
      s_.openedURLs.push_back(url);
      App* handler = handlerOf(url);
      if (!handler) {
        outcome.error = "この URL を開けるアプリがありません";
      } else {
        std::int32_t pid = handler->spec.pid;
        if (!handler->running) s_.start(handler->spec);
        App& app = s_.apps[pid];
        if (activates && app.spec.activation != Activation::never) s_.activate(app);
        outcome.app = s_.record(app);
      }
    }
    done(outcome);
  }

  std::optional<std::string> applicationForURL(const std::string& url) override {
    std::lock_guard guard(s_.lock);
    App* handler = handlerOf(url);
    if (!handler) return std::nullopt;
    return s_.record(*handler).bundlePath;
  }

  std::vector<InstalledApplication> installedApplications() override {
    std::lock_guard guard(s_.lock);
    std::vector<InstalledApplication> list;
    for (auto& [pid, app] : s_.apps) {
      InstalledApplication installed;
      installed.bundleId = app.spec.bundleId;
      installed.path = s_.record(app).bundlePath;
      installed.names = app.spec.names;
      if (!installed.names.count("en")) installed.names["en"] = app.spec.name;
      list.push_back(std::move(installed));
    }
    return list;
  }

  std::vector<std::string> applicationDirectories() override {
    std::lock_guard guard(s_.lock);
    return s_.applicationDirectories;
  }

  std::optional<std::int32_t> filePanelProcess(std::int32_t pid) override {
    std::lock_guard guard(s_.lock);
    App* app = s_.runningApp(pid);
    if (!app || !app->spec.filePanelPid || !s_.runningApp(app->spec.filePanelPid)) return std::nullopt;
    return app->spec.filePanelPid;
  }

 private:
  std::int32_t currentFront() {
    std::lock_guard guard(s_.lock);
    return s_.frontmost;
  }

  bool setHidden(std::int32_t pid, bool hidden) {
    std::lock_guard guard(s_.lock);
    App* app = s_.runningApp(pid);
    if (!app) return false;
    app->hidden = hidden;
    s_.notify(*app, *s_.node(app->node), hidden ? "AXApplicationHidden" : "AXApplicationShown");
    return true;
  }

  App* handlerOf(const std::string& url) {
    std::string scheme = schemeOf(url);
    for (auto& [pid, app] : s_.apps) {
      const auto& schemes = app.spec.urlSchemes;
      if (std::any_of(schemes.begin(), schemes.end(), [&](const auto& known) { return lowerScheme(known) == scheme; }))
        return &app;
    }
    return nullptr;
  }

  SimDesktop::State& s_;
};

}  // namespace

std::unique_ptr<Workspace> makeWorkspace(SimDesktop::State& state) { return std::make_unique<SimWorkspace>(state); }

}  // namespace glimmerstrand::platform::sim
