// The ui.* procedures. The table grows with the procedures themselves; a
// name that is not in it is refused with the list of those that are.
#include "core/errors.h"
#include "core/runner.h"

namespace glimmerstrand::core {

StatementResultRef callProcedure(ScriptRun&, const cypher::CallStatement& call) {
  throw GlimmerstrandError(codes::invalidArgument, "未知の手続きです: " + call.procedure);
}

}  // namespace glimmerstrand::core
