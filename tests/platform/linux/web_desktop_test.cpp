// Pages in Chromium and Firefox through the same mirror, on a headless
// desktop with a window manager: a form filled and sent to a server this test
// runs on loopback, a link followed, and a tab behind left out. What the
// server received is read from its own log, outside our code.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "page_server.h"
#include "platform/x11_desktop.h"
#include "support/line_client.h"

namespace glimmerstrand::testing {
namespace {

using core::JSONValue;

const char* const formPage = R"(<!doctype html>
<html lang="en"><head><meta charset="utf-8"><title>Order form</title></head><body>
<header><h1>Order a shirt</h1></header>
<nav aria-label="Site"><a href="next.html">Next page</a></nav>
<main><form action="received.html" method="get">
<p><label for="name">Name</label> <input id="name" name="name"></p>
<p><label for="note">Note</label> <textarea id="note" name="note"></textarea></p>
<p><label for="size">Size</label> <select id="size" name="size"><option>Small</option><option>Medium</option>
<option>Large</option></select></p>
<p><label for="qty">Quantity</label> <input id="qty" name="qty" type="number" value="1"></p>
<p><label for="arrival">Arrival</label> <input id="arrival" name="arrival" type="date"></p>
<p><label for="fitting">Fitting</label> <input id="fitting" name="fitting" type="datetime-local"></p>
<p><label for="pickup">Pickup</label> <input id="pickup" name="pickup" type="time"></p>
<p><input id="gift" name="gift" type="checkbox"><label for="gift">Gift wrap</label></p>
<fieldset><legend>Colour</legend>
<input id="red" type="radio" name="colour" value="red"><label for="red">Red</label>
<input id="blue" type="radio" name="colour" value="blue"><label for="blue">Blue</label></fieldset>
<button type="submit">Send order</button>
</form></main></body></html>)";

// A field that the page makes anew, as a re-render or a reload does.
const char* const replacedPage = R"(<!doctype html>
<html lang="en"><head><meta charset="utf-8"><title>Replaced</title></head><body><h1>Replaced</h1>
<p id="p"><label for="who">Who</label> <input id="who"></p>
<button onclick="const p = document.getElementById('p'); p.innerHTML = p.innerHTML">Make anew</button>
</body></html>)";

class WebDesktopTest : public ::testing::TestWithParam<std::string> {
 protected:
  static void SetUpTestSuite() {
    folder_ = std::filesystem::temp_directory_path() / ("glimmerstrand-web-" + std::to_string(::getpid()));
    std::filesystem::create_directories(folder_);
    server_ =
        new PageServer(folder_, {{"form.html", formPage},
                                 {"next.html", "<!doctype html><title>Next</title><h1>The next page</h1>"},
                                 {"received.html", "<!doctype html><title>Received</title><h1>Order received</h1>"},
                                 {"long.html", priceListPage(1000)},
                                 {"replaced.html", replacedPage}});
    desktop_ = startDesktop(
        {"chromium --no-first-run " + server_->url("form.html"), "firefox-esr " + server_->url("form.html")}, problem_);
  }
  static void TearDownTestSuite() { endBrowserSuite(desktop_, server_, folder_); }
  void SetUp() override {
    ASSERT_NE(desktop_, nullptr) << "the desktop did not start: " << problem_;
    client_ = std::make_unique<LineClient>(GLIMMERSTRAND_NATIVE_BINARY,
                                           std::map<std::string, std::string>{{"GLIMMERSTRAND_PLATFORM", "linux"}});
    ASSERT_TRUE(openForm()) << "the form did not load in " << GetParam();
  }

  const std::string& browser() const { return GetParam(); }
  std::vector<JSONValue> results(const std::string& script) { return cypherResults(*client_, browser(), script); }
  std::vector<std::string> column(const std::string& read, const std::string& name) {
    return cypherColumn(*client_, browser(), read, name);
  }
  std::string heading() {
    auto names = column("MATCH (h:Heading) RETURN h.name", "h.name");
    return names.empty() ? "" : names.front();
  }

