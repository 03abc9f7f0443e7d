// The native host's texts for a missing permission and a locked screen: on
// Linux, none is the Mac's or names a Mac.
#include <gtest/gtest.h>

#include "mirror/mirrors.h"
#include "native/capture_operations.h"
#include "native/native_backend.h"
#include "support/desktop_texts.h"

namespace glimmerstrand::native {
namespace {

TEST(NativeTexts, OnLinuxNoneIsTheMacsOrNamesAMac) {
  for (const auto* text : {&permissionMessage, &captureDenied, &regionCaptureDenied, &screenLockedNote}) {
    std::string mac;
    {
      glimmerstrand::testing::DesktopScope onMac(core::Desktop::mac);
      mac = (*text)();
    }
    glimmerstrand::testing::DesktopScope onLinux(core::Desktop::linuxDesktop);
    EXPECT_EQ(glimmerstrand::testing::macWordsIn((*text)()), std::vector<std::string>{}) << (*text)();
    EXPECT_FALSE((*text)().empty());
    EXPECT_NE((*text)(), mac);
  }
}

}  // namespace
}  // namespace glimmerstrand::native
