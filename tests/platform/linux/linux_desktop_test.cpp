// The linux platform against real GTK3, GTK4 and Qt applications on a headless
// desktop of the test's own: walks, actions through the daemon's line
// protocol, the mirror's partial walks, window geometry from X, and a frozen
// application.
#include <signal.h>

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <thread>

#include "mirror/app_mirror.h"
#include "platform/desktop_suite.h"
#include "platform/linux/x11_connection.h"

// Last: its macros (None, Bool) clash with names in the headers above.
#include <X11/Xlib.h>

namespace glimmerstrand::platform::linux_desktop {
namespace {

using core::JSONValue;
using glimmerstrand::testing::LineClient;

const std::string formApp = GLIMMERSTRAND_SOURCE_DIR "/tests/platform/linux/data/form_app.py";

// The same reads without the batching a prefetch allows.
class NoPrefetch final : public AccessibilityWrapper {
 public:
  using AccessibilityWrapper::AccessibilityWrapper;
  void prefetch(const std::vector<Element>&, const std::vector<std::string>&) override {}
};

class LinuxDesktopTest : public glimmerstrand::testing::DesktopSuite {
 protected:
  static void SetUpTestSuite() {
    startSuite({"gtk3-widget-factory", "gnome-calculator", "galculator", "speedcrunch", formApp}, false);
    startPlatform(true);
  }
  static void TearDownTestSuite() { endSuite(); }

  // Runs a statement against the application named; the whole reply.
  static JSONValue cypher(LineClient& client, const std::string& app, const std::string& statement) {
    return client.reply("cypher", JSONValue::Object{{"cypher", statement}, {"app", JSONValue::Object{{"name", app}}}});
  }

