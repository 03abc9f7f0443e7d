#include "server/app_coordinator.h"

#include <uuid/uuid.h>

#include <algorithm>

#include "core/errors.h"

namespace glimmerstrand::server {
namespace {

class SteadyLeaseClock final : public LeaseClock {
 public:
  Time now() override { return std::chrono::steady_clock::now(); }
  void waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& condition, Time deadline) override {
    condition.wait_until(lock, deadline);
  }
};

}  // namespace

LeaseClock& LeaseClock::system() {
  static SteadyLeaseClock clock;
  return clock;
}

std::string newUUIDText() {
  uuid_t uuid;
  uuid_generate_random(uuid);
  char text[37];
  uuid_unparse_upper(uuid, text);
  return text;
}

std::string newCallSession() { return "call-" + newUUIDText(); }

AppCoordinator& AppCoordinator::shared() {
  static AppCoordinator* coordinator = new AppCoordinator();  // lives as long as the process
  return *coordinator;
}

void AppCoordinator::acquire(const std::string& key, const std::string& session, const std::string& displayName) {
  std::unique_lock guard(lock_);
  auto deadline = clock_.now() + std::chrono::duration_cast<std::chrono::steady_clock::duration>(wait_);
  for (;;) {
    auto now = clock_.now();
    auto found = leases_.find(key);
    if (found == leases_.end()) break;
    const Lease& lease = found->second;
    if (lease.session == session) break;
    if (lease.running < 1 && lease.until <= now) break;  // ran out; ours to take over
    if (now >= deadline)
      throw core::GlimmerstrandError(core::codes::busy,
                                     "Another agent is using " + displayName + ". Wait a few seconds, then retry.");
    // Every wait has a deadline, so a lost wake-up costs time, never the call.
    auto wake = lease.running < 1 ? std::min(deadline, lease.until) : deadline;
    clock_.waitUntil(guard, released_, wake);
  }
  Lease& lease = leases_[key];
  if (lease.session != session) lease = Lease{session, 0, clock_.now()};
  lease.running += 1;
}

void AppCoordinator::release(const std::string& key, const std::string& session, Seconds grace) {
  {
    std::lock_guard guard(lock_);
    auto found = leases_.find(key);
    if (found == leases_.end() || found->second.session != session) return;
    Lease& lease = found->second;
    lease.running -= 1;
    lease.until = clock_.now() + std::chrono::duration_cast<std::chrono::steady_clock::duration>(grace);
    if (lease.running == 0 && grace == Seconds(0)) leases_.erase(found);
    released_.notify_all();
  }
}

void AppCoordinator::releaseIdle(const std::string& session) {
  std::lock_guard guard(lock_);
  std::erase_if(leases_,
                [&](const auto& entry) { return entry.second.session == session && entry.second.running == 0; });
  released_.notify_all();
}

std::optional<AppCoordinator::Lease> AppCoordinator::lease(const std::string& key) const {
  std::lock_guard guard(lock_);
  auto found = leases_.find(key);
  if (found == leases_.end()) return std::nullopt;
  return found->second;
}

}  // namespace glimmerstrand::server
