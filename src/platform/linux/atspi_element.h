// An AT-SPI element: the application's unique bus name and the object's
// path. Paths are not reused within an application and a restarted
// application has a new bus name, so the pair names one on-screen object
// from any route (a walk, a hit test, an event).
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "platform/ax_value.h"
#include "platform/element.h"

namespace glimmerstrand::platform::linux_desktop {

inline constexpr const char* rootPath = "/org/a11y/atspi/accessible/root";

class AtspiElement final : public ElementImpl {
 public:
  AtspiElement(std::string bus, std::string path, std::shared_ptr<std::atomic<int>> timeoutMs = nullptr)
      : bus_(std::move(bus)), path_(std::move(path)), timeoutMs_(std::move(timeoutMs)) {}

  const std::string& bus() const { return bus_; }
  const std::string& path() const { return path_; }
  bool isApplication() const { return path_ == rootPath; }
  /// This handle's own messaging timeout, or 0 for the process default.
  int timeoutMs() const { return timeoutMs_ ? timeoutMs_->load() : 0; }
  const std::shared_ptr<std::atomic<int>>& timeoutCell() const { return timeoutMs_; }

  std::size_t hash() const override { return std::hash<std::string>{}(bus_)*31 + std::hash<std::string>{}(path_); }
  bool equals(const ElementImpl& other) const override {
    auto* o = dynamic_cast<const AtspiElement*>(&other);
    return o && o->bus_ == bus_ && o->path_ == path_;
  }
  std::string describe() const override { return bus_ + path_; }

 private:
  std::string bus_;
  std::string path_;
  std::shared_ptr<std::atomic<int>> timeoutMs_;  // shared by copies of one handle
};

/// A handle to (bus, path) with the process default timeout.
inline Element atspiElement(std::string bus, std::string path) {
  return Element(std::make_shared<AtspiElement>(std::move(bus), std::move(path)));
}

/// Gives every element in `value` that has no timeout of its own the one of
/// `from`, shared: what is read through a handle is read within its bounds,
/// so that a walk from an application element waits no longer anywhere in
/// the tree than on the application itself.
inline void shareTimeout(AxValue& value, const Element& from) {
  auto* source = from.as<AtspiElement>();
  if (!source || !source->timeoutCell()) return;
  if (auto* element = std::get_if<Element>(&value.value)) {
    if (auto* e = element->as<AtspiElement>(); e && !e->timeoutCell())
      *element = Element(std::make_shared<AtspiElement>(e->bus(), e->path(), source->timeoutCell()));
  } else if (auto* list = std::get_if<AxList>(&value.value)) {
    for (auto& item : *list) shareTimeout(item, from);
  }
}

}  // namespace glimmerstrand::platform::linux_desktop
