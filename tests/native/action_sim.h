// Every line operation over a simulated desktop on a driven clock, called as
// the line host calls them: the harness of the action, input and application
// tests.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "core/json_value.h"
#include "native/applications.h"
#include "native/element_actions.h"
#include "native/input.h"
#include "native/menu_cache.h"
#include "native/mirror_operations.h"
#include "native/rpc_error.h"
#include "platform/sim/driven_clock.h"
#include "platform/sim/sim_platform.h"

namespace glimmerstrand::native::testing {

using core::JSONValue;
using platform::sim::element;
using platform::sim::ElementSpec;

constexpr std::int64_t ms = 1'000'000;

/// An element whose identifier is its key, so that snapshot nodes name it.
inline ElementSpec keyed(std::string role, std::string key) {
  return element(std::move(role)).withKey(key).identifier(key);
}

inline platform::sim::AppSpec appWith(std::int32_t pid, std::string name, std::vector<ElementSpec> windows) {
  platform::sim::AppSpec app;
  app.pid = pid;
  app.bundleId = "com.example." + name;
  app.name = std::move(name);
  app.windows = std::move(windows);
  return app;
}

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
  RPCError failure(const std::string& name, JSONValue::Object params = {}) {
    try {
      call(name, std::move(params));
    } catch (const RPCError& e) {
      return e;
    }
    throw std::logic_error(name + " did not fail");
  }

  /// A fresh copy of the application, with every node.
  JSONValue snapshot(std::int32_t pid) { return call("axSnapshot", {{"pid", pid}, {"fresh", true}, {"all", true}}); }
  /// The reference of the element with this identifier in a fresh copy.
  JSONValue::Object ref(std::int32_t pid, const std::string& identifier) {
    const JSONValue taken = snapshot(pid);  // kept alive for the loop below
    for (const auto& node : *taken.find("nodes")->asArray())
      if (core::optionalString(node, "identifier") == identifier)
        return {{"pid", pid}, {"uid", *core::optionalInt(node, "uid")}};
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
  OperationTable table;
};

}  // namespace glimmerstrand::native::testing
