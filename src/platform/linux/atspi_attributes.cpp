#include "platform/linux/atspi_attributes.h"

#include <atspi/atspi-constants.h>

#include <algorithm>
#include <array>
#include <charconv>

#include "platform/linux/atspi_element.h"

namespace glimmerstrand::platform::linux_desktop {

namespace {

AxValue missing() { return AxError::attributeUnsupported; }

AxValue textOrMissing(const std::string& text) { return text.empty() ? missing() : AxValue(text); }

AxValue elementOf(const ObjectRef& ref) { return atspiElement(ref.bus, ref.path); }

// A page's select is named by its label and shows its chosen option; a
// toolkit's pop-up is named by its choice.
bool choiceIsValue(const ElementRecord& r, std::string_view toolkit) {
  return isComboRole(r.role) && !r.editableChild && isWebToolkit(toolkit);
}

// A container's text holds an object replacement character where each child
// stands; the children carry that text themselves.
bool standsForChildren(const std::string& text) { return text.find("\uFFFC") != std::string::npos; }

AxValue valueOf(const AttributeInput& in) {
  const auto& r = in.record;
  if (isCheckRole(r.role)) {
    if (r.role == ATSPI_ROLE_PAGE_TAB) return AxValue(r.states.selected() ? 1 : 0);
    if (r.states.indeterminate()) return AxValue(2);
    return AxValue(r.states.checked() || r.states.pressed() ? 1 : 0);
  }
  if (isRangeRole(r.role) && r.value) return AxValue(*r.value);
  if (isHeadingRole(r.role)) return r.level ? AxValue(*r.level) : missing();
  if (choiceIsValue(r, in.toolkit)) return textOrMissing(r.choice);
  if (r.text && standsForChildren(*r.text) && !isTextEntryRole(r.role)) return missing();
  if (r.text) return AxValue(*r.text);
  if (isComboRole(r.role)) return textOrMissing(cleanedName(r.name, r.role, in.toolkit));
  if (isStaticTextRole(r.role)) return textOrMissing(cleanedName(r.name, r.role, in.toolkit));
  if (r.value) return AxValue(*r.value);
  return missing();
}

AxValue titleOf(const AttributeInput& in) {
  const auto& r = in.record;
  // Static text shows its text as its value; a pop-up's name is its choice.
  if (isStaticTextRole(r.role) || (isComboRole(r.role) && !r.editableChild && !choiceIsValue(r, in.toolkit)))
    return missing();
  return textOrMissing(cleanedName(r.name, r.role, in.toolkit));
}

AxValue roleOf(const AttributeInput& in) {
  return in.record.sheetOwner ? AxValue("AXSheet") : AxValue(axRole(in.record.roleContext()).role);
}

AxValue subroleOf(const AttributeInput& in) {
  if (in.record.sheetOwner) return missing();
  auto subrole = axRole(in.record.roleContext()).subrole;
  return subrole.empty() ? missing() : AxValue(std::move(subrole));
}

AxValue parentOf(const AttributeInput& in) {
  const auto& r = in.record;
  if (r.sheetOwner) return elementOf(*r.sheetOwner);
  return r.parent ? elementOf(*r.parent) : AxValue(AxError::noValue);
}

AxValue enabledOf(const AttributeInput& in) {
  // Only controls can be disabled; a container without the state is not.
  const bool control = in.record.interfaces & (actionInterface | editableTextInterface | valueInterface);
  return AxValue(!control || in.record.states.enabled());
}

AxValue shortcutPart(const AttributeInput& in, bool key) {
  auto shortcut = shortcutOf(in.record.keyBinding);
  if (!shortcut) return missing();
  return key ? AxValue(shortcut->key) : AxValue(double(shortcut->modifiers));
}

AxValue selectedRangeOf(const AttributeInput& in) {
  const auto& r = in.record;
  if (r.characterCount < 0) return missing();
  if (r.selection) return AxValue(AxRange{r.selection->first, r.selection->second - r.selection->first});
  return AxValue(AxRange{std::max(r.caret, 0), 0});
}

// A window tells whether it is minimized and whether it is the main one;
// another element has neither, unless it carries the state itself (a top
// level of a role that is no window's).
AxValue windowState(const AttributeInput& in, bool state) {
  return isWindowRole(in.record.role) || state ? AxValue(state) : missing();
}

AxValue optionalNumber(const std::optional<double>& number) { return number ? AxValue(*number) : missing(); }

// The rows whose value lies beyond the record ask the backend.
template <AxValue (ElementCalls::*call)()>
AxValue viaCalls(const AttributeInput& in) {
  if (!in.calls) return AxError::cannotComplete;
  return (in.calls->*call)();
}

// Whether an element's text is written through EditableText: only where the
// toolkit also marks it editable, as a read-only field keeps the interface.
bool textWritable(const ElementRecord& r) { return (r.interfaces & editableTextInterface) && r.states.editable(); }

// Whether an element's number is written through the Value interface. A
// spreadsheet cell has one too, whose writes the application takes and
// ignores: a cell is written by keys.
bool numberWritable(const ElementRecord& r) { return (r.interfaces & valueInterface) && !isTableCellRole(r.role); }

// Whether a pop-up's choice is written by selecting its option: GTK 3 keeps
// the options in a menu that stays hidden until it opens, and the pop-up
// selects among them without opening it.
bool choiceWritable(const ElementRecord& r) {
  return isComboRole(r.role) && !r.editableChild && (r.interfaces & selectionInterface);
}

std::optional<double> wholeNumber(std::string_view text) {
  double number = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || text.empty()) return std::nullopt;
  return number;
}

AxError writeValue(const ElementRecord& r, const AxValue& value, ElementCalls& calls) {
  if (auto text = value.get<std::string>(); text && textWritable(r)) return calls.setText(*text);
  if (auto text = value.get<std::string>(); text && choiceWritable(r)) return calls.selectChoice(*text);
  // Agents write numbers as text too: "75" moves a slider.
  std::optional<double> number;
  if (auto given = value.get<double>())
    number = *given;
  else if (auto text = value.get<std::string>())
    number = wholeNumber(*text);
  if (number && numberWritable(r)) return calls.setNumber(*number);
  return AxError::attributeUnsupported;
}

AxError writeFocused(const ElementRecord& r, const AxValue& value, ElementCalls& calls) {
  if (!value.as<bool>().value_or(false)) return AxError::attributeUnsupported;
  // GTK4 has no GrabFocus, and keeps the state of its window's focus.
  if (r.states.focused()) return AxError::success;
  return calls.grabFocus();
}

AxError writeSelected(const ElementRecord&, const AxValue& value, ElementCalls& calls) {
  return calls.select(value.as<bool>().value_or(false));
}

AxError writeTextRange(const ElementRecord&, const AxValue& value, ElementCalls& calls) {
  auto range = value.get<AxRange>();
  return range ? calls.selectText(*range) : AxError::attributeUnsupported;
}

constexpr std::uint32_t recordParts = basicPart | contentPart;
constexpr std::uint32_t textParts = textPart | contentPart;
constexpr std::uint32_t treeParts = childrenPart | basicPart;

using In = const AttributeInput&;
using Record = const ElementRecord&;

// The order is the one an element lists its names in.
AxError askForTree(const ElementRecord&, const AxValue& value, ElementCalls& calls) {
  return value.as<bool>().value_or(false) ? calls.showAssistiveClient() : AxError::success;
}

const std::array rows{
    AttributeRow{"AXRole", Scope::element, recordParts, roleOf},
    AttributeRow{"AXSubrole", Scope::element, recordParts, subroleOf},
    AttributeRow{"AXTitle", Scope::element, recordParts, titleOf},
    AttributeRow{"AXDescription", Scope::element, recordParts,
                 [](In in) {
                   const auto& text = in.record.description;
                   return textOrMissing(in.toolkit == qtToolkit ? plainText(text) : text);
                 }},
    AttributeRow{"AXValue", Scope::element, recordParts, valueOf,
                 [](Record r) { return textWritable(r) || numberWritable(r) || choiceWritable(r); }, writeValue},
    AttributeRow{"AXIdentifier", Scope::element, recordParts,
                 [](In in) { return textOrMissing(in.record.accessibleId); }},
    AttributeRow{"AXPlaceholderValue", Scope::element, recordParts,
                 [](In in) { return textOrMissing(in.record.placeholder); }},
    AttributeRow{"AXPosition", Scope::element, extentsPart,
                 [](In in) {
                   const auto& e = in.record.extents;
                   return e ? AxValue(AxPoint{e->x, e->y}) : missing();
                 }},
    AttributeRow{"AXSize", Scope::element, extentsPart,
                 [](In in) {
                   const auto& e = in.record.extents;
                   return e ? AxValue(AxSize{e->width, e->height}) : missing();
                 }},
    AttributeRow{"AXEnabled", Scope::element, recordParts, enabledOf},
    AttributeRow{"AXFocused", Scope::element, recordParts, [](In in) { return AxValue(in.record.states.focused()); },
                 [](Record r) { return r.states.focusable() && (r.interfaces & componentInterface) != 0; },
                 writeFocused},
    AttributeRow{"AXSelected", Scope::element, recordParts,
                 [](In in) {
                   const auto& s = in.record.states;
                   return s.selectable() ? AxValue(s.selected()) : missing();
                 },
                 [](Record r) { return r.states.selectable(); }, writeSelected},
    AttributeRow{"AXExpanded", Scope::element, recordParts,
                 [](In in) {
                   const auto& s = in.record.states;
                   return s.expandable() ? AxValue(s.expanded()) : missing();
                 }},
    AttributeRow{"AXURL", Scope::element, recordParts,
                 [](In in) { return in.record.uri.empty() ? missing() : AxValue(AxUrl{in.record.uri}); }},
    AttributeRow{"AXParent", Scope::element, parentPart, parentOf},
    AttributeRow{"AXChildren", Scope::element, treeParts, viaCalls<&ElementCalls::shownChildren>},
    AttributeRow{"AXMinValue", Scope::element, recordParts, [](In in) { return optionalNumber(in.record.minimum); }},
    AttributeRow{"AXMaxValue", Scope::element, recordParts, [](In in) { return optionalNumber(in.record.maximum); }},
    AttributeRow{"AXNumberOfCharacters", Scope::element, textParts,
                 [](In in) { return in.record.characterCount >= 0 ? AxValue(in.record.characterCount) : missing(); }},
    AttributeRow{"AXSelectedTextRange", Scope::element, textParts, selectedRangeOf,
                 [](Record r) { return (r.interfaces & textInterface) != 0; }, writeTextRange},
    AttributeRow{"AXFrame", Scope::element, extentsPart,
                 [](In in) { return in.record.extents ? AxValue(*in.record.extents) : missing(); }},
    AttributeRow{"AXMenuItemCmdChar", Scope::element, recordParts, [](In in) { return shortcutPart(in, true); }},
    AttributeRow{"AXMenuItemCmdModifiers", Scope::element, recordParts, [](In in) { return shortcutPart(in, false); }},
    AttributeRow{"AXMenuItemMarkChar", Scope::element, recordParts,
                 [](In in) {
                   const auto& r = in.record;
                   return isCheckMenuItemRole(r.role) && r.states.checked() ? AxValue("✓") : missing();
                 }},
    AttributeRow{"AXMinimized", Scope::element, recordParts,
                 [](In in) { return windowState(in, in.record.states.iconified()); }},
    AttributeRow{"AXMain", Scope::element, recordParts,
                 [](In in) { return windowState(in, in.record.states.active()); }},
    AttributeRow{"AXWindows", Scope::application, childrenPart, viaCalls<&ElementCalls::windows>},
    AttributeRow{"AXFocusedWindow", Scope::application, childrenPart, viaCalls<&ElementCalls::frontWindow>},
    AttributeRow{"AXMainWindow", Scope::application, childrenPart, viaCalls<&ElementCalls::frontWindow>},
    AttributeRow{"AXFrontmost", Scope::application, childrenPart, viaCalls<&ElementCalls::frontmost>},
    AttributeRow{"AXMenuBar", Scope::application, 0, viaCalls<&ElementCalls::menuBar>},
    AttributeRow{"AXFocusedUIElement", Scope::focus, 0, viaCalls<&ElementCalls::focusedElement>},
    AttributeRow{"AXFocusedApplication", Scope::desktop, 0, viaCalls<&ElementCalls::frontApplication>},
    // The two ways a client asks an application for its tree: most toolkits
    // build theirs whenever a client listens, and some only once one shows
    // itself. Nothing to read, nothing to switch off.
    AttributeRow{"AXManualAccessibility", Scope::application, 0, [](In) { return missing(); },
                 [](Record) { return true; }, askForTree, 0},
    AttributeRow{"AXEnhancedUserInterface", Scope::application, 0, [](In) { return missing(); },
                 [](Record) { return true; }, askForTree, 0},
};

bool inScope(Scope scope, const ElementRecord& r) {
  switch (scope) {
    case Scope::element:
      return r.kind != ObjectKind::desktop;
    case Scope::application:
      return r.kind == ObjectKind::application;
    case Scope::focus:
      return r.kind != ObjectKind::element;
    case Scope::desktop:
      return r.kind == ObjectKind::desktop;
  }
  return false;
}

}  // namespace

