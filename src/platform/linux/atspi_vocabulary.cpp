#include "platform/linux/atspi_vocabulary.h"

#include <atspi/atspi-constants.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <unordered_map>

namespace glimmerstrand::platform::linux_desktop {

std::uint32_t interfaceBit(std::string_view name) {
  static const std::unordered_map<std::string_view, std::uint32_t> table{
      {"org.a11y.atspi.Accessible", accessibleInterface},
      {"org.a11y.atspi.Action", actionInterface},
      {"org.a11y.atspi.Component", componentInterface},
      {"org.a11y.atspi.Text", textInterface},
      {"org.a11y.atspi.EditableText", editableTextInterface},
      {"org.a11y.atspi.Value", valueInterface},
      {"org.a11y.atspi.Selection", selectionInterface},
      {"org.a11y.atspi.Hyperlink", hyperlinkInterface},
      {"org.a11y.atspi.Table", tableInterface},
      {"org.a11y.atspi.Application", applicationInterface},
      {"org.a11y.atspi.Collection", collectionInterface},
      {"org.a11y.atspi.Hypertext", hypertextInterface},
      {"org.a11y.atspi.Document", documentInterface},
  };
  auto it = table.find(name);
  return it == table.end() ? 0 : it->second;
}

bool States::active() const { return has(ATSPI_STATE_ACTIVE); }
bool States::checked() const { return has(ATSPI_STATE_CHECKED); }
bool States::indeterminate() const { return has(ATSPI_STATE_INDETERMINATE); }
bool States::pressed() const { return has(ATSPI_STATE_PRESSED); }
bool States::editable() const { return has(ATSPI_STATE_EDITABLE); }
bool States::enabled() const { return has(ATSPI_STATE_ENABLED) || has(ATSPI_STATE_SENSITIVE); }
bool States::expandable() const { return has(ATSPI_STATE_EXPANDABLE); }
bool States::expanded() const { return has(ATSPI_STATE_EXPANDED); }
bool States::focusable() const { return has(ATSPI_STATE_FOCUSABLE); }
bool States::focused() const { return has(ATSPI_STATE_FOCUSED); }
bool States::iconified() const { return has(ATSPI_STATE_ICONIFIED); }
bool States::multiLine() const { return has(ATSPI_STATE_MULTI_LINE); }
bool States::selectable() const { return has(ATSPI_STATE_SELECTABLE); }
bool States::selected() const { return has(ATSPI_STATE_SELECTED); }
bool States::showing() const { return has(ATSPI_STATE_SHOWING); }
bool States::visible() const { return has(ATSPI_STATE_VISIBLE); }
bool States::managesDescendants() const { return has(ATSPI_STATE_MANAGES_DESCENDANTS); }
bool States::defunct() const { return has(ATSPI_STATE_DEFUNCT); }

std::string toolkitName(std::string_view atspiName, std::string_view version) {
  std::string name(atspiName);
  std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::toupper(c); });
  if (name == "QT") return std::string(qtToolkit);
  // GTK 3 and 4 both say "GTK" in some case; only the version tells them apart.
  if (name == "GTK" && version.substr(0, 2) == "4.") return std::string(gtk4Toolkit);
  return name;
}

bool isWebToolkit(std::string_view toolkit) { return toolkit == geckoToolkit || toolkit == chromiumToolkit; }

namespace {

// How each toolkit marks a widget it keeps in its tree while nobody sees it.
struct HiddenMarks {
  std::string_view toolkit;
  bool notShowing;      // SHOWING follows the screen: unset under a parent that shows
  bool noArea;          // hidden widgets are never allocated: a frame without area
  bool paneNotShowing;  // only a pane that holds a tab's document tells by SHOWING
};
// Firefox clears SHOWING for a page's content scrolled out of view too, so
// only the panes that hold a tab's document say the tab is behind. LibreOffice
// speaks GTK 3 and keeps its own menu bar, which the window's GTK one
// replaces, showing with no height.
constexpr std::array<HiddenMarks, 4> hiddenMarks{{
    {gtk3Toolkit, true, true, false},
    {gtk4Toolkit, false, true, false},  // 4.8 sets SHOWING on windows only
    {qtToolkit, true, false, false},
    {geckoToolkit, false, false, true},
}};

bool isPaneRole(std::uint32_t role) { return role == ATSPI_ROLE_SCROLL_PANE || role == ATSPI_ROLE_INTERNAL_FRAME; }

}  // namespace

