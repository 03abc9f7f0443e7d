#include "native/native_backend.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <set>
#include <thread>

#include "core/errors.h"
#include "mirror/app_mirror.h"
#include "native/line_operations.h"
#include "native/run_timings.h"
#include "native/session_context.h"
#include "platform/accessibility_bus.h"
#include "platform/browser_accessibility.h"

namespace glimmerstrand::native {

using core::JSONValue;

namespace {

std::string lowerAscii(std::string text) {
  for (auto& c : text)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return text;
}

bool sameIgnoringCase(const std::string& a, const std::string& b) { return lowerAscii(a) == lowerAscii(b); }

// Enough of a browser's window to find its page, not a whole page.
constexpr std::int64_t browserLookNodes = 2000;
// How long a browser that was asked for its pages is given to show one, and
// how often it is looked at meanwhile.
constexpr auto pageWait = std::chrono::seconds(3);
constexpr auto pageLookGap = std::chrono::milliseconds(100);

std::string withLockMessage(const std::string& message) { return message + " (" + screenLockedNote() + ")"; }

}  // namespace

std::optional<std::pair<std::string, std::string>> leaseKey(platform::Workspace& workspace,
                                                            const std::optional<core::AppSelector>& app) {
  if (!app) return std::nullopt;
  const auto running = workspace.runningApplications();
  if (app->pid) {
    const auto key = "pid:" + std::to_string(*app->pid);
    for (const auto& r : running)
      if (r.pid == *app->pid && !r.name.empty()) return std::pair{key, r.name};
    return std::pair{key, "pid " + std::to_string(*app->pid)};
  }
  const auto text = app->bundleId ? app->bundleId : app->name;
  if (!text) return std::nullopt;
  // One running application has one key, however the caller named it.
  for (const auto& r : running)
    if (sameIgnoringCase(r.bundleId.empty() ? r.name : r.bundleId, *text) || sameIgnoringCase(r.name, *text))
      return std::pair{"pid:" + std::to_string(r.pid), r.name.empty() ? *text : r.name};
  return std::pair{"name:" + lowerAscii(*text), *text};
}

bool NativeBackend::screenLocked() {
  try {
    return host_.platform().session().isScreenLocked();
  } catch (const std::exception&) {
    return false;  // no platform: nothing is locked that we could tell
  }
}

core::CypherResult NativeBackend::run(const std::string& cypher, const std::optional<core::AppSelector>& app,
                                      bool readOnly, const std::optional<std::string>& session) {
  std::optional<std::pair<std::string, std::string>> key;
  if (!readOnly) key = leaseKey(host_.platform().workspace(), app);
  return coordinator_.withLease(key ? std::optional(key->first) : std::nullopt,
                                key ? std::optional(key->second) : std::nullopt, session,
                                [&] { return runStatements(cypher, app, readOnly, session); });
}

core::CypherResult NativeBackend::runStatements(const std::string& cypher, const std::optional<core::AppSelector>& app,
                                                bool readOnly, const std::optional<std::string>& session) {
  core::CypherResult result;
  threadRunTimings() = {};
  const auto started = std::chrono::steady_clock::now();
  // Also when the run fails: its time was spent all the same.
  struct Report {
    const server::ServerLog& log;
    std::chrono::steady_clock::time_point started;
    ~Report() {
      const auto& t = threadRunTimings();
      const double elapsedMs =
          std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started).count();
      log.debug("run", {{"elapsedMs", elapsedMs},
                        {"settleMs", t.settleMs},
                        {"applicationMs", t.applicationMs},
                        {"actionMs", t.actionMs},
                        {"ownMs", elapsedMs - t.settleMs - t.applicationMs}});
    }
  } report{log_, started};
  try {
    SessionScope scope(session);
    result = runner_.run(cypher, app, readOnly);
  } catch (const core::GlimmerstrandError& e) {
    if (!screenLocked()) throw;
    throw core::GlimmerstrandError(e.code(), withLockMessage(e.message()));
  }
  if (!screenLocked()) return result;
  if (result.error) {
    result.error->message = withLockMessage(result.error->message);
  } else if (!result.results.empty()) {
    auto& notes = result.results.front()->notes;
    if (!notes) notes.emplace();
    notes->insert(notes->begin(), screenLockedNote());
  }
  return result;
}

