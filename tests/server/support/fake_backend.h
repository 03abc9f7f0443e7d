// A ServerBackend for tests: it records every call, answers by a function
// the test sets, can hold a chosen script until the test lets it go (a long
// `do`), and can take application leases the way the daemon's backend does.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "server/app_coordinator.h"
#include "server/server_backend.h"

namespace glimmerstrand::server::testing {

struct BackendCall {
  std::string cypher;
  std::optional<core::AppSelector> app;
  bool readOnly = false;
  std::optional<std::string> session;
};

/// A result of one read statement with the given rows: pid 501, generation
/// 4, 3 ms.
core::CypherResult readResult(std::string app, std::vector<cypher::Row> rows);

class FakeBackend final : public ServerBackend {
 public:
  /// Gives the result of a call, or throws. Default: a read with no rows in
  /// "Calculator".
  std::function<core::CypherResult(const BackendCall&)> respond;
  /// When set, a call with an app named takes its lease, keyed by the
  /// lower-cased name.
  AppCoordinator* coordinator = nullptr;

  core::CypherResult run(const std::string& cypher, const std::optional<core::AppSelector>& app, bool readOnly,
                         const std::optional<std::string>& session) override;
  core::JSONValue doctor() override;
  core::JSONValue mirrors() override;

  /// Calls whose script is `cypher` block once they run (under their lease)
  /// until release().
  void hold(std::string cypher);
  void release();
  /// Waits until `count` held calls are blocked; false after the limit.
  bool waitForHeld(int count);

  std::vector<BackendCall> calls() const;

 private:
  core::CypherResult answer(const BackendCall& call);

  mutable std::mutex lock_;  // guards every field below
  std::condition_variable changed_;
  std::vector<BackendCall> calls_;
  std::optional<std::string> held_;
  bool released_ = false;
  int blocked_ = 0;
};

}  // namespace glimmerstrand::server::testing
