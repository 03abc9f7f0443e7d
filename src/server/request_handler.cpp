#include "server/request_handler.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "core/errors.h"
#include "server/result_text.h"
#include "server/server_texts.h"

namespace glimmerstrand::server {
namespace {

using core::JSONValue;

std::optional<std::int64_t> nonNegativeDecimal(std::string_view text) {
  std::size_t at = 0;
  bool negative = false;
  if (at < text.size() && (text[at] == '+' || text[at] == '-')) negative = text[at++] == '-';
  if (at == text.size()) return std::nullopt;
  std::int64_t value = 0;
  for (; at < text.size(); ++at) {
    char c = text[at];
    if (c < '0' || c > '9') return std::nullopt;
    if (value > (std::numeric_limits<std::int64_t>::max() - (c - '0')) / 10) return std::nullopt;
    value = value * 10 + (c - '0');
  }
  if (negative && value != 0) return std::nullopt;
  return value;
}

// The request's id as it is echoed: object keys sorted at every depth, the
// last of duplicate keys kept.
JSONValue echoedId(const JSONValue& id) {
  if (auto array = id.asArray()) {
    JSONValue::Array out;
    for (const auto& item : *array) out.push_back(echoedId(item));
    return out;
  }
  if (auto object = id.asObject()) {
    JSONValue::Object out;
    for (const auto& entry : *object) {
      auto same = std::find_if(out.begin(), out.end(), [&](const auto& pair) { return pair.first == entry.first; });
      if (same != out.end())
        same->second = echoedId(entry.second);
      else
        out.emplace_back(entry.first, echoedId(entry.second));
    }
    std::sort(out.begin(), out.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    return out;
  }
  return id;
}

JSONValue errorObject(const std::optional<std::string>& code, const std::string& message) {
  std::string reported = code.value_or(core::codes::internal);
  return JSONValue::Object{{"code", reported}, {"message", message}, {"retry", retryHint(reported, 1)}};
}

}  // namespace

std::optional<core::AppSelector> parseAppSelector(const std::optional<std::string>& app) {
  if (!app || app->empty()) return std::nullopt;
  core::AppSelector selector;
  std::string_view text = *app;
  if (text.starts_with("pid:"))
    if (auto pid = nonNegativeDecimal(text.substr(4))) {
      selector.pid = *pid;
      return selector;
    }
  selector.name = *app;
  return selector;
}

RequestHandler::RequestHandler(std::shared_ptr<ServerBackend> backend, std::filesystem::path stateDir, ServerLog log,
                               std::function<std::int64_t()> sessions)
    : backend_(std::move(backend)),
      stateDir_(std::move(stateDir)),
      log_(std::move(log)),
      startedAt_(std::chrono::system_clock::now()),
      startedSteady_(std::chrono::steady_clock::now()),
      sessions_(std::move(sessions)) {}

std::optional<std::string> RequestHandler::handleLine(std::string_view line) const {
  JSONValue request;
  try {
    request = core::parseJSON(line);
  } catch (const core::GlimmerstrandError& error) {
    // Not JSON has no id to answer, and the connection stays open; a request
    // whose id can still be read (nested too deep, say) is told why.
    auto id = core::keyOfRefusedText(line, "id");
    if (!id) return std::nullopt;
    log_.debug("リクエストを読めませんでした", {{"error", error.message()}});
    return core::jsonText(JSONValue::Object{
        {"id", echoedId(*id)}, {"ok", false}, {"error", errorObject(core::codes::invalidArgument, error.message())}});
  }
  if (!request.asObject()) return std::nullopt;

  std::string operation = core::optionalString(request, "operation").value_or("");
  const JSONValue* params = request.find("params");
  JSONValue noParams = JSONValue::Object{};
  if (!params || !params->asObject()) params = &noParams;
  bool textForm = core::optionalString(request, "format") == "text";

  JSONValue::Object reply;
  if (auto id = request.find("id")) core::put(reply, "id", echoedId(*id));
  std::optional<std::string> code;
  std::string message;
  try {
    JSONValue result = perform(operation, *params, textForm);
    core::put(reply, "ok", true);
    core::put(reply, "result", std::move(result));
    return core::jsonText(reply);
  } catch (const std::exception& error) {
    code = core::errorCode(error);
    message = core::errorMessage(error);
  } catch (...) {
    message = "unknown error";
  }
  log_.debug("操作に失敗しました", {{"operation", operation}, {"error", message}});
  core::put(reply, "ok", false);
  core::put(reply, "error", errorObject(code, message));
  return core::jsonText(reply);
}

JSONValue RequestHandler::perform(const std::string& operation, const JSONValue& params, bool textForm) const {
  if (operation == "ping") return JSONValue::Object{{"pong", true}};
  if (operation == "skill") return JSONValue::Object{{"text", usageText()}};
  if (operation == "doctor") return backend_->doctor();
  if (operation == "status") return status();
  if (operation == "do") return runStatements(params, false, textForm);
  if (operation == "query") return runStatements(params, true, textForm);
  throw core::GlimmerstrandError(core::codes::invalidArgument, "未知の操作です: " + operation);
}

JSONValue RequestHandler::status() const {
  auto uptime = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - startedSteady_);
  return JSONValue::Object{{"pid", static_cast<std::int64_t>(::getpid())},
                           {"startedAt", internetDateText(startedAt_)},
                           {"uptimeMs", std::round(uptime.count())},
                           {"sessions", sessions_ ? sessions_() : 0},
                           {"mirrors", backend_->mirrors()}};
}

JSONValue RequestHandler::runStatements(const JSONValue& params, bool readOnly, bool textForm) const {
  auto cypher = core::optionalString(params, "cypher");
  if (!cypher || cypher->empty())
    throw core::GlimmerstrandError(core::codes::invalidArgument, "Cypher の文を指定してください");
  auto app = parseAppSelector(core::optionalString(params, "app"));
  core::CypherResult result = backend_->run(*cypher, app, readOnly, std::nullopt);
  if (textForm) return renderTextReply(result, stateDir_);
  return core::resultJSON(result);
}

}  // namespace glimmerstrand::server
