#include "native/agent_cursor.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "native/session_context.h"

namespace glimmerstrand::native {

const std::vector<std::uint32_t>& AgentCursor::palette() {
  static const std::vector<std::uint32_t> colours{0x007AFF, 0xAF52DE, 0xFF9500, 0x34C759, 0xFF2D55, 0x30B0C7};
  return colours;
}

bool cursorEnabledFromEnvironment() {
  const char* value = std::getenv("GLIMMERSTRAND_CURSOR");
  return !value || std::strcmp(value, "0") != 0;
}

AgentCursor::AgentCursor(platform::OverlayPainter& painter, platform::RunLoop& mainLoop, bool enabled)
    : painter_(painter), mainLoop_(mainLoop), enabled_(enabled), timing_() {}

void AgentCursor::showPointer(double x, double y, bool click) {
  if (!enabled_ || !std::isfinite(x) || !std::isfinite(y)) return;
  std::string session = currentSession().value_or("default");
  mainLoop_.post([this, session = std::move(session), x, y, click] { moveTo(pointerFor(session), x, y, click); });
}

std::shared_ptr<AgentCursor::Pointer> AgentCursor::pointerFor(const std::string& session) {
  if (auto found = pointers_.find(session); found != pointers_.end()) return found->second;
  if (pointers_.size() >= maxPointers) {
    // Make room by the oldest hidden pointer; visible ones are never taken away.
    auto hidden = std::find_if(order_.begin(), order_.end(), [&](const auto& s) { return !pointers_[s]->visible; });
    if (hidden != order_.end()) {
      painter_.close(pointers_[*hidden]->panel);
      pointers_.erase(*hidden);
      order_.erase(hidden);
    }
  }
  std::uint32_t colour = palette()[order_.size() % palette().size()];
  for (auto candidate : palette()) {
    bool taken =
        std::any_of(pointers_.begin(), pointers_.end(), [&](auto& p) { return p.second->colour == candidate; });
    if (!taken) {
      colour = candidate;
      break;
    }
  }
  auto pointer = std::make_shared<Pointer>();
  pointer->colour = colour;
  pointer->panel = painter_.createPanel({timing_.size, timing_.size}, platform::CursorShape::arrow, colour);
  pointers_[session] = pointer;
  order_.push_back(session);
  return pointer;
}

void AgentCursor::moveTo(const std::shared_ptr<Pointer>& pointer, double x, double y, bool click) {
  const platform::AxPoint origin{x - timing_.tipX, y - timing_.tipY};
  const bool wasVisible = pointer->visible;
  if (wasVisible) {
    painter_.move(pointer->panel, origin, timing_.moveMs);
    painter_.setAlpha(pointer->panel, 1, timing_.moveMs);
  } else {
    painter_.move(pointer->panel, origin, 0);
    painter_.setAlpha(pointer->panel, 1, timing_.appearMs);
    pointer->visible = true;
  }
  if (click) {
    // On a visible pointer the pulse waits for the glide to end.
    auto pulse = [this, panel = pointer->panel] { painter_.pulse(panel, 0.3, timing_.pulseMs); };
    if (wasVisible)
      mainLoop_.postAfter(std::chrono::milliseconds(timing_.moveMs), pulse);
    else
      mainLoop_.post(pulse);
  }
  scheduleHide(pointer);
}

void AgentCursor::scheduleHide(const std::shared_ptr<Pointer>& pointer) {
  const auto token = ++pointer->hideToken;
  std::weak_ptr<Pointer> weak = pointer;
  mainLoop_.postAfter(std::chrono::milliseconds(timing_.idleMs), [this, weak, token] {
    auto p = weak.lock();
    if (!p || p->hideToken != token) return;  // a later move took over
    painter_.setAlpha(p->panel, 0, timing_.fadeMs);
    mainLoop_.postAfter(std::chrono::milliseconds(timing_.fadeMs), [weak, token] {
      // A move during the fade has changed the token: the pointer stays.
      if (auto q = weak.lock(); q && q->hideToken == token) q->visible = false;
    });
  });
}

}  // namespace glimmerstrand::native
