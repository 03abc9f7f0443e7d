#include "core/records.h"

#include <gtest/gtest.h>

namespace glimmerstrand::core {
namespace {

TEST(AxNodeJson, AbsentUidLeavesNoKey) {
  AxNode node;
  EXPECT_EQ(jsonText(toJSON(node)), "{\"i\":0,\"parent\":-1,\"depth\":0}");
}

}  // namespace
}  // namespace glimmerstrand::core
