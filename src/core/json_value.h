// JSON with ordered object keys: results keep their key order on the way out,
// so an object is a list of pairs, duplicates included. Our own encoder writes
// it, because number text and key order are ours to decide.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "cypher/values.h"

namespace glimmerstrand::core {

struct JSONValue {
  struct Null {
    bool operator==(const Null&) const = default;
  };
  using Array = std::vector<JSONValue>;
  using Object = std::vector<std::pair<std::string, JSONValue>>;

  std::variant<bool, double, std::string, Array, Object, Null> value{Null{}};

  JSONValue() = default;
  JSONValue(std::nullptr_t) {}
  JSONValue(bool b) : value(b) {}
  JSONValue(double d) : value(d) {}
  JSONValue(int n) : value(static_cast<double>(n)) {}
  JSONValue(std::int64_t n) : value(static_cast<double>(n)) {}
  JSONValue(std::string s) : value(std::move(s)) {}
  JSONValue(std::string_view s) : value(std::string(s)) {}
  JSONValue(const char* s) : value(std::string(s)) {}
  JSONValue(Array a) : value(std::move(a)) {}
  JSONValue(Object o) : value(std::move(o)) {}

  bool isNull() const { return std::holds_alternative<Null>(value); }
  const bool* asBool() const { return std::get_if<bool>(&value); }
  const double* asNumber() const { return std::get_if<double>(&value); }
  const std::string* asString() const { return std::get_if<std::string>(&value); }
  const Array* asArray() const { return std::get_if<Array>(&value); }
  const Object* asObject() const { return std::get_if<Object>(&value); }
  Array* asArray() { return std::get_if<Array>(&value); }
  Object* asObject() { return std::get_if<Object>(&value); }

  /// The first value under `key` of an object; nullptr when absent or when
  /// this is not an object.
  const JSONValue* find(std::string_view key) const;

  friend bool operator==(const JSONValue& a, const JSONValue& b) { return a.value == b.value; }
};

/// A text as a JSON string literal: the short escapes, \u00xx below U+0020,
/// everything else (U+007F, non-ASCII, the solidus) as it stands.
std::string jsonString(std::string_view text);
void appendJSONString(std::string& out, std::string_view text);

/// Compact JSON: no spaces, pairs in their order, non-finite numbers as null.
std::string jsonText(const JSONValue& value);
void appendJSONText(std::string& out, const JSONValue& value);

/// A row value of the language as JSON, map keys in their order.
JSONValue jsonValue(const cypher::RowValue& value);
JSONValue jsonValue(const cypher::Row& row);

// Lenient readers of an object's keys: a missing key or a value of the wrong
// type reads as absent. Booleans and numbers stand in for each other (true is
// 1, a non-zero number is true), as clients of the line protocol expect.
std::optional<std::string> optionalString(const JSONValue& object, std::string_view key);
std::optional<double> optionalNumber(const JSONValue& object, std::string_view key);
std::optional<std::int64_t> optionalInt(const JSONValue& object, std::string_view key);
/// The integer a number reads as, its fraction dropped; none when it is not
/// finite or lies beyond 64 bits.
std::optional<std::int64_t> integerOf(double number);
std::optional<bool> optionalBool(const JSONValue& object, std::string_view key);

/// Appends a pair to an object under construction.
inline void put(JSONValue::Object& object, std::string key, JSONValue value) {
  object.emplace_back(std::move(key), std::move(value));
}
/// Appends a pair only when the optional holds a value.
template <typename T>
void putIf(JSONValue::Object& object, std::string key, const std::optional<T>& value) {
  if (value) object.emplace_back(std::move(key), JSONValue(*value));
}

/// Parses one JSON text; throws GlimmerstrandError "invalid_argument" when it
/// is not JSON. Object key order and duplicates are kept.
JSONValue parseJSON(std::string_view text);

/// For a text that parseJSON refuses although it follows the JSON grammar
/// (nested too deep, a number beyond a double, a lone surrogate), the value
/// under `key` of its top-level object, the first such key as in `find`: so
/// that a request whose id can be read still gets its error reply. None for
/// a text that breaks the grammar, has no such key, or whose value under
/// the key is refused itself.
std::optional<JSONValue> keyOfRefusedText(std::string_view text, std::string_view key);

}  // namespace glimmerstrand::core
