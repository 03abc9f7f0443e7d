// The flags a browser gets from whoever starts it, so that its pages are
// seen and it runs as root.
#include "platform/browser_accessibility.h"

#include <gtest/gtest.h>

namespace glimmerstrand::platform {
namespace {

TEST(BrowserAccessibility, ChromiumAndItsKinShowTheirPagesAndRunAsRoot) {
  using Words = std::vector<std::string>;
  struct Case {
    Words command;
    bool asRoot;
    Words expected;
  };
  const Case cases[] = {
      {{"chromium", "http://127.0.0.1/"},
       true,
       {"chromium", "--no-sandbox", "--force-renderer-accessibility", "http://127.0.0.1/"}},
      {{"/usr/bin/google-chrome", "--force-renderer-accessibility"},
       false,
       {"/usr/bin/google-chrome", "--force-renderer-accessibility"}},
      {{"firefox-esr", "http://127.0.0.1/"}, true, {"firefox-esr", "http://127.0.0.1/"}},
      {{"galculator"}, true, {"galculator"}},
      {{"/opt/chromium-tools/run"}, true, {"/opt/chromium-tools/run"}},
  };
  for (const auto& c : cases) EXPECT_EQ(withAccessibilityOn(c.command, c.asRoot), c.expected) << c.command.front();
}

}  // namespace
}  // namespace glimmerstrand::platform