bool hidesByArea(std::string_view toolkit) {
  return std::any_of(hiddenMarks.begin(), hiddenMarks.end(),
                     [&](const HiddenMarks& marks) { return marks.toolkit == toolkit && marks.noArea; });
}

bool isHiddenChild(std::uint32_t childRole, const States& child, const std::optional<AxRect>& extents,
                   const States& parent, std::string_view toolkit) {
  if (!child.visible()) return true;
  for (const auto& marks : hiddenMarks) {
    if (marks.toolkit != toolkit) continue;
    const bool notShowing = marks.notShowing || (marks.paneNotShowing && isPaneRole(childRole));
    if (notShowing && parent.showing() && !child.showing()) return true;
    // A page tab's frame is its tab's: a notebook that hides its tabs still
    // shows the page.
    if (marks.noArea && childRole != ATSPI_ROLE_PAGE_TAB && extents && (extents->width <= 0 || extents->height <= 0))
      return true;
  }
  return false;
}

namespace {

// Roles whose AX role is fixed, whatever the context.
const std::unordered_map<std::uint32_t, AxRole>& fixedRoles() {
  static const std::unordered_map<std::uint32_t, AxRole> table{
      {ATSPI_ROLE_APPLICATION, {"AXApplication", ""}},
      {ATSPI_ROLE_PUSH_BUTTON, {"AXButton", ""}},
      {ATSPI_ROLE_PUSH_BUTTON_MENU, {"AXMenuButton", ""}},
      {ATSPI_ROLE_TOGGLE_BUTTON, {"AXCheckBox", "AXToggle"}},
      {ATSPI_ROLE_CHECK_BOX, {"AXCheckBox", ""}},
      {ATSPI_ROLE_RADIO_BUTTON, {"AXRadioButton", ""}},
      {ATSPI_ROLE_PASSWORD_TEXT, {"AXTextField", "AXSecureTextField"}},
      {ATSPI_ROLE_LABEL, {"AXStaticText", ""}},
      {ATSPI_ROLE_STATIC, {"AXStaticText", ""}},
      {ATSPI_ROLE_CAPTION, {"AXStaticText", ""}},
      {ATSPI_ROLE_ACCELERATOR_LABEL, {"AXStaticText", ""}},
      {ATSPI_ROLE_HEADING, {"AXHeading", ""}},
      {ATSPI_ROLE_MENU_BAR, {"AXMenuBar", ""}},
      {ATSPI_ROLE_POPUP_MENU, {"AXMenu", ""}},
      {ATSPI_ROLE_MENU_ITEM, {"AXMenuItem", ""}},
      {ATSPI_ROLE_CHECK_MENU_ITEM, {"AXMenuItem", ""}},
      {ATSPI_ROLE_RADIO_MENU_ITEM, {"AXMenuItem", ""}},
      {ATSPI_ROLE_TEAROFF_MENU_ITEM, {"AXMenuItem", ""}},
      {ATSPI_ROLE_SCROLL_PANE, {"AXScrollArea", ""}},
      {ATSPI_ROLE_SCROLL_BAR, {"AXScrollBar", ""}},
      {ATSPI_ROLE_TABLE, {"AXTable", ""}},
      {ATSPI_ROLE_TREE_TABLE, {"AXOutline", ""}},
      {ATSPI_ROLE_TREE, {"AXOutline", ""}},
      {ATSPI_ROLE_TABLE_ROW, {"AXRow", ""}},
      {ATSPI_ROLE_TREE_ITEM, {"AXRow", "AXOutlineRow"}},
      {ATSPI_ROLE_TABLE_CELL, {"AXCell", ""}},
      {ATSPI_ROLE_LIST, {"AXList", ""}},
      {ATSPI_ROLE_LIST_BOX, {"AXList", ""}},
      {ATSPI_ROLE_LIST_ITEM, {"AXGroup", ""}},
      {ATSPI_ROLE_PAGE_TAB_LIST, {"AXTabGroup", ""}},
      {ATSPI_ROLE_PAGE_TAB, {"AXRadioButton", "AXTabButton"}},
      {ATSPI_ROLE_SLIDER, {"AXSlider", ""}},
      {ATSPI_ROLE_DIAL, {"AXSlider", ""}},
      {ATSPI_ROLE_SPIN_BUTTON, {"AXIncrementor", ""}},
      {ATSPI_ROLE_PROGRESS_BAR, {"AXProgressIndicator", ""}},
      {ATSPI_ROLE_LEVEL_BAR, {"AXLevelIndicator", ""}},
      {ATSPI_ROLE_ANIMATION, {"AXBusyIndicator", ""}},
      {ATSPI_ROLE_LINK, {"AXLink", ""}},
      {ATSPI_ROLE_IMAGE, {"AXImage", ""}},
      {ATSPI_ROLE_ICON, {"AXImage", ""}},
      {ATSPI_ROLE_TOOL_BAR, {"AXToolbar", ""}},
      {ATSPI_ROLE_DOCUMENT_WEB, {"AXWebArea", ""}},
      {ATSPI_ROLE_DOCUMENT_FRAME, {"AXWebArea", ""}},
      {ATSPI_ROLE_DOCUMENT_TEXT, {"AXTextArea", ""}},
      {ATSPI_ROLE_TERMINAL, {"AXTextArea", ""}},
      {ATSPI_ROLE_SPLIT_PANE, {"AXSplitGroup", ""}},
      {ATSPI_ROLE_TOOL_TIP, {"AXHelpTag", ""}},
      {ATSPI_ROLE_COLOR_CHOOSER, {"AXColorWell", ""}},
      {ATSPI_ROLE_PANEL, {"AXGroup", ""}},
      {ATSPI_ROLE_FILLER, {"AXGroup", ""}},
      {ATSPI_ROLE_SECTION, {"AXGroup", ""}},
      {ATSPI_ROLE_GROUPING, {"AXGroup", ""}},
      {ATSPI_ROLE_FORM, {"AXGroup", ""}},
      {ATSPI_ROLE_VIEWPORT, {"AXGroup", ""}},
      {ATSPI_ROLE_STATUS_BAR, {"AXGroup", ""}},
      {ATSPI_ROLE_INTERNAL_FRAME, {"AXGroup", ""}},
      {ATSPI_ROLE_LAYERED_PANE, {"AXGroup", ""}},
      {ATSPI_ROLE_ROOT_PANE, {"AXGroup", ""}},
      {ATSPI_ROLE_GLASS_PANE, {"AXGroup", ""}},
      {ATSPI_ROLE_OPTION_PANE, {"AXGroup", ""}},
      {ATSPI_ROLE_DESKTOP_FRAME, {"AXGroup", ""}},
      {ATSPI_ROLE_CANVAS, {"AXGroup", ""}},
      {ATSPI_ROLE_DRAWING_AREA, {"AXGroup", ""}},
      {ATSPI_ROLE_SEPARATOR, {"AXGroup", ""}},
      {ATSPI_ROLE_BLOCK_QUOTE, {"AXGroup", ""}},
      {ATSPI_ROLE_PARAGRAPH, {"AXGroup", ""}},
      {ATSPI_ROLE_ARTICLE, {"AXGroup", ""}},
      {ATSPI_ROLE_INFO_BAR, {"AXGroup", ""}},
      {ATSPI_ROLE_NOTIFICATION, {"AXGroup", ""}},
      {ATSPI_ROLE_EDITBAR, {"AXGroup", ""}},
      {ATSPI_ROLE_DATE_EDITOR, {"AXDateField", ""}},
      {ATSPI_ROLE_FOOTER, {"AXGroup", ""}},
      {ATSPI_ROLE_HEADER, {"AXGroup", ""}},
      {ATSPI_ROLE_DESCRIPTION_LIST, {"AXList", "AXDescriptionList"}},
      {ATSPI_ROLE_DESCRIPTION_TERM, {"AXGroup", ""}},
      {ATSPI_ROLE_DESCRIPTION_VALUE, {"AXGroup", ""}},
      {ATSPI_ROLE_MATH, {"AXGroup", ""}},
      {ATSPI_ROLE_MARK, {"AXGroup", ""}},
      {ATSPI_ROLE_COMMENT, {"AXGroup", ""}},
      {ATSPI_ROLE_SUPERSCRIPT, {"AXGroup", ""}},
      {ATSPI_ROLE_SUBSCRIPT, {"AXGroup", ""}},
      {ATSPI_ROLE_CONTENT_DELETION, {"AXGroup", ""}},
      {ATSPI_ROLE_CONTENT_INSERTION, {"AXGroup", ""}},
      {ATSPI_ROLE_FOOTNOTE, {"AXGroup", ""}},
      {ATSPI_ROLE_LOG, {"AXGroup", "AXApplicationLog"}},
      {ATSPI_ROLE_MARQUEE, {"AXGroup", "AXApplicationMarquee"}},
      {ATSPI_ROLE_TIMER, {"AXGroup", "AXApplicationTimer"}},
      {ATSPI_ROLE_DEFINITION, {"AXGroup", "AXDefinition"}},
      {ATSPI_ROLE_IMAGE_MAP, {"AXImage", ""}},
      {ATSPI_ROLE_AUDIO, {"AXGroup", ""}},
      {ATSPI_ROLE_VIDEO, {"AXGroup", ""}},
  };
  return table;
}

// A page's landmarks by the role it gave them (the first of its roles that
// names a landmark), as the subroles of the platforms' web views.
std::string landmarkSubrole(std::string_view xmlRoles) {
  static const std::array<std::pair<std::string_view, std::string_view>, 8> table{{
      {"banner", "AXLandmarkBanner"},
      {"navigation", "AXLandmarkNavigation"},
      {"main", "AXLandmarkMain"},
      {"contentinfo", "AXLandmarkContentInfo"},
      {"complementary", "AXLandmarkComplementary"},
      {"search", "AXLandmarkSearch"},
      {"region", "AXLandmarkRegion"},
      {"form", "AXLandmarkForm"},
  }};
  for (std::size_t start = 0; start < xmlRoles.size();) {
    auto end = std::min(xmlRoles.find(' ', start), xmlRoles.size());
    const auto word = xmlRoles.substr(start, end - start);
    for (const auto& [role, subrole] : table)
      if (word == role) return std::string(subrole);
    start = end + 1;
  }
  return "";
}

}  // namespace

