// The accessibility interface of the platform: reading an application's tree
// of elements, setting attributes, performing actions, and observing
// notifications. Names of roles, attributes, actions and notifications are the
// AX names (AXButton, AXTitle, AXPress, AXValueChanged); a backend with
// another vocabulary translates at its edge.
//
// Every call may be made from any thread, concurrently. A call to an
// application may block for as long as the messaging timeout of the element
// it is made on allows; callers must not hold locks across one that another
// thread may need in the meantime. Observer callbacks arrive on the main run
// loop of the platform.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/ax_error.h"
#include "platform/ax_value.h"
#include "platform/element.h"

namespace glimmerstrand::platform {

/// A result or the error that stands in its place.
template <typename T>
struct AxResult {
  AxError error = AxError::success;
  T value{};
  bool ok() const { return error == AxError::success; }
};

/// A registration of notification callbacks for one process. Dropping the
/// last reference does not stop callbacks; removeObserver does.
class Observer {
 public:
  virtual ~Observer() = default;
  virtual std::int32_t pid() const = 0;
};

/// Called on the main run loop with the element the notification is about
/// and its name.
using ObserverCallback = std::function<void(const Element& element, const std::string& notification)>;

class Accessibility {
 public:
  virtual ~Accessibility() = default;

  /// Whether this process may use the accessibility interface.
  virtual bool isTrusted() = 0;
  /// Asks the user for the permission (a prompt where the platform has one)
  /// and gives isTrusted() afterwards.
  virtual bool requestTrust() = 0;

  /// A new handle to the application element of `pid`. Always succeeds; calls
  /// on it fail when no such application runs. Each call makes a separate
  /// handle, with its own messaging timeout.
  virtual Element applicationElement(std::int32_t pid) = 0;
  /// The element that stands for the whole desktop.
  virtual Element systemWide() = 0;
  /// Bounds how long a call on this handle may wait for its application. On
  /// the system-wide element: the default for every handle without its own.
  virtual AxError setMessagingTimeout(const Element& element, double seconds) = 0;

  /// One value per name, in order; a name that cannot be read gets an error
  /// value in its place. Fails as a whole (error set, no values) only when the
  /// element is gone or its application does not answer.
  virtual AxResult<std::vector<AxValue>> copyMultiple(const Element& element,
                                                      const std::vector<std::string>& names) = 0;
  /// One attribute; an AxError value when it cannot be read.
  virtual AxValue copy(const Element& element, std::string_view name) = 0;
  virtual AxError set(const Element& element, std::string_view name, const AxValue& value) = 0;
  virtual AxResult<bool> isSettable(const Element& element, std::string_view name) = 0;
  virtual AxResult<std::vector<std::string>> attributeNames(const Element& element) = 0;
  virtual AxResult<std::vector<std::string>> actionNames(const Element& element) = 0;
  virtual AxResult<std::string> actionDescription(const Element& element, std::string_view action) = 0;
  /// Returns when the application has handled the action, or its messaging
  /// timeout passed (cannotComplete; the action may still happen).
  virtual AxError perform(const Element& element, std::string_view action) = 0;
  /// The deepest element at a point of the desktop, in points.
  virtual AxResult<Element> elementAt(double x, double y) = 0;
  virtual AxResult<std::int32_t> pidOf(const Element& element) = 0;

  /// A hint that the named attributes of these elements are about to be read
  /// one by one; a backend may fetch them in one batch. Results never depend
  /// on it.
  virtual void prefetch(const std::vector<Element>& elements, const std::vector<std::string>& names) {
    (void)elements;
    (void)names;
  }

  /// Brackets a walk of a tree on this thread; walks may nest. Between the
  /// outermost walk's start and its end a backend may keep what it read of
  /// a whole application at once for the walk's later reads, and forgets
  /// it at the end. Results never depend on it.
  virtual void walkStarted() {}
  virtual void walkEnded() {}

  /// How many children of `element` its last AXChildren read on this thread
  /// left out, because the backend read only those near the visible area of
  /// a container it must not ask for all of them (a spreadsheet's cells).
  /// Asks nothing of the application; 0 where nothing was left out.
  virtual std::int64_t childrenLeftOut(const Element& element) {
    (void)element;
    return 0;
  }

  /// A new observer for `pid` whose callbacks run on the main run loop.
  virtual AxResult<std::shared_ptr<Observer>> createObserver(std::int32_t pid, ObserverCallback callback) = 0;
  /// Sends `notification` about `element` and everything below it to the
  /// observer. success, notificationUnsupported (never sent by this
  /// application), notificationAlreadyRegistered, or another failure worth a
  /// later retry.
  virtual AxError addNotification(Observer& observer, const Element& element, std::string_view notification) = 0;
  /// No callback of the observer runs after this returns, except one already
  /// running on the main run loop.
  virtual void removeObserver(Observer& observer) = 0;
};

/// Forwards every call to another Accessibility. A test derives from it and
/// overrides the one call it wants to watch or break.
class AccessibilityWrapper : public Accessibility {
 public:
  explicit AccessibilityWrapper(Accessibility& target) : target_(target) {}

  bool isTrusted() override { return target_.isTrusted(); }
  bool requestTrust() override { return target_.requestTrust(); }
  Element applicationElement(std::int32_t pid) override { return target_.applicationElement(pid); }
  Element systemWide() override { return target_.systemWide(); }
  AxError setMessagingTimeout(const Element& element, double seconds) override {
    return target_.setMessagingTimeout(element, seconds);
  }
  AxResult<std::vector<AxValue>> copyMultiple(const Element& element, const std::vector<std::string>& names) override {
    return target_.copyMultiple(element, names);
  }
  AxValue copy(const Element& element, std::string_view name) override { return target_.copy(element, name); }
  AxError set(const Element& element, std::string_view name, const AxValue& value) override {
    return target_.set(element, name, value);
  }
  AxResult<bool> isSettable(const Element& element, std::string_view name) override {
    return target_.isSettable(element, name);
  }
  AxResult<std::vector<std::string>> attributeNames(const Element& element) override {
    return target_.attributeNames(element);
  }
  AxResult<std::vector<std::string>> actionNames(const Element& element) override {
    return target_.actionNames(element);
  }
  AxResult<std::string> actionDescription(const Element& element, std::string_view action) override {
    return target_.actionDescription(element, action);
  }
  AxError perform(const Element& element, std::string_view action) override { return target_.perform(element, action); }
  AxResult<Element> elementAt(double x, double y) override { return target_.elementAt(x, y); }
  AxResult<std::int32_t> pidOf(const Element& element) override { return target_.pidOf(element); }
  void prefetch(const std::vector<Element>& elements, const std::vector<std::string>& names) override {
    target_.prefetch(elements, names);
  }
  void walkStarted() override { target_.walkStarted(); }
  void walkEnded() override { target_.walkEnded(); }
  std::int64_t childrenLeftOut(const Element& element) override { return target_.childrenLeftOut(element); }
  AxResult<std::shared_ptr<Observer>> createObserver(std::int32_t pid, ObserverCallback callback) override {
    return target_.createObserver(pid, std::move(callback));
  }
  AxError addNotification(Observer& observer, const Element& element, std::string_view notification) override {
    return target_.addNotification(observer, element, notification);
  }
  void removeObserver(Observer& observer) override { target_.removeObserver(observer); }

 protected:
  Accessibility& target_;
};

}  // namespace glimmerstrand::platform
