#include "platform/sim/sim_platform.h"

namespace glimmerstrand::platform::sim {

SimPlatform::SimPlatform(const DesktopSpec& spec)
    : ownLoop_(std::make_unique<TaskRunLoop>()),
      clock_(systemClock()),
      mainLoop_(*ownLoop_),
      desktop_(spec, clock_, mainLoop_) {}

SimPlatform::SimPlatform(const DesktopSpec& spec, Clock& clock, RunLoop& mainLoop)
    : clock_(clock), mainLoop_(mainLoop), desktop_(spec, clock_, mainLoop_) {}

}  // namespace glimmerstrand::platform::sim
