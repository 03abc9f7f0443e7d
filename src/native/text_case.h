// Case mapping for names and shortcut keys: full Unicode lower case, without
// a locale's special rules, so that a name matches the same way everywhere.
#pragma once

#include <string>
#include <string_view>

namespace glimmerstrand::native {

std::string lowerText(std::string_view text);

}  // namespace glimmerstrand::native
