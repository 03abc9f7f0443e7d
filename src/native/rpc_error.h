// The native layer fails with the system's one error type, as every layer
// does; this older name of it stays for code that still says it.
#pragma once

#include "core/errors.h"

namespace glimmerstrand::native {

using RPCError = core::GlimmerstrandError;

}  // namespace glimmerstrand::native
