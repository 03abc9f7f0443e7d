// The simulated desktop as a Platform: what GLIMMERSTRAND_PLATFORM=sim runs,
// and the platform of every test above the seam.
#pragma once

#include <memory>

#include "platform/platform.h"
#include "platform/sim/sim_desktop.h"

namespace glimmerstrand::platform::sim {

class SimPlatform final : public Platform {
 public:
  /// On the system clock, with a run loop of its own for the main thread.
  explicit SimPlatform(const DesktopSpec& spec);
  /// On a given clock and main loop, such as a driven clock's.
  SimPlatform(const DesktopSpec& spec, Clock& clock, RunLoop& mainLoop);

  SimDesktop& desktop() { return desktop_; }

  std::string_view name() const override { return "sim"; }
  Accessibility& accessibility() override { return desktop_.accessibility(); }
  Input& input() override { return desktop_.input(); }
  Workspace& workspace() override { return desktop_.workspace(); }
  Pasteboard& pasteboard() override { return desktop_.pasteboard(); }
  Screen& screen() override { return desktop_.screen(); }
  Session& session() override { return desktop_.session(); }
  OverlayPainter& overlay() override { return desktop_.overlay(); }
  Clock& clock() override { return clock_; }
  RunLoop& mainLoop() override { return mainLoop_; }

 private:
  std::unique_ptr<RunLoop> ownLoop_;
  Clock& clock_;
  RunLoop& mainLoop_;
  SimDesktop desktop_;
};

}  // namespace glimmerstrand::platform::sim
