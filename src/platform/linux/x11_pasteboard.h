// The clipboard on X11: the CLIPBOARD selection. Plain X keeps no copy of
// the clipboard, so what this process writes lives as long as it owns the
// selection; a helper thread with an X connection of its own owns it and
// answers other applications' requests (text targets, image/png, INCR for
// large data), and reads what others own by converting the selection.
//
// Thread-safety: any thread. Every X request is made on the helper thread;
// callers hand it a task and wait for it, at most a couple of seconds, as an
// owner that never answers must not hang them. One mutex guards the task
// queue and the contents this process owns.
#pragma once

#include <memory>

#include "platform/pasteboard.h"

namespace glimmerstrand::platform::linux_desktop {

class X11Pasteboard final : public Pasteboard {
 public:
  X11Pasteboard();
  ~X11Pasteboard() override;

  void clear() override;
  std::optional<std::string> readText() override;
  bool writeText(const std::string& text) override;
  bool writeImage(ImageFormat format, const std::vector<std::uint8_t>& bytes) override;
  std::int64_t changeCount() override;

  struct State;

 private:
  std::shared_ptr<State> s_;
};

}  // namespace glimmerstrand::platform::linux_desktop
