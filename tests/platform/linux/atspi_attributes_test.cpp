// The attribute table's rules, without a bus: what an element's record reads
// as, whether it takes a write, and that a write goes out only where it does.
#include <atspi/atspi-constants.h>
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "platform/linux/atspi_attributes.h"
#include "platform/linux/atspi_element.h"

namespace glimmerstrand::platform::linux_desktop {
namespace {

// Records what the table asked for; reads answer with the name of the call.
class RecordedCalls final : public ElementCalls {
 public:
  std::vector<std::string> made;

  AxValue shownChildren() override { return read("shownChildren"); }
  AxValue focusedElement() override { return read("focusedElement"); }
  AxValue frontApplication() override { return read("frontApplication"); }
  AxValue menuBar() override { return read("menuBar"); }
  AxValue windows() override { return read("windows"); }
  AxValue frontWindow() override { return read("frontWindow"); }
  AxValue frontmost() override { return read("frontmost"); }

  AxError setText(const std::string& text) override { return wrote("setText " + text); }
  AxError setNumber(double number) override { return wrote("setNumber " + std::to_string(int(number))); }
  AxError grabFocus() override { return wrote("grabFocus"); }
  AxError select(bool selected) override { return wrote(selected ? "select" : "deselect"); }
  AxError selectChoice(const std::string& name) override { return wrote("selectChoice " + name); }
  AxError selectText(const AxRange& range) override {
    return wrote("selectText " + std::to_string(range.location) + "+" + std::to_string(range.length));
  }
  AxError showAssistiveClient() override { return wrote("showAssistiveClient"); }

