// The mirror's, the menu cache's and the element actions' line operations.
#include "native/line_operations.h"

#include <cmath>
#include <limits>
#include <memory>
#include <mutex>

#include "core/errors.h"
#include "native/element_actions.h"

namespace glimmerstrand::native {

namespace {

using core::JSONValue;

constexpr std::size_t maxEncodedLists = 16;

// A uid or generation as the integer it names; one beyond 64 bits names
// nothing that exists, and saturates.
std::int64_t referenceNumber(double value) {
  return core::integerOf(value).value_or(value > 0 ? std::numeric_limits<std::int64_t>::max()
                                                   : std::numeric_limits<std::int64_t>::min());
}

bool fitsPid(double value) {
  return value >= std::numeric_limits<std::int32_t>::min() && value <= std::numeric_limits<std::int32_t>::max();
}

// The JSON of recent node lists, encoded once per list: a copy that has not
// changed goes out again without a pass over its nodes. `lock_` is held only
// around the list of texts, never while encoding.
class EncodedNodes {
 public:
  std::string text(const core::NodeList& nodes) {
    {
      std::lock_guard guard(lock_);
      for (const auto& entry : encoded_)
        if (entry.list.lock() == nodes.shared()) return *entry.text;
    }
    std::string text = "[";
    for (std::size_t n = 0; n < nodes.size(); ++n) {
      if (n) text += ',';
      core::appendJSONText(text, core::toJSON(nodes[n]));
    }
    text += ']';
    auto shared = std::make_shared<const std::string>(std::move(text));
    std::lock_guard guard(lock_);
    std::erase_if(encoded_, [](const Encoded& entry) { return entry.list.expired(); });
    if (encoded_.size() >= maxEncodedLists) encoded_.erase(encoded_.begin());
    encoded_.push_back(Encoded{nodes.shared(), shared});
    return *shared;
  }