  // A page's address typed into the address bar as a person does; true once
  // the page's heading reads `heading`.
  bool goTo(const std::string& page, const std::string& heading, const std::string& last = "") {
    const std::string bar = browser() == "chromium" ? "(a:TextField {name: 'Address and search bar'})" : "(a:ComboBox)";
    const auto before = column("MATCH (w:WebArea) RETURN w.id", "w.id");
    results("MATCH " + bar + " SET a.value = '" + server_->url(page) + "'; CALL ui.key('return')");
    // Until the load begins, the copy may still hold the page this load
    // replaces, the very same page when it is loaded again: the loaded one is
    // a document the copy did not hold before.
    return eventually(
        [&] {
          const auto pages = column("MATCH (w:WebArea) RETURN w.id", "w.id");
          const bool loaded = std::any_of(pages.begin(), pages.end(), [&](const std::string& id) {
            return std::find(before.begin(), before.end(), id) == before.end();
          });
          return loaded && this->heading() == heading &&
                 column("MATCH (w:WebArea {name: 'Omnibox Popup'}) RETURN w.id", "w.id").empty() &&
                 (last.empty() || !column("MATCH (b:Button {name: '" + last + "'}) RETURN b.id", "b.id").empty());
        },
        std::chrono::seconds(15));
  }
  // Each test starts on a freshly loaded form: Firefox builds a reloaded
  // page's tree after its heading, so the form's last button tells.
  bool openForm() { return goTo("form.html", "Order a shirt", "Send order"); }

  static std::filesystem::path folder_;
  static PageServer* server_;
  static TestDesktop* desktop_;
  static std::string problem_;
  std::unique_ptr<LineClient> client_;
};

std::filesystem::path WebDesktopTest::folder_;
PageServer* WebDesktopTest::server_ = nullptr;
TestDesktop* WebDesktopTest::desktop_ = nullptr;
std::string WebDesktopTest::problem_;

TEST_P(WebDesktopTest, EachFormControlIsSetReadBackAndSent) {
  struct Case {
    std::string write;   // a statement that sets one control
    std::string read;    // a read of what it holds now
    std::string holds;   // what the read returns
    std::string posted;  // what the server receives for it
  };
  const Case cases[] = {
      {"MATCH (f:TextField {name: 'Name'}) SET f.value = 'Ada'", "MATCH (f:TextField {name: 'Name'}) RETURN f.value",
       "Ada", "name=Ada"},
      {"MATCH (f:TextArea {name: 'Note'}) SET f.value = 'By Friday'",
       "MATCH (f:TextArea {name: 'Note'}) RETURN f.value", "By Friday", "note=By+Friday"},
      {"MATCH (s:PopUpButton {name: 'Size'}) SET s.value = 'Large'",
       "MATCH (s:PopUpButton {name: 'Size'}) RETURN s.value", "Large", "size=Large"},
      {"MATCH (q:Incrementor {name: 'Quantity'}) SET q.value = 3",
       "MATCH (q:Incrementor {name: 'Quantity'}) RETURN q.value", "3", "qty=3"},

      // A whole date goes into the field's parts, which read back as what
      // they hold only in Chromium: the server tells.
      {"MATCH (d:DateField {name: 'Arrival'}) SET d.value = '2027-01-05'",
       "MATCH (d:DateField {name: 'Arrival'}) RETURN d.name", "Arrival", "arrival=2027-01-05"},
      // With its time, and a time alone, in 12-hour parts; Firefox shows a
      // time field as a group.
      {"MATCH (d:DateField {name: 'Fitting'}) SET d.value = '2027-01-05T15:30'",
       "MATCH (d:DateField {name: 'Fitting'}) RETURN d.name", "Fitting", "fitting=2027-01-05T15%3A30"},
      {"MATCH (d) WHERE d.name = 'Pickup' AND d.role IN ['DateField', 'Group'] SET d.value = '09:05'",
       "MATCH (d) WHERE d.name = 'Pickup' AND d.role IN ['DateField', 'Group'] RETURN d.name", "Pickup",
       "pickup=09%3A05"},
      {"MATCH (c:CheckBox {name: 'Gift wrap'}) SET c.pressed = true",
       "MATCH (c:CheckBox {name: 'Gift wrap'}) RETURN c.value", "1", "gift=on"},
      {"MATCH (r:RadioButton {name: 'Blue'}) SET r.pressed = true",
       "MATCH (r:RadioButton {name: 'Blue'}) RETURN r.value", "1", "colour=blue"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.write);
    results(c.write);
    const auto name = c.read.substr(c.read.rfind("RETURN ") + 7);
    EXPECT_TRUE(eventually([&] { return column(c.read, name) == std::vector<std::string>{c.holds}; }))
        << (column(c.read, name).empty() ? "nothing" : column(c.read, name).front());
  }
  // The press waits for the page it loads, and the report shows it.
  const auto sent = results("MATCH (b:Button {name: 'Send order'}) SET b.pressed = true").back();
  EXPECT_NE(core::jsonText(sent).find("Order received"), std::string::npos) << core::jsonText(sent);
  const std::string log = server_->log();
  const auto request = log.rfind("GET /received.html?");
  ASSERT_NE(request, std::string::npos) << log;
  const std::string query = log.substr(request, log.find(' ', request + 4) - request);
  for (const auto& c : cases) EXPECT_NE(query.find(c.posted), std::string::npos) << c.posted << " in " << query;
}

