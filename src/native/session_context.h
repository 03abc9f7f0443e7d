// The session a thread is serving: set by the daemon around a run so that
// what the run does (the agent's cursor, for one) can tell agents apart.
#pragma once

#include <optional>
#include <string>

namespace glimmerstrand::native {

/// The calling thread's session; absent in line mode and for plain requests.
const std::optional<std::string>& currentSession();

/// Sets the calling thread's session for the life of the guard.
class SessionScope {
 public:
  explicit SessionScope(std::optional<std::string> session);
  ~SessionScope();
  SessionScope(const SessionScope&) = delete;
  SessionScope& operator=(const SessionScope&) = delete;

 private:
  std::optional<std::string> previous_;
};

}  // namespace glimmerstrand::native
