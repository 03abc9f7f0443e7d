// The login session on Linux: whether the screen is locked, from logind's
// LockedHint on the system bus, or where logind has no answer, from the
// screensaver service of the session bus. A desktop with neither (a headless
// one) is never locked.
//
// Thread-safety: any thread. One mutex, owned by the session, guards when
// each source may next be asked; it is never held across a bus call. A
// source that is missing or does not answer within a short time is left
// alone for a while, so callers never wait on it again and again.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>

#include "platform/session.h"

namespace glimmerstrand::platform::linux_desktop {

class LinuxSession final : public Session {
 public:
  LinuxSession();
  ~LinuxSession() override;
  bool isScreenLocked() override;

 private:
  struct Buses;
  /// Where the answer may come from, in the order they are asked.
  enum class Source { logind, freedesktopScreenSaver, gnomeScreenSaver, count };
  using Clock = std::chrono::steady_clock;

  bool mayAsk(Source source);
  void markSilent(Source source);

  std::unique_ptr<Buses> buses_;  // connections made once; thread-safe themselves
  std::mutex lock_;
  Clock::time_point silentUntil_[static_cast<int>(Source::count)]{};
};

}  // namespace glimmerstrand::platform::linux_desktop
