// The agent's own arrow on the screen: one per session, each in its own
// colour, gliding to where an action lands, pulsing at a click, fading out
// when the agent stops. Nothing depends on it; it ignores input.
//
// showPointer may be called from any thread; everything else runs on the main
// run loop, which owns all the state below and so needs no lock.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/overlay_painter.h"
#include "platform/run_loop.h"

namespace glimmerstrand::native {

class AgentCursor {
 public:
  struct Timing {
    double size = 56;  // the panel's side, points
    double tipX = 20;  // the arrow's tip inside the panel, from its left
    double tipY = 20;  // and from its top
    std::int64_t moveMs = 180;
    std::int64_t appearMs = 120;
    std::int64_t idleMs = 1600;
    std::int64_t fadeMs = 400;
    std::int64_t pulseMs = 350;
  };
  static constexpr std::size_t maxPointers = 8;
  /// Blue, purple, orange, green, pink, teal.
  static const std::vector<std::uint32_t>& palette();

  /// `enabled` false (GLIMMERSTRAND_CURSOR=0) makes every call a no-op.
  AgentCursor(platform::OverlayPainter& painter, platform::RunLoop& mainLoop, bool enabled);

  /// Shows the session's pointer at a point in screen points (top-left
  /// origin), pulsing when `click`. Returns at once; callable from any thread.
  void showPointer(double x, double y, bool click);

  /// Pointers by session, for tests and diagnostics. Main loop only.
  struct Pointer {
    std::uint32_t colour = 0;
    bool visible = false;
    platform::OverlayPainter::PanelId panel = 0;
    std::uint64_t hideToken = 0;
  };
  const std::map<std::string, std::shared_ptr<Pointer>>& pointers() const { return pointers_; }

 private:
  std::shared_ptr<Pointer> pointerFor(const std::string& session);
  void moveTo(const std::shared_ptr<Pointer>& pointer, double x, double y, bool click);
  void scheduleHide(const std::shared_ptr<Pointer>& pointer);

  platform::OverlayPainter& painter_;
  platform::RunLoop& mainLoop_;
  const bool enabled_;
  const Timing timing_;
  // Main loop only.
  std::map<std::string, std::shared_ptr<Pointer>> pointers_;
  std::vector<std::string> order_;  // sessions in order of creation
};

/// Whether GLIMMERSTRAND_CURSOR leaves the overlay on (anything but "0").
bool cursorEnabledFromEnvironment();

}  // namespace glimmerstrand::native
