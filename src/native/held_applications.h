// Applications held inside one of our presses. GTK 3 answers a press's call
// at once and then runs the button's handler within it; when the handler opens
// a window with a loop of its own (a modal dialog run to its answer), the
// application answers nothing over accessibility until that window closes,
// and a key it receives meanwhile makes its accessibility bridge wait on
// itself for good: the application freezes. So after a press, keys to its
// application wait for a look at it: one that goes unanswered refuses them,
// one that is answered clears the press. Pointer input is safe and reaches
// the window it opened.
//
// One process-wide registry, since presses and keys come from different
// runs. Thread-safe: one lock, never held across a call into an application.
#pragma once

#include <cstdint>
#include <mutex>
#include <set>

#include "platform/platform.h"

namespace glimmerstrand::native {

class HeldApplications {
 public:
  /// How long the application has to answer the look that clears it.
  static constexpr double lookSeconds = 0.3;

  static HeldApplications& shared();

  /// A press of one of `pid`'s elements is about to be sent.
  void pressing(std::int32_t pid);

  /// Whether `pid` was pressed and has not answered since: looks at it when
  /// it was pressed, and forgets the press once it answers.
  bool held(platform::Accessibility& ax, std::int32_t pid);

  /// Throws "no_action" while `pid` is held.
  void refuseKeysWhileHeld(platform::Accessibility& ax, std::int32_t pid);

 private:
  bool pressed(std::int32_t pid);
  void answered(std::int32_t pid);

  std::mutex lock_;  // guards pressed_
  std::set<std::int32_t> pressed_;
};

}  // namespace glimmerstrand::native
