// A GTK 3 button whose handler runs a modal dialog to its answer holds the
// application inside our press: keys sent to it then would freeze it for
// good. They are refused while it is held, and work again once its dialog
// has closed.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "platform/x11_desktop.h"
#include "support/line_client.h"

namespace glimmerstrand::testing {
namespace {

using core::JSONValue;

const std::string modalApp = GLIMMERSTRAND_SOURCE_DIR "/tests/platform/linux/data/modal_app.py";

TEST(HeldDesktop, KeysWaitUntilTheDialogOpenedInsideAPressHasClosed) {
  std::string problem;
  std::unique_ptr<TestDesktop> desktop(startDesktop({modalApp + " 10"}, problem));
  ASSERT_NE(desktop, nullptr) << "the desktop did not start: " << problem;
  LineClient client(GLIMMERSTRAND_NATIVE_BINARY, {{"GLIMMERSTRAND_PLATFORM", "linux"}});
  auto run = [&](const std::string& script) {
    return client.call("cypher",
                       JSONValue::Object{{"cypher", script}, {"app", JSONValue::Object{{"name", "modal_app.py"}}}});
  };

  const JSONValue pressed = run("CALL ui.press('Discard')");
  EXPECT_NE(core::jsonText(pressed).find("answers nothing since this act"), std::string::npos)
      << core::jsonText(pressed);
  const JSONValue refused = run("CALL ui.key('Return')");
  EXPECT_NE(core::jsonText(refused).find("Keys now would freeze it"), std::string::npos) << core::jsonText(refused);

  // The dialog answers by itself; then the window reads again and takes keys.
  EXPECT_TRUE(eventually(
      [&] {
        return cypherColumn(client, "modal_app.py", "MATCH (l:StaticText {name: 'no'}) RETURN l.name", "l.name")
                   .size() == 1;
      },
      std::chrono::seconds(20)))
      << "the application no longer answers";
  cypherResults(client, "modal_app.py", "MATCH (t:TextField) SET t.focused = true; CALL ui.type('typed')");
  EXPECT_EQ(cypherColumn(client, "modal_app.py", "MATCH (t:TextField) RETURN t.value", "t.value"),
            std::vector<std::string>{"typed"});
}

}  // namespace
}  // namespace glimmerstrand::testing
