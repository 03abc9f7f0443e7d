// An overlay painter that draws nothing and records every call, with the
// state each panel ends up in: the painter of the simulated desktop, and what
// tests of the cursor logic look at.
//
// Called on the main run loop; read by tests from any thread. `lock_` guards
// the panels and the calls. The calls kept are the last 10,000, so that a
// demo daemon on the simulated desktop does not grow without end.
#pragma once

#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/overlay_painter.h"

namespace glimmerstrand::platform::sim {

class RecordingPainter final : public OverlayPainter {
 public:
  struct Panel {
    AxSize size;
    CursorShape shape = CursorShape::arrow;
    std::uint32_t colour = 0;
    AxPoint origin;
    double alpha = 0;
    bool closed = false;
  };

  PanelId createPanel(AxSize size, CursorShape shape, std::uint32_t colour) override;
  void move(PanelId panel, AxPoint origin, std::int64_t durationMs) override;
  void close(PanelId panel) override;
  void setAlpha(PanelId panel, double alpha, std::int64_t durationMs) override;
  void pulse(PanelId panel, double scale, std::int64_t durationMs) override;

  /// The calls so far, oldest first, one line each: "create 1 56x56 0x007aff",
  /// "move 1 (80, 80) 180", "alpha 1 0 400", "pulse 1 0.3 350", "close 1".
  std::vector<std::string> calls() const;
  /// A panel as the calls left it; absent for an id never made.
  std::optional<Panel> panel(PanelId id) const;

 private:
  /// REQUIRES: lock_ held.
  void record(std::string call);

  mutable std::mutex lock_;  // guards everything below
  std::map<PanelId, Panel> panels_;
  std::deque<std::string> calls_;
  PanelId lastId_ = 0;
};

}  // namespace glimmerstrand::platform::sim
