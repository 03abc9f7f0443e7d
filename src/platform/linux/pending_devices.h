// Screen lock and overlay of the Linux desktop
// before their X11 backends exist: each answers that it could not act, so a
// caller reports a failure instead of pretending.
#pragma once

#include "platform/overlay_painter.h"
#include "platform/session.h"

namespace glimmerstrand::platform::linux_desktop {

class PendingSession final : public Session {
 public:
  bool isScreenLocked() override { return false; }
};

class PendingOverlay final : public OverlayPainter {
 public:
  PanelId createPanel(AxSize, CursorShape, std::uint32_t) override { return ++last_; }
  void move(PanelId, AxPoint, std::int64_t) override {}
  void close(PanelId) override {}
  void setAlpha(PanelId, double, std::int64_t) override {}
  void pulse(PanelId, double, std::int64_t) override {}

 private:
  PanelId last_ = 0;
};

}  // namespace glimmerstrand::platform::linux_desktop
