#include "platform/linux/linux_platform.h"

#include <cstdlib>
#include <optional>

#include "platform/linux/atspi_accessibility.h"
#include "platform/linux/atspi_bus.h"
#include "platform/linux/glib_run_loop.h"
#include "platform/linux/linux_session.h"
#include "platform/linux/linux_workspace.h"
#include "platform/linux/x11_input.h"
#include "platform/linux/x11_overlay.h"
#include "platform/linux/x11_pasteboard.h"
#include "platform/linux/x11_root_events.h"
#include "platform/linux/x11_screen.h"
#include "platform/linux/x11_windows.h"

namespace glimmerstrand::platform::linux_desktop {

namespace {

class LinuxPlatform final : public Platform {
 public:
  explicit LinuxPlatform(AtspiBus bus)
      : bus_(std::move(bus)),
        rootEvents_(RootWindowEvents::open()),
        accessibility_(bus_, loop_, rootEvents_.get()),
        windows_(loop_, rootEvents_.get()),
        workspace_(accessibility_, windows_),
        overlay_(loop_) {
    // Toolkits that build their trees only on request (Qt) are asked to.
    if (!bus_.isEnabled()) bus_.enable();
  }

  std::string_view name() const override { return "linux"; }
  Accessibility& accessibility() override { return accessibility_; }
  Input& input() override { return input_; }
  Workspace& workspace() override { return workspace_; }
  Pasteboard& pasteboard() override { return pasteboard_; }
  Screen& screen() override { return screen_; }
  Session& session() override { return session_; }
  OverlayPainter& overlay() override { return overlay_; }
  Clock& clock() override { return systemClock(); }
  RunLoop& mainLoop() override { return loop_; }
  SessionFacts sessionFacts() override {
    return {"x11", "", {{"accessibility", accessibility_.isTrusted(), "the accessibility bus is off"}}};
  }

 private:
  GlibRunLoop loop_;
  AtspiBus bus_;
  std::unique_ptr<RootWindowEvents> rootEvents_;  // null without an X server
  AtspiAccessibility accessibility_;
  X11Windows windows_;
  LinuxWorkspace workspace_;
  X11Input input_;
  X11Pasteboard pasteboard_;
  X11Screen screen_;
  LinuxSession session_;
  X11Overlay overlay_;
};

}  // namespace

std::unique_ptr<Platform> makeLinuxPlatform(std::string& problem) {
  auto bus = AtspiBus::connect(problem);
  if (!bus) {
    // Without a display there is nothing to read or drive either: say both,
    // and how a machine without a screen gets a desktop.
    const char* display = std::getenv("DISPLAY");
    if (!display || !*display) problem += "; DISPLAY がありません (X サーバーが見つかりません)";
    problem +=
        "。画面のないマシンでは eval \"$(glimmerstrand desktop start)\" で X サーバー、バス、アプリを起動できます";
    return nullptr;
  }
  return std::make_unique<LinuxPlatform>(std::move(*bus));
}

}  // namespace glimmerstrand::platform::linux_desktop
