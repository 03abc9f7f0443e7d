// Every line operation over a simulated desktop on a driven clock, called as
// the line host calls them; the element helpers come from mirror_sim.h.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "core/errors.h"
#include "core/json_value.h"
#include "mirror/mirror_sim.h"
#include "native/applications.h"
#include "native/capture_operations.h"
#include "native/element_actions.h"
#include "native/input.h"
#include "native/line_operations.h"
#include "native/mirror_operations.h"

namespace glimmerstrand::native::testing {

using core::JSONValue;

struct ActionSim {
  explicit ActionSim(const platform::sim::DesktopSpec& spec) : platform(spec, clock, clock.mainLoop()) {
    addMirrorOperations(table, host);
    addMenuOperations(table, host);
    addElementOperations(table, host);
    addInputOperations(table, host);
    addApplicationOperations(table, host);
  }
  /// Lets hanging presses, walks and launches finish before the desktop goes.
  ~ActionSim() { clock.runUntilIdle(); }

  platform::sim::SimDesktop& desktop() { return platform.desktop(); }

  JSONValue call(const std::string& name, JSONValue::Object params = {}) {
    auto handler = table.find(name);
    if (!handler) throw std::logic_error("no operation " + name);
    auto result = (*handler)(JSONValue(std::move(params)));
    if (auto raw = std::get_if<RawJSON>(&result)) return core::parseJSON(raw->text);
    return std::get<JSONValue>(result);
  }
  core::GlimmerstrandError failure(const std::string& name, JSONValue::Object params = {}) {
    try {
      call(name, std::move(params));
    } catch (const core::GlimmerstrandError& e) {
      return e;
    }
    throw std::logic_error(name + " did not fail");
  }
  /// "code: message" of a call that must fail.
  std::string failed(const std::string& name, JSONValue::Object params = {}) {
    auto e = failure(name, std::move(params));
    return e.code() + ": " + e.message();
  }

  /// A fresh copy of the application, with every node.
  JSONValue snapshot(std::int32_t pid) { return call("axSnapshot", {{"pid", pid}, {"fresh", true}, {"all", true}}); }
  /// The reference of the element with this identifier in a fresh copy.
  JSONValue::Object ref(std::int32_t pid, const std::string& identifier, JSONValue::Object more = {}) {
    const JSONValue taken = snapshot(pid);  // kept alive for the loop below
    for (const auto& node : *taken.find("nodes")->asArray())
      if (core::optionalString(node, "identifier") == identifier) {
        more.emplace_back("pid", pid);
        more.emplace_back("uid", *core::optionalInt(node, "uid"));
        return more;
      }
    throw std::logic_error("no node " + identifier);
  }
  /// An attribute of an element as the application holds it, as text.
  std::string text(std::int32_t pid, const std::string& key, const std::string& attribute = "AXValue") {
    auto value = desktop().attribute(pid, key, attribute);
    auto text = value ? value->as<std::string>() : std::nullopt;
    return text.value_or("");
  }
  double elapsedMs(std::int64_t since) { return static_cast<double>(clock.nowNs() - since) / 1e6; }

  platform::sim::DrivenClock clock;
  platform::sim::SimPlatform platform;
  MirrorHost host{&platform, ""};
  Capturer capturer{[this]() -> platform::Platform& { return host.platform(); }};
  OperationTable table;
};

}  // namespace glimmerstrand::native::testing
