// The platform seam as one object: every facility the logic above uses, from
// one backend, chosen once at start (see select_platform.h). The platform and
// everything it hands out live as long as the process.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/accessibility.h"
#include "platform/clock.h"
#include "platform/input.h"
#include "platform/overlay_painter.h"
#include "platform/pasteboard.h"
#include "platform/run_loop.h"
#include "platform/screen.h"
#include "platform/session.h"
#include "platform/workspace.h"

namespace glimmerstrand::platform {

/// One facility of a session, for a person: whether it works, and if not why.
struct Facility {
  std::string name;
  bool works = false;
  std::string note;  // why it does not work, or what it lacks
  bool operator==(const Facility&) const = default;
};

/// What kind of desktop session the platform serves ("x11", "wayland",
/// "sim"), the compositor or window manager where it is known, and what
/// works in it.
struct SessionFacts {
  std::string type;
  std::string compositor;
  std::vector<Facility> facilities;
};

class Platform {
 public:
  virtual ~Platform() = default;
  /// "sim", "linux".
  virtual std::string_view name() const = 0;
  virtual Accessibility& accessibility() = 0;
  virtual Input& input() = 0;
  virtual Workspace& workspace() = 0;
  virtual Pasteboard& pasteboard() = 0;
  virtual Screen& screen() = 0;
  virtual Session& session() = 0;
  virtual OverlayPainter& overlay() = 0;
  virtual Clock& clock() = 0;
  /// The main thread's loop: observer and activation callbacks, the overlay.
  virtual RunLoop& mainLoop() = 0;
  /// The session, for the doctor. Asks nothing of the applications.
  virtual SessionFacts sessionFacts() { return {std::string(name()), "", {}}; }
};

}  // namespace glimmerstrand::platform
