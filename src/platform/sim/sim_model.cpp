#include "platform/sim/sim_model.h"

namespace glimmerstrand::platform::sim {

ElementSpec& ElementSpec::withKey(std::string k) {
  key = std::move(k);
  return *this;
}

ElementSpec& ElementSpec::attribute(std::string name, AxValue v) {
  for (auto& [existing, old] : attributes)
    if (existing == name) {
      old = std::move(v);
      return *this;
    }
  attributes.emplace_back(std::move(name), std::move(v));
  return *this;
}

ElementSpec& ElementSpec::withFrame(double x, double y, double width, double height) {
  frame = AxRect{x, y, width, height};
  return *this;
}

ElementSpec& ElementSpec::withActions(std::vector<std::string> names) {
  actions = std::move(names);
  return *this;
}

ElementSpec& ElementSpec::withSettable(std::vector<std::string> names) {
  settable = std::move(names);
  return *this;
}

ElementSpec& ElementSpec::pressDoes(std::vector<Effect> effects) {
  onPress = std::move(effects);
  if (actions.empty()) actions.push_back("AXPress");
  return *this;
}

ElementSpec& ElementSpec::returnDoes(std::vector<Effect> effects) {
  onReturn = std::move(effects);
  return *this;
}

ElementSpec& ElementSpec::focusDoes(std::vector<Effect> effects) {
  onFocus = std::move(effects);
  return *this;
}

ElementSpec& ElementSpec::setValueDoes(std::vector<Effect> effects) {
  onSetValue = std::move(effects);
  return *this;
}

ElementSpec& ElementSpec::markIgnoringFocus() {
  ignoresFocus = true;
  return *this;
}

ElementSpec& ElementSpec::failing(std::vector<std::string> names) {
  failAttributes = std::move(names);
  return *this;
}

ElementSpec& ElementSpec::markGone() {
  gone = true;
  return *this;
}

ElementSpec& ElementSpec::markTicking() {
  ticks = true;
  return *this;
}

ElementSpec& ElementSpec::markFocused() {
  focused = true;
  return *this;
}

ElementSpec& ElementSpec::child(ElementSpec element) {
  children.push_back(std::move(element));
  return *this;
}

ElementSpec element(std::string role) {
  ElementSpec spec;
  spec.role = std::move(role);
  return spec;
}

Effect setEffect(std::string key, std::string attribute, AxValue value) {
  Effect effect;
  effect.kind = Effect::Kind::set;
  effect.key = std::move(key);
  effect.attribute = std::move(attribute);
  effect.value = std::move(value);
  return effect;
}

Effect appendEffect(std::string key, std::string text, std::string attribute) {
  Effect effect;
  effect.kind = Effect::Kind::append;
  effect.key = std::move(key);
  effect.text = std::move(text);
  effect.attribute = std::move(attribute);
  return effect;
}

Effect toggleEffect(std::string key, std::string attribute) {
  Effect effect;
  effect.kind = Effect::Kind::toggle;
  effect.key = std::move(key);
  effect.attribute = std::move(attribute);
  return effect;
}

Effect addEffect(std::string parentKey, std::vector<ElementSpec> elements) {
  Effect effect;
  effect.kind = Effect::Kind::add;
  effect.key = std::move(parentKey);
  effect.elements = std::move(elements);
  return effect;
}

Effect removeEffect(std::string key) {
  Effect effect;
  effect.kind = Effect::Kind::remove;
  effect.key = std::move(key);
  return effect;
}

Effect replaceWindowEffect(ElementSpec window) {
  Effect effect;
  effect.kind = Effect::Kind::replaceWindow;
  effect.elements.push_back(std::move(window));
  return effect;
}

Effect hangEffect(std::int64_t ms) {
  Effect effect;
  effect.kind = Effect::Kind::hangMs;
  effect.ms = ms;
  return effect;
}

Effect quitEffect() {
  Effect effect;
  effect.kind = Effect::Kind::quit;
  return effect;
}

}  // namespace glimmerstrand::platform::sim
