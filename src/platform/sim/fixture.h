// The JSON fixture format of the simulated desktop (docs/sim-fixtures.md).
#pragma once

#include <string>
#include <string_view>

#include "platform/sim/sim_model.h"

namespace glimmerstrand::platform::sim {

/// Reads a desktop from fixture JSON. Throws std::runtime_error naming the
/// place of the first problem ("apps[0].windows[1].frame: ...").
DesktopSpec parseFixture(std::string_view json);
/// The same, from a file.
DesktopSpec loadFixture(const std::string& path);

/// The AX name of a fixture attribute key: "title" is AXTitle, "placeholder"
/// AXPlaceholderValue; a key that starts with "AX" stands as it is.
std::string attributeName(std::string_view key);

}  // namespace glimmerstrand::platform::sim
