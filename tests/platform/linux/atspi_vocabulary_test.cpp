// The AT-SPI vocabulary's tables: roles in context, toolkit names, actions
// and events, without a desktop.
#include <atspi/atspi-constants.h>
#include <gtest/gtest.h>

#include "platform/linux/atspi_attributes.h"
#include "platform/linux/atspi_reader.h"
#include "platform/linux/atspi_vocabulary.h"

namespace glimmerstrand::platform::linux_desktop {
namespace {

States withState(int state) { return States{std::uint64_t{1} << state}; }

TEST(AtspiVocabulary, RolesDependOnTheirContext) {
  struct Case {
    RoleContext context;
    std::string role, subrole;
  };
  const Case cases[] = {
      {{ATSPI_ROLE_MENU, {}, 0, ATSPI_ROLE_MENU_BAR, false, ""}, "AXMenuBarItem", ""},
      {{ATSPI_ROLE_MENU, {}, 0, ATSPI_ROLE_MENU, false, ""}, "AXMenuItem", ""},
      {{ATSPI_ROLE_MENU, {}, 0, std::nullopt, false, ""}, "AXMenu", ""},
      {{ATSPI_ROLE_COMBO_BOX, {}, 0, std::nullopt, true, ""}, "AXComboBox", ""},
      {{ATSPI_ROLE_COMBO_BOX, {}, 0, std::nullopt, false, ""}, "AXPopUpButton", ""},
      {{ATSPI_ROLE_TEXT, withState(ATSPI_STATE_MULTI_LINE), 0, std::nullopt, false, ""}, "AXTextArea", ""},
      {{ATSPI_ROLE_ENTRY, {}, 0, std::nullopt, false, ""}, "AXTextField", ""},
      {{ATSPI_ROLE_COLUMN_HEADER, {}, actionInterface, std::nullopt, false, ""}, "AXButton", "AXSortButton"},
      {{ATSPI_ROLE_COLUMN_HEADER, {}, 0, std::nullopt, false, ""}, "AXCell", ""},
      {{ATSPI_ROLE_TOGGLE_BUTTON, {}, 0, std::nullopt, false, ""}, "AXCheckBox", "AXToggle"},
      {{ATSPI_ROLE_DIALOG, {}, 0, std::nullopt, false, ""}, "AXWindow", "AXDialog"},
      {{ATSPI_ROLE_DIALOG, {}, 0, ATSPI_ROLE_APPLICATION, false, ""}, "AXWindow", "AXDialog"},
      {{ATSPI_ROLE_FRAME, {}, 0, ATSPI_ROLE_APPLICATION, false, ""}, "AXWindow", "AXStandardWindow"},
      {{ATSPI_ROLE_FILE_CHOOSER, {}, 0, ATSPI_ROLE_DIALOG, false, ""}, "AXGroup", ""},
      {{ATSPI_ROLE_WINDOW, {}, 0, ATSPI_ROLE_FRAME, false, ""}, "AXGroup", ""},
      {{ATSPI_ROLE_REDUNDANT_OBJECT, {}, 0, std::nullopt, false, ""}, "AXUnknown", ""},
      // A page's landmarks by the first of its roles that names one.
      {{ATSPI_ROLE_LANDMARK, {}, 0, std::nullopt, false, "navigation"}, "AXGroup", "AXLandmarkNavigation"},
      {{ATSPI_ROLE_LANDMARK, {}, 0, std::nullopt, false, "doc-toc main"}, "AXGroup", "AXLandmarkMain"},
      {{ATSPI_ROLE_LANDMARK, {}, 0, std::nullopt, false, "mainly"}, "AXGroup", ""},
      {{ATSPI_ROLE_DATE_EDITOR, {}, 0, std::nullopt, false, ""}, "AXDateField", ""},
  };
  for (const auto& c : cases) {
    auto role = axRole(c.context);
    EXPECT_EQ(role.role, c.role) << c.context.role;
    EXPECT_EQ(role.subrole, c.subrole) << c.context.role;
  }
}

// What a page's elements read as, beside a toolkit's own widgets.
TEST(AtspiVocabulary, PagesReadAsNativeWindowsDo) {
  auto record = [](std::uint32_t role, std::string name) {
    ElementRecord r;
    r.role = role;
    r.name = std::move(name);
    return r;
  };
  auto heading = record(ATSPI_ROLE_HEADING, "Order a shirt");
  heading.level = 2;
  auto select = record(ATSPI_ROLE_COMBO_BOX, "Size");
  select.choice = "Large";
  select.text = "\uFFFC";
  auto gtkCombo = record(ATSPI_ROLE_COMBO_BOX, "Large");
  gtkCombo.choice = "Medium";  // a GTK menu's selection is the item under the pointer
  auto paragraph = record(ATSPI_ROLE_PARAGRAPH, "");
  paragraph.text = "Read \uFFFC first";
  auto plain = record(ATSPI_ROLE_PARAGRAPH, "");
  plain.text = "Arrived.";
  auto editor = record(ATSPI_ROLE_ENTRY, "Note");
  editor.text = "a picture: \uFFFC";
  struct Case {
    const char* what;
    ElementRecord record;
    std::string toolkit, title, value;  // empty: absent
  };
  const Case cases[] = {
      {"a heading's value is its level", heading, "CHROMIUM", "Order a shirt", "2"},
      {"a select: its label, then its option", select, "CHROMIUM", "Size", "Large"},
      {"the same in Firefox", select, "GECKO", "Size", "Large"},
      {"a GTK pop-up is named by its choice", gtkCombo, "GTK", "", "Large"},
      {"a paragraph whose children hold its text", paragraph, "GECKO", "", ""},
      {"a paragraph of plain text", plain, "CHROMIUM", "", "Arrived."},
      {"a text field keeps what it holds", editor, "GECKO", "Note", "a picture: \uFFFC"},
  };
  auto text = [](const AxValue& value) {
    if (auto s = value.get<std::string>()) return *s;
    if (auto n = value.get<double>()) return std::to_string(static_cast<int>(*n));
    return std::string();
  };
  for (const auto& c : cases) {
    EXPECT_EQ(text(attributeValue(c.record, "AXTitle", c.toolkit)), c.title) << c.what;
    EXPECT_EQ(text(attributeValue(c.record, "AXValue", c.toolkit)), c.value) << c.what;
  }
}

TEST(AtspiVocabulary, ToolkitNamesAreCleanedOfWhatGtkAdds) {
  struct Case {
    std::string name;
    std::uint32_t role;
    std::string toolkit, cleaned;
  };
  const Case cases[] = {
      {"1 1", ATSPI_ROLE_PUSH_BUTTON, "GTK", "1"},
      {"_Retry Retry", ATSPI_ROLE_PUSH_BUTTON, "GTK", "Retry"},
      {"Open File Open File", ATSPI_ROLE_PUSH_BUTTON, "GTK", "Open File"},
      {"GtkButton", ATSPI_ROLE_PUSH_BUTTON, "GTK", ""},
      {"Save As", ATSPI_ROLE_PUSH_BUTTON, "GTK", "Save As"},
      {"1 1", ATSPI_ROLE_LABEL, "GTK", "1 1"},
      {"1 1", ATSPI_ROLE_PUSH_BUTTON, "Qt", "1 1"},
      // GTK4 names every unnamed widget after its class, libadwaita's and the
      // application's own too; a label keeps a one-word text.
      {"AdwGizmo", ATSPI_ROLE_FILLER, "GTK4", ""},
      {"EditorSourceView", ATSPI_ROLE_TEXT, "GTK4", ""},
      {"GtkStackPage", ATSPI_ROLE_PANEL, "GTK", ""},
      {"EditorSourceView", ATSPI_ROLE_TEXT, "GTK", "EditorSourceView"},
      {"LibreOffice", ATSPI_ROLE_LABEL, "GTK4", "LibreOffice"},
      {"Open", ATSPI_ROLE_PUSH_BUTTON, "GTK4", "Open"},
      {"_Discard… Discard…", ATSPI_ROLE_PUSH_BUTTON, "GTK4", "Discard…"},
      // Qt's rich-text labels read as plain text.
      {"x<sup>3</sup>", ATSPI_ROLE_PUSH_BUTTON, "Qt", "x^3"},
      {"<b>Bold</b> &amp; <i>more</i>", ATSPI_ROLE_LABEL, "Qt", "Bold & more"},
      {"a < b > c", ATSPI_ROLE_LABEL, "Qt", "a < b > c"},
      {"x<sup>3</sup>", ATSPI_ROLE_PUSH_BUTTON, "GECKO", "x<sup>3</sup>"},
  };
  for (const auto& c : cases) EXPECT_EQ(cleanedName(c.name, c.role, c.toolkit), c.cleaned) << c.name;
}

TEST(AtspiVocabulary, ToolkitsAreToldApartByNameAndVersion) {
  EXPECT_EQ(toolkitName("gtk", "3.24.38"), "GTK");
  EXPECT_EQ(toolkitName("GTK", "4.8.3"), "GTK4");
  EXPECT_EQ(toolkitName("Qt", "5.15.8"), "Qt");
  EXPECT_EQ(toolkitName("Gecko", "115.0"), "GECKO");
}

TEST(AtspiVocabulary, EachToolkitMarksWhatNobodySeesItsOwnWay) {
  const States shown{(std::uint64_t{1} << ATSPI_STATE_VISIBLE) | (std::uint64_t{1} << ATSPI_STATE_SHOWING)};
  const States visible = withState(ATSPI_STATE_VISIBLE);
  const States none{};
  const AxRect frame{0, 46, 690, 464}, unallocated{0, 46, 690, 0};
  constexpr std::uint32_t panel = ATSPI_ROLE_PANEL, pane = ATSPI_ROLE_SCROLL_PANE,
                          frameRole = ATSPI_ROLE_INTERNAL_FRAME;
  struct Case {
    const char* what;
    std::uint32_t role;
    States child;
    std::optional<AxRect> extents;
    States parent;
    std::string toolkit;
    bool hidden;
  };
  const Case cases[] = {
      {"not visible anywhere", panel, none, frame, shown, "GECKO", true},
      {"GTK3: not showing under a parent that shows", panel, visible, frame, shown, "GTK", true},
      {"GTK3: not showing under a parent that does not (a closed menu)", panel, visible, frame, visible, "GTK", false},
      {"GTK3: showing with no height (LibreOffice's own menu bar)", panel, shown, unallocated, shown, "GTK", true},
      {"GTK3: a page tab of a notebook without tabs", ATSPI_ROLE_PAGE_TAB, shown, AxRect{-1, -1, -1, -1}, shown, "GTK",
       false},
      {"Qt: showing", panel, shown, frame, shown, "Qt", false},
      {"GTK4 keeps SHOWING on windows only", panel, visible, frame, shown, "GTK4", false},
      {"GTK4: never allocated", panel, visible, unallocated, shown, "GTK4", true},
      {"GTK4: no frame to read", panel, visible, std::nullopt, shown, "GTK4", false},
      {"a browser: scrolled out of view still counts", panel, visible, frame, shown, "CHROMIUM", false},
      {"Firefox: a page's part scrolled out of view still counts", panel, visible, frame, shown, "GECKO", false},
      {"Firefox: a tab behind, by its pane", pane, visible, frame, shown, "GECKO", true},
      {"Firefox: a tab behind, by its frame", frameRole, visible, frame, shown, "GECKO", true},
      {"Firefox: the tab in front", pane, shown, frame, shown, "GECKO", false},
      {"GTK4 has no such rule for panes", pane, visible, frame, shown, "GTK4", false},
  };
  for (const auto& c : cases)
    EXPECT_EQ(isHiddenChild(c.role, c.child, c.extents, c.parent, c.toolkit), c.hidden) << c.what;
}

TEST(AtspiVocabulary, BrowsersPressByWhatTheirActionsDo) {
  const std::pair<std::vector<std::string>, std::optional<std::size_t>> cases[] = {
      {{"check"}, 0},             // a check box in Chromium and Firefox
      {{"uncheck"}, 0},           // and the same box checked
      {{"click-ancestor"}, {}},   // Chromium: the press belongs to an ancestor
      {{"switch"}, 0},            // a tab in Firefox
      {{"showmenu", "jump"}, 1},  // a link
  };
  for (const auto& [actions, index] : cases) EXPECT_EQ(atspiActionFor("AXPress", actions), index) << actions.front();
}

TEST(AtspiVocabulary, PressIsTheFirstOfTheActionsThatServeIt) {
  EXPECT_EQ(atspiActionFor("AXPress", {"expand or contract", "activate", "click"}), 2u);
  EXPECT_EQ(atspiActionFor("AXPress", {"Toggle"}), 0u);
  EXPECT_EQ(atspiActionFor("AXPress", {"expand or contract"}), std::nullopt);
  EXPECT_EQ(axActionNames({"click"}, valueInterface),
            (std::vector<std::string>{"AXPress", "AXIncrement", "AXDecrement"}));
}

TEST(AtspiVocabulary, EventsMapToNotificationsAndNeverToBounds) {
  EXPECT_EQ(notificationFor({"Object", "StateChanged", "focused", 1}), "AXFocusedUIElementChanged");
  EXPECT_EQ(notificationFor({"Object", "StateChanged", "focused", 0}), std::nullopt);
  EXPECT_EQ(notificationFor({"Object", "ChildrenChanged", "add", 3}), "AXCreated");
  EXPECT_EQ(notificationFor({"Object", "TextChanged", "insert", 0}), "AXValueChanged");
  EXPECT_EQ(notificationFor({"Object", "BoundsChanged", "", 0}), std::nullopt);
  EXPECT_EQ(eventTypesFor("AXValueChanged"),
            (std::vector<std::string>{"object:state-changed", "object:text-changed", "object:property-change",
                                      "object:value-changed"}));
  // A page loads between its document turning busy and turning idle again.
  EXPECT_EQ(notificationFor({"Object", "StateChanged", "busy", 1}), "AXElementBusyChanged");
  EXPECT_EQ(notificationFor({"Object", "StateChanged", "busy", 0}), "AXLoadComplete");
  EXPECT_EQ(notificationFor({"Document", "LoadComplete", "", 0}), "AXLoadComplete");
  EXPECT_EQ(eventTypesFor("AXLoadComplete"),
            (std::vector<std::string>{"object:state-changed", "document:load-complete"}));
  EXPECT_TRUE(eventTypesFor("AXRowCountChanged") == std::vector<std::string>{""});
}

TEST(AtspiVocabulary, MenuShortcutsComeFromTheActionsKeyBinding) {
  const struct {
    const char* binding;
    std::optional<Shortcut> shortcut;
  } cases[] = {
      {"q;<Alt>f:q;<Primary>q", Shortcut{"Q", 4 | 8}},
      {"s;<Alt>f:s;<Control><Shift>s", Shortcut{"S", 4 | 1 | 8}},
      {"<Super>l", Shortcut{"L", 0}},
      {";;<Alt>F4", Shortcut{"F4", 2 | 8}},
      {"b;<Alt>v:b;", std::nullopt},  // a mnemonic but no accelerator
      {"", std::nullopt},
      {"Ctrl+Shift+S", Shortcut{"S", 4 | 1 | 8}},
      {"Ctrl++", Shortcut{"+", 4 | 8}},
      {"F1", Shortcut{"F1", 8}},
      {"Hyper+X", std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.binding);
    EXPECT_EQ(shortcutOf(c.binding), c.shortcut);
  }
}

}  // namespace
}  // namespace glimmerstrand::platform::linux_desktop
