#include "native/operations.h"

#include <unistd.h>

#include "core/errors.h"

namespace glimmerstrand::native {

const std::unordered_set<std::string>& inputOperations() {
  static const std::unordered_set<std::string> names{"click",    "move",  "scroll",   "drag",
                                                     "type",     "key",   "activate", "press",
                                                     "setValue", "focus", "showMenu", "raiseWindow"};
  return names;
}

void OperationTable::add(std::string name, Handler handler) { handlers_[std::move(name)] = std::move(handler); }

const Handler* OperationTable::find(std::string_view name) const {
  auto it = handlers_.find(std::string(name));
  return it == handlers_.end() ? nullptr : &it->second;
}

void addProcessOperations(OperationTable& table) {
  table.add("ping", [](const core::JSONValue&) -> HandlerResult {
    return core::JSONValue::Object{{"pong", true}, {"pid", static_cast<std::int64_t>(::getpid())}};
  });
}

std::string requiredString(std::string_view key, const core::JSONValue& params) {
  auto value = params.find(key);
  if (!value || !value->asString())
    throw core::GlimmerstrandError("invalid_argument", std::string(key) + " が必要です");
  return *value->asString();
}

double requiredNumber(std::string_view key, const core::JSONValue& params) {
  auto value = params.find(key);
  if (!value || !value->asNumber())
    throw core::GlimmerstrandError("invalid_argument", std::string(key) + " が必要です");
  return *value->asNumber();
}

}  // namespace glimmerstrand::native