AxRole axRole(const RoleContext& c) {
  switch (c.role) {
    case ATSPI_ROLE_MENU:
      if (c.parentRole == ATSPI_ROLE_MENU_BAR) return {"AXMenuBarItem", ""};
      if (c.parentRole && isMenuRole(*c.parentRole)) return {"AXMenuItem", ""};
      return {"AXMenu", ""};
    case ATSPI_ROLE_COMBO_BOX:
      return c.editableChild || (c.interfaces & editableTextInterface) ? AxRole{"AXComboBox", ""}
                                                                       : AxRole{"AXPopUpButton", ""};
    case ATSPI_ROLE_TEXT:
    case ATSPI_ROLE_ENTRY:
      if (c.states.multiLine()) return {"AXTextArea", ""};
      return {"AXTextField", ""};
    case ATSPI_ROLE_COLUMN_HEADER:
    case ATSPI_ROLE_ROW_HEADER:
    case ATSPI_ROLE_TABLE_COLUMN_HEADER:
    case ATSPI_ROLE_TABLE_ROW_HEADER:
      return c.interfaces & actionInterface ? AxRole{"AXButton", "AXSortButton"} : AxRole{"AXCell", ""};
    case ATSPI_ROLE_LANDMARK:
      return {"AXGroup", landmarkSubrole(c.xmlRoles)};
    case ATSPI_ROLE_SEPARATOR:
      return c.parentRole == ATSPI_ROLE_SPLIT_PANE ? AxRole{"AXSplitter", ""} : AxRole{"AXGroup", ""};
    case ATSPI_ROLE_FRAME:
    case ATSPI_ROLE_WINDOW:
    case ATSPI_ROLE_DIALOG:
    case ATSPI_ROLE_ALERT:
    case ATSPI_ROLE_FILE_CHOOSER: {
      // A window only at the top: GTK nests a file chooser widget inside its
      // dialog, Qt a search bar that calls itself a window inside the editor.
      if (c.parentRole && *c.parentRole != ATSPI_ROLE_APPLICATION) return {"AXGroup", ""};
      const bool plain = c.role == ATSPI_ROLE_FRAME || c.role == ATSPI_ROLE_WINDOW;
      return {"AXWindow", plain ? "AXStandardWindow" : "AXDialog"};
    }
    default:
      break;
  }
  auto& table = fixedRoles();
  auto it = table.find(c.role);
  return it == table.end() ? AxRole{"AXUnknown", ""} : it->second;
}

