#include "platform/wayland/wayland_platform.h"

#include "platform/linux/atspi_accessibility.h"
#include "platform/linux/atspi_bus.h"
#include "platform/linux/glib_run_loop.h"
#include "platform/linux/linux_session.h"
#include "platform/linux/linux_workspace.h"
#include "platform/wayland/sway_ipc.h"
#include "platform/wayland/wayland_client.h"
#include "platform/wayland/wayland_input.h"
#include "platform/wayland/wayland_overlay.h"
#include "platform/wayland/wayland_pasteboard.h"
#include "platform/wayland/wayland_screen.h"
#include "platform/wayland/wayland_windows.h"

namespace glimmerstrand::platform::wayland_desktop {

namespace {

using linux_desktop::AtspiAccessibility;
using linux_desktop::AtspiBus;
using linux_desktop::GlibRunLoop;
using linux_desktop::LinuxSession;
using linux_desktop::LinuxWorkspace;

class WaylandPlatform final : public Platform {
 public:
  WaylandPlatform(AtspiBus bus, std::unique_ptr<WaylandClient> client)
      : bus_(std::move(bus)),
        client_(std::move(client)),
        accessibility_(bus_, loop_),
        windows_(*client_, loop_, accessibility_),
        workspace_(accessibility_, windows_),
        input_(*client_, windows_),
        pasteboard_(*client_),
        screen_(*client_),
        overlay_(*client_, loop_) {
    // Toolkits that build their trees only on request (Qt) are asked to.
    if (!bus_.isEnabled()) bus_.enable();
    // Wayland clients tell frames relative to their window.
    if (windows_.knowsPlaces()) accessibility_.placeWindowsWith(&windows_);
    if (auto socket = swaySocket()) compositor_ = swayVersion(*socket).value_or("");
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
    auto facility = [](const char* name, bool works, const char* missing) {
      return Facility{name, works, works ? "" : missing};
    };
    return {"wayland",
            compositor_,
            {facility("accessibility", accessibility_.isTrusted(), "the accessibility bus is off"),
             facility("keyboard", input_.hasKeyboard(), "no zwp_virtual_keyboard_v1: keys cannot be sent"),
             facility("pointer", input_.hasPointer(), "no zwlr_virtual_pointer_v1: clicks cannot be sent"),
             facility("windows", windows_.listsWindows(),
                      "no zwlr_foreign_toplevel_management_v1: windows cannot be listed or activated"),
             facility("windowPlaces", windows_.knowsPlaces(),
                      "no sway IPC: frames stay relative to their window, windows are matched to "
                      "applications by app id"),
             facility("clipboard", pasteboard_.available(), "no zwlr_data_control_v1: the clipboard is out of reach"),
             facility("capture", screen_.canCapture(), "no zwlr_screencopy_v1: screenshots cannot be taken"),
             facility("cursor", overlay_.available(), "no zwlr_layer_shell_v1: the agent's cursor is not shown")}};
  }

 private:
  GlibRunLoop loop_;
  AtspiBus bus_;
  std::unique_ptr<WaylandClient> client_;
  AtspiAccessibility accessibility_;
  WaylandWindows windows_;
  LinuxWorkspace workspace_;
  WaylandInput input_;
  WaylandPasteboard pasteboard_;
  WaylandScreen screen_;
  LinuxSession session_;
  WaylandOverlay overlay_;
  std::string compositor_;
};

}  // namespace

std::unique_ptr<Platform> makeWaylandPlatform(std::string& problem) {
  auto client = WaylandClient::connect(problem);
  if (!client) return nullptr;
  // The wlroots family's signs: a compositor without them (GNOME, KDE)
  // would leave every device without its protocol.
  if (!client->offers("zwlr_foreign_toplevel_manager_v1") && !client->offers("zwlr_virtual_pointer_manager_v1")) {
    problem =
        "この Wayland のコンポジターは wlroots のプロトコル (zwlr_foreign_toplevel_manager_v1, "
        "zwlr_virtual_pointer_manager_v1) を持っていません。sway などの wlroots のコンポジターか、X11 "
        "のセッションで使って"
        "ください";
    return nullptr;
  }
  auto bus = AtspiBus::connect(problem);
  if (!bus) {
    problem += "。アクセシビリティのバス (at-spi2-core) が動いているか確かめてください";
    return nullptr;
  }
  return std::make_unique<WaylandPlatform>(std::move(*bus), std::move(client));
}

}  // namespace glimmerstrand::platform::wayland_desktop
