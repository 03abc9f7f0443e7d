// The AT-SPI vocabulary translated into the AX one, in one table each: roles,
// states, interfaces, actions and events. Everything above the Linux backend
// speaks AX names; nothing outside this file and its source knows an AT-SPI
// role number or event name.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/ax_value.h"

namespace glimmerstrand::platform::linux_desktop {

/// The interfaces an element implements, as bits.
enum Interface : std::uint32_t {
  accessibleInterface = 1u << 0,
  actionInterface = 1u << 1,
  componentInterface = 1u << 2,
  textInterface = 1u << 3,
  editableTextInterface = 1u << 4,
  valueInterface = 1u << 5,
  selectionInterface = 1u << 6,
  hyperlinkInterface = 1u << 7,
  tableInterface = 1u << 8,
  applicationInterface = 1u << 9,
  collectionInterface = 1u << 10,
  hypertextInterface = 1u << 11,
  documentInterface = 1u << 12,
};

/// The bit of one D-Bus interface name ("org.a11y.atspi.Text"); 0 for others.
std::uint32_t interfaceBit(std::string_view name);

/// The states we read, as bit numbers of the AT-SPI state set.
struct States {
  std::uint64_t bits = 0;
  bool has(int state) const { return state >= 0 && state < 64 && (bits >> state) & 1u; }
  bool active() const;
  bool checked() const;
  bool indeterminate() const;
  bool pressed() const;
  bool editable() const;
  bool enabled() const;
  bool expandable() const;
  bool expanded() const;
  bool focusable() const;
  bool focused() const;
  bool iconified() const;
  bool multiLine() const;
  bool selectable() const;
  bool selected() const;
  bool showing() const;
  bool visible() const;
  bool managesDescendants() const;
  bool defunct() const;
};

/// The toolkits whose trees differ in how they mark what a person cannot see,
/// as `toolkitName` names them.
inline constexpr std::string_view gtk3Toolkit = "GTK";
inline constexpr std::string_view gtk4Toolkit = "GTK4";
inline constexpr std::string_view qtToolkit = "Qt";
inline constexpr std::string_view geckoToolkit = "GECKO";
inline constexpr std::string_view chromiumToolkit = "CHROMIUM";

/// Whether the toolkit is a browser engine, whose pages bring web roles.
bool isWebToolkit(std::string_view toolkit);

/// The toolkit's name as this backend uses it, from the application's
/// ToolkitName and Version: "GTK" and "GTK4" apart, "Qt", else the name in
/// capitals ("GECKO", "CHROMIUM").
std::string toolkitName(std::string_view atspiName, std::string_view version);

/// Whether a child that the toolkit keeps in its tree is out of a person's
/// sight: not VISIBLE anywhere; where the toolkit keeps SHOWING true to the
/// screen, not SHOWING while its parent is; where it keeps hidden widgets
/// unallocated (GTK 3 and 4), a frame without area; in Firefox, the pane of
/// a tab in the background. `extents` is absent when the child has no frame
/// to read.
bool isHiddenChild(std::uint32_t childRole, const States& child, const std::optional<AxRect>& extents,
                   const States& parent, std::string_view toolkit);

/// Whether isHiddenChild needs a child's frame for `toolkit`.
bool hidesByArea(std::string_view toolkit);

/// What decides an element's AX role besides its own AT-SPI role.
struct RoleContext {
  std::uint32_t role = 0;
  States states;
  std::uint32_t interfaces = 0;
  std::optional<std::uint32_t> parentRole;  // read for menus only
  bool editableChild = false;               // read for combo boxes only
  std::string xmlRoles;                     // a page's own role for it, read for landmarks only
};

struct AxRole {
  std::string role;
  std::string subrole;  // empty for none
};

AxRole axRole(const RoleContext& context);

/// Whether the AX role of an element with this AT-SPI role depends on its
/// parent's role, or on its children.
bool roleNeedsParent(std::uint32_t role);
bool roleNeedsChildren(std::uint32_t role);
/// Whether the AT-SPI role is a menu bar, a menu or a popup menu.
bool isMenuRole(std::uint32_t role);
bool isMenuBarRole(std::uint32_t role);
bool isWindowRole(std::uint32_t role);
bool isApplicationRole(std::uint32_t role);
/// Roles whose value is the number of a Value interface rather than text.
bool isRangeRole(std::uint32_t role);
/// Roles whose AX value is a check state (0, 1 or 2).
bool isCheckRole(std::uint32_t role);
bool isComboRole(std::uint32_t role);
bool isTextEntryRole(std::uint32_t role);
/// Roles shown as static text: their text is their value, not their title.
bool isStaticTextRole(std::uint32_t role);
/// Menu items with a check mark.
bool isCheckMenuItemRole(std::uint32_t role);
bool isMenuItemRole(std::uint32_t role);
/// Roles whose object attributes tell more: a placeholder, a heading's
/// level, a landmark's kind.
bool roleNeedsAttributes(std::uint32_t role);
bool isHeadingRole(std::uint32_t role);

/// A menu item's shortcut as the walk reads it: the key, and the modifier
/// bits of a menu item (1 shift, 2 alt, 4 control, 8 without the primary
/// modifier, which is Control here).
struct Shortcut {
  std::string key;
  int modifiers = 0;
  bool operator==(const Shortcut&) const = default;
};
/// From an action's key binding: GTK's "mnemonic;path;accelerator"
/// ("q;<Alt>f:q;<Primary>q") or Qt's "Ctrl+Shift+S". Absent when it names
/// no accelerator.
std::optional<Shortcut> shortcutOf(std::string_view keyBinding);
bool isColumnHeaderRole(std::uint32_t role);
bool isTableCellRole(std::uint32_t role);

/// The AT-SPI action that serves an AX action ("AXPress" → the first of
/// click, press, activate, toggle, jump), by index into `actions`.
std::optional<std::size_t> atspiActionFor(std::string_view axAction, const std::vector<std::string>& actions);
/// The AX names of an element's AT-SPI actions, each once, in a stable order.
std::vector<std::string> axActionNames(const std::vector<std::string>& actions, std::uint32_t interfaces);

/// An AT-SPI event, as it arrives: the signal's interface suffix ("Object",
/// "Window", "Focus"), its member ("StateChanged") and its detail ("focused").
struct AtspiEvent {
  std::string_view interface;
  std::string_view member;
  std::string_view detail;
  std::int32_t detail1 = 0;
};

/// The AX notification an event means; none for events the mirror does not
/// follow (including those that would flood it).
std::optional<std::string_view> notificationFor(const AtspiEvent& event);
/// The AT-SPI event types (as the registry names them, "object:state-changed")
/// that can produce this notification; empty when none can.
std::vector<std::string> eventTypesFor(std::string_view notification);

}  // namespace glimmerstrand::platform::linux_desktop