TEST_P(WebDesktopTest, ALinkPressedReportsTheNewPage) {
  const auto followed = results("MATCH (l:Link {name: 'Next page'}) SET l.pressed = true").back();
  EXPECT_NE(core::jsonText(followed).find("The next page"), std::string::npos) << core::jsonText(followed);
  EXPECT_EQ(heading(), "The next page");
  EXPECT_EQ(column("MATCH (w:WebArea) RETURN w.name", "w.name"), std::vector<std::string>{"Next"});
  EXPECT_EQ(column("MATCH (w:WebArea) RETURN w.url", "w.url"), std::vector<std::string>{server_->url("next.html")});
}

// A reference taken before the page made its field anew still resolves (the
// copy keeps its generation), but the browser has let the element go: Chromium
// no longer knows its object, Firefox marks it defunct. Both answer "stale".
TEST_P(WebDesktopTest, AnActOnAFieldThePageMadeAnewIsStale) {
  ASSERT_TRUE(goTo("replaced.html", "Replaced"));
  auto field = [&] {
    const auto copy =
        client_->call("axSnapshot", JSONValue::Object{{"name", browser()}, {"all", true}, {"fresh", true}});
    for (const auto& node : *copy.find("nodes")->asArray())
      if (core::optionalString(node, "role") == "AXTextField" && core::optionalString(node, "title") == "Who")
        return JSONValue::Object{{"pid", *core::optionalInt(copy, "pid")},
                                 {"generation", *core::optionalInt(copy, "generation")},
                                 {"i", *core::optionalInt(node, "i")},
                                 {"uid", *core::optionalInt(node, "uid")}};
    return JSONValue::Object{};
  };
  auto old = field();
  ASSERT_FALSE(old.empty());
  results("MATCH (b:Button {name: 'Make anew'}) SET b.pressed = true");
  EXPECT_TRUE(eventually([&] {
    auto now = field();
    return !now.empty() && now.back() != old.back();
  })) << "the copy shows the new field";
  old.pop_back();  // by generation and index, which outlive the walk
  for (const char* operation : {"focus", "setValue"}) {
    auto params = old;
    params.emplace_back("text", "Ada");
    const auto reply = client_->reply(operation, params);
    const auto* error = reply.find("error");
    ASSERT_NE(error, nullptr) << operation << ": " << core::jsonText(reply);
    EXPECT_EQ(core::optionalString(*error, "code").value_or(""), "stale") << operation << ": " << core::jsonText(reply);
  }
}

