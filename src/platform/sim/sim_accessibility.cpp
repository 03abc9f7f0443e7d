// The accessibility interface of the simulated desktop.
#include <algorithm>

#include "platform/sim/sim_state.h"

namespace glimmerstrand::platform::sim {

namespace {

bool truthy(const AxValue& value) {
  if (auto b = value.get<bool>()) return *b;
  if (auto n = value.get<double>()) return *n != 0;
  return false;
}

class SimAccessibility final : public Accessibility {
 public:
  explicit SimAccessibility(SimDesktop::State& state) : s_(state) {}

  bool isTrusted() override {
    std::lock_guard guard(s_.lock);
    return s_.trusted;
  }

  bool requestTrust() override { return isTrusted(); }

  Element applicationElement(std::int32_t pid) override { return s_.appHandle(pid); }

  Element systemWide() override { return Element(std::make_shared<SimElement>(&s_, 0, systemWideNode)); }

  AxError setMessagingTimeout(const Element& element, double seconds) override {
    auto* handle = element.as<SimElement>();
    if (!handle || handle->desktop != &s_ || seconds < 0) return AxError::illegalArgument;
    if (handle->node == systemWideNode) {
      std::lock_guard guard(s_.lock);
      s_.defaultTimeoutSeconds = seconds > 0 ? seconds : 6;
    } else {
      handle->timeoutSeconds = seconds;
    }
    return AxError::success;
  }

  AxResult<std::vector<AxValue>> copyMultiple(const Element& element, const std::vector<std::string>& names) override {
    std::int64_t hang = 0;
    {
      std::lock_guard guard(s_.lock);
      SimDesktop::State::Target target;
      if (auto error = s_.resolve(element, target); error != AxError::success) return {error, {}};
      hang = s_.frozenWaitNs(target);
      if (!hang) {
        std::vector<AxValue> values;
        values.reserve(names.size());
        for (const auto& name : names) values.push_back(s_.read(*target.app, *target.node, name));
        return {AxError::success, std::move(values)};
      }
    }
    s_.clock.sleepNs(hang);
    return {AxError::cannotComplete, {}};
  }

  AxValue copy(const Element& element, std::string_view name) override {
    auto result = copyMultiple(element, {std::string(name)});
    if (!result.ok()) return result.error;
    return std::move(result.value.front());
  }

  AxError set(const Element& element, std::string_view name, const AxValue& value) override {
    std::vector<FollowUp> followUps;
    std::int64_t hang = 0;
    {
      std::lock_guard guard(s_.lock);
      SimDesktop::State::Target target;
      if (auto error = s_.resolve(element, target); error != AxError::success) return error;
      hang = s_.frozenWaitNs(target);
      if (!hang) {
        auto error = setLocked(target, std::string(name), value, followUps);
        if (error != AxError::success) return error;
      }
    }
    if (hang) {
      s_.clock.sleepNs(hang);
      return AxError::cannotComplete;
    }
    for (const auto& work : followUps) s_.runEffects(work);
    return AxError::success;
  }

  AxResult<bool> isSettable(const Element& element, std::string_view name) override {
    return withTarget<bool>(element, [&](SimDesktop::State::Target& target) {
      if (target.node->id == target.app->node) return appSettable(name);
      return settable(*target.node, name);
    });
  }

  AxResult<std::vector<std::string>> attributeNames(const Element& element) override {
    return withTarget<std::vector<std::string>>(
        element, [&](SimDesktop::State::Target& target) { return s_.namesOf(*target.app, *target.node); });
  }

  AxResult<std::vector<std::string>> actionNames(const Element& element) override {
    return withTarget<std::vector<std::string>>(element, [&](SimDesktop::State::Target& target) {
      auto names = target.node->actions;
      if (target.node->role == "AXWindow") names.push_back("AXRaise");
      return names;
    });
  }

  AxResult<std::string> actionDescription(const Element& element, std::string_view action) override {
    return withTarget<std::string>(element, [&](SimDesktop::State::Target&) { return describeAction(action); });
  }

  AxError perform(const Element& element, std::string_view action) override {
    FollowUp work;
    std::int64_t hang = 0;
    {
      std::lock_guard guard(s_.lock);
      SimDesktop::State::Target target;
      if (auto error = s_.resolve(element, target); error != AxError::success) return error;
      hang = s_.frozenWaitNs(target);
      if (!hang) {
        Node& node = *target.node;
        if (node.role == "AXWindow" && action == "AXRaise") {
          s_.raiseWindow(*target.app, node.id);
          return AxError::success;
        }
        if (std::find(node.actions.begin(), node.actions.end(), action) == node.actions.end())
          return AxError::actionUnsupported;
        work.pid = node.pid;
        work.node = node.id;
        if (action == "AXPress") work.effects = node.onPress;
        if (action == "AXConfirm") work.effects = node.onReturn;
      }
    }
    if (hang) {
      s_.clock.sleepNs(hang);
      return AxError::cannotComplete;
    }
    s_.runEffects(work);
    return AxError::success;
  }

