#include "native/cypher_operation.h"

#include "core/errors.h"

namespace glimmerstrand::native {

void addCypherOperation(OperationTable& table, core::CypherRunner& runner) {
  table.add("cypher", [&runner](const core::JSONValue& params) -> HandlerResult {
    const auto script = requiredString("cypher", params);
    std::optional<core::AppSelector> app;
    if (auto a = params.find("app"); a && a->asObject()) app = core::appSelectorFromJSON(*a);
    const bool readOnly = core::optionalBool(params, "readOnly").value_or(false);
    try {
      // Encoded once: a large result goes out as it is, without a second pass.
      return RawJSON{core::jsonText(core::resultJSON(runner.run(script, app, readOnly)))};
    } catch (const core::GlimmerstrandError&) {
      throw;
    } catch (const std::exception& e) {
      // The language's errors and any other leave with their code and message.
      throw core::GlimmerstrandError(core::errorCode(e).value_or("native"), core::errorMessage(e));
    }
  });
}

}  // namespace glimmerstrand::native
