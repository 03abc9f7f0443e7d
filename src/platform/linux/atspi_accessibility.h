// The accessibility interface of the Linux desktop: AT-SPI2 spoken over
// GDBus on the session's accessibility bus. Every call may be made from any
// thread at once (GDBus is thread-safe and nothing here blocks on a lock
// while the bus is called); event callbacks run on the main run loop.
#pragma once

#include <memory>
#include <optional>

#include "platform/accessibility.h"
#include "platform/linux/atspi_bus.h"
#include "platform/linux/atspi_reader.h"
#include "platform/run_loop.h"

namespace glimmerstrand::platform::linux_desktop {

class RootWindowEvents;
class WindowPlacement;

/// The applications on the accessibility bus, as the registry lists them.
struct BusApplication {
  std::string bus;
  std::int32_t pid = 0;
  std::string name;
  bool answering = true;  // false: it did not answer within the messaging limit when last asked
};

class AtspiAccessibility final : public Accessibility {
 public:
  /// `bus` and `mainLoop` outlive this object.
  /// `rootEvents`, when there is an X server, tells window moves and resizes.
  AtspiAccessibility(AtspiBus& bus, RunLoop& mainLoop, RootWindowEvents* rootEvents = nullptr);
  ~AtspiAccessibility() override;

  bool isTrusted() override;
  bool requestTrust() override;
  Element applicationElement(std::int32_t pid) override;
  Element systemWide() override;
  AxError setMessagingTimeout(const Element& element, double seconds) override;
  AxResult<std::vector<AxValue>> copyMultiple(const Element& element, const std::vector<std::string>& names) override;
  AxValue copy(const Element& element, std::string_view name) override;
  AxError set(const Element& element, std::string_view name, const AxValue& value) override;
  AxResult<bool> isSettable(const Element& element, std::string_view name) override;
  AxResult<std::vector<std::string>> attributeNames(const Element& element) override;
  AxResult<std::vector<std::string>> actionNames(const Element& element) override;
  AxResult<std::string> actionDescription(const Element& element, std::string_view action) override;
  AxError perform(const Element& element, std::string_view action) override;
  AxResult<Element> elementAt(double x, double y) override;
  AxResult<std::int32_t> pidOf(const Element& element) override;
  void prefetch(const std::vector<Element>& elements, const std::vector<std::string>& names) override;
  void walkStarted() override;
  void walkEnded() override;
  std::int64_t childrenLeftOut(const Element& element) override;
  AxResult<std::shared_ptr<Observer>> createObserver(std::int32_t pid, ObserverCallback callback) override;
  AxError addNotification(Observer& observer, const Element& element, std::string_view notification) override;
  void removeObserver(Observer& observer) override;

  /// Every application on the bus with its pid and name, in the registry's
  /// order; one that never told its name within the messaging limit is left
  /// out. Asks only applications seen for the first time.
  std::vector<BusApplication> applications();
  /// The application of `pid`, its name empty while it has not told it.
  std::optional<BusApplication> application(std::int32_t pid);
  /// The application of `pid` did not answer within the messaging limit:
  /// lists leave it out until it answers again.
  void markSilent(std::int32_t pid);
  /// From now on frames are made desktop-relative with the windows' places
  /// from `placement`, which outlives this object: for desktops where
  /// toolkits tell frames relative to their window. Call once, before use.
  void placeWindowsWith(WindowPlacement* placement);
  /// Runs `callback` on the main run loop whenever a window of an
  /// application becomes active, with that application's pid.
  void observeActivation(std::function<void(std::int32_t pid)> callback);

  struct State;

 private:
  // The element's frame as it reads, with its window's place added where
  // frames are window-relative.
  void placeFrame(const ObjectRef& ref, ElementRecord& record);
  // Starts delivering AXMoved and AXResized from the X server, once.
  void watchWindowGeometry();
  std::unique_ptr<State> s_;
};

}  // namespace glimmerstrand::platform::linux_desktop