  static std::string onlyId(LineClient& client, const std::string& app, const std::string& match) {
    const auto rows = glimmerstrand::testing::cypherRows(client, app, match + " RETURN n.id");
    if (rows.size() != 1) throw std::runtime_error("not one row: " + match);
    return *rows.front().find("n.id")->asString();
  }
};

TEST_F(LinuxDesktopTest, BatchedWalkEqualsTheElementByElementRead) {
  for (std::string app : {"gtk3-widget-factory", "gnome-calculator", "galculator", "speedcrunch", "form_app.py"}) {
    SCOPED_TRACE(app);
    auto& ax = platform_->accessibility();
    NoPrefetch plain(ax);
    Element root = ax.applicationElement(desktop_->pid(app));
    auto batched = native::walkTree(ax, root, "window", 64, 10000);
    auto oneByOne = native::walkTree(plain, root, "window", 64, 10000);
    ASSERT_GT(batched.nodes.size(), 5u);
    EXPECT_EQ(batched.incomplete, 0);
    ASSERT_EQ(batched.nodes.size(), oneByOne.nodes.size());
    for (std::size_t n = 0; n < batched.nodes.size(); ++n) {
      const auto& a = batched.nodes[n];
      const auto& b = oneByOne.nodes[n];
      EXPECT_EQ(batched.elements[n], oneByOne.elements[n]) << n;
      EXPECT_EQ(a.role, b.role) << n;
      EXPECT_EQ(a.title, b.title) << n;
      EXPECT_EQ(a.description, b.description) << n;
      EXPECT_EQ(a.frame, b.frame) << n;
      EXPECT_EQ(a.parent, b.parent) << n;
      // Progress bars and spinners animate between the two walks.
      if (a.role != "AXProgressIndicator" && a.role != "AXBusyIndicator") {
        EXPECT_EQ(a.value, b.value) << n;
      }
    }
  }
}

TEST_F(LinuxDesktopTest, ReadsMapRolesValuesAndStates) {
  auto client = lineClient();
  auto reply = cypher(*client, "form_app.py",
                      "MATCH (n) WHERE n.role IN ['TextField', 'CheckBox'] RETURN n.role, n.name, n.value, "
                      "n.enabled ORDER BY n.y");
  auto rows = core::jsonText(*reply.find("result")->find("results")->asArray()->front().find("rows"));
  EXPECT_EQ(rows, R"([{"n.role":"TextField","n.name":null,"n.value":"start","n.enabled":true},)"
                  R"({"n.role":"CheckBox","n.name":"Subscribe","n.value":"0","n.enabled":true},)"
                  R"({"n.role":"CheckBox","n.name":"Locked","n.value":"0","n.enabled":false}])");
}

TEST_F(LinuxDesktopTest, PressingACheckBoxReportsTheChangeAndADisabledOneIsRefused) {
  auto client = lineClient();
  const auto id = onlyId(*client, "form_app.py", "MATCH (n:CheckBox {name: 'Subscribe'})");
  auto pressed = cypher(*client, "form_app.py", "MATCH (c {id: '" + id + "'}) SET c.pressed = true");
  auto changes = core::jsonText(*pressed.find("result")->find("results")->asArray()->front().find("changes"));
  EXPECT_NE(changes.find("~ " + id + " CheckBox \\\"Subscribe\\\" = \\\"1\\\" (was \\\"0\\\")"), std::string::npos)
      << changes;

  const auto locked = onlyId(*client, "form_app.py", "MATCH (n:CheckBox {name: 'Locked'})");
  auto refused = cypher(*client, "form_app.py", "MATCH (c {id: '" + locked + "'}) SET c.pressed = true");
  auto text = core::jsonText(refused);
  EXPECT_NE(text.find("押せませんでした"), std::string::npos) << text;
  auto after = cypher(*client, "form_app.py", "MATCH (c {id: '" + locked + "'}) RETURN c.value");
  EXPECT_NE(core::jsonText(after).find(R"("c.value":"0")"), std::string::npos);
}

// GTK 3 keeps a pop-up's options in a menu hidden until it opens; the value
// is chosen among them by name without opening it.
TEST_F(LinuxDesktopTest, APopUpTakesItsOptionByNameAndRefusesOneItDoesNotHave) {
  auto client = lineClient();
  const auto id = onlyId(*client, "gtk3-widget-factory", "MATCH (n:PopUpButton {value: 'Left'})");
  auto set = [&](const std::string& option) {
    return core::jsonText(
        cypher(*client, "gtk3-widget-factory", "MATCH (p {id: '" + id + "'}) SET p.value = '" + option + "'"));
  };
  const auto chosen = set("Right");
  EXPECT_NE(chosen.find("~ " + id + " PopUpButton = \\\"Right\\\" (was \\\"Left\\\")"), std::string::npos) << chosen;
  const auto refused = set("Upwards");
  EXPECT_NE(refused.find("No option here is named"), std::string::npos) << refused;
  EXPECT_NE(set("Left").find("(was \\\"Right\\\")"), std::string::npos);
}

TEST_F(LinuxDesktopTest, ATextValueArrivesInABackgroundWindowWithoutMovingTheFocus) {
  const auto focusBefore = glimmerstrand::testing::inputFocus();

  auto client = lineClient();
  const auto id = onlyId(*client, "form_app.py", "MATCH (n:TextField)");
  auto set = cypher(*client, "form_app.py", "MATCH (t {id: '" + id + "'}) SET t.value = 'typed here'");
  auto changes = core::jsonText(*set.find("result")->find("results")->asArray()->front().find("changes"));
  EXPECT_NE(changes.find("~ " + id + " TextField = \\\"typed here\\\""), std::string::npos) << changes;

  // Read back straight from the application, not from the mirror.
  auto& ax = platform_->accessibility();
  auto fields = native::walkTree(ax, ax.applicationElement(desktop_->pid("form_app.py")), "window", 64, 10000);
  bool found = false;
  for (const auto& node : fields.nodes) found = found || (node.role == "AXTextField" && node.value == "typed here");
  EXPECT_TRUE(found);

  EXPECT_EQ(focusBefore, glimmerstrand::testing::inputFocus());
}

TEST_F(LinuxDesktopTest, OneChangedFieldIsReadAloneByAPartialWalk) {
  auto client = lineClient();
  const auto id = onlyId(*client, "form_app.py", "MATCH (n:TextField)");
  auto snapshot = [&] {
    return *client->reply("axSnapshot", JSONValue::Object{{"name", "form_app.py"}}).find("result");
  };
  // Polls until `done` holds for a snapshot; gives the last one either way.
  auto until = [&](auto done) {
    JSONValue last = snapshot();
    for (int attempt = 0; attempt < 100 && !done(last); ++attempt) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      last = snapshot();
    }
    return last;
  };
  // A change made before the mirror listens is only seen by a full walk:
  // wait until every notification is registered and the walks have stopped.
  auto settled = until([&, previous = std::int64_t{-1}](const JSONValue& s) mutable {
    const auto generation = core::optionalInt(s, "generation").value_or(0);
    const bool quiet = core::optionalInt(s, "unregisteredNotifications") == 0 && generation == previous;
    previous = generation;
    return quiet;
  });
  const auto partialsBefore = core::optionalInt(settled, "partialWalks").value_or(0);

