// The daemon's ServerBackend: runs a script on the shared runner under the
// application's lease, marks the thread with the session for the agent's
// cursor, and explains a locked screen. Holds no state of its own.
#pragma once

#include <optional>
#include <string>
#include <utility>

#include "core/desktop.h"
#include "core/runner.h"
#include "native/capture_operations.h"
#include "native/mirror_operations.h"
#include "server/app_coordinator.h"
#include "server/server_backend.h"
#include "server/server_log.h"

namespace glimmerstrand::native {

/// What a run returns when the screen is locked, and why. On Linux the trees
/// still read; only input reaches the lock screen instead of the windows.
inline const core::DesktopText screenLockedNote{
    .mac =
        "the Mac's screen is locked, so app windows cannot be read or operated, only menus; ask the user to unlock "
        "it, then retry",
    .linuxDesktop =
        "the screen is locked, so keys and clicks reach the lock screen, not the app windows; ask the user "
        "to unlock it, then retry",
};

/// The lease key and display name of a selector; absent when it names nothing.
std::optional<std::pair<std::string, std::string>> leaseKey(platform::Workspace& workspace,
                                                            const std::optional<core::AppSelector>& app);

class NativeBackend final : public server::ServerBackend {
 public:
  NativeBackend(core::CypherRunner& runner, MirrorHost& host, server::AppCoordinator& coordinator,
                server::ServerLog log = {})
      : runner_(runner), host_(host), coordinator_(coordinator), log_(std::move(log)) {}

  core::CypherResult run(const std::string& cypher, const std::optional<core::AppSelector>& app, bool readOnly,
                         const std::optional<std::string>& session) override;
  core::JSONValue doctor() override;
  core::JSONValue mirrors() override;

 private:
  core::CypherResult runStatements(const std::string& cypher, const std::optional<core::AppSelector>& app,
                                   bool readOnly, const std::optional<std::string>& session);
  bool screenLocked();

  core::CypherRunner& runner_;
  MirrorHost& host_;
  server::AppCoordinator& coordinator_;
  server::ServerLog log_;  // a debug line a run: where its time went
};

}  // namespace glimmerstrand::native
