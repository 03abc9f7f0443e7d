// The `cypher` line operation: a script on the shared runner, without a
// lease and without a session.
#pragma once

#include "core/runner.h"
#include "native/operations.h"

namespace glimmerstrand::native {

void addCypherOperation(OperationTable& table, core::CypherRunner& runner);

}  // namespace glimmerstrand::native
