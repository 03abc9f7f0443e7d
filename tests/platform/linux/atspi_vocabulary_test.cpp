// The AT-SPI vocabulary's tables: roles in context, toolkit names, actions
// and events, without a desktop.
#include <atspi/atspi-constants.h>
#include <gtest/gtest.h>

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
      {{ATSPI_ROLE_MENU, {}, 0, ATSPI_ROLE_MENU_BAR, false}, "AXMenuBarItem", ""},
      {{ATSPI_ROLE_MENU, {}, 0, ATSPI_ROLE_MENU, false}, "AXMenuItem", ""},
      {{ATSPI_ROLE_MENU, {}, 0, std::nullopt, false}, "AXMenu", ""},
      {{ATSPI_ROLE_COMBO_BOX, {}, 0, std::nullopt, true}, "AXComboBox", ""},
      {{ATSPI_ROLE_COMBO_BOX, {}, 0, std::nullopt, false}, "AXPopUpButton", ""},
      {{ATSPI_ROLE_TEXT, withState(ATSPI_STATE_MULTI_LINE), 0, std::nullopt, false}, "AXTextArea", ""},
      {{ATSPI_ROLE_ENTRY, {}, 0, std::nullopt, false}, "AXTextField", ""},
      {{ATSPI_ROLE_COLUMN_HEADER, {}, actionInterface, std::nullopt, false}, "AXButton", "AXSortButton"},
      {{ATSPI_ROLE_COLUMN_HEADER, {}, 0, std::nullopt, false}, "AXCell", ""},
      {{ATSPI_ROLE_TOGGLE_BUTTON, {}, 0, std::nullopt, false}, "AXCheckBox", "AXToggle"},
      {{ATSPI_ROLE_DIALOG, {}, 0, std::nullopt, false}, "AXWindow", "AXDialog"},
      {{ATSPI_ROLE_REDUNDANT_OBJECT, {}, 0, std::nullopt, false}, "AXUnknown", ""},
  };
  for (const auto& c : cases) {
    auto role = axRole(c.context);
    EXPECT_EQ(role.role, c.role) << c.context.role;
    EXPECT_EQ(role.subrole, c.subrole) << c.context.role;
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
  };
  for (const auto& c : cases) EXPECT_EQ(cleanedName(c.name, c.role, c.toolkit), c.cleaned) << c.name;
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
  EXPECT_TRUE(eventTypesFor("AXLoadComplete").empty());
}

TEST(AtspiVocabulary, MenuShortcutsComeFromTheActionsKeyBinding) {
  const struct {
    const char* binding;
    std::optional<Shortcut> shortcut;
  } cases[] = {
      {"q;<Alt>f:q;<Primary>q", Shortcut{"Q", 0}},
      {"s;<Alt>f:s;<Control><Shift>s", Shortcut{"S", 1}},
      {";;<Alt>F4", Shortcut{"F4", 2 | 8}},
      {"b;<Alt>v:b;", std::nullopt},  // a mnemonic but no accelerator
      {"", std::nullopt},
      {"Ctrl+Shift+S", Shortcut{"S", 1}},
      {"Ctrl++", Shortcut{"+", 0}},
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
