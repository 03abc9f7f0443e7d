#include "platform/sim/recording_painter.h"

#include <cstdio>

namespace glimmerstrand::platform::sim {

namespace {

// Short and exact for the whole and simple numbers the cursor uses.
std::string numberText(double value) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%.15g", value);
  return buffer;
}

constexpr std::size_t keptCalls = 10000;

}  // namespace

OverlayPainter::PanelId RecordingPainter::createPanel(AxSize size, CursorShape shape, std::uint32_t colour) {
  std::lock_guard guard(lock_);
  PanelId id = ++lastId_;
  panels_[id] = Panel{size, shape, colour, {}, 0, false};
  char hex[16];
  std::snprintf(hex, sizeof hex, "0x%06x", colour);
  record("create " + std::to_string(id) + " " + numberText(size.width) + "x" + numberText(size.height) + " " + hex);
  return id;
}

void RecordingPainter::move(PanelId panel, AxPoint origin, std::int64_t durationMs) {
  std::lock_guard guard(lock_);
  if (auto it = panels_.find(panel); it != panels_.end()) it->second.origin = origin;
  record("move " + std::to_string(panel) + " (" + numberText(origin.x) + ", " + numberText(origin.y) + ") " +
         std::to_string(durationMs));
}

void RecordingPainter::close(PanelId panel) {
  std::lock_guard guard(lock_);
  if (auto it = panels_.find(panel); it != panels_.end()) it->second.closed = true;
  record("close " + std::to_string(panel));
}

void RecordingPainter::setAlpha(PanelId panel, double alpha, std::int64_t durationMs) {
  std::lock_guard guard(lock_);
  if (auto it = panels_.find(panel); it != panels_.end()) it->second.alpha = alpha;
  record("alpha " + std::to_string(panel) + " " + numberText(alpha) + " " + std::to_string(durationMs));
}

void RecordingPainter::pulse(PanelId panel, double scale, std::int64_t durationMs) {
  std::lock_guard guard(lock_);
  record("pulse " + std::to_string(panel) + " " + numberText(scale) + " " + std::to_string(durationMs));
}

std::vector<std::string> RecordingPainter::calls() const {
  std::lock_guard guard(lock_);
  return {calls_.begin(), calls_.end()};
}

void RecordingPainter::record(std::string call) {
  calls_.push_back(std::move(call));
  if (calls_.size() > keptCalls) calls_.pop_front();
}

std::optional<RecordingPainter::Panel> RecordingPainter::panel(PanelId id) const {
  std::lock_guard guard(lock_);
  auto it = panels_.find(id);
  if (it == panels_.end()) return std::nullopt;
  return it->second;
}

}  // namespace glimmerstrand::platform::sim