  cypher(*client, "form_app.py", "MATCH (t {id: '" + id + "'}) SET t.value = 'partial'");
  // The trailing walk that follows looks again at the field's parent, which
  // here holds most of the window and so is walked whole: count the partial
  // walk itself rather than the last walk's kind.
  auto result =
      until([&](const JSONValue& s) { return core::optionalInt(s, "partialWalks").value_or(0) > partialsBefore; });
  EXPECT_EQ(core::optionalInt(result, "partialWalks"), partialsBefore + 1);
  EXPECT_EQ(core::optionalInt(result, "partialNodes"), 1);
}

TEST_F(LinuxDesktopTest, AFrozenApplicationHoldsUpNoOtherAndKeepsItsLastCopy) {
  auto client = lineClient();
  const auto before = cypher(*client, "galculator", "MATCH (n) RETURN count(n) AS nodes");
  const pid_t frozen = desktop_->pid("galculator");
  ::kill(frozen, SIGSTOP);
  auto other = cypher(*client, "form_app.py", "MATCH (c:CheckBox) RETURN c.name");
  auto stale = client->reply("axSnapshot", JSONValue::Object{{"name", "galculator"}});
  ::kill(frozen, SIGCONT);

  EXPECT_EQ(other.find("ok")->asBool() ? *other.find("ok")->asBool() : false, true) << core::jsonText(other);
  ASSERT_TRUE(stale.find("result")) << core::jsonText(stale);
  EXPECT_FALSE(stale.find("result")->find("nodes")->asArray()->empty());
  EXPECT_NE(core::jsonText(before).find("nodes"), std::string::npos);
}

TEST_F(LinuxDesktopTest, WindowMovesAndResizesComeFromTheXServer) {
  auto& ax = platform_->accessibility();
  const auto pid = desktop_->pid("form_app.py");
  std::mutex lock;
  std::vector<std::string> seen;
  auto observer = ax.createObserver(pid, [&](const Element&, const std::string& name) {
    std::lock_guard guard(lock);
    seen.push_back(name);
  });
  ASSERT_TRUE(observer.ok());
  const Element app = ax.applicationElement(pid);
  for (const char* name : {"AXMoved", "AXResized"})
    ASSERT_EQ(ax.addNotification(*observer.value, app, name), AxError::success);

  XConnection* x = openX11();
  ASSERT_NE(x, nullptr);
  const auto window = topWindowOf(x, pid);
  ASSERT_TRUE(window);
  auto told = [&](const std::string& name) {
    std::lock_guard guard(lock);
    return std::find(seen.begin(), seen.end(), name) != seen.end();
  };
  // The watch learns where windows are on the main loop, after it is made: it
  // is ready once a move of the window is told.
  int moves = 0;
  ASSERT_TRUE(glimmerstrand::testing::eventually([&] {
    XMoveWindow(x, window->window, 10 + moves++ % 2, 10);
    XFlush(x);
    return told("AXMoved");
  })) << "no move was told";
  const struct {
    const char* expected;
    void (*change)(XConnection*, XWindowId);
  } changes[] = {
      {"AXMoved", [](XConnection* c, XWindowId w) { XMoveWindow(c, w, 37, 41); }},
      {"AXResized", [](XConnection* c, XWindowId w) { XResizeWindow(c, w, 420, 610); }},
  };
  for (const auto& change : changes) {
    SCOPED_TRACE(change.expected);
    {
      std::lock_guard guard(lock);
      seen.clear();
    }
    change.change(x, window->window);
    XFlush(x);
    EXPECT_TRUE(glimmerstrand::testing::eventually([&] { return told(change.expected); }));
  }
  closeX11(x);
  ax.removeObserver(*observer.value);
}

TEST_F(LinuxDesktopTest, TheMenuBarInsideTheWindowIsTheApplicationsMenu) {
  auto client = lineClient();
  auto rows = [&](const std::string& statement) {
    auto reply = cypher(*client, "galculator", statement);
    const JSONValue* results = reply.find("result") ? reply.find("result")->find("results") : nullptr;
    return results ? core::jsonText(*results->asArray()->back().find("rows")) : core::jsonText(reply);
  };
  EXPECT_EQ(rows("MATCH (m:AppMenuBarItem) RETURN m.name"),
            R"([{"m.name":"File"},{"m.name":"Edit"},{"m.name":"View"},{"m.name":"Calculator"},{"m.name":"Help"}])");
  // Pressed without opening the menu; the mode's check mark follows.
  const std::string checked = "MATCH (m:AppMenuItem) WHERE m.name ENDS WITH 'Mode' AND m.checked = true RETURN m.name";
  for (const char* mode : {"Paper Mode", "Basic Mode"}) {
    SCOPED_TRACE(mode);
    EXPECT_EQ(rows("MATCH (m:AppMenuItem {name:'" + std::string(mode) + "'}) SET m.pressed = true; " + checked),
              std::string(R"([{"m.name":")") + mode + R"("}])");
  }
}

// The procedures that act on one element or on the desktop, each on a real
// application: the reply is ok and shows what the procedure is about.
TEST_F(LinuxDesktopTest, ElementAndDesktopProceduresWorkOnARealApplication) {
  auto client = lineClient();
  const std::string field = onlyId(*client, "form_app.py", "MATCH (n:TextField)");
  const std::string box = onlyId(*client, "form_app.py", "MATCH (n:CheckBox {name:'Subscribe'})");
  // Earlier cases may have left the box either way: each press flips it.
  const std::string checkedBefore =
      core::jsonText(cypher(*client, "form_app.py", "MATCH (c:CheckBox {name:'Subscribe'}) RETURN c.value"));
  const std::string was = checkedBefore.find(R"("c.value":"1")") != std::string::npos ? "1" : "0";
  const std::string flipped = was == "1" ? "0" : "1";
  const struct {
    std::string statements;
    std::string shows;
  } cases[] = {
      {"CALL ui.tree()", "Subscribe"},
      {"CALL ui.inspect('" + box + "')", "AXPress"},
      {"CALL ui.set_value('" + field + "', 'set by procedure'); CALL ui.read('" + field + "')", "set by procedure"},
      {"CALL ui.focus('" + field + "'); MATCH (n:TextField) RETURN n.focused", R"("n.focused":true)"},
      {"CALL ui.press('" + box + "'); MATCH (c:CheckBox {name:'Subscribe'}) RETURN c.value",
       R"("c.value":")" + flipped + '"'},
      {"CALL ui.press('" + box + "'); MATCH (c:CheckBox {name:'Subscribe'}) RETURN c.value",
       R"("c.value":")" + was + '"'},
      {"CALL ui.hover('" + box + "')", R"("ok":true)"},
      {"CALL ui.windows()", "Form"},
      {"CALL ui.set_clipboard('copied by procedure'); CALL ui.clipboard()", "copied by procedure"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.statements);
    const std::string reply = core::jsonText(cypher(*client, "form_app.py", c.statements));
    EXPECT_NE(reply.find(R"("ok":true)"), std::string::npos) << reply;
    EXPECT_EQ(reply.find(R"("error")"), std::string::npos) << reply;
    EXPECT_NE(reply.find(c.shows), std::string::npos) << reply;
  }
}

}  // namespace
}  // namespace glimmerstrand::platform::linux_desktop
