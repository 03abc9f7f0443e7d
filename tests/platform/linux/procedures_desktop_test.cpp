// Procedures whose answer depends on how a real application behaves, on a
// headless desktop with a window manager, through glimmerstrand-native's line
// protocol: an editor with unsaved text asks before it quits, GTK leaves a
// context menu open when an item of a submenu is picked, and a calculator
// shows typed keys in its display rather than in a field.
#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/desktop_suite.h"

namespace glimmerstrand::testing {
namespace {

using core::JSONValue;

const std::string formApp = GLIMMERSTRAND_SOURCE_DIR "/tests/platform/linux/data/form_app.py";

class ProceduresDesktopTest : public DesktopSuite {
 protected:
  static void SetUpTestSuite() { startSuite({"mousepad", "galculator", formApp}); }
  static void TearDownTestSuite() { endSuite(); }

  std::vector<JSONValue> results(const std::string& app, const std::string& script) {
    return cypherResults(*client_, app, script);
  }
  std::vector<std::string> column(const std::string& app, const std::string& read, const std::string& name) {
    return cypherColumn(*client_, app, read, name);
  }
  std::string editorText() { return firstCell(*client_, "mousepad", "MATCH (t:TextArea) RETURN t.value", "t.value"); }

  std::unique_ptr<LineClient> client_ = lineClient();
};

TEST_F(ProceduresDesktopTest, QuitOfAnEditorThatAsksToSaveAnswersThatItAsked) {
  const JSONValue editor = JSONValue::Object{{"name", "mousepad"}};
  // The editor's window, and its question as a sheet of that window.
  auto windows = [&] {
    return client_->call("windows", editor).asArray()->size() +
           column("mousepad", "MATCH (s:Sheet) RETURN s.id", "s.id").size();
  };
  results("mousepad", "MATCH (t:TextArea) SET t.value = 'not saved yet'");
  auto quit = client_->call("quit", editor);
  EXPECT_EQ(core::optionalBool(quit, "terminated"), false) << core::jsonText(quit);
  EXPECT_EQ(core::optionalBool(quit, "asked"), true) << core::jsonText(quit);
  EXPECT_EQ(::kill(desktop_->pid("mousepad"), 0), 0);
  EXPECT_TRUE(eventually([&] { return windows() == 2u; })) << "the editor's window and its question";
  // Answered with escape, the question goes and the text stays.
  results("mousepad", "CALL ui.key('escape')");
  ASSERT_TRUE(eventually([&] { return windows() == 1u; }));

  // The procedure says so, and the statement after it runs.
  auto again = results("mousepad", "CALL ui.quit('mousepad'); MATCH (t:TextArea) RETURN t.value");
  const auto& action = again.front().find("actions")->asArray()->front();
  EXPECT_EQ(core::optionalBool(action, "ok"), false);
  EXPECT_NE(core::jsonText(action).find("保存を確かめるダイアログ"), std::string::npos) << core::jsonText(action);
  EXPECT_NE(core::jsonText(again.back()).find("not saved yet"), std::string::npos) << core::jsonText(again.back());
  results("mousepad", "CALL ui.key('escape')");
  ASSERT_TRUE(eventually([&] { return windows() == 1u; }));

  // An application that asks nothing ends, and says nothing of asking.
  auto ended = client_->call("quit", JSONValue::Object{{"name", "form_app.py"}});
  EXPECT_EQ(core::optionalBool(ended, "terminated"), true) << core::jsonText(ended);
  EXPECT_EQ(ended.find("asked"), nullptr);
}

// Mousepad's text area has no action for its menu: ui.menu right-clicks it.
// The items of its submenus, picked through accessibility, leave the menus
// above them open in GTK; picked, they close as they would under a click.
TEST_F(ProceduresDesktopTest, AMenuOpenedByUiMenuClosesWhenItsItemIsPressed) {
  results("mousepad", "MATCH (t:TextArea) SET t.value = 'Shout This'");
  const std::string openMenus =
      "MATCH (m) WHERE m.role = 'Menu' OR (m.role = 'MenuBarItem' AND m.selected = true) "
      "RETURN m.id";
  struct Case {
    std::string opener;  // what ui.menu opens: a name, or the text area
    std::string item;    // the item pressed, in a submenu of that menu
    std::string text;    // the text afterwards
  };
  const Case cases[] = {
      {"", "Select All", "Shout This"},
      {"", "To Uppercase", "SHOUT THIS"},
      // The menu of the menu bar, right-clicked open; converting dropped the selection.
      {"Edit", "Select All", "SHOUT THIS"},
      {"Edit", "To Lowercase", "shout this"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE((c.opener.empty() ? "text area" : c.opener) + " > " + c.item);
    const std::string opener =
        c.opener.empty() ? column("mousepad", "MATCH (t:TextArea) RETURN t.id", "t.id").at(0) : c.opener;
    results("mousepad", "CALL ui.menu('" + opener + "')");
    // The report waits for the menu this call opened, not the one closed a moment ago.
    ASSERT_FALSE(column("mousepad", openMenus, "m.id").empty()) << "the menu did not open";
    // The item of the menu that opened, not its namesake in a closed menu of the menu bar.
    const std::string menu = c.opener.empty() ? "(o:Menu)" : "(o:MenuBarItem {name: '" + c.opener + "'})";
    results("mousepad", "MATCH " + menu + "-[:CHILD*1..3]->(m:MenuItem {name: '" + c.item + "'}) SET m.pressed = true");
    EXPECT_TRUE(eventually([&] { return editorText() == c.text; })) << editorText();
    EXPECT_EQ(column("mousepad", openMenus, "m.id"), std::vector<std::string>{});
    EXPECT_EQ(client_->call("windows", JSONValue::Object{{"name", "mousepad"}}).asArray()->size(), 1u);
  }
}

TEST_F(ProceduresDesktopTest, TypingThatShowsOnlyInItsEffectCarriesNoNote) {
  auto typed = results("galculator", "CALL ui.key('escape'); CALL ui.type('12+34=')").back();
  EXPECT_NE(core::jsonText(typed).find("46"), std::string::npos) << core::jsonText(typed);
  EXPECT_EQ(typed.find("notes"), nullptr) << core::jsonText(typed);
  // The same sum again leaves the display as it was: nothing shows the keys.
  auto again = results("galculator", "CALL ui.type('12+34=')").back();
  EXPECT_NE(core::jsonText(again).find("could not be seen"), std::string::npos) << core::jsonText(again);
}

}  // namespace
}  // namespace glimmerstrand::testing
