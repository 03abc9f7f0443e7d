#include "native/app_lookup.h"

#include <limits>

#include "core/errors.h"
#include "native/text_case.h"

namespace glimmerstrand::native {

namespace {

std::string fileStem(const std::string& path) {
  auto slash = path.find_last_of('/');
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  auto dot = name.find_last_of('.');
  return dot == std::string::npos || dot == 0 ? name : name.substr(0, dot);
}

}  // namespace

core::AppInfo appRecord(const platform::RunningApplication& app) {
  return core::AppInfo{app.pid, app.bundleId, app.name};
}

bool matchesName(const platform::RunningApplication& app, const std::string& key) {
  return (!app.name.empty() && lowerText(app.name) == key) ||
         (!app.bundleId.empty() && lowerText(app.bundleId) == key) ||
         (!app.bundlePath.empty() && lowerText(fileStem(app.bundlePath)) == key);
}

platform::RunningApplication AppLookup::findApp(const core::AppSelector& selector) {
  // A pid beyond 32 bits names no process.
  if (selector.pid && *selector.pid >= std::numeric_limits<std::int32_t>::min() &&
      *selector.pid <= std::numeric_limits<std::int32_t>::max())
    if (auto app = workspace_.application(static_cast<std::int32_t>(*selector.pid))) return *app;
  // An application without a bundle id has none to match, not an empty one.
  if (selector.bundleId && !selector.bundleId->empty()) {
    for (const auto& app : workspace_.runningApplications())
      if (app.bundleId == *selector.bundleId) return app;
  }
  if (selector.name)
    if (auto app = byName(lowerText(*selector.name))) return *app;
  throw core::GlimmerstrandError(core::codes::notFound, "アプリが見つかりません");
}

std::optional<platform::RunningApplication> AppLookup::byName(const std::string& key) {
  std::optional<std::int32_t> cached;
  {
    std::lock_guard guard(lock_);
    if (auto it = nameCache_.find(key); it != nameCache_.end()) cached = it->second;
  }
  // The pid may have ended or been reused since: believe it only if it still matches.
  if (cached)
    if (auto app = workspace_.application(*cached); app && !app->terminated && matchesName(*app, key)) return app;
  for (const auto& app : workspace_.runningApplications())
    if (matchesName(app, key)) {
      std::lock_guard guard(lock_);
      nameCache_[key] = app.pid;
      return app;
    }
  // No application of that name: a window of that title names its process.
  if (auto owner = workspace_.windowOwner(key))
    if (auto app = workspace_.application(*owner)) return app;
  return std::nullopt;
}

platform::RunningApplication AppLookup::selectApp(const AppQuery& query) {
  if (query.named) return findApp(query.keys);
  return frontmost();
}

platform::RunningApplication AppLookup::frontmost() {
  auto app = workspace_.frontmost();
  if (!app) throw core::GlimmerstrandError("native", "最前面のアプリがわかりません");
  return *app;
}

}  // namespace glimmerstrand::native
