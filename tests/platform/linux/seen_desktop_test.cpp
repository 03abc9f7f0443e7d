// What the copy of a real application holds is what a person sees: a dialog
// reads as a sheet of the window it belongs to and leaves that window's ids
// alone, hidden widgets and toolkit class names stay out, and a field of a
// Qt window in the background takes the focus. GTK3, GTK4 and Qt editors on a
// headless desktop with a window manager, driven through the line protocol.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "core/json_value.h"
#include "platform/desktop_suite.h"

namespace glimmerstrand::platform::linux_desktop {
namespace {

using core::JSONValue;
using glimmerstrand::testing::LineClient;

class SeenDesktopTest : public glimmerstrand::testing::DesktopSuite {
 protected:
  static void SetUpTestSuite() {
    startSuite({"mousepad", "gedit", "featherpad", "gnome-text-editor --standalone"});
    client_ = lineClient();
  }
  static void TearDownTestSuite() {
    client_.reset();
    endSuite();
  }

  // The reply to statements on one application, as JSON text.
  static std::string run(const std::string& app, const std::string& statements) {
    return core::jsonText(
        client_->reply("cypher", JSONValue::Object{{"cypher", statements}, {"app", JSONValue::Object{{"name", app}}}}));
  }

  // The one value a statement returns under `column`, as JSON text.
  static std::string value(const std::string& app, const std::string& statement, const std::string& column) {
    const auto rows = glimmerstrand::testing::cypherRows(*client_, app, statement);
    if (rows.size() != 1) throw std::runtime_error("not one row: " + statement);
    return core::jsonText(*rows.front().find(column));
  }

  inline static std::unique_ptr<LineClient> client_;
};

TEST_F(SeenDesktopTest, ADialogIsASheetOfItsWindowWhoseIdsSurviveIt) {
  const struct {
    std::string app, opens, title;
    int rounds;
  } cases[] = {
      {"mousepad", "ctrl+s", "Save As", 10},
      {"gedit", "ctrl+shift+s", "Save As", 10},
      {"featherpad", "ctrl+o", "Open file...", 10},
      {"gnome-text-editor", "ctrl+shift+s", "Save As", 3},  // GTK4: the dialog is a filler at the top
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.app);
    const std::string area = value(c.app, "MATCH (t:TextArea) RETURN t.id", "t.id");
    const std::string window = value(c.app, "MATCH (w:Window) RETURN w.id", "w.id");
    for (int round = 0; round < c.rounds; ++round) {
      SCOPED_TRACE(round);
      const std::string opened =
          run(c.app, "CALL ui.key('" + c.opens + "'); CALL ui.wait_for(\"MATCH (s:Sheet) RETURN s.name\", 5000)");
      // Told by the key's report, or, where the dialog took longer than the
      // settle, by the read after it.
      EXPECT_NE(opened.find(c.title), std::string::npos) << opened;
      EXPECT_EQ(opened.find(" closed ("), std::string::npos) << opened;
      // The window is still the one window, with the dialog inside it.
      EXPECT_EQ(value(c.app, "MATCH (w:Window) RETURN w.id", "w.id"), window);
      EXPECT_EQ(value(c.app, "MATCH (w:Window)-[:CHILD]->(s:Sheet) RETURN s.name", "s.name"), '"' + c.title + '"');
      const std::string closed = run(c.app, "CALL ui.key('escape')");
      EXPECT_NE(closed.find("- Sheet \\\"" + c.title + "\\\" closed ("), std::string::npos) << closed;
      EXPECT_EQ(value(c.app, "MATCH (t:TextArea) RETURN t.id", "t.id"), area);
    }
  }
}

TEST_F(SeenDesktopTest, HiddenWidgetsAndClassNamesStayOutOfTheCopy) {
  // Each text is in the application's tree, out of sight or a class name.
  const struct {
    std::string app, text;
  } hidden[] = {
      {"gedit", "Leave Fullscreen"},
      {"gnome-text-editor", "AdwGizmo"},
      {"gnome-text-editor", "AdwTabBox"},
      {"gnome-text-editor", "GtkStackPage"},
      {"gnome-text-editor", "EditorSourceView"},
      {"gnome-text-editor", "Could Not Open File"},  // an info bar that is not revealed
  };
  for (const auto& h : hidden) {
    SCOPED_TRACE(h.app + ": " + h.text);
    EXPECT_EQ(value(h.app, "MATCH (n:Element) WHERE n.text CONTAINS '" + h.text + "' RETURN count(n) AS c", "c"), "0");
  }
  // What is on screen is there: the editors' text areas and header buttons.
  EXPECT_EQ(value("gnome-text-editor", "MATCH (n:TextArea) RETURN count(n) AS c", "c"), "1");
  EXPECT_EQ(value("gedit", "MATCH (n:Button {name:'Open'}) RETURN count(n) AS c", "c"), "1");
  EXPECT_EQ(value("gedit", "MATCH (n:Button {name:'Close'}) RETURN count(n) AS c", "c"), "1");
}

TEST_F(SeenDesktopTest, AFileChooserShowsNoPlaceClutter) {
  run("mousepad", "CALL ui.key('ctrl+s')");
  EXPECT_EQ(value("mousepad", "MATCH (s:Sheet)-[:CHILD*1..12]->(n) WHERE n.name = 'Save' RETURN count(n) AS c", "c"),
            "1");
  for (const std::string clutter : {"Unmount", "Spinner"})
    EXPECT_EQ(value("mousepad", "MATCH (n:Element) WHERE n.text CONTAINS '" + clutter + "' RETURN count(n) AS c", "c"),
              "0")
        << clutter;
  run("mousepad", "CALL ui.key('escape')");
}

// The name of the application whose window is active, from ui.apps.
std::string activeApplication(const std::string& apps) {
  const auto active = apps.find(R"("active":true)");
  if (active == std::string::npos) return "";
  const auto name = apps.rfind(R"({"name":")", active);
  return apps.substr(name + 9, apps.find('"', name + 9) - name - 9);
}

TEST_F(SeenDesktopTest, AFieldOfAQtWindowBehindAnotherTakesTheFocusAndTheKeys) {
  run("mousepad", "CALL ui.window(0)");  // to the front, over the Qt editor
  const std::string front = activeApplication(run("mousepad", "CALL ui.apps()"));
  ASSERT_EQ(front, "mousepad");
  const std::string reply =
      run("featherpad", "MATCH (t:TextArea) SET t.focused = true; CALL ui.type('typed behind another window')");
  EXPECT_EQ(reply.find(R"("error")"), std::string::npos) << reply;
  EXPECT_NE(value("featherpad", "MATCH (t:TextArea) RETURN t.value", "t.value").find("typed behind another window"),
            std::string::npos);
  EXPECT_EQ(activeApplication(run("mousepad", "CALL ui.apps()")), front) << "the window in front stays in front";
}

}  // namespace
}  // namespace glimmerstrand::platform::linux_desktop
