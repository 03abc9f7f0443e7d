#include "platform/sim/fixture.h"

#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <stdexcept>

namespace glimmerstrand::platform::sim {

namespace {

using nlohmann::json;

[[noreturn]] void fail(const std::string& where, const std::string& what) {
  throw std::runtime_error("fixture: " + where + ": " + what);
}

std::string text(const json& j, const std::string& where) {
  if (!j.is_string()) fail(where, "a text is expected");
  return j.get<std::string>();
}

double number(const json& j, const std::string& where) {
  if (!j.is_number()) fail(where, "a number is expected");
  return j.get<double>();
}

bool flag(const json& j, const std::string& where) {
  if (!j.is_boolean()) fail(where, "true or false is expected");
  return j.get<bool>();
}

std::vector<std::string> texts(const json& j, const std::string& where) {
  if (!j.is_array()) fail(where, "a list of texts is expected");
  std::vector<std::string> out;
  for (std::size_t i = 0; i < j.size(); ++i) out.push_back(text(j[i], where + "[" + std::to_string(i) + "]"));
  return out;
}

AxRect rect(const json& j, const std::string& where) {
  if (!j.is_array() || j.size() != 4) fail(where, "[x, y, width, height] is expected");
  return AxRect{number(j[0], where), number(j[1], where), number(j[2], where), number(j[3], where)};
}

AxValue value(const json& j, const std::string& where) {
  if (j.is_null()) return AxValue();
  if (j.is_boolean()) return j.get<bool>();
  if (j.is_number()) return j.get<double>();
  if (j.is_string()) return j.get<std::string>();
  if (j.is_array()) {
    AxList list;
    for (std::size_t i = 0; i < j.size(); ++i) list.push_back(value(j[i], where + "[" + std::to_string(i) + "]"));
    return list;
  }
  auto has = [&](const char* key) { return j.contains(key); };
  if (has("url")) return AxUrl{text(j["url"], where + ".url")};
  if (has("location") && has("length"))
    return AxRange{static_cast<std::int64_t>(number(j["location"], where)),
                   static_cast<std::int64_t>(number(j["length"], where))};
  if (has("x") && has("y") && has("width") && has("height"))
    return AxRect{number(j["x"], where), number(j["y"], where), number(j["width"], where), number(j["height"], where)};
  if (has("x") && has("y")) return AxPoint{number(j["x"], where), number(j["y"], where)};
  if (has("width") && has("height")) return AxSize{number(j["width"], where), number(j["height"], where)};
  fail(where, "not a value this format knows");
}

ElementSpec element(const json& j, const std::string& where);

std::vector<ElementSpec> elements(const json& j, const std::string& where) {
  if (!j.is_array()) fail(where, "a list of elements is expected");
  std::vector<ElementSpec> out;
  for (std::size_t i = 0; i < j.size(); ++i) out.push_back(element(j[i], where + "[" + std::to_string(i) + "]"));
  return out;
}

Effect effect(const json& j, const std::string& where) {
  if (!j.is_object() || j.size() != 1) fail(where, "an effect is an object with one key");
  const std::string kind = j.begin().key();
  const json& body = j.begin().value();
  std::string at = where + "." + kind;
  auto field = [&](const char* key) -> const json* {
    return body.is_object() && body.contains(key) ? &body[key] : nullptr;
  };
  auto keyOf = [&] { return field("key") ? text(*field("key"), at + ".key") : std::string(); };
  auto attributeOf = [&] {
    return field("attribute") ? attributeName(text(*field("attribute"), at + ".attribute")) : std::string("AXValue");
  };
  if (kind == "set") return setEffect(keyOf(), attributeOf(), field("value") ? value(*field("value"), at) : AxValue());
  if (kind == "append") return appendEffect(keyOf(), field("text") ? text(*field("text"), at) : "", attributeOf());
  if (kind == "toggle") return toggleEffect(keyOf(), attributeOf());
  if (kind == "add") {
    std::vector<ElementSpec> added;
    if (auto list = field("elements")) added = elements(*list, at + ".elements");
    if (auto one = field("element")) added.push_back(element(*one, at + ".element"));
    return addEffect(keyOf(), std::move(added));
  }
  if (kind == "remove") return removeEffect(keyOf());
  if (kind == "replaceWindow") {
    if (!field("window")) fail(at, "a window is expected");
    return replaceWindowEffect(element(*field("window"), at + ".window"));
  }
  if (kind == "hangMs") return hangEffect(static_cast<std::int64_t>(number(body, at)));
  if (kind == "quit") return quitEffect();
  fail(where, "unknown effect " + kind);
}

std::vector<Effect> effects(const json& j, const std::string& where) {
  if (!j.is_array()) fail(where, "a list of effects is expected");
  std::vector<Effect> out;
  for (std::size_t i = 0; i < j.size(); ++i) out.push_back(effect(j[i], where + "[" + std::to_string(i) + "]"));
  return out;
}

ElementSpec element(const json& j, const std::string& where) {
  if (!j.is_object()) fail(where, "an element is an object");
  ElementSpec spec;
  for (const auto& [key, body] : j.items()) {
    std::string at = where + "." + key;
    if (key == "key")
      spec.key = text(body, at);
    else if (key == "role")
      spec.role = text(body, at);
    else if (key == "frame")
      spec.frame = rect(body, at);
    else if (key == "actions")
      spec.actions = texts(body, at);
    else if (key == "settable") {
      for (const auto& name : texts(body, at)) spec.settable.push_back(attributeName(name));
    } else if (key == "onPress")
      spec.onPress = effects(body, at);
    else if (key == "onReturn")
      spec.onReturn = effects(body, at);
    else if (key == "onFocus")
      spec.onFocus = effects(body, at);
    else if (key == "onSetValue")
      spec.onSetValue = effects(body, at);
    else if (key == "ignoresFocus")
      spec.ignoresFocus = flag(body, at);
    else if (key == "failAttributes") {
      for (const auto& name : texts(body, at)) spec.failAttributes.push_back(attributeName(name));
    } else if (key == "gone")
      spec.gone = flag(body, at);
    else if (key == "ticks")
      spec.ticks = flag(body, at);
    else if (key == "focused")
      spec.focused = flag(body, at);
    else if (key == "children")
      spec.children = elements(body, at);
    else if (key == "url")
      spec.attribute("AXURL", AxUrl{text(body, at)});
    else
      spec.attribute(attributeName(key), value(body, at));
  }
  if (!spec.onPress.empty() && spec.actions.empty()) spec.actions.push_back("AXPress");
  return spec;
}

Activation activation(const json& j, const std::string& where) {
  const std::string name = text(j, where);
  if (name == "workspace") return Activation::workspace;
  if (name == "accessibility") return Activation::accessibility;
  if (name == "reopen") return Activation::reopen;
  if (name == "never") return Activation::never;
  fail(where, "workspace, accessibility, reopen or never is expected");
}

AppSpec app(const json& j, const std::string& where) {
  if (!j.is_object()) fail(where, "an application is an object");
  AppSpec spec;
  for (const auto& [key, body] : j.items()) {
    std::string at = where + "." + key;
    if (key == "pid")
      spec.pid = static_cast<std::int32_t>(number(body, at));
    else if (key == "bundleId")
      spec.bundleId = text(body, at);
    else if (key == "name")
      spec.name = text(body, at);
    else if (key == "names") {
      if (!body.is_object()) fail(at, "names by language are expected");
      for (const auto& [language, name] : body.items()) spec.names[language] = text(name, at + "." + language);
    } else if (key == "bundlePath")
      spec.bundlePath = text(body, at);
    else if (key == "frontmost")
      spec.frontmost = flag(body, at);
    else if (key == "running")
      spec.running = flag(body, at);
    else if (key == "hidden")
      spec.hidden = flag(body, at);
    else if (key == "regular")
      spec.regular = flag(body, at);
    else if (key == "frozen")
      spec.frozen = flag(body, at);
    else if (key == "quitRefused")
      spec.quitRefused = flag(body, at);
    else if (key == "manualAccessibilityRefused")
      spec.manualAccessibilityRefused = flag(body, at);
    else if (key == "refusedNotifications")
      spec.refusedNotifications = texts(body, at);
    else if (key == "urlSchemes")
      spec.urlSchemes = texts(body, at);
    else if (key == "activation")
      spec.activation = activation(body, at);
    else if (key == "launchMs")
      spec.launchMs = static_cast<std::int64_t>(number(body, at));
    else if (key == "launchError")
      spec.launchError = text(body, at);
    else if (key == "quitMs")
      spec.quitMs = static_cast<std::int64_t>(number(body, at));
    else if (key == "quitAsks")
      spec.quitAsks = element(body, at);
    else if (key == "filePanelPid")
      spec.filePanelPid = static_cast<std::int32_t>(number(body, at));
    else if (key == "windows")
      spec.windows = elements(body, at);
    else if (key == "menuBar")
      spec.menuBar = element(body, at);
    else if (key == "menus")
      spec.menus = elements(body, at);
    else
      fail(at, "unknown key");
  }
  if (spec.pid <= 0) fail(where + ".pid", "a positive pid is expected");
  return spec;
}

DisplaySpec display(const json& j, const std::string& where) {
  if (!j.is_object()) fail(where, "a display is an object");
  DisplaySpec spec;
  for (const auto& [key, body] : j.items()) {
    std::string at = where + "." + key;
    if (key == "id")
      spec.id = static_cast<std::int64_t>(number(body, at));
    else if (key == "x")
      spec.bounds.x = number(body, at);
    else if (key == "y")
      spec.bounds.y = number(body, at);
    else if (key == "width")
      spec.bounds.width = number(body, at);
    else if (key == "height")
      spec.bounds.height = number(body, at);
    else if (key == "scale")
      spec.scale = number(body, at);
    else
      fail(at, "unknown key");
  }
  return spec;
}

}  // namespace

std::string attributeName(std::string_view key) {
  if (key.substr(0, 2) == "AX") return std::string(key);
  if (key == "placeholder") return "AXPlaceholderValue";
  if (key == "url") return "AXURL";
  if (key == "details") return "AXValueDescription";
  if (key == "cmdChar") return "AXMenuItemCmdChar";
  if (key == "cmdModifiers") return "AXMenuItemCmdModifiers";
  if (key == "markChar") return "AXMenuItemMarkChar";
  std::string name = "AX" + std::string(key);
  if (name.size() > 2 && name[2] >= 'a' && name[2] <= 'z') name[2] = static_cast<char>(name[2] - 'a' + 'A');
  return name;
}

DesktopSpec parseFixture(std::string_view text) {
  json root;
  try {
    root = json::parse(text);
  } catch (const json::parse_error& e) {
    throw std::runtime_error(std::string("fixture: not JSON: ") + e.what());
  }
  if (!root.is_object()) fail("top level", "an object is expected");
  DesktopSpec spec;
  std::set<std::int32_t> pids;
  for (const auto& [key, body] : root.items()) {
    if (key == "displays") {
      if (!body.is_array()) fail(key, "a list is expected");
      for (std::size_t i = 0; i < body.size(); ++i)
        spec.displays.push_back(display(body[i], "displays[" + std::to_string(i) + "]"));
    } else if (key == "apps") {
      if (!body.is_array()) fail(key, "a list is expected");
      for (std::size_t i = 0; i < body.size(); ++i) {
        std::string where = "apps[" + std::to_string(i) + "]";
        spec.apps.push_back(app(body[i], where));
        if (!pids.insert(spec.apps.back().pid).second) fail(where + ".pid", "used twice");
      }
    } else if (key == "applicationDirectories") {
      spec.applicationDirectories = texts(body, key);
    } else if (key == "trusted") {
      spec.trusted = flag(body, key);
    } else if (key == "screenRecording") {
      spec.screenRecording = flag(body, key);
    } else {
      fail(key, "unknown key");
    }
  }
  return spec;
}

DesktopSpec loadFixture(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw std::runtime_error("fixture: cannot read " + path);
  std::stringstream buffer;
  buffer << in.rdbuf();
  return parseFixture(buffer.str());
}

}  // namespace glimmerstrand::platform::sim