std::span<const AttributeRow> attributeTable() { return rows; }

const AttributeRow* attributeRow(std::string_view name) {
  auto row = std::find_if(rows.begin(), rows.end(), [&](const AttributeRow& r) { return r.name == name; });
  return row == rows.end() ? nullptr : &*row;
}

ElementRecord desktopRecord() {
  ElementRecord r;
  r.kind = ObjectKind::desktop;
  return r;
}

AxValue readAttribute(std::string_view name, const AttributeInput& input) {
  if (input.record.error != AxError::success) return input.record.error;
  const AttributeRow* row = attributeRow(name);
  if (!row || !inScope(row->scope, input.record)) return missing();
  return row->read(input);
}

AxValue attributeValue(const ElementRecord& record, std::string_view name, std::string_view toolkit) {
  return readAttribute(name, AttributeInput{record, toolkit, nullptr});
}

bool isAttributeSettable(std::string_view name, const ElementRecord& record) {
  const AttributeRow* row = attributeRow(name);
  return row && row->settable && record.error == AxError::success && inScope(row->scope, record) &&
         row->settable(record);
}

std::uint32_t partsToSet(std::string_view name) {
  const AttributeRow* row = attributeRow(name);
  return row && row->settable ? row->settableParts : basicPart;
}

AxError writeAttribute(std::string_view name, const ElementRecord& record, const AxValue& value, ElementCalls& calls) {
  if (record.error != AxError::success) return record.error;
  if (!isAttributeSettable(name, record)) return AxError::attributeUnsupported;
  return attributeRow(name)->write(record, value, calls);
}

std::uint32_t partsFor(const std::vector<std::string>& names) {
  std::uint32_t parts = 0;
  // A name no element has still costs the basic part, which tells whether
  // the element is there at all.
  for (const auto& name : names)
    if (const AttributeRow* row = attributeRow(name))
      parts |= row->parts;
    else
      parts |= basicPart;
  return parts;
}

std::vector<std::string> attributeTableNames() {
  std::vector<std::string> names;
  names.reserve(rows.size());
  for (const auto& row : rows) names.emplace_back(row.name);
  return names;
}

}  // namespace glimmerstrand::platform::linux_desktop
