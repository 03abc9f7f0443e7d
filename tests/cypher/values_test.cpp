#include "cypher/values.h"

#include <gtest/gtest.h>

namespace glimmerstrand::cypher {
namespace {

TEST(NumberText, PrintsWithoutTrailingFraction) { EXPECT_EQ(numberText(5.0), "5"); }

}  // namespace
}  // namespace glimmerstrand::cypher