bool roleNeedsParent(std::uint32_t role) {
  return role == ATSPI_ROLE_MENU || role == ATSPI_ROLE_SEPARATOR || isWindowRole(role);
}
bool roleNeedsChildren(std::uint32_t role) { return role == ATSPI_ROLE_COMBO_BOX; }
bool isMenuRole(std::uint32_t role) {
  return role == ATSPI_ROLE_MENU || role == ATSPI_ROLE_MENU_BAR || role == ATSPI_ROLE_POPUP_MENU;
}
bool isMenuBarRole(std::uint32_t role) { return role == ATSPI_ROLE_MENU_BAR; }
bool isWindowRole(std::uint32_t role) {
  return role == ATSPI_ROLE_FRAME || role == ATSPI_ROLE_WINDOW || role == ATSPI_ROLE_DIALOG ||
         role == ATSPI_ROLE_ALERT || role == ATSPI_ROLE_FILE_CHOOSER;
}
bool isApplicationRole(std::uint32_t role) { return role == ATSPI_ROLE_APPLICATION; }
bool isRangeRole(std::uint32_t role) {
  return role == ATSPI_ROLE_SLIDER || role == ATSPI_ROLE_DIAL || role == ATSPI_ROLE_SPIN_BUTTON ||
         role == ATSPI_ROLE_PROGRESS_BAR || role == ATSPI_ROLE_LEVEL_BAR || role == ATSPI_ROLE_SCROLL_BAR;
}
bool isCheckRole(std::uint32_t role) {
  return role == ATSPI_ROLE_CHECK_BOX || role == ATSPI_ROLE_TOGGLE_BUTTON || role == ATSPI_ROLE_RADIO_BUTTON ||
         role == ATSPI_ROLE_PAGE_TAB;
}
bool isComboRole(std::uint32_t role) { return role == ATSPI_ROLE_COMBO_BOX; }
bool isTextEntryRole(std::uint32_t role) {
  return role == ATSPI_ROLE_TEXT || role == ATSPI_ROLE_ENTRY || role == ATSPI_ROLE_PASSWORD_TEXT ||
         role == ATSPI_ROLE_DOCUMENT_TEXT || role == ATSPI_ROLE_TERMINAL;
}
bool isStaticTextRole(std::uint32_t role) {
  return role == ATSPI_ROLE_LABEL || role == ATSPI_ROLE_STATIC || role == ATSPI_ROLE_CAPTION ||
         role == ATSPI_ROLE_ACCELERATOR_LABEL;
}
bool isCheckMenuItemRole(std::uint32_t role) {
  return role == ATSPI_ROLE_CHECK_MENU_ITEM || role == ATSPI_ROLE_RADIO_MENU_ITEM;
}
bool isMenuItemRole(std::uint32_t role) {
  return role == ATSPI_ROLE_MENU_ITEM || role == ATSPI_ROLE_CHECK_MENU_ITEM || role == ATSPI_ROLE_RADIO_MENU_ITEM;
}
bool roleNeedsAttributes(std::uint32_t role) {
  return isTextEntryRole(role) || role == ATSPI_ROLE_HEADING || role == ATSPI_ROLE_LANDMARK;
}
bool isHeadingRole(std::uint32_t role) { return role == ATSPI_ROLE_HEADING; }
bool isColumnHeaderRole(std::uint32_t role) { return role == ATSPI_ROLE_COLUMN_HEADER; }
bool isTableCellRole(std::uint32_t role) { return role == ATSPI_ROLE_TABLE_CELL; }

