// The flags a browser gets from whoever starts it, so that its pages are
// seen and it runs as root, and a browser's main process told from its
// helpers by the words /proc shows.
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

TEST(BrowserAccessibility, ABrowsersMainProcessIsToldFromItsHelpers) {
  using namespace std::string_literals;
  struct Case {
    const char* what;
    std::string cmdline;  // as /proc holds it
    bool browser;
  };
  const Case cases[] = {
      {"words apart", "/usr/lib/chromium/chromium\0--no-sandbox\0http://127.0.0.1/\0"s, true},
      {"rewritten as one line, padded", "/usr/lib/chromium/chromium --enable-crash-reporter=,built on Debian\0\0\0"s,
       true},
      {"a renderer", "/usr/lib/chromium/chromium --type=renderer --lang=en-US\0\0"s, false},
      {"a zygote, words apart", "/opt/google/chrome/chrome\0--type=zygote\0"s, false},
      {"another browser", "/usr/lib/firefox-esr/firefox-esr\0http://127.0.0.1/\0"s, false},
      {"a program whose folder is named after it", "/opt/chromium-tools/run\0"s, false},
      {"nothing (a process that ended)", ""s, false},
  };
  for (const auto& c : cases) EXPECT_EQ(isChromiumBrowserProcess(processWords(c.cmdline)), c.browser) << c.what;
}

}  // namespace
}  // namespace glimmerstrand::platform
