#include "native/line_protocol.h"

#include <gtest/gtest.h>

namespace glimmerstrand::native {
namespace {

TEST(LineProtocol, SuccessLineCarriesRawResultVerbatim) {
  EXPECT_EQ(successLine(core::JSONValue(1), RawJSON{"{\"a\" : 1}"}), "{\"id\":1,\"ok\":true,\"result\":{\"a\" : 1}}");
}

}  // namespace
}  // namespace glimmerstrand::native
