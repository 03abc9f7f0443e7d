// From an application selector (`pid`, `bundleId`, `name`) to one running
// application. Names are remembered (nameCache), so that a second call with a
// name costs one look-up and one check.
//
// `lock_` guards the name cache only and is never held across a call to the
// workspace.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>

#include "core/records.h"
#include "platform/workspace.h"

namespace glimmerstrand::native {

/// The application record: `pid`, `bundleId`, `name`.
core::AppInfo appRecord(const platform::RunningApplication& app);
/// `key` (lower case) is the application's name, bundle id or bundle file
/// name without its extension, in any case; never a part of one.
bool matchesName(const platform::RunningApplication& app, const std::string& key);

/// Which application an operation means. `named` tells that a caller gave a
/// key at all, usable or not: a selector whose keys all name nothing fails,
/// and never falls back on the frontmost application. Made from a selector,
/// it is named when any of its keys is set.
struct AppQuery {
  AppQuery() = default;
  AppQuery(core::AppSelector selector)  // implicit: every selector is a query
      : keys(std::move(selector)), named(keys.pid || keys.bundleId || keys.name) {}

  core::AppSelector keys;
  bool named = false;
};

class AppLookup {
 public:
  explicit AppLookup(platform::Workspace& workspace) : workspace_(workspace) {}

  /// By pid, then bundle id, then name; a key that finds nothing leads to
  /// the next. Fails "not_found" when none finds an application.
  platform::RunningApplication findApp(const core::AppSelector& app);
  /// findApp when the query is named; otherwise the frontmost application.
  platform::RunningApplication selectApp(const AppQuery& query);
  /// Fails "native" when there is none.
  platform::RunningApplication frontmost();

 private:
  std::optional<platform::RunningApplication> byName(const std::string& key);

  platform::Workspace& workspace_;
  std::mutex lock_;  // guards nameCache_
  std::unordered_map<std::string, std::int32_t> nameCache_;
};

}  // namespace glimmerstrand::native
