// The AX attributes of the Linux backend, in one table: each named once, with
// what of an element's record it needs, how it reads, whether and how it is
// written. Reads, writes, the settable answer and the list of an element's
// names all come from this table, so they cannot disagree. Internal to the
// Linux backend; the table is constant and every function here is pure but
// for the calls it makes through ElementCalls.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/ax_error.h"
#include "platform/ax_value.h"
#include "platform/linux/atspi_reader.h"

namespace glimmerstrand::platform::linux_desktop {

/// What a row needs beyond the element's record: other objects on the bus
/// and what the backend learned from events, and the writes. The backend
/// makes one for each element it reads or writes; a test gives its own.
class ElementCalls {
 public:
  virtual ~ElementCalls() = default;
  /// The children as a person sees them (without hidden ones, with sheets).
  virtual AxValue shownChildren() = 0;
  /// The application's element with the keyboard focus; on the desktop,
  /// that of the frontmost application.
  virtual AxValue focusedElement() = 0;
  /// The frontmost application (the desktop only).
  virtual AxValue frontApplication() = 0;
  virtual AxValue menuBar() = 0;
  virtual AxValue windows() = 0;
  virtual AxValue frontWindow() = 0;
  virtual AxValue frontmost() = 0;

  virtual AxError setText(const std::string& text) = 0;
  virtual AxError setNumber(double number) = 0;
  virtual AxError grabFocus() = 0;
  virtual AxError select(bool selected) = 0;
  /// The option of a pop-up named `name`; illegalArgument when none is.
  virtual AxError selectChoice(const std::string& name) = 0;
  /// A range of characters, or the caret where it is empty.
  virtual AxError selectText(const AxRange& range) = 0;
  /// Tells the application an assistive technology is there, where its
  /// toolkit builds its trees only then; success where there is nothing to
  /// tell.
  virtual AxError showAssistiveClient() = 0;
};

/// Which objects an attribute belongs to, by their ObjectKind.
enum class Scope {
  element,      // every object but the desktop
  application,  // the application's own object
  focus,        // the application and the desktop
  desktop,      // the desktop only
};

/// What a reader reads from: the element's record, its application's
/// toolkit, whose naming quirks are undone, and the calls beyond the
/// record (null where there are none, which only the rows read from the
/// record may meet).
struct AttributeInput {
  const ElementRecord& record;
  std::string_view toolkit;
  ElementCalls* calls = nullptr;
};

struct AttributeRow {
  std::string_view name;
  Scope scope = Scope::element;
  std::uint32_t parts = 0;  // of the record, for the reader
  AxValue (*read)(const AttributeInput&) = nullptr;
  /// Whether the element takes a write, from the `settableParts` of its
  /// record; null: never.
  bool (*settable)(const ElementRecord&) = nullptr;
  /// Called only where `settable` holds; refuses values of a kind it cannot
  /// write.
  AxError (*write)(const ElementRecord&, const AxValue&, ElementCalls&) = nullptr;
  std::uint32_t settableParts = basicPart;
};

/// Every row, in the order an element lists its names.
std::span<const AttributeRow> attributeTable();
/// The row of `name`, or null for a name no element has here.
const AttributeRow* attributeRow(std::string_view name);

/// The record of the system-wide object: the desktop, which has nothing of
/// its own to read.
ElementRecord desktopRecord();

/// The value of one attribute: an AxError value where the element does not
/// have it, or the record's error where it could not be read.
AxValue readAttribute(std::string_view name, const AttributeInput& input);
/// The AX value from the record alone, for the rows that read nothing else.
AxValue attributeValue(const ElementRecord& record, std::string_view name, std::string_view toolkit);

/// What a set or isSettable of `name` reads of the record: what its settable
/// rule needs, and for a name without one the basic part, which tells
/// whether the element is there at all.
std::uint32_t partsToSet(std::string_view name);
/// Whether the element takes a write of the attribute.
bool isAttributeSettable(std::string_view name, const ElementRecord& record);
/// Writes the attribute where it is settable; attributeUnsupported where it
/// is not, without a call.
AxError writeAttribute(std::string_view name, const ElementRecord& record, const AxValue& value, ElementCalls& calls);

/// Every name of the table, for an element's list of those it has.
std::vector<std::string> attributeTableNames();

}  // namespace glimmerstrand::platform::linux_desktop
