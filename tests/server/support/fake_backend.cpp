#include "server/support/fake_backend.h"

#include <algorithm>
#include <cctype>
#include <chrono>

namespace glimmerstrand::server::testing {

using namespace std::chrono_literals;

core::CypherResult readResult(std::string app, std::vector<cypher::Row> rows) {
  core::CypherResult result;
  result.app = std::move(app);
  result.pid = 501;
  result.generation = 4;
  auto statement = std::make_shared<core::StatementResult>("read");
  statement->rows = std::move(rows);
  result.results.push_back(statement);
  result.elapsedMs = 3;
  return result;
}

core::CypherResult FakeBackend::run(const std::string& cypher, const std::optional<core::AppSelector>& app,
                                    bool readOnly, const std::optional<std::string>& session) {
  BackendCall call{cypher, app, readOnly, session};
  {
    std::lock_guard guard(lock_);
    calls_.push_back(call);
  }
  if (!coordinator || readOnly || !app || !app->name) return answer(call);
  std::string key = "name:" + *app->name;
  std::transform(key.begin(), key.end(), key.begin(), [](unsigned char c) { return std::tolower(c); });
  return coordinator->withLease(key, app->name, session, [&] { return answer(call); });
}

core::CypherResult FakeBackend::answer(const BackendCall& call) {
  {
    std::unique_lock guard(lock_);
    if (held_ == call.cypher) {
      ++blocked_;
      changed_.notify_all();
      changed_.wait_for(guard, 60s, [&] { return released_; });
      --blocked_;
    }
  }
  if (respond) return respond(call);
  return readResult("Calculator", {});
}

core::JSONValue FakeBackend::doctor() {
  return core::JSONValue::Object{{"permissions", core::JSONValue::Object{{"accessibility", true}}},
                                 {"displays", core::JSONValue::Array{}},
                                 {"frontmost", "Calculator"}};
}

core::JSONValue FakeBackend::mirrors() { return core::JSONValue::Array{core::JSONValue::Object{{"pid", 501}}}; }

void FakeBackend::hold(std::string cypher) {
  std::lock_guard guard(lock_);
  held_ = std::move(cypher);
  released_ = false;
}

void FakeBackend::release() {
  std::lock_guard guard(lock_);
  released_ = true;
  changed_.notify_all();
}

bool FakeBackend::waitForHeld(int count) {
  std::unique_lock guard(lock_);
  return changed_.wait_for(guard, 10s, [&] { return blocked_ >= count; });
}

std::vector<BackendCall> FakeBackend::calls() const {
  std::lock_guard guard(lock_);
  return calls_;
}

}  // namespace glimmerstrand::server::testing
