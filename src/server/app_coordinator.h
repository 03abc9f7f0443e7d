// Gives each application to one session at a time. A `do` takes the
// application's lease, waits a bounded time while another session holds
// it, and keeps it for a short grace after each call, so that an agent's
// next call finds the application as it left it. A `query` takes no lease.
//
// Thread-safety: every member may be called from any thread. One mutex with
// one condition guards `leases_`; it is never held while a body runs.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

namespace glimmerstrand::server {

using Seconds = std::chrono::duration<double>;

/// The coordinator's time, replaceable so that tests drive it.
class LeaseClock {
 public:
  using Time = std::chrono::steady_clock::time_point;
  virtual ~LeaseClock() = default;
  virtual Time now() = 0;
  /// Releases `lock`, waits for a notification of `condition` or for
  /// `deadline` on this clock, and takes `lock` again. May return early;
  /// callers check their condition again. REQUIRES: `lock` is held and
  /// guards `condition`.
  virtual void waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& condition, Time deadline) = 0;

  static LeaseClock& system();
};

/// "call-" and a new UUID: the holder of a plain request's lease.
std::string newCallSession();
/// A new UUID in upper-case text.
std::string newUUIDText();

class AppCoordinator {
 public:
  struct Lease {
    std::string session;  // the holder
    std::int64_t running = 0;
    LeaseClock::Time until;  // when an idle lease ends; only read while running is 0
  };

  explicit AppCoordinator(LeaseClock& clock = LeaseClock::system(), Seconds grace = Seconds(10.0),
                          Seconds wait = Seconds(30.0))
      : clock_(clock), grace_(grace), wait_(wait) {}

  /// The process's coordinator, made on first use.
  static AppCoordinator& shared();

  /// Runs `body` under the lease of `key` and gives its result; with no key
  /// the body runs at once. A session keeps the lease for the grace after
  /// the call; without one the lease ends with the call. Throws "busy" when
  /// the lease stays with another session for the whole wait; the body does
  /// not run then.
  template <typename Body>
  auto withLease(const std::optional<std::string>& key, const std::optional<std::string>& displayName,
                 const std::optional<std::string>& session, Body&& body) -> decltype(body()) {
    if (!key) return body();
    std::string holder = session ? *session : newCallSession();
    Seconds grace = session ? grace_ : Seconds(0);
    acquire(*key, holder, displayName.value_or(*key));
    struct Release {
      AppCoordinator& coordinator;
      const std::string& key;
      const std::string& holder;
      Seconds grace;
      ~Release() { coordinator.release(key, holder, grace); }
    } release{*this, *key, holder, grace};
    return body();
  }

  /// Returns once `session` holds the lease of `key`; throws "busy" after
  /// the wait.
  void acquire(const std::string& key, const std::string& session, const std::string& displayName);
  /// Ends one call of `session`; the lease stays idle for `grace`.
  void release(const std::string& key, const std::string& session, Seconds grace);
  /// Removes the idle leases of a closing session and wakes those waiting.
  void releaseIdle(const std::string& session);

  /// The lease of `key` as it stands (expired leases stay until looked at).
  std::optional<Lease> lease(const std::string& key) const;

 private:
  LeaseClock& clock_;
  const Seconds grace_;               // how long a session's lease outlives a call
  const Seconds wait_;                // how long a call waits for a lease
  mutable std::mutex lock_;           // guards leases_
  std::condition_variable released_;  // signalled whenever a lease is freed or shortened
  std::unordered_map<std::string, Lease> leases_;
};

}  // namespace glimmerstrand::server