namespace {

constexpr int shiftBit = 1, altBit = 2, controlBit = 4, noPrimaryBit = 8;

// Modifier names of GTK's accelerators and Qt's key sequences, in one case.
// The primary modifier here is Control, and a shortcut says so ("ctrl+s"),
// as the keys an agent sends name it.
std::optional<int> modifierBit(std::string name) {
  std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
  static const std::unordered_map<std::string, int> bits{
      {"primary", controlBit}, {"control", controlBit}, {"ctrl", controlBit}, {"ctl", controlBit}, {"shift", shiftBit},
      {"alt", altBit},         {"mod1", altBit},        {"meta", altBit},     {"super", 0}};
  auto it = bits.find(name);
  if (it == bits.end()) return std::nullopt;
  return it->second;
}

}  // namespace

std::optional<Shortcut> shortcutOf(std::string_view keyBinding) {
  std::string_view accelerator = keyBinding;
  // GTK: the accelerator is the last of three parts.
  if (auto semicolon = keyBinding.rfind(';'); semicolon != std::string_view::npos)
    accelerator = keyBinding.substr(semicolon + 1);
  if (accelerator.empty()) return std::nullopt;
  int bits = noPrimaryBit;
  std::string key;
  auto take = [&](std::string_view name) {
    auto bit = modifierBit(std::string(name));
    if (!bit) return false;
    if (*bit == 0) bits &= ~noPrimaryBit;
    bits |= *bit;
    return true;
  };
  if (accelerator.front() == '<') {
    while (!accelerator.empty() && accelerator.front() == '<') {
      auto close = accelerator.find('>');
      if (close == std::string_view::npos) return std::nullopt;
      take(accelerator.substr(1, close - 1));
      accelerator.remove_prefix(close + 1);
    }
    key = accelerator;
  } else {
    // Qt: "Ctrl+Shift+S"; a lone "+" is the plus key.
    std::size_t start = 0;
    for (std::size_t plus; (plus = accelerator.find('+', start)) != std::string_view::npos && plus > start;
         start = plus + 1)
      if (!take(accelerator.substr(start, plus - start))) return std::nullopt;
    key = accelerator.substr(start);
  }
  if (key.empty()) return std::nullopt;
  if (key.size() == 1) key[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(key[0])));
  return Shortcut{key, bits};
}

