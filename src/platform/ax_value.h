// The value of an accessibility attribute, in the vocabulary of the AX
// interface: none, an error value, bool, number, text, URL, point, size,
// rectangle, range, element, list and opaque. Plain values; copy freely.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "platform/ax_error.h"
#include "platform/element.h"

namespace glimmerstrand::platform {

struct AxPoint {
  double x = 0, y = 0;
  bool operator==(const AxPoint&) const = default;
};

struct AxSize {
  double width = 0, height = 0;
  bool operator==(const AxSize&) const = default;
};

struct AxRect {
  double x = 0, y = 0, width = 0, height = 0;
  bool operator==(const AxRect&) const = default;
};

struct AxRange {
  std::int64_t location = 0, length = 0;
  bool operator==(const AxRange&) const = default;
};

struct AxUrl {
  std::string text;  // the absolute form
  bool operator==(const AxUrl&) const = default;
};

/// A value of a type the logic does not read, kept with its description.
struct AxOpaque {
  std::string description;
  bool operator==(const AxOpaque&) const = default;
};

/// The longest text a backend hands over, in bytes. A longer one is cut to
/// its whole characters up to the first that reaches past this, so that the
/// reader still tells that it was cut, and an application with huge texts
/// costs a bounded copy of each.
inline constexpr std::size_t maxTextBytes = 1 << 20;

/// Whether a text went over maxTextBytes, which a backend cuts.
inline bool textWasCut(const std::string& text) { return text.size() > maxTextBytes; }

/// `text` cut as maxTextBytes says, at a UTF-8 character boundary.
inline std::string cutText(std::string text) {
  if (!textWasCut(text)) return text;
  std::size_t end = maxTextBytes + 1;
  while (end < text.size() && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) ++end;
  text.resize(end);
  return text;
}

struct AxValue;
using AxList = std::vector<AxValue>;

struct AxValue {
  /// AxError is the platform's error value: what a multi-attribute read puts
  /// in place of a name it could not read.
  using Variant = std::variant<std::monostate, AxError, bool, double, std::string, AxUrl, AxPoint, AxSize, AxRect,
                               AxRange, Element, AxList, AxOpaque>;
  Variant value;

  AxValue() = default;
  AxValue(AxError e) : value(e) {}
  AxValue(bool b) : value(b) {}
  AxValue(double d) : value(d) {}
  AxValue(int n) : value(static_cast<double>(n)) {}
  AxValue(std::int64_t n) : value(static_cast<double>(n)) {}
  AxValue(std::string s) : value(std::move(s)) {}
  AxValue(const char* s) : value(std::string(s)) {}
  AxValue(AxUrl u) : value(std::move(u)) {}
  AxValue(AxPoint p) : value(p) {}
  AxValue(AxSize s) : value(s) {}
  AxValue(AxRect r) : value(r) {}
  AxValue(AxRange r) : value(r) {}
  AxValue(Element e) : value(std::move(e)) {}
  AxValue(AxList l) : value(std::move(l)) {}
  AxValue(AxOpaque o) : value(std::move(o)) {}

  bool isNone() const { return std::holds_alternative<std::monostate>(value); }
  bool isError() const { return std::holds_alternative<AxError>(value); }
  /// The alternative of type T, or nullptr. Not on a temporary, whose
  /// alternative would die with it: use as<T>() there.
  template <typename T>
  const T* get() const& {
    return std::get_if<T>(&value);
  }
  template <typename T>
  const T* get() const&& = delete;
  /// A copy of the alternative of type T, or nothing.
  template <typename T>
  std::optional<T> as() const {
    if (auto v = std::get_if<T>(&value)) return *v;
    return std::nullopt;
  }

  friend bool operator==(const AxValue& a, const AxValue& b) { return a.value == b.value; }
};

}  // namespace glimmerstrand::platform
