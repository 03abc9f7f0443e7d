// Reads what an element shows through AT-SPI, for many elements at once:
// every call of a round goes out before the first reply is awaited, so a
// batch costs a few round trips however many elements it covers. Internal to
// the Linux backend. Thread-safe: it keeps no state of its own.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/ax_error.h"
#include "platform/ax_value.h"
#include "platform/linux/atspi_vocabulary.h"
#include "platform/linux/gdbus_call.h"

namespace glimmerstrand::platform::linux_desktop {

/// An object reference as AT-SPI passes it: bus name and path.
struct ObjectRef {
  std::string bus;
  std::string path;
  bool isNull() const { return bus.empty() || path == "/org/a11y/atspi/null"; }
  bool operator==(const ObjectRef&) const = default;
};

/// What to read. Each part costs calls; a read asks for what its names need.
enum Part : std::uint32_t {
  basicPart = 1u << 0,     // role, states, interfaces, name, description, id
  childrenPart = 1u << 1,  // the children
  extentsPart = 1u << 2,   // the frame
  contentPart = 1u << 3,   // text, value, URL, placeholder, and what the role needs
  parentPart = 1u << 4,    // the parent
  actionsPart = 1u << 5,   // the action names
  textPart = 1u << 6,      // caret, selection and character count
  allWalkParts = basicPart | childrenPart | extentsPart | contentPart,
};

/// What object a record is of, as its path tells without a call.
enum class ObjectKind {
  element,
  application,  // the application's own object
  desktop,      // the system-wide object, which stands for the desktop
};

struct ElementRecord {
  AxError error = AxError::success;  // set when the element could not be read at all
  std::uint32_t parts = 0;           // what was read
  std::uint32_t role = 0;
  States states;
  std::uint32_t interfaces = 0;
  std::string name;
  std::string description;
  std::string accessibleId;
  std::optional<std::vector<ObjectRef>> children;
  std::int32_t childCount = -1;   // as the element tells it; -1 unread
  bool childrenWithheld = false;  // too many to list, or made on demand: never asked for all
  std::optional<AxRect> extents;  // absent for hidden objects
  std::optional<std::string> text;
  std::optional<double> value;
  std::optional<double> minimum, maximum, step;
  std::string placeholder;
  std::string uri;
  std::optional<ObjectRef> parent;
  std::optional<std::uint32_t> parentRole;
  bool editableChild = false;
  std::vector<ObjectRef> choiceOptions;  // a combo box's items, as its menu holds them
  std::optional<ObjectRef> choiceRef;    // the item of those marked selected
  std::string choice;                    // that item's name
  std::string xmlRoles;                  // the roles a page gave the element
  std::optional<std::int32_t> level;     // a heading's
  std::vector<std::string> actions;
  std::string keyBinding;  // of the first action, as the toolkit writes it
  std::int32_t characterCount = -1;
  std::int32_t caret = -1;
  std::optional<std::pair<std::int32_t, std::int32_t>> selection;
  std::string toolkit;  // of the application element only, for its quirks
  // Not read but learned by the backend: what object this is, and the
  // window a dialog hangs from, where it shows as that window's sheet.
  ObjectKind kind = ObjectKind::element;
  std::optional<ObjectRef> sheetOwner;

  RoleContext roleContext() const { return {role, states, interfaces, parentRole, editableChild, xmlRoles}; }
};

/// An object reference of a reply ("(so)"), and a list of them ("a(so)",
/// without the null object toolkits put for a missing child).
std::optional<ObjectRef> objectRef(const Variant& value);
std::vector<ObjectRef> objectRefs(const Variant& list);

/// What a toolkit's cache tells of one element in a single call for the
/// whole application: the basic part of a record, how many children it has
/// and where it stands in its parent.
struct CachedItem {
  std::uint32_t role = 0;
  States states;
  std::uint32_t interfaces = 0;
  std::string name;
  std::string description;
  std::int32_t childCount = -1;
  std::string parent;               // the parent's path; empty where the item names none
  std::int32_t indexInParent = -1;  // -1 where it does not tell
};
using CachedItems = std::unordered_map<std::string, CachedItem>;  // by object path

/// One application's cache as a tree: the items, and the children of each
/// item whose children are all among the items, each in the place its index
/// tells. An item whose children the cache leaves out (a list that manages
/// its rows) has no entry in `children`.
struct CachedTree {
  CachedItems items;
  std::unordered_map<std::string, std::vector<ObjectRef>> children;  // by the parent's path
  bool empty() const { return items.empty(); }
};

/// The items of one application's cache (org.a11y.atspi.Cache.GetItems);
/// empty where the toolkit has none (Qt) or its bridge answers nothing yet.
CachedItems readCachedItems(GDBusConnection* connection, const std::string& bus, int timeoutMs);
/// The tree the items of the application on `bus` make.
CachedTree cachedTree(const std::string& bus, CachedItems items);

/// The elements below `roots` whose children the cache tells, breadth
/// first, without the roots: no more than `budget`, no deeper than `levels`
/// below a root, and below an element only where `enters` takes its item.
std::vector<ObjectRef> cachedDescendants(const CachedTree& tree, const std::vector<ObjectRef>& roots,
                                         std::size_t budget, std::size_t levels,
                                         const std::function<bool(const CachedItem&)>& enters);

/// Whether a container's children are too many to ask for at once, or made
/// only when asked for (a spreadsheet claims 2^34 cells, which the
/// application would build): such children are read near the visible area
/// only.
bool withholdsChildren(const States& states, std::int32_t childCount);

/// Reads `parts` of each element, pipelined. One record per element, in order;
/// a record whose element is gone or does not answer has its error set.
/// Elements found in `cached` (of their application) take their basic part
/// and their children from it where it tells them, and what depends on the
/// basic part goes out in the first round; where `parts` lacks the basic
/// part, they ask nothing for it. With `web` (a browser's objects, whose
/// toolkit gives a whole text for an end of -1), the text of what is not a
/// field is read without its count first, and a select's chosen option is
/// read.
std::vector<ElementRecord> readRecords(GDBusConnection* connection, const std::vector<ObjectRef>& elements,
                                       std::uint32_t parts, int timeoutMs, const CachedTree* cached = nullptr,
                                       bool web = false);

/// The parts a read of these AX attribute names needs, as the attribute
/// table (atspi_attributes.h) tells them.
std::uint32_t partsFor(const std::vector<std::string>& names);

/// A toolkit's name for an element, cleaned of what the toolkit adds: a
/// repeated label and a mnemonic underscore (GTK4), a class name for no name
/// (GTK), the markup of a rich-text label (Qt).
std::string cleanedName(const std::string& name, std::uint32_t role, std::string_view toolkit);
/// A rich-text label ("x<sup>3</sup>", "a &amp; b") as plain text ("x^3",
/// "a & b"); text without a tag stays as it is.
std::string plainText(const std::string& richText);

}  // namespace glimmerstrand::platform::linux_desktop
