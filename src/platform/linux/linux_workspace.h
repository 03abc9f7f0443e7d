// The running applications of the Linux desktop, as the accessibility bus
// knows them: every application that exposes a tree, with its pid, name and
// executable. Callable from any thread.
#pragma once

#include "platform/linux/atspi_accessibility.h"
#include "platform/workspace.h"

namespace glimmerstrand::platform::linux_desktop {

class LinuxWorkspace final : public Workspace {
 public:
  explicit LinuxWorkspace(AtspiAccessibility& accessibility) : ax_(accessibility) {}

  std::vector<RunningApplication> runningApplications() override;
  std::optional<RunningApplication> application(std::int32_t pid) override;
  std::optional<RunningApplication> frontmost() override;
  void observeActivation(std::function<void(const RunningApplication&)> callback) override;
  bool activate(std::int32_t pid) override;
  bool hide(std::int32_t pid) override;
  bool unhide(std::int32_t pid) override;
  bool terminate(std::int32_t pid) override;
  void launch(const LaunchRequest& request, OpenCompletion done) override;
  void openURL(const std::string& url, bool activates, OpenCompletion done) override;
  std::optional<std::string> applicationForURL(const std::string& url) override;
  std::vector<InstalledApplication> installedApplications() override;
  std::vector<std::string> applicationDirectories() override;
  std::optional<std::int32_t> filePanelProcess(std::int32_t pid) override;

 private:
  AtspiAccessibility& ax_;
};

}  // namespace glimmerstrand::platform::linux_desktop
