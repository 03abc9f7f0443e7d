// The operation table of the line protocol: every operation by name, with the
// queue it runs on. Each family of operations registers itself through one
// function (`addProcessOperations`, and later the mirror, input, capture and
// gateway families); the table is complete before the first request is read
// and is not changed afterwards.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <variant>

#include "core/json_value.h"

namespace glimmerstrand::native {

/// A finished JSON text that a reply carries byte for byte.
struct RawJSON {
  std::string text;
};

using HandlerResult = std::variant<core::JSONValue, RawJSON>;
/// Takes the request's params (always an object) and gives its result, or
/// throws GlimmerstrandError or any other exception.
using Handler = std::function<HandlerResult(const core::JSONValue& params)>;

/// The 12 operations that run on the serial input queue, in arrival order.
const std::unordered_set<std::string>& inputOperations();

class OperationTable {
 public:
  /// Adds or replaces an operation. REQUIRES: before the table is in use.
  void add(std::string name, Handler handler);
  /// nullptr when there is no such operation.
  const Handler* find(std::string_view name) const;
  std::size_t size() const { return handlers_.size(); }

 private:
  std::unordered_map<std::string, Handler> handlers_;
};

/// ping.
void addProcessOperations(OperationTable& table);

/// The string under `key`; fails "invalid_argument" "<key> が必要です" when it
/// is missing or not a string.
std::string requiredString(std::string_view key, const core::JSONValue& params);
/// The number under `key` as a double; the same failure.
double requiredNumber(std::string_view key, const core::JSONValue& params);

}  // namespace glimmerstrand::native