  AxResult<Element> elementAt(double x, double y) override {
    std::lock_guard guard(s_.lock);
    if (!s_.trusted) return {AxError::apiDisabled, {}};
    Node* node = s_.hit(x, y);
    if (!node) return {AxError::noValue, {}};
    return {AxError::success, s_.handle(*node)};
  }

  AxResult<std::int32_t> pidOf(const Element& element) override {
    auto* handle = element.as<SimElement>();
    if (!handle || handle->desktop != &s_ || handle->node == systemWideNode) return {AxError::illegalArgument, 0};
    return {AxError::success, handle->pid};
  }

  AxResult<std::shared_ptr<Observer>> createObserver(std::int32_t pid, ObserverCallback callback) override {
    auto observer = std::make_shared<SimObserver>(pid, std::move(callback));
    std::lock_guard guard(s_.lock);
    if (!s_.trusted) return {AxError::apiDisabled, nullptr};
    s_.observers.push_back(observer);
    return {AxError::success, observer};
  }

  AxError addNotification(Observer& observer, const Element& element, std::string_view notification) override {
    auto* simObserver = dynamic_cast<SimObserver*>(&observer);
    if (!simObserver) return AxError::invalidObserver;
    std::int64_t hang = 0;
    {
      std::lock_guard guard(s_.lock);
      SimDesktop::State::Target target;
      if (auto error = s_.resolve(element, target); error != AxError::success) return error;
      hang = s_.frozenWaitNs(target);
      if (!hang) {
        std::string name(notification);
        if (target.app->refused.count(name)) return AxError::notificationUnsupported;
        if (!simObserver->registrations.insert({target.node->id, name}).second)
          return AxError::notificationAlreadyRegistered;
        return AxError::success;
      }
    }
    s_.clock.sleepNs(hang);
    return AxError::cannotComplete;
  }

  void removeObserver(Observer& observer) override {
    auto* simObserver = dynamic_cast<SimObserver*>(&observer);
    if (!simObserver) return;
    simObserver->removed = true;
    std::lock_guard guard(s_.lock);
    simObserver->registrations.clear();
  }

 private:
  // Runs `read` on the live target with the lock held; a frozen application
  // makes the caller wait out the timeout without it.
  template <typename T, typename Read>
  AxResult<T> withTarget(const Element& element, Read read) {
    std::int64_t hang = 0;
    {
      std::lock_guard guard(s_.lock);
      SimDesktop::State::Target target;
      if (auto error = s_.resolve(element, target); error != AxError::success) return {error, {}};
      hang = s_.frozenWaitNs(target);
      if (!hang) return {AxError::success, read(target)};
    }
    s_.clock.sleepNs(hang);
    return {AxError::cannotComplete, {}};
  }

  // Text elements take a selection as real ones do, whatever their fixture says.
  bool settable(const Node& node, std::string_view name) const {
    return node.settable.count(std::string(name)) > 0 || (name == "AXSelectedTextRange" && s_.editable(node));
  }

  static bool appSettable(std::string_view name) {
    return name == "AXManualAccessibility" || name == "AXEnhancedUserInterface" || name == "AXFrontmost" ||
           name == "AXHidden";
  }

  static std::string describeAction(std::string_view action) {
    if (action == "AXPress") return "press";
    if (action == "AXConfirm") return "confirm";
    if (action == "AXRaise") return "raise";
    if (action == "AXShowMenu") return "show menu";
    if (action == "AXCancel") return "cancel";
    if (action == "AXIncrement") return "increment";
    if (action == "AXDecrement") return "decrement";
    return std::string(action);
  }

  AxError setLocked(SimDesktop::State::Target& target, const std::string& name, const AxValue& value,
                    std::vector<FollowUp>& followUps) {
    App& app = *target.app;
    if (target.node->id == app.node) {
      if (name == "AXManualAccessibility") {
        if (app.spec.manualAccessibilityRefused) return AxError::attributeUnsupported;
        app.manualAccessibility = truthy(value);
      } else if (name == "AXEnhancedUserInterface") {
        app.enhancedUserInterface = truthy(value);
      } else if (name == "AXFrontmost") {
        if (truthy(value) && app.spec.activation <= Activation::accessibility) s_.activate(app);
      } else if (name == "AXHidden") {
        app.hidden = truthy(value);
      } else {
        return AxError::attributeUnsupported;
      }
      return AxError::success;
    }
    Node& node = *target.node;
    if (!settable(node, name)) return AxError::attributeUnsupported;
    if (name == "AXFocused" && node.ignoresFocus) return AxError::success;
    s_.setAttribute(app, node, name, value, followUps);
    if (name == "AXValue" && !node.onSetValue.empty()) followUps.push_back({node.pid, node.id, node.onSetValue});
    return AxError::success;
  }

  SimDesktop::State& s_;
};

}  // namespace

std::unique_ptr<Accessibility> makeAccessibility(SimDesktop::State& state) {
  return std::make_unique<SimAccessibility>(state);
}

}  // namespace glimmerstrand::platform::sim
