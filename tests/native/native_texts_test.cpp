// The native host's texts for a missing permission and a locked screen: the
// Mac's on the simulated desktop, word for word; on Linux, none names a Mac.
#include <gtest/gtest.h>

#include "mirror/mirrors.h"
#include "native/capture_operations.h"
#include "native/native_backend.h"
#include "support/desktop_texts.h"

namespace glimmerstrand::native {
namespace {

TEST(NativeTexts, EachHasTheMacsWordsOnlyOnTheMac) {
  const std::pair<const core::DesktopText*, std::string> texts[] = {
      {&permissionMessage,
       "アクセシビリティが許可されていません。システム設定のプライバシーとセキュリティで、ターミナルにアクセシビリティ"
       "を許可してください"},
      {&captureDenied,
       "画面収録が許可されていません。システム設定のプライバシーとセキュリティで、ターミナルに画面収録を許可してくださ"
       "い"},
      {&regionCaptureDenied, "画面収録が許可されていません"},
      {&screenLockedNote,
       "the Mac's screen is locked, so app windows cannot be read or operated, only menus; ask the user to unlock "
       "it, then retry"},
  };
  for (const auto& [text, mac] : texts) {
    {
      glimmerstrand::testing::DesktopScope onMac(core::Desktop::mac);
      EXPECT_EQ((*text)(), mac);
    }
    glimmerstrand::testing::DesktopScope onLinux(core::Desktop::linuxDesktop);
    EXPECT_EQ(glimmerstrand::testing::macWordsIn((*text)()), std::vector<std::string>{}) << (*text)();
    EXPECT_FALSE((*text)().empty());
  }
}

}  // namespace
}  // namespace glimmerstrand::native
