#include "core/json_value.h"

#include <gtest/gtest.h>

namespace glimmerstrand::core {
namespace {

TEST(JsonText, KeepsPairOrder) { EXPECT_EQ(jsonText(JSONValue::Object{{"b", 1}, {"a", 2}}), "{\"b\":1,\"a\":2}"); }

}  // namespace
}  // namespace glimmerstrand::core