 private:
  AxValue read(const std::string& call) {
    made.push_back(call);
    return AxValue(call);
  }
  AxError wrote(std::string call) {
    made.push_back(std::move(call));
    return AxError::success;
  }
};

ElementRecord element(std::uint32_t role, std::uint32_t interfaces, std::initializer_list<int> states) {
  ElementRecord r;
  if (role == ATSPI_ROLE_APPLICATION) r.kind = ObjectKind::application;
  r.parts = basicPart;
  r.role = role;
  r.interfaces = interfaces;
  for (int state : states) r.states.bits |= std::uint64_t{1} << state;
  return r;
}

TEST(AtspiAttributes, AWriteGoesOutOnlyWhereTheElementIsSettable) {
  const auto editableField = element(ATSPI_ROLE_ENTRY, editableTextInterface | textInterface, {ATSPI_STATE_EDITABLE});
  const auto readOnlyField = element(ATSPI_ROLE_ENTRY, editableTextInterface | textInterface, {});
  const auto spinButton = element(ATSPI_ROLE_SPIN_BUTTON, editableTextInterface | valueInterface, {});
  const auto slider = element(ATSPI_ROLE_SLIDER, valueInterface, {});
  const auto sheetCell = element(ATSPI_ROLE_TABLE_CELL, valueInterface | textInterface, {});
  const auto focusable = element(ATSPI_ROLE_PUSH_BUTTON, componentInterface, {ATSPI_STATE_FOCUSABLE});
  const auto focusableNoComponent = element(ATSPI_ROLE_PUSH_BUTTON, actionInterface, {ATSPI_STATE_FOCUSABLE});
  const auto notFocusable = element(ATSPI_ROLE_FRAME, componentInterface, {});
  const auto focused = element(ATSPI_ROLE_ENTRY, componentInterface, {ATSPI_STATE_FOCUSABLE, ATSPI_STATE_FOCUSED});
  const auto row = element(ATSPI_ROLE_LIST_ITEM, 0, {ATSPI_STATE_SELECTABLE});
  const auto popUp = element(ATSPI_ROLE_COMBO_BOX, selectionInterface | actionInterface, {});
  const auto popUpWithoutSelection = element(ATSPI_ROLE_COMBO_BOX, actionInterface, {});
  const auto label = element(ATSPI_ROLE_LABEL, textInterface, {});
  const auto application = element(ATSPI_ROLE_APPLICATION, applicationInterface, {});
  const auto window = element(ATSPI_ROLE_FRAME, componentInterface, {});
  ElementRecord applicationUnread;  // known by its path alone
  applicationUnread.kind = ObjectKind::application;
  auto gone = editableField;
  gone.error = AxError::invalidElement;

  struct Case {
    const char* what;
    ElementRecord record;
    std::string name;
    AxValue value;
    bool settable;
    AxError outcome;
    std::string call;  // empty: none may be made
  };
  const Case cases[] = {
      {"an editable field takes text", editableField, "AXValue", "hello", true, AxError::success, "setText hello"},
      {"a read-only field keeps its text", readOnlyField, "AXValue", "hello", false, AxError::attributeUnsupported, ""},
      {"a number written as text moves a spin button", spinButton, "AXValue", "75", true, AxError::success,
       "setNumber 75"},
      {"a slider takes a number", slider, "AXValue", 30.0, true, AxError::success, "setNumber 30"},
      {"a slider takes no word", slider, "AXValue", "loud", true, AxError::attributeUnsupported, ""},
      {"an editable field takes no number", editableField, "AXValue", 5.0, true, AxError::attributeUnsupported, ""},
      {"a pop-up selects its option by name", popUp, "AXValue", "Window", true, AxError::success,
       "selectChoice Window"},
      {"a pop-up without Selection is written by keys", popUpWithoutSelection, "AXValue", "Window", false,
       AxError::attributeUnsupported, ""},
      {"a spreadsheet cell is written by keys", sheetCell, "AXValue", "75", false, AxError::attributeUnsupported, ""},
      {"a focusable control takes the focus", focusable, "AXFocused", true, true, AxError::success, "grabFocus"},
      {"the focus is not given away", focusable, "AXFocused", false, true, AxError::attributeUnsupported, ""},
      {"without Component there is no GrabFocus", focusableNoComponent, "AXFocused", true, false,
       AxError::attributeUnsupported, ""},
      {"what cannot be focused is not", notFocusable, "AXFocused", true, false, AxError::attributeUnsupported, ""},
      {"a focused element already has it", focused, "AXFocused", true, true, AxError::success, ""},
      {"a selectable row is selected", row, "AXSelected", true, true, AxError::success, "select"},
      {"and deselected", row, "AXSelected", false, true, AxError::success, "deselect"},
      {"a label is not selectable", label, "AXSelected", true, false, AxError::attributeUnsupported, ""},
      {"a text takes a range", label, "AXSelectedTextRange", AxRange{2, 3}, true, AxError::success, "selectText 2+3"},
      {"an empty range is the caret", label, "AXSelectedTextRange", AxRange{4, 0}, true, AxError::success,
       "selectText 4+0"},
      {"a range is a range", label, "AXSelectedTextRange", "2", true, AxError::attributeUnsupported, ""},
      {"no range without Text", row, "AXSelectedTextRange", AxRange{0, 1}, false, AxError::attributeUnsupported, ""},
      {"an application is asked for its tree", application, "AXManualAccessibility", true, true, AxError::success,
       "showAssistiveClient"},
      {"known by its path alone", applicationUnread, "AXManualAccessibility", true, true, AxError::success,
       "showAssistiveClient"},
      {"the enhanced interface asks the same", application, "AXEnhancedUserInterface", true, true, AxError::success,
       "showAssistiveClient"},
      {"nothing is switched off", application, "AXManualAccessibility", false, true, AxError::success, ""},
      {"a window is not", window, "AXManualAccessibility", true, false, AxError::attributeUnsupported, ""},
      {"nor for the enhanced interface", window, "AXEnhancedUserInterface", true, false, AxError::attributeUnsupported,
       ""},
      {"a title is only read", editableField, "AXTitle", "x", false, AxError::attributeUnsupported, ""},
      {"an unknown name", editableField, "AXNoSuchThing", "x", false, AxError::attributeUnsupported, ""},
      {"a gone element", gone, "AXValue", "hello", false, AxError::invalidElement, ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(isAttributeSettable(c.name, c.record), c.settable) << c.what;
    RecordedCalls calls;
    EXPECT_EQ(writeAttribute(c.name, c.record, c.value, calls), c.outcome) << c.what;
    EXPECT_EQ(calls.made, c.call.empty() ? std::vector<std::string>{} : std::vector<std::string>{c.call}) << c.what;
  }
}

TEST(AtspiAttributes, ReadersTellWhatTheRecordHolds) {
  const auto button = element(ATSPI_ROLE_PUSH_BUTTON, actionInterface, {});
  const auto panel = element(ATSPI_ROLE_PANEL, 0, {});
  const auto window = element(ATSPI_ROLE_FRAME, componentInterface, {ATSPI_STATE_ACTIVE});
  const auto activeTopLevel = element(ATSPI_ROLE_PANEL, componentInterface, {ATSPI_STATE_ACTIVE});
  const auto row = element(ATSPI_ROLE_LIST_ITEM, 0, {ATSPI_STATE_SELECTABLE, ATSPI_STATE_SELECTED});
  auto caret = element(ATSPI_ROLE_ENTRY, textInterface, {});
  caret.characterCount = 10;
  caret.caret = 4;
  auto selection = caret;
  selection.selection = std::pair{2, 7};
  auto sheet = element(ATSPI_ROLE_DIALOG, componentInterface, {});
  sheet.parent = ObjectRef{":1.5", "/org/a11y/atspi/accessible/root"};
  sheet.sheetOwner = ObjectRef{":1.5", "/w/1"};
  auto gone = button;
  gone.error = AxError::cannotComplete;
  const AxValue none = AxError::attributeUnsupported;

  struct Case {
    const char* what;
    ElementRecord record;
    std::string name;
    AxValue value;
  };
  const Case cases[] = {
      {"a control without the enabled state is disabled", button, "AXEnabled", false},
      {"a container cannot be disabled", panel, "AXEnabled", true},
      {"what cannot be selected has no selection", button, "AXSelected", none},
      {"a selected row", row, "AXSelected", true},
      {"a window tells whether it is main", window, "AXMain", true},
      {"and whether it is minimized", window, "AXMinimized", false},
      {"a button has neither", button, "AXMain", none},
      {"a top level of another role tells its state", activeTopLevel, "AXMain", true},
      {"a caret is an empty range", caret, "AXSelectedTextRange", AxRange{4, 0}},
      {"a selection is its start and length", selection, "AXSelectedTextRange", AxRange{2, 5}},
      {"no range without characters", button, "AXSelectedTextRange", none},
      {"a sheet reads as a sheet", sheet, "AXRole", "AXSheet"},
      {"without the dialog's subrole", sheet, "AXSubrole", none},
      {"hanging from its window", sheet, "AXParent", atspiElement(":1.5", "/w/1")},
      {"an element that did not answer", gone, "AXRole", AxError::cannotComplete},
  };
  for (const auto& c : cases) EXPECT_EQ(attributeValue(c.record, c.name, "GTK"), c.value) << c.what;
}

// What lies beyond the record is asked of the backend, and only for the
// elements the attribute belongs to.
TEST(AtspiAttributes, ApplicationAndDesktopAttributesBelongToThem) {
  const auto application = element(ATSPI_ROLE_APPLICATION, applicationInterface, {});
  const auto button = element(ATSPI_ROLE_PUSH_BUTTON, actionInterface | componentInterface, {});
  const auto desktop = desktopRecord();
  ElementRecord applicationUnread;
  applicationUnread.kind = ObjectKind::application;
  struct Case {
    const char* what;
    ElementRecord record;
    std::string name;
    std::string call;  // empty: the attribute is missing and nothing is asked
  };
  const Case cases[] = {
      {"an application's focus", application, "AXFocusedUIElement", "focusedElement"},
      {"the desktop's focus", desktop, "AXFocusedUIElement", "focusedElement"},
      {"a button has no focus of its own", button, "AXFocusedUIElement", ""},
      {"the desktop's front application", desktop, "AXFocusedApplication", "frontApplication"},
      {"an application has none", application, "AXFocusedApplication", ""},
      {"an application's menu bar", application, "AXMenuBar", "menuBar"},
      {"a button's is not looked for", button, "AXMenuBar", ""},
      {"an application's windows", application, "AXWindows", "windows"},
      {"known by its path alone", applicationUnread, "AXFrontmost", "frontmost"},
      {"the desktop has no windows here", desktop, "AXWindows", ""},
      {"the main window is the front one", application, "AXMainWindow", "frontWindow"},
      {"children as a person sees them", button, "AXChildren", "shownChildren"},
      {"the desktop has no role", desktop, "AXRole", ""},
  };
  for (const auto& c : cases) {
    RecordedCalls calls;
    const AxValue value = readAttribute(c.name, AttributeInput{c.record, "GTK", &calls});
    EXPECT_EQ(value, c.call.empty() ? AxValue(AxError::attributeUnsupported) : AxValue(c.call)) << c.what;
    EXPECT_EQ(calls.made, c.call.empty() ? std::vector<std::string>{} : std::vector<std::string>{c.call}) << c.what;
  }
}

TEST(AtspiAttributes, EveryNameHasOneRowAndEveryWriteARule) {
  std::set<std::string_view> names;
  for (const auto& row : attributeTable()) {
    EXPECT_TRUE(names.insert(row.name).second) << row.name;
    EXPECT_NE(row.read, nullptr) << row.name;
    EXPECT_EQ(row.settable == nullptr, row.write == nullptr) << row.name;
    EXPECT_EQ(attributeRow(row.name), &row) << row.name;
  }
  EXPECT_EQ(attributeTableNames().size(), names.size());
}

TEST(AtspiAttributes, AReadCostsThePartsItsNamesNeed) {
  struct Case {
    std::vector<std::string> names;
    std::uint32_t parts;
  };
  const Case cases[] = {
      {{"AXParent"}, parentPart},
      {{"AXPosition", "AXSize"}, extentsPart},
      {{"AXTitle", "AXChildren"}, basicPart | contentPart | childrenPart},
      {{"AXSelectedTextRange"}, textPart | contentPart},
      // A name no element has still tells whether the element is there.
      {{"AXNoSuchThing"}, basicPart},
      {{}, 0},
  };
  for (const auto& c : cases) EXPECT_EQ(partsFor(c.names), c.parts) << (c.names.empty() ? "" : c.names.front());
}

}  // namespace
}  // namespace glimmerstrand::platform::linux_desktop
