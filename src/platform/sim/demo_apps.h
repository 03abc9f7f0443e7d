// The built-in demo desktop: a calculator, a text editor and a list of 2,000
// rows, running, and a notes application that is installed and starts when
// launched (by "Notes" or "メモ"). What GLIMMERSTRAND_PLATFORM=sim runs when
// GLIMMERSTRAND_SIM_APPS is unset.
#pragma once

#include "platform/sim/sim_model.h"

namespace glimmerstrand::platform::sim {

inline constexpr std::int32_t demoCalculatorPid = 501;
inline constexpr std::int32_t demoEditorPid = 502;
inline constexpr std::int32_t demoListPid = 503;
inline constexpr std::int32_t demoNotesPid = 504;

DesktopSpec demoDesktop();

}  // namespace glimmerstrand::platform::sim
