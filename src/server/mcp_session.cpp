#include "server/mcp_session.h"

#include <unicode/regex.h>
#include <unicode/unistr.h>

#include <array>

#include "core/desktop.h"
#include "core/errors.h"
#include "cypher/unicode_text.h"
#include "server/app_coordinator.h"
#include "server/request_handler.h"
#include "server/result_text.h"
#include "server/server_texts.h"

namespace glimmerstrand::server {
namespace {

using core::JSONValue;

constexpr std::array<std::string_view, 5> knownVersions{"2025-11-25", "2025-06-18", "2025-03-26", "2024-11-05",
                                                        "2024-10-07"};
constexpr std::string_view latestVersion = "2025-11-25";
constexpr std::string_view ourVersion = GLIMMERSTRAND_VERSION;

const core::DesktopText toolTitle{
    .mac = "Mac のアプリを見て操作する",
    .linuxDesktop = "Linux デスクトップのアプリを見て操作する",
};

const core::DesktopText toolDescription{
    .mac =
        "Look at and operate macOS apps (Spotify, Finder, Safari, Calculator, Notes, System Settings, any app) "
        "through their accessibility tree with Cypher. Mac のアプリを見る、押す、入力する、開く。Read with MATCH "
        "... RETURN, act with SET b.pressed = true or CALL "
        "ui.open/ui.press/ui.type/ui.key/ui.click/ui.menu/ui.scroll/ui.read/ui.screenshot/ui.window/ui.clipboard/"
        "ui.wait_for/ui.quit. Separate statements with ; to act and check in one call. The server instructions "
        "describe the grammar.",
    .linuxDesktop =
        "Look at and operate the apps of this Linux desktop (Firefox, Chromium, LibreOffice, Files, Text Editor, "
        "Calculator, any app) through their accessibility tree (AT-SPI) with Cypher. "
        "Linux のアプリを見る、押す、入力する、開く。Read with MATCH ... RETURN, act with SET b.pressed = true or "
        "CALL "
        "ui.open/ui.press/ui.type/ui.key/ui.click/ui.menu/ui.scroll/ui.read/ui.screenshot/ui.window/ui.clipboard/"
        "ui.wait_for/ui.quit. Separate statements with ; to act and check in one call. The server instructions "
        "describe the grammar.",
};

const core::DesktopText cypherDescription{
    .mac =
        "Cypher statements separated by ;, e.g. CALL ui.open(\"Spotify\"); MATCH (b:Button) WHERE b.name CONTAINS "
        "\"Play\" RETURN b LIMIT 5",
    .linuxDesktop =
        "Cypher statements separated by ;, e.g. CALL ui.open(\"Text Editor\"); MATCH (b:Button) WHERE b.name "
        "CONTAINS \"Save\" RETURN b LIMIT 5",
};

JSONValue initializeResult(const std::string& clientVersion) {
  bool known = std::find(knownVersions.begin(), knownVersions.end(), clientVersion) != knownVersions.end();
  return JSONValue::Object{{"protocolVersion", known ? clientVersion : std::string(latestVersion)},
                           {"capabilities", JSONValue::Object{{"tools", JSONValue::Object{{"listChanged", true}}}}},
                           {"serverInfo", JSONValue::Object{{"name", "glimmerstrand"}, {"version", ourVersion}}},
                           {"instructions", serverInstructions()}};
}

std::string typeName(const JSONValue* value) {
  if (!value) return "undefined";
  if (value->isNull()) return "null";
  if (value->asBool()) return "boolean";
  if (value->asNumber()) return "number";
  if (value->asString()) return "string";
  if (value->asArray()) return "array";
  return "object";
}

JSONValue textItem(std::string text) { return JSONValue::Object{{"type", "text"}, {"text", std::move(text)}}; }

JSONValue toolError(std::string text) {
  return JSONValue::Object{{"content", JSONValue::Array{textItem(std::move(text))}}, {"isError", true}};
}

// Only these calls may go without an app: they name the app themselves or
// look at none.
bool namesItsOwnApp(const std::string& cypher) {
  static const icu::RegexPattern* pattern = [] {
    UErrorCode status = U_ZERO_ERROR;
    UParseError where;
    auto compiled =
        icu::RegexPattern::compile(icu::UnicodeString::fromUTF8(R"(^\s*CALL\s+ui\.(open|open_url|apps)\s*\()"),
                                   UREGEX_CASE_INSENSITIVE, where, status);
    if (U_FAILURE(status)) throw core::GlimmerstrandError(core::codes::internal, "bad app pattern");
    return compiled;
  }();
  UErrorCode status = U_ZERO_ERROR;
  icu::UnicodeString text = icu::UnicodeString::fromUTF8(cypher);
  std::unique_ptr<icu::RegexMatcher> matcher(pattern->matcher(text, status));
  if (U_FAILURE(status)) return false;
  bool found = matcher->find(status);
  return U_SUCCESS(status) && found;
}

std::string trimmedBlanks(const std::string& text) {
  std::size_t start = text.find_first_not_of(" \t");
  if (start == std::string::npos) return "";
  std::size_t end = text.find_last_not_of(" \t");
  return text.substr(start, end - start + 1);
}

JSONValue response(const JSONValue& id, std::string key, JSONValue value) {
  return JSONValue::Object{{"jsonrpc", "2.0"}, {"id", id}, {std::move(key), std::move(value)}};
}

JSONValue errorResponse(const JSONValue& id, int code, const std::string& message) {
  return response(id, "error", JSONValue::Object{{"code", code}, {"message", message}});
}

}  // namespace

JSONValue doToolDefinition() {
  JSONValue::Object cypher{{"type", "string"}, {"description", cypherDescription()}};
  JSONValue::Object app{
      {"description",
       "App name or bundle id to look at or operate, such as \"Calculator\" or \"計算機\". Pass it on every call: "
       "several agents can share this connection, so the previous call's app is not remembered."},
      {"type", "string"}};
  JSONValue::Object schema{{"$schema", "http://json-schema.org/draft-07/schema#"},
                           {"type", "object"},
                           {"properties", JSONValue::Object{{"cypher", cypher}, {"app", app}}},
                           {"required", JSONValue::Array{"cypher", "app"}}};
  return JSONValue::Object{
      {"name", "do"},
      {"title", toolTitle()},
      {"description", toolDescription()},
      {"inputSchema", schema},
      {"annotations",
       JSONValue::Object{
           {"title", toolTitle()}, {"readOnlyHint", false}, {"destructiveHint", true}, {"openWorldHint", false}}},
      {"execution", JSONValue::Object{{"taskSupport", "forbidden"}}}};
}

McpSession::McpSession(std::shared_ptr<ServerBackend> backend, Send send, ServerLog log)
    : backend_(std::move(backend)), send_(std::move(send)), log_(std::move(log)), id_("mcp-" + newUUIDText()) {}

void McpSession::handleLine(std::string_view line) {
  std::lock_guard guard(lock_);
  JSONValue message;
  try {
    message = core::parseJSON(line);
  } catch (const core::GlimmerstrandError& error) {
    // A request whose id can still be read is answered, so that its client
    // does not wait for ever; anything else has nobody to answer.
    auto id = core::keyOfRefusedText(line, "id");
    if (id && (id->asString() || id->asNumber())) {
      log_.warn("MCP のメッセージを読めませんでした",
                {{"line", cypher::graphemePrefix(line, 200)}, {"error", error.message()}});
      send_(core::jsonText(errorResponse(*id, -32700, "Parse error: " + error.message())));
      return;
    }
  }
  if (!message.asObject()) {
    log_.warn("MCP のメッセージを読めませんでした", {{"line", cypher::graphemePrefix(line, 200)}});
    return;
  }
  const JSONValue* id = message.find("id");
  bool hasId = id && (id->asString() || id->asNumber());
  auto method = core::optionalString(message, "method");
  if (!hasId) return;  // notifications, and requests whose id is null or a boolean
  if (!method) {
    if (message.find("result") || message.find("error")) return;  // a response to something
    send_(core::jsonText(errorResponse(*id, -32600, "Invalid Request")));
    return;
  }
  JSONValue reply;
  try {
    reply = response(*id, "result", runMethod(*method, message.find("params")));
  } catch (const RPCFailure& failure) {
    reply = errorResponse(*id, failure.code, failure.message);
  } catch (const std::exception& error) {
    reply = errorResponse(*id, -32603, core::errorMessage(error));
  } catch (...) {
    reply = errorResponse(*id, -32603, "unknown error");
  }
  send_(core::jsonText(reply));
}

JSONValue McpSession::runMethod(const std::string& method, const JSONValue* params) {
  if (method == "initialize") {
    auto version = params ? core::optionalString(*params, "protocolVersion") : std::nullopt;
    if (!version || !params->asObject()) throw RPCFailure{-32602, "Invalid params: protocolVersion is required"};
    return initializeResult(*version);
  }
  if (method == "ping") return JSONValue::Object{};
  if (method == "tools/list") return JSONValue::Object{{"tools", JSONValue::Array{doToolDefinition()}}};
  if (method == "tools/call") return callTool(params);
  throw RPCFailure{-32601, "Method not found"};
}

JSONValue McpSession::callTool(const JSONValue* params) {
  auto name = params ? core::optionalString(*params, "name") : std::nullopt;
  if (!name || !params->asObject()) throw RPCFailure{-32602, "Invalid params: name is required"};
  if (*name != "do") return toolError("MCP error -32602: Tool " + *name + " not found");
  const std::string invalid = "MCP error -32602: Input validation error: Invalid arguments for tool do: ";
  const JSONValue* arguments = params->find("arguments");
  if (!arguments || !arguments->asObject())
    return toolError(invalid + "Invalid input: expected object, received " + typeName(arguments));
  std::string issues;
  const JSONValue* cypher = arguments->find("cypher");
  if (!cypher || !cypher->asString())
    issues = "Invalid input: expected string, received " + typeName(cypher) + " at cypher";
  const JSONValue* app = arguments->find("app");
  if (app && !app->asString())
    issues += (issues.empty() ? "" : "\n") + ("Invalid input: expected string, received " + typeName(app) + " at app");
  if (!issues.empty()) return toolError(invalid + issues);
  return doTool(*cypher->asString(), app ? std::optional(*app->asString()) : std::nullopt);
}

JSONValue McpSession::doTool(const std::string& cypher, const std::optional<std::string>& app) {
  core::CypherResult result;
  try {
    bool appGiven = app && !trimmedBlanks(*app).empty();
    if (!appGiven && !namesItsOwnApp(cypher))
      throw core::GlimmerstrandError(
          core::codes::invalidArgument,
          "Pass app on every call, such as \"Discord\". Several agents can share this connection, so Glimmerstrand "
          "does not remember the previous call's app or guess the frontmost app.");
    result = backend_->run(cypher, appGiven ? parseAppSelector(app) : std::nullopt, false, id_);
  } catch (const std::exception& error) {
    return toolError(core::errorMessage(error) + "\nretry: " + retryHint(core::errorCode(error), 1));
  }
  JSONValue::Array content{textItem(renderResultText(result))};
  for (const auto& statement : result.results) {
    if (!statement->images) continue;
    for (const auto& image : *statement->images)
      content.push_back(
          JSONValue::Object{{"type", "image"}, {"data", image.base64}, {"mimeType", "image/" + image.format}});
  }
  JSONValue::Object tool{{"content", std::move(content)}};
  if (result.error) core::put(tool, "isError", true);
  return tool;
}

}  // namespace glimmerstrand::server
