// The two texts that teach agents the statement language and the manners of
// this system: the instructions of the MCP `initialize` reply, and the usage
// text of the `skill` request, which wraps the instructions for the shell.
// Each is the current desktop's (core/desktop.h); both versions are built
// once, on first use. Safe to call from any thread.
#pragma once

#include <string>

namespace glimmerstrand::server {

const std::string& serverInstructions();
const std::string& usageText();

}  // namespace glimmerstrand::server