namespace {

// The kind of session and what works in it: each facility true, or why not.
JSONValue sessionRecord(const platform::SessionFacts& facts) {
  JSONValue::Object works;
  for (const auto& facility : facts.facilities)
    works.emplace_back(facility.name, facility.works ? JSONValue(true) : JSONValue(facility.note));
  JSONValue::Object record{{"type", facts.type}};
  if (!facts.compositor.empty()) record.emplace_back("compositor", facts.compositor);
  if (!works.empty()) record.emplace_back("works", std::move(works));
  return record;
}

// Whether a browser's window shows a page, after asking for it as an
// assistive technology does when it shows none: a Chromium browser builds its
// pages' trees only then, within a few hundred milliseconds. A browser
// without a window has nothing to show.
bool showsPage(platform::Accessibility& ax, std::int32_t pid) {
  const platform::Element element = ax.applicationElement(pid);
  ax.setMessagingTimeout(element, 0.3);
  auto look = [&] {
    const auto walk = walkTree(ax, element, "window", AppMirror::maxDepth, browserLookNodes);
    auto has = [&](std::string_view role) {
      return std::any_of(walk.nodes.begin(), walk.nodes.end(), [&](const auto& n) { return n.role == role; });
    };
    return !has("AXWindow") || has("AXWebArea");
  };
  if (look()) return true;
  ax.set(element, "AXManualAccessibility", true);
  const auto deadline = std::chrono::steady_clock::now() + pageWait;
  while (std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(pageLookGap);
    if (look()) return true;
  }
  return false;
}

JSONValue browserRecord(const std::string& app, std::int32_t pid, const char* problem) {
  return JSONValue::Object{{"app", app}, {"pid", std::int64_t{pid}}, {"problem", problem}};
}

// The Chromium browsers on the accessibility bus that show no page even when
// asked.
void addBrowsersShowingNoPage(platform::Platform& platform, JSONValue::Array& out) {
  for (const auto& app : platform.workspace().runningApplications()) {
    if (!platform::isChromiumFamily(app.bundlePath) && !platform::isChromiumFamily(lowerAscii(app.name))) continue;
    if (!showsPage(platform.accessibility(), app.pid))
      out.push_back(browserRecord(app.name, app.pid,
                                  "shows no page to accessibility even when asked: start it again with "
                                  "--force-renderer-accessibility"));
  }
}

// The Chromium browsers of this session (on its session bus) that are not on
// its accessibility bus: started while accessibility was off, they never
// join it, whatever they are asked.
void addBrowsersOutsideTheBus(platform::Platform& platform, JSONValue::Array& out) {
  if (platform.name() == "sim") return;  // no session of its own to look in
  std::string problem;
  const auto bus = platform::AccessibilityBus::connect(problem);
  if (!bus) return;
  const auto session = bus->sessionProcesses();
  std::set<std::int32_t> onBus;
  for (const auto& app : platform.workspace().runningApplications()) onBus.insert(app.pid);
  for (const auto& browser : platform::chromiumBrowsers())
    if (!onBus.contains(browser.pid) && std::find(session.begin(), session.end(), browser.pid) != session.end())
      out.push_back(browserRecord(browser.program, browser.pid,
                                  "is not on the accessibility bus, as it started while accessibility was off: quit "
                                  "it and start it again"));
}

// Browsers whose pages an agent cannot see, each with the fix, as nothing
// else tells the user why the pages are missing.
JSONValue browsersWithoutPages(platform::Platform& platform) {
  JSONValue::Array out;
  addBrowsersShowingNoPage(platform, out);
  addBrowsersOutsideTheBus(platform, out);
  return out;
}

}  // namespace

JSONValue NativeBackend::doctor() {
  auto& platform = host_.platform();
  JSONValue::Array displays;
  for (const auto& d : platform.screen().displays()) displays.push_back(displayRecord(d));
  JSONValue front = nullptr;
  try {
    front = core::toJSON(frontmost(host_));
  } catch (const std::exception&) {
    // No application in front is an answer, not a failure of the doctor.
  }
  JSONValue::Object report{
      {"permissions", JSONValue::Object{{"accessibility", platform.accessibility().isTrusted()},
                                        {"screenRecording", platform.screen().hasCapturePermission()}}},
      {"displays", std::move(displays)},
      {"frontmost", std::move(front)},
      {"session", sessionRecord(platform.sessionFacts())}};
  if (auto browsers = browsersWithoutPages(platform); !browsers.asArray()->empty())
    report.emplace_back("browsersWithoutPages", std::move(browsers));
  return report;
}

JSONValue NativeBackend::mirrors() {
  auto all = host_.mirrors().all();
  std::sort(all.begin(), all.end(), [](const auto& a, const auto& b) { return a->lastUsedAt() < b->lastUsedAt(); });
  const auto running = host_.platform().workspace().runningApplications();
  JSONValue::Array out;
  for (const auto& mirror : all) {
    auto summary = mirror->summary();
    JSONValue app = nullptr, bundle = nullptr;
    for (const auto& r : running)
      if (r.pid == mirror->pid()) {
        if (!r.name.empty()) app = r.name;
        if (!r.bundleId.empty()) bundle = r.bundleId;
      }
    out.push_back(JSONValue::Object{{"pid", std::int64_t{mirror->pid()}},
                                    {"app", std::move(app)},
                                    {"bundleId", std::move(bundle)},
                                    {"elements", summary.elements},
                                    {"walkMs", std::round(summary.walkMs * 10) / 10},
                                    {"ageMs", summary.ageMs ? std::round(*summary.ageMs) : -1.0},
                                    {"generation", summary.generation}});
  }
  return out;
}

}  // namespace glimmerstrand::native
