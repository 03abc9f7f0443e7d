// The user's login session. Callable from any thread.
#pragma once

namespace glimmerstrand::platform {

class Session {
 public:
  virtual ~Session() = default;
  /// True while the screen is locked: input then reaches the lock screen.
  virtual bool isScreenLocked() = 0;
};

}  // namespace glimmerstrand::platform
