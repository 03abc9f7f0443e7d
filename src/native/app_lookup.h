// From the selector parameters `pid`, `bundleId` and `name` to one running
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

#include "core/json_value.h"
#include "core/records.h"
#include "platform/workspace.h"

namespace glimmerstrand::native {

/// The application record: `pid`, `bundleId`, `name`.
core::AppInfo appRecord(const platform::RunningApplication& app);
/// `key` (lower case) is the application's name, bundle id or bundle file
/// name without its extension, in any case; never a part of one.
bool matchesName(const platform::RunningApplication& app, const std::string& key);

class AppLookup {
 public:
  explicit AppLookup(platform::Workspace& workspace) : workspace_(workspace) {}

  /// By pid, then bundle id, then name; a key that finds nothing leads to
  /// the next. RPCError "not_found" when none finds an application.
  platform::RunningApplication findApp(const core::JSONValue& params);
  /// findApp when any of the three keys is present, whatever its value;
  /// otherwise the frontmost application.
  platform::RunningApplication selectApp(const core::JSONValue& params);
  /// RPCError "native" when there is none.
  platform::RunningApplication frontmost();

 private:
  std::optional<platform::RunningApplication> byName(const std::string& key);

  platform::Workspace& workspace_;
  std::mutex lock_;  // guards nameCache_
  std::unordered_map<std::string, std::int32_t> nameCache_;
};

}  // namespace glimmerstrand::native