namespace {

// Each AX action and the AT-SPI action names that serve it, in preference
// order. Toolkits name actions in lower case; Qt capitalises some. Browsers
// name a press by what it does: Firefox and Chromium check and uncheck boxes,
// jump to links, switch tabs, select options and open pop-ups.
struct ActionRow {
  std::string_view ax;
  std::array<std::string_view, 11> atspi;
};
constexpr std::array<ActionRow, 5> actionTable{{
    {"AXPress",
     {"click", "press", "activate", "toggle", "jump", "check", "uncheck", "switch", "open", "select", "expand"}},
    {"AXShowMenu", {"showmenu", "show menu", "showcontextmenu", "popup", "menu", "", "", "", "", "", ""}},
    {"AXIncrement", {"increase", "increment", "", "", "", "", "", "", "", "", ""}},
    {"AXDecrement", {"decrease", "decrement", "", "", "", "", "", "", "", "", ""}},
    {"AXCancel", {"cancel", "", "", "", "", "", "", "", "", "", ""}},
}};

std::string lower(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return std::tolower(c); });
  return out;
}

}  // namespace

std::optional<std::size_t> atspiActionFor(std::string_view axAction, const std::vector<std::string>& actions) {
  for (const auto& row : actionTable) {
    if (row.ax != axAction) continue;
    for (auto wanted : row.atspi) {
      if (wanted.empty()) break;
      for (std::size_t k = 0; k < actions.size(); ++k)
        if (lower(actions[k]) == wanted) return k;
    }
    return std::nullopt;
  }
  for (std::size_t k = 0; k < actions.size(); ++k)
    if (actions[k] == axAction) return k;
  return std::nullopt;
}

std::vector<std::string> axActionNames(const std::vector<std::string>& actions, std::uint32_t interfaces) {
  std::vector<std::string> names;
  for (const auto& row : actionTable)
    if (atspiActionFor(row.ax, actions)) names.emplace_back(row.ax);
  // A value can be stepped through the Value interface even without actions.
  if (interfaces & valueInterface) {
    for (std::string_view step : {"AXIncrement", "AXDecrement"})
      if (std::find(names.begin(), names.end(), step) == names.end()) names.emplace_back(step);
  }
  if (interfaces & componentInterface) names.emplace_back("AXRaise");
  return names;
}

