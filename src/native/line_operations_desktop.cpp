// The line operations of input, applications and capture.
#include <span>

#include "core/base64.h"
#include "core/errors.h"
#include "native/applications.h"
#include "native/input.h"
#include "native/line_operations.h"

namespace glimmerstrand::native {

namespace {

using core::JSONValue;

std::optional<std::int32_t> optionalPid(const JSONValue& params) {
  auto pid = core::optionalNumber(params, "pid");
  return pid ? std::optional(processId(*pid)) : std::nullopt;
}

platform::AxPoint pointOf(const JSONValue& params, std::string_view x, std::string_view y) {
  return platform::AxPoint{requiredNumber(x, params), requiredNumber(y, params)};
}

using PlatformOperation = JSONValue (*)(platform::Platform& platform, MirrorHost& host, const JSONValue& params);

const std::pair<const char*, PlatformOperation> inputLines[] = {
    {"move",
     [](platform::Platform& platform, MirrorHost&, const JSONValue& params) {
       const auto at = pointOf(params, "x", "y");
       move(platform, at);
       return JSONValue(JSONValue::Object{{"x", at.x}, {"y", at.y}});
     }},
    {"click",
     [](platform::Platform& platform, MirrorHost&, const JSONValue& params) {
       ClickRequest request;
       request.at = pointOf(params, "x", "y");
       if (core::optionalString(params, "button") == "right") request.button = platform::MouseButton::right;
       request.count = core::optionalInt(params, "count").value_or(1);
       request.holdMs = core::optionalNumber(params, "holdMs").value_or(0);
       const auto count = click(platform, request);
       return JSONValue(JSONValue::Object{{"x", request.at.x}, {"y", request.at.y}, {"count", count}});
     }},
    {"drag",
     [](platform::Platform& platform, MirrorHost&, const JSONValue& params) {
       const auto from = pointOf(params, "x1", "y1");
       const auto to = pointOf(params, "x2", "y2");
       drag(platform, from, to, core::optionalInt(params, "steps").value_or(12));
       return JSONValue(
           JSONValue::Object{{"from", JSONValue::Array{from.x, from.y}}, {"to", JSONValue::Array{to.x, to.y}}});
     }},
    {"scroll",
     [](platform::Platform& platform, MirrorHost&, const JSONValue& params) {
       ScrollRequest request;
       request.dx = core::optionalNumber(params, "dx").value_or(0);
       request.dy = core::optionalNumber(params, "dy").value_or(0);
       // A place needs both coordinates; without x it is not asked for.
       if (auto x = core::optionalNumber(params, "x")) request.at = platform::AxPoint{*x, requiredNumber("y", params)};
       auto scrolled = scroll(platform, request);
       return JSONValue(JSONValue::Object{{"dx", scrolled.dx}, {"dy", scrolled.dy}});
     }},
    {"key",
     [](platform::Platform& platform, MirrorHost&, const JSONValue& params) {
       const std::string keys = requiredString("key", params);
       return JSONValue(JSONValue::Object{{"key", key(platform, keys, optionalPid(params))}});
     }},
    {"type",
     [](platform::Platform& platform, MirrorHost&, const JSONValue& params) {
       const std::string text = requiredString("text", params);
       const double intervalMs = core::optionalNumber(params, "intervalMs").value_or(4.0);
       auto typed = type(platform, text, optionalPid(params), intervalMs);
       return JSONValue(JSONValue::Object{{"length", typed.length}, {"seen", typed.seen}});
     }},
};

JSONValue windowJSON(const WindowReport& window) {
  JSONValue out = core::toJSON(static_cast<const core::WindowInfo&>(window));
  if (window.frame) core::put(*out.asObject(), "frame", core::toJSON(*window.frame));
  return out;
}

const std::pair<const char*, PlatformOperation> applicationLines[] = {
    {"activate",
     [](platform::Platform& platform, MirrorHost& host, const JSONValue& params) {
       return core::toJSON(activate(platform, host, appQueryOf(params).keys));
     }},
    {"apps",
     [](platform::Platform& platform, MirrorHost&, const JSONValue&) {
       JSONValue::Array list;
       for (const auto& app : apps(platform)) list.push_back(core::toJSON(app));
       return JSONValue(std::move(list));
     }},
    {"launch",
     [](platform::Platform& platform, MirrorHost& host, const JSONValue& params) {
       return core::toJSON(launch(platform, host, requiredString("name", params)));
     }},
    {"quit",
     [](platform::Platform& platform, MirrorHost& host, const JSONValue& params) {
       auto report =
           quit(platform, host, appQueryOf(params).keys, core::optionalInt(params, "timeoutMs").value_or(5000));
       JSONValue out = core::toJSON(static_cast<const core::QuitResult&>(report));
       if (report.asked) core::put(*out.asObject(), "asked", true);
       return out;
     }},
    {"windows",
     [](platform::Platform& platform, MirrorHost& host, const JSONValue& params) {
       JSONValue::Array list;
       for (const auto& window : windows(platform, host, appQueryOf(params))) list.push_back(windowJSON(window));
       return JSONValue(std::move(list));
     }},
    {"raiseWindow",
     [](platform::Platform& platform, MirrorHost& host, const JSONValue& params) {
       // A numeric index wins; a title is then not looked at.
       core::WindowSelector window{core::optionalString(params, "title").value_or("")};
       if (auto index = core::optionalNumber(params, "index")) window.by = *index;
       return JSONValue(JSONValue::Object{{"title", raiseWindow(platform, host, appQueryOf(params), window)}});
     }},
    {"clipboard",
     [](platform::Platform& platform, MirrorHost&, const JSONValue&) {
       auto text = clipboard(platform);
       return JSONValue(JSONValue::Object{{"text", text ? JSONValue(*text) : JSONValue()}});
     }},
    {"setClipboard",
     [](platform::Platform& platform, MirrorHost&, const JSONValue& params) {
       return JSONValue(JSONValue::Object{{"length", setClipboard(platform, requiredString("text", params))}});
     }},
    {"openURL",
     [](platform::Platform& platform, MirrorHost&, const JSONValue& params) {
       auto opened = openURL(platform, requiredString("url", params));
       return JSONValue(
           JSONValue::Object{{"url", opened.url}, {"app", opened.app ? core::toJSON(*opened.app) : JSONValue()}});
     }},
};

void addPlatformOperations(OperationTable& table, MirrorHost& host,
                           std::span<const std::pair<const char*, PlatformOperation>> operations) {
  for (const auto& [name, operation] : operations)
    table.add(name, [&host, operation](const JSONValue& params) -> HandlerResult {
      return operation(host.platform(), host, params);
    });
}

JSONValue permissionsJSON(const Permissions& permissions) {
  return JSONValue::Object{{"accessibility", permissions.accessibility},
                           {"screenRecording", permissions.screenRecording}};
}

JSONValue imageJSON(const CaptureReport& image) {
  return JSONValue::Object{{"format", image.format},
                           {"data", core::base64Text(image.bytes)},
                           {"width", image.width},
                           {"height", image.height},
                           {"display", displayRecord(image.display)},
                           {"region", core::toJSON(image.region)},
                           {"frameAgeMs", image.frameAgeMs},
                           {"elapsedMs", image.elapsedMs}};
}

std::int64_t maxSideOf(const JSONValue& params) { return core::optionalInt(params, "maxSide").value_or(0); }

}  // namespace

JSONValue displayRecord(const platform::Display& d) {
  return JSONValue::Object{{"id", d.id},
                           {"x", d.bounds.x},
                           {"y", d.bounds.y},
                           {"width", d.bounds.width},
                           {"height", d.bounds.height},
                           {"scale", displayScale(d)},
                           {"main", d.main}};
}

void addInputOperations(OperationTable& table, MirrorHost& host) { addPlatformOperations(table, host, inputLines); }

void addApplicationOperations(OperationTable& table, MirrorHost& host) {
  addPlatformOperations(table, host, applicationLines);
}

void addCaptureOperations(OperationTable& table, PlatformOf platformOf, Capturer& capturer) {
  table.add("permissions",
            [platformOf](const JSONValue&) -> HandlerResult { return permissionsJSON(permissions(platformOf())); });
  table.add("requestPermissions", [platformOf](const JSONValue&) -> HandlerResult {
    return permissionsJSON(requestPermissions(platformOf()));
  });
  table.add("displays", [platformOf](const JSONValue&) -> HandlerResult {
    JSONValue::Array list;
    for (const auto& d : platformOf().screen().displays()) list.push_back(displayRecord(d));
    return JSONValue::Object{{"displays", std::move(list)}};
  });
  table.add("capture", [&capturer](const JSONValue& params) -> HandlerResult {
    ScreenRequest request;
    request.display = core::optionalInt(params, "display");
    request.maxSide = maxSideOf(params);
    request.format = core::optionalString(params, "format").value_or("jpeg");
    request.quality = core::optionalNumber(params, "quality").value_or(0.6);
    request.fresh = core::optionalBool(params, "fresh").value_or(false);
    return imageJSON(capturer.capture(request));
  });
  table.add("captureRegion", [platformOf, &capturer](const JSONValue& params) -> HandlerResult {
    platformOf();  // without a desktop, that is the answer before any parameter's
    RegionRequest request;
    request.display = core::optionalInt(params, "display");
    request.area = core::Rect{requiredNumber("x", params), requiredNumber("y", params), requiredNumber("width", params),
                              requiredNumber("height", params)};
    request.maxSide = maxSideOf(params);
    request.format = core::optionalString(params, "format").value_or("jpeg");
    request.quality = core::optionalNumber(params, "quality").value_or(0.8);
    if (auto pid = core::optionalInt(params, "pid")) request.pid = static_cast<std::int32_t>(*pid);
    return imageJSON(capturer.captureRegion(request));
  });
}

}  // namespace glimmerstrand::native
