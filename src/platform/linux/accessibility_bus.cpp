// The desktop helper's view of the accessibility bus, over the backend's own
// connection and registry directory.
#include "platform/accessibility_bus.h"

#include "platform/linux/atspi_bus.h"
#include "platform/linux/atspi_directory.h"

namespace glimmerstrand::platform {
namespace {

using linux_desktop::AtspiBus;
using linux_desktop::AtspiDirectory;

// How long an application may take to list its tree's top.
constexpr int answerLimitMs = 1000;

class LinuxAccessibilityBus final : public AccessibilityBus {
 public:
  explicit LinuxAccessibilityBus(AtspiBus bus)
      : bus_(std::move(bus)),
        // Applications are never asked for their names here, and departures
        // need no answer: the list is looked at anew on each call.
        directory_(
            bus_.connection(), [this](const std::string&) { return unowned(); }, [](const auto&) {}) {}

  std::string address() const override { return bus_.address(); }
  bool enable() override { return bus_.enable(); }
  std::vector<std::string> registered() override { return directory_.buses(); }
  std::optional<pid_t> ownerOf(const std::string& bus) override { return directory_.pidOf(bus); }

  bool treeAnswers(const std::string& bus) override {
    const linux_desktop::Variant children = linux_desktop::replyChild(
        linux_desktop::callSync(bus_.connection(),
                                linux_desktop::Call{bus, "/org/a11y/atspi/accessible/root", "org.a11y.atspi.Accessible",
                                                    "GetChildren", nullptr},
                                answerLimitMs));
    return children && g_variant_is_container(children.get()) && g_variant_n_children(children.get()) > 0;
  }

  std::vector<pid_t> sessionProcesses() override {
    const auto pids = bus_.sessionProcesses();
    return {pids.begin(), pids.end()};
  }

 private:
  std::shared_ptr<GDBusConnection> unowned() const {
    return std::shared_ptr<GDBusConnection>(bus_.connection(), [](GDBusConnection*) {});
  }

  AtspiBus bus_;
  AtspiDirectory directory_;
};

}  // namespace

std::unique_ptr<AccessibilityBus> AccessibilityBus::connect(std::string& problem) {
  auto bus = AtspiBus::connect(problem);
  if (!bus) return nullptr;
  return std::make_unique<LinuxAccessibilityBus>(std::move(*bus));
}

}  // namespace glimmerstrand::platform