 private:
  struct Encoded {
    std::weak_ptr<const std::vector<core::AxNode>> list;
    std::shared_ptr<const std::string> text;
  };
  std::mutex lock_;  // guards encoded_
  std::vector<Encoded> encoded_;
};

JSONValue nodesJSON(const std::vector<core::AxNode>& nodes) {
  JSONValue::Array out;
  out.reserve(nodes.size());
  for (const auto& node : nodes) out.push_back(core::toJSON(node));
  return out;
}

RawJSON snapshotText(const MirrorSnapshot& snapshot, EncodedNodes& encoded) {
  JSONValue::Object head{{"pid", snapshot.pid},
                         {"generation", snapshot.generation},
                         {"ageMs", snapshot.ageMs},
                         {"walkMs", snapshot.walkMs},
                         {"dirty", snapshot.dirty},
                         {"truncated", snapshot.truncated},
                         {"notifications", snapshot.notifications},
                         {"fullWalks", snapshot.fullWalks},
                         {"partialWalks", snapshot.partialWalks},
                         {"partialNodes", snapshot.partialNodes},
                         {"lastWalk", snapshot.lastWalk},
                         {"unregisteredNotifications", snapshot.unregisteredNotifications}};
  std::string text = core::jsonText(head);
  text.pop_back();  // the closing brace: more keys follow
  if (!snapshot.unchanged) {
    text += ",\"nodes\":";
    text += encoded.text(snapshot.nodes);
  }
  text += ",\"app\":";
  core::appendJSONText(text, core::toJSON(snapshot.app));
  text += ",\"elapsedMs\":";
  core::appendJSONText(text, snapshot.elapsedMs);
  text += '}';
  return RawJSON{std::move(text)};
}

SnapshotRequest snapshotRequestOf(const JSONValue& params) {
  SnapshotRequest request;
  request.fresh = core::optionalBool(params, "fresh").value_or(false);
  request.ifGeneration = core::optionalInt(params, "ifGeneration");
  request.timeoutMs = core::optionalInt(params, "timeoutMs").value_or(2000);
  request.all = core::optionalBool(params, "all").value_or(false);
  request.maxAgeMs = core::optionalInt(params, "maxAgeMs");
  return request;
}

core::SettleOptions settleOptionsOf(const JSONValue& params) {
  // A pid that is missing, not a number or beyond 32 bits has no copy: the
  // operation says so after its permission check.
  core::SettleOptions options;
  options.pid = std::numeric_limits<std::int64_t>::min();
  if (auto pid = params.find("pid"); pid && pid->asNumber() && fitsPid(*pid->asNumber()))
    options.pid = static_cast<std::int32_t>(*pid->asNumber());
  options.since = core::optionalInt(params, "since");
  options.quietMs = core::optionalInt(params, "quietMs");
  options.firstMs = core::optionalInt(params, "firstMs");
  options.timeoutMs = core::optionalInt(params, "timeoutMs");
  return options;
}

JSONValue menusJSON(const MenusReport& menus) {
  return JSONValue::Object{{"pid", menus.pid},
                           {"app", core::toJSON(menus.app)},
                           {"nodes", nodesJSON(menus.nodes.vector())},
                           {"truncated", menus.truncated},
                           {"walkMs", menus.walkMs},
                           {"ageMs", menus.ageMs},
                           {"elapsedMs", menus.elapsedMs}};
}

JSONValue pressJSON(const PressReport& press) {
  JSONValue out = core::toJSON(static_cast<const core::PressResult&>(press));
  if (press.menusClosed > 0) core::put(*out.asObject(), "menusClosed", press.menusClosed);
  return out;
}

using ElementOperation = JSONValue (*)(MirrorHost& host, const ResolvedElement& target, const JSONValue& params);

const std::pair<const char*, ElementOperation> elementOperations[] = {
    {"press",
     [](MirrorHost& host, const ResolvedElement& target, const JSONValue& params) {
       PressOptions options;
       options.waitComplete = core::optionalBool(params, "waitComplete").value_or(false);
       options.timeoutMs = core::optionalInt(params, "timeoutMs").value_or(1000);
       return pressJSON(press(host.platform(), target, options));
     }},
    {"focus",
     [](MirrorHost& host, const ResolvedElement& target, const JSONValue&) {
       auto report = focus(host.platform(), target);
       return JSONValue(JSONValue::Object{
           {"notificationsBefore", report.notificationsBefore}, {"method", report.method}, {"moved", report.moved}});
     }},
    {"setValue",
     [](MirrorHost& host, const ResolvedElement& target, const JSONValue& params) {
       auto report = setValue(host.platform(), target, requiredString("text", params));
       return JSONValue(JSONValue::Object{{"applied", report.applied},
                                          {"notificationsBefore", report.notificationsBefore},
                                          {"elapsedMs", report.elapsedMs}});
     }},
    {"selectAll",
     [](MirrorHost& host, const ResolvedElement& target, const JSONValue&) {
       return JSONValue(JSONValue::Object{{"length", selectAll(host.platform(), target)}});
     }},
    {"readText",
     [](MirrorHost& host, const ResolvedElement& target, const JSONValue& params) {
       return core::toJSON(readText(host.platform(), target, core::optionalBool(params, "deep").value_or(true),
                                    core::optionalInt(params, "maxChars").value_or(100000)));
     }},
    {"inspect", [](MirrorHost& host, const ResolvedElement& target,
                   const JSONValue&) { return core::toJSON(inspect(host.platform(), target)); }},
    {"elementFrame", [](MirrorHost& host, const ResolvedElement& target,
                        const JSONValue&) { return core::toJSON(elementFrame(host.platform(), target)); }},
    {"showMenu",
     [](MirrorHost& host, const ResolvedElement& target, const JSONValue&) {
       return JSONValue(JSONValue::Object{{"notificationsBefore", showMenu(host.platform(), target)}});
     }},
};

}  // namespace

AppQuery appQueryOf(const JSONValue& params) {
  AppQuery query;
  query.named = params.find("pid") || params.find("bundleId") || params.find("name");
  if (auto pid = params.find("pid"); pid && pid->asNumber() && std::floor(*pid->asNumber()) == *pid->asNumber())
    query.keys.pid = core::integerOf(*pid->asNumber());
  query.keys.bundleId = core::optionalString(params, "bundleId");
  query.keys.name = core::optionalString(params, "name");
  return query;
}

ResolvedElement resolveReference(MirrorHost& host, const JSONValue& params) {
  auto& mirrors = host.mirrors();
  requireTrust(mirrors.environment().accessibility);
  auto pid = params.find("pid");
  if (!pid || !pid->asNumber()) throw core::GlimmerstrandError(core::codes::invalidArgument, "pid が必要です");
  const double pidNumber = *pid->asNumber();
  // A pid beyond 32 bits names no process, and so no copy.
  const bool fits = fitsPid(pidNumber);
  const auto noCopy = [&] {
    return core::GlimmerstrandError(core::codes::stale, "pid " + cypher::numberText(pidNumber) + " の写しがありません");
  };
  core::ElementRef ref;
  ref.pid = fits ? static_cast<std::int32_t>(pidNumber) : 0;
  auto uid = params.find("uid");
  if (uid && uid->asNumber()) ref.uid = referenceNumber(*uid->asNumber());
  if (core::optionalBool(params, "menu") == true) {
    ref.menu = true;
    // Without a uid the reference fails for that first.
    if (ref.uid && !fits) throw noCopy();
    return resolveElement(host, ref);
  }
  if (!fits || !mirrors.existing(ref.pid)) throw noCopy();
  if (!ref.uid) {
    auto generation = params.find("generation");
    if (!generation || !generation->asNumber())
      throw core::GlimmerstrandError(core::codes::invalidArgument, "generation が必要です");
    ref.generation = referenceNumber(*generation->asNumber());
    ref.i = core::optionalInt(params, "i").value_or(-1);
  }
  return resolveElement(host, ref);
}

void addMirrorOperations(OperationTable& table, MirrorHost& host) {
  table.add("axTree", [&host](const JSONValue& params) -> HandlerResult {
    TreeOptions options;
    options.timeoutSeconds = core::optionalNumber(params, "timeoutSeconds").value_or(0.3);
    options.scope = core::optionalString(params, "scope").value_or("window");
    options.maxDepth = core::optionalInt(params, "maxDepth").value_or(AppMirror::maxDepth);
    options.maxNodes = core::optionalInt(params, "maxNodes").value_or(4000);
    auto tree = axTree(host, appQueryOf(params), options);
    return JSONValue::Object{{"app", core::toJSON(tree.app)},
                             {"nodes", nodesJSON(tree.nodes)},
                             {"truncated", tree.truncated},
                             {"elapsedMs", tree.elapsedMs}};
  });
  auto encoded = std::make_shared<EncodedNodes>();
  table.add("axSnapshot", [&host, encoded](const JSONValue& params) -> HandlerResult {
    return snapshotText(axSnapshot(host, appQueryOf(params), snapshotRequestOf(params)), *encoded);
  });
  table.add("axRefresh", [&host](const JSONValue& params) -> HandlerResult {
    return JSONValue::Object{{"pid", std::int64_t{axRefresh(host, appQueryOf(params))}}};
  });
  table.add("axCounter", [&host](const JSONValue& params) -> HandlerResult {
    auto count = axCounter(host, appQueryOf(params));
    return JSONValue::Object{{"pid", std::int64_t{count.pid}}, {"notifications", count.notifications}};
  });
  table.add("waitSettle", [&host](const JSONValue& params) -> HandlerResult {
    return core::toJSON(waitSettle(host, settleOptionsOf(params)));
  });
  table.add("elementAt", [&host](const JSONValue& params) -> HandlerResult {
    // The permission is checked before the point is read.
    requireTrust(host.platform().accessibility());
    const double x = requiredNumber("x", params);
    const double y = requiredNumber("y", params);
    auto hit = elementAt(host, x, y);
    return JSONValue::Object{{"pid", std::int64_t{hit.pid}}, {"role", hit.role}};
  });
  table.add("frontmost", [&host](const JSONValue&) -> HandlerResult { return core::toJSON(frontmost(host)); });
}

void addMenuOperations(OperationTable& table, MirrorHost& host) {
  table.add("axMenus", [&host](const JSONValue& params) -> HandlerResult {
    return menusJSON(axMenus(host, appQueryOf(params), core::optionalInt(params, "maxAgeMs").value_or(3000)));
  });
}

void addElementOperations(OperationTable& table, MirrorHost& host) {
  for (const auto& [name, operation] : elementOperations)
    table.add(name, [&host, operation](const JSONValue& params) -> HandlerResult {
      return operation(host, resolveReference(host, params), params);
    });
}

}  // namespace glimmerstrand::native