namespace {

struct EventRow {
  std::string_view interface;
  std::string_view member;
  std::string_view detail;  // empty: any
  int detail1;              // -1: any
  std::string_view notification;
  std::string_view registryName;  // what the registry calls the event type
};

// Never `bounds-changed`: it floods; moves and resizes come from the window
// system instead.
constexpr std::array<EventRow, 25> eventTable{{
    {"Object", "StateChanged", "focused", 1, "AXFocusedUIElementChanged", "object:state-changed"},
    {"Object", "StateChanged", "checked", -1, "AXValueChanged", "object:state-changed"},
    {"Object", "StateChanged", "pressed", -1, "AXValueChanged", "object:state-changed"},
    {"Object", "StateChanged", "indeterminate", -1, "AXValueChanged", "object:state-changed"},
    {"Object", "StateChanged", "selected", -1, "AXValueChanged", "object:state-changed"},
    {"Object", "StateChanged", "sensitive", -1, "AXValueChanged", "object:state-changed"},
    {"Object", "StateChanged", "enabled", -1, "AXValueChanged", "object:state-changed"},
    {"Object", "StateChanged", "expanded", -1, "AXExpandedChanged", "object:state-changed"},
    {"Object", "StateChanged", "showing", -1, "AXLayoutChanged", "object:state-changed"},
    {"Object", "StateChanged", "defunct", 1, "AXUIElementDestroyed", "object:state-changed"},
    // A page's document is busy while it loads, in both browsers.
    {"Object", "StateChanged", "busy", 1, "AXElementBusyChanged", "object:state-changed"},
    {"Object", "StateChanged", "busy", 0, "AXLoadComplete", "object:state-changed"},
    {"Document", "LoadComplete", "", -1, "AXLoadComplete", "document:load-complete"},
    {"Object", "TextChanged", "", -1, "AXValueChanged", "object:text-changed"},
    {"Object", "PropertyChange", "accessible-value", -1, "AXValueChanged", "object:property-change"},
    {"Object", "PropertyChange", "accessible-name", -1, "AXTitleChanged", "object:property-change"},
    {"Object", "PropertyChange", "accessible-description", -1, "AXTitleChanged", "object:property-change"},
    {"Object", "ValueChanged", "", -1, "AXValueChanged", "object:value-changed"},
    {"Object", "SelectionChanged", "", -1, "AXSelectedChildrenChanged", "object:selection-changed"},
    {"Object", "ChildrenChanged", "add", -1, "AXCreated", "object:children-changed"},
    {"Object", "ChildrenChanged", "remove", -1, "AXLayoutChanged", "object:children-changed"},
    {"Window", "Create", "", -1, "AXWindowCreated", "window:create"},
    {"Window", "Destroy", "", -1, "AXUIElementDestroyed", "window:destroy"},
    {"Window", "Activate", "", -1, "AXFocusedWindowChanged", "window:activate"},
    {"Window", "Deactivate", "", -1, "AXMainWindowChanged", "window:deactivate"},
}};

// Notifications a window system event delivers instead of an AT-SPI one, and
// those AT-SPI has no counterpart for but that cost nothing to accept.
constexpr std::array<std::string_view, 5> quietNotifications{"AXMoved", "AXResized", "AXMenuOpened", "AXMenuClosed",
                                                             "AXRowCountChanged"};

}  // namespace

std::optional<std::string_view> notificationFor(const AtspiEvent& event) {
  for (const auto& row : eventTable) {
    if (row.interface != event.interface || row.member != event.member) continue;
    if (!row.detail.empty() && row.detail != event.detail) continue;
    if (row.detail1 >= 0 && row.detail1 != event.detail1) continue;
    return row.notification;
  }
  return std::nullopt;
}

std::vector<std::string> eventTypesFor(std::string_view notification) {
  std::vector<std::string> types;
  for (const auto& row : eventTable) {
    if (row.notification != notification) continue;
    if (std::find(types.begin(), types.end(), row.registryName) == types.end()) types.emplace_back(row.registryName);
  }
  if (types.empty() &&
      std::find(quietNotifications.begin(), quietNotifications.end(), notification) != quietNotifications.end())
    types.emplace_back("");
  return types;
}

}  // namespace glimmerstrand::platform::linux_desktop