TEST_P(WebDesktopTest, ATabBehindIsNotInTheMirror) {
  results("CALL ui.key('ctrl+t')");
  // The new tab's own page may have a heading of its own (Firefox's has).
  std::vector<std::string> pages;
  EXPECT_TRUE(eventually(
      [&] {
        pages = column("MATCH (w:WebArea) RETURN w.name", "w.name");
        return pages.size() == 1 && pages.front() != "Order form";
      },
      std::chrono::seconds(10)))
      << pages.size() << " pages; the first is " << (pages.empty() ? "none" : pages.front());
  EXPECT_EQ(column("MATCH (f:TextField {name: 'Name'}) RETURN f.id", "f.id"), std::vector<std::string>{})
      << "the form's page is still in the copy behind the new tab";
  results("CALL ui.key('ctrl+w')");
  EXPECT_TRUE(eventually([&] { return heading() == "Order a shirt"; }, std::chrono::seconds(10)));
}

TEST_P(WebDesktopTest, APageReadsWithItsWebRoles) {
  EXPECT_EQ(column("MATCH (h:Heading) RETURN h.value", "h.value"), std::vector<std::string>{"1"});
  EXPECT_EQ(column("MATCH (l:Link) RETURN l.url", "l.url"), std::vector<std::string>{server_->url("next.html")});
  EXPECT_EQ(column("MATCH (g:Group {subrole: 'LandmarkNavigation'}) RETURN g.name", "g.name"),
            std::vector<std::string>{"Site"});
  EXPECT_EQ(column("MATCH (s:PopUpButton) RETURN s.name", "s.name"), std::vector<std::string>{"Size"});
  // No container reads as the characters that stand for its children.
  EXPECT_EQ(column("MATCH (n) WHERE n.value CONTAINS '\uFFFC' RETURN n.id", "n.id"), std::vector<std::string>{});
}

// A long page narrows to the rows in view, and the mirror, kept by events
// since the page loaded, holds what a walk made now finds.
TEST_P(WebDesktopTest, ALongPagesMirrorIsADirectWalkOfWhatIsInView) {
  ASSERT_TRUE(goTo("long.html", "Price list"));
  auto page = [](const JSONValue& nodes) {
    std::vector<std::string> lines;
    bool inside = false;
    for (const auto& node : *nodes.asArray()) {
      const std::string role = core::optionalString(node, "role").value_or("");
      inside = inside || role == "AXWebArea";
      if (inside)
        lines.push_back(role + " " + core::optionalString(node, "title").value_or("") + " " +
                        core::optionalString(node, "value").value_or(""));
    }
    return lines;
  };
  const JSONValue app = JSONValue::Object{{"name", browser()}};
  std::vector<std::string> mirrored, walked;
  // The page may still be laid out: both are read until they agree.
  EXPECT_TRUE(eventually(
      [&] {
        mirrored =
            page(*client_->call("axSnapshot", JSONValue::Object{{"name", browser()}, {"all", true}}).find("nodes"));
        walked = page(*client_->call("axTree", app).find("nodes"));
        return mirrored == walked;
      },
      std::chrono::seconds(10)))
      << mirrored.size() << " mirrored, " << walked.size() << " walked; first apart: " << [&] {
           std::size_t k = 0;
           while (k < mirrored.size() && k < walked.size() && mirrored[k] == walked[k]) ++k;
           return (k < mirrored.size() ? mirrored[k] : "(end)") + " | " + (k < walked.size() ? walked[k] : "(end)") +
                  " at " + std::to_string(k);
         }();
  const auto cells =
      std::count_if(mirrored.begin(), mirrored.end(), [](const auto& l) { return l.starts_with("AXCell"); });
  EXPECT_GT(cells, 10) << "the rows in view";
  EXPECT_LT(cells, 400) << "no more than the rows in view and near it";
  const std::string id = column("MATCH (t:Table) RETURN t.id", "t.id").at(0);
  EXPECT_NE(core::jsonText(results("CALL ui.tree('" + id + "')").back()).find("more items off screen"),
            std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Browsers, WebDesktopTest, ::testing::Values("chromium", "firefox-esr"),
                         [](const auto& info) { return info.param == "chromium" ? "Chromium" : "Firefox"; });

}  // namespace
}  // namespace glimmerstrand::testing
