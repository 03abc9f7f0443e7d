// The line operations that drive a socket gateway from outside:
// gatewayListen, gatewaySend and gatewayClose. The gateway's events go out
// on the same output as the replies, one JSON line each.
#pragma once

#include "native/operations.h"
#include "native/output.h"

namespace glimmerstrand::native {

/// Registers the three operations over one gateway of their own, made here
/// and kept for the life of the process.
void addGatewayOperations(OperationTable& table, Output& output);

}  // namespace glimmerstrand::native
