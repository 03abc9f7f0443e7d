// The locale-aware order of texts that ORDER BY, min and max use (en_US
// collation), unlike the code-unit order of WHERE. Safe from any thread.
#pragma once

#include <string_view>

namespace glimmerstrand::cypher {

/// Negative, zero or positive, as `a` sorts before, with or after `b`.
int compareText(std::string_view a, std::string_view b);

}  // namespace glimmerstrand::cypher
