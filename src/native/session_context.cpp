#include "native/session_context.h"

namespace glimmerstrand::native {
namespace {
thread_local std::optional<std::string> session;
}

const std::optional<std::string>& currentSession() { return session; }

SessionScope::SessionScope(std::optional<std::string> next) : previous_(std::move(session)) {
  session = std::move(next);
}

SessionScope::~SessionScope() { session = std::move(previous_); }

}  // namespace glimmerstrand::native
