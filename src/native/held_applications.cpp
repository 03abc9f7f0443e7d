#include "native/held_applications.h"

#include "core/errors.h"

namespace glimmerstrand::native {

HeldApplications& HeldApplications::shared() {
  static HeldApplications* registry = new HeldApplications();  // lives as long as the process
  return *registry;
}

void HeldApplications::pressing(std::int32_t pid) {
  std::lock_guard guard(lock_);
  pressed_.insert(pid);
}

bool HeldApplications::pressed(std::int32_t pid) {
  std::lock_guard guard(lock_);
  return pressed_.contains(pid);
}

void HeldApplications::answered(std::int32_t pid) {
  std::lock_guard guard(lock_);
  pressed_.erase(pid);
}

bool HeldApplications::held(platform::Accessibility& ax, std::int32_t pid) {
  if (!pressed(pid)) return false;
  const platform::Element app = ax.applicationElement(pid);
  ax.setMessagingTimeout(app, lookSeconds);
  // The children take a call the application itself must answer; one that
  // has gone is held by nothing.
  const auto look = ax.copy(app, "AXChildren").as<platform::AxError>();
  if (look == platform::AxError::cannotComplete) return true;
  answered(pid);
  return false;
}

void HeldApplications::refuseKeysWhileHeld(platform::Accessibility& ax, std::int32_t pid) {
  if (!held(ax, pid)) return;
  throw core::GlimmerstrandError(
      core::codes::noAction,
      "The application is still inside an earlier press: it opened a window from within it (a dialog, most "
      "likely) and answers nothing until that window closes. Keys now would freeze it, so none were sent. Answer "
      "the window with ui.click at the point ui.screenshot shows, then go on.");
}

}  // namespace glimmerstrand::native
