// Values of the statement language: the scalar of a property or literal, the
// cell of a result row, the insertion-ordered map of rows and literal maps, and
// the language's one error. Plain values; no shared state, safe to copy across
// threads.
//
// Texts are stored as UTF-8. Byte equality of valid UTF-8 is code-point
// equality, which is the same as equality of UTF-16 code units, so scalar
// strings compare exactly as the language requires without re-encoding.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace glimmerstrand::cypher {

/// The null case of a scalar.
struct Null {
  bool operator==(const Null&) const = default;
};

/// Boolean, binary64 number, text or null. The case order is significant
/// (it feeds the hash and the comparator of ORDER BY).
struct ScalarValue {
  std::variant<bool, double, std::string, Null> value{Null{}};

  ScalarValue() = default;
  ScalarValue(std::nullptr_t) {}
  ScalarValue(bool b) : value(b) {}
  ScalarValue(double d) : value(d) {}
  ScalarValue(int n) : value(static_cast<double>(n)) {}
  ScalarValue(std::int64_t n) : value(static_cast<double>(n)) {}
  ScalarValue(std::string s) : value(std::move(s)) {}
  ScalarValue(std::string_view s) : value(std::string(s)) {}
  ScalarValue(const char* s) : value(std::string(s)) {}

  bool isNull() const { return std::holds_alternative<Null>(value); }
  bool isBool() const { return std::holds_alternative<bool>(value); }
  bool isNumber() const { return std::holds_alternative<double>(value); }
  bool isString() const { return std::holds_alternative<std::string>(value); }

  /// The payload when the case matches; nullptr otherwise.
  const bool* asBool() const { return std::get_if<bool>(&value); }
  const double* asNumber() const { return std::get_if<double>(&value); }
  const std::string* asString() const { return std::get_if<std::string>(&value); }

  /// "true"/"false", numberText, the string itself, or "null".
  std::string text() const;

  /// IEEE equality for numbers (so NaN != NaN), code-unit equality for texts,
  /// and never equal across cases.
  friend bool operator==(const ScalarValue& a, const ScalarValue& b);
};

std::size_t hashValue(const ScalarValue& v);

/// Canonical-equivalence key of a map key: texts that are canonically
/// equivalent give the same key (NFC). ASCII texts are their own key.
std::string mapKeyOf(std::string_view key);

/// An insertion-ordered map from text to V. Keys are matched by canonical
/// equivalence; each key keeps the spelling and position of its first insert.
template <typename V>
class OrderedMap {
 public:
  OrderedMap() = default;
  OrderedMap(std::initializer_list<std::pair<std::string, V>> pairs) {
    for (const auto& [k, v] : pairs) set(k, v);
  }
  explicit OrderedMap(std::vector<std::pair<std::string, V>> pairs) {
    for (auto& [k, v] : pairs) set(k, std::move(v));
  }

  std::size_t count() const { return keys_.size(); }
  bool isEmpty() const { return keys_.empty(); }
  const std::vector<std::string>& keys() const { return keys_; }
  const std::vector<V>& values() const { return values_; }

  const V* get(std::string_view key) const {
    auto at = find(key);
    return at ? &values_[*at] : nullptr;
  }
  bool contains(std::string_view key) const { return find(key).has_value(); }

  /// An existing key keeps its place and takes the value; a new key goes last.
  void set(std::string_view key, V value) {
    if (auto at = find(key)) {
      values_[*at] = std::move(value);
      return;
    }
    keys_.emplace_back(key);
    values_.push_back(std::move(value));
  }

  /// Removes the key and closes the gap; an absent key changes nothing.
  void remove(std::string_view key) {
    if (auto at = find(key)) {
      keys_.erase(keys_.begin() + static_cast<std::ptrdiff_t>(*at));
      values_.erase(values_.begin() + static_cast<std::ptrdiff_t>(*at));
    }
  }

  /// Writes the value, or removes the key when given none.
  void setOrRemove(std::string_view key, std::optional<V> value) {
    if (value)
      set(key, std::move(*value));
    else
      remove(key);
  }

  /// Pairs in key order.
  template <typename F>
  void forEach(F&& f) const {
    for (std::size_t i = 0; i < keys_.size(); ++i) f(keys_[i], values_[i]);
  }

  friend bool operator==(const OrderedMap& a, const OrderedMap& b) {
    if (a.keys_.size() != b.keys_.size()) return false;
    for (std::size_t i = 0; i < a.keys_.size(); ++i) {
      if (!sameKey(a.keys_[i], b.keys_[i])) return false;
      if (!(a.values_[i] == b.values_[i])) return false;
    }
    return true;
  }

 private:
  static bool sameKey(const std::string& a, const std::string& b) { return a == b || mapKeyOf(a) == mapKeyOf(b); }
  // Maps of the language are small (a row, a literal), so a scan beats an
  // index and keeps the type usable with an incomplete V.
  std::optional<std::size_t> find(std::string_view key) const {
    for (std::size_t i = 0; i < keys_.size(); ++i)
      if (keys_[i] == key) return i;
    std::string wanted = mapKeyOf(key);
    if (wanted == key) {
      // Only a non-ASCII stored key can still be equivalent.
      for (std::size_t i = 0; i < keys_.size(); ++i)
        if (hasNonAscii(keys_[i]) && mapKeyOf(keys_[i]) == wanted) return i;
      return std::nullopt;
    }
    for (std::size_t i = 0; i < keys_.size(); ++i)
      if (mapKeyOf(keys_[i]) == wanted) return i;
    return std::nullopt;
  }
  static bool hasNonAscii(std::string_view s) {
    for (unsigned char c : s)
      if (c >= 0x80) return true;
    return false;
  }

  std::vector<std::string> keys_;
  std::vector<V> values_;
};

/// The cell of a result row: a scalar, a list or a map.
struct RowValue {
  using List = std::vector<RowValue>;
  using Map = OrderedMap<RowValue>;
  std::variant<ScalarValue, List, Map> value;

  RowValue() = default;
  RowValue(ScalarValue s) : value(std::move(s)) {}
  RowValue(std::nullptr_t) : value(ScalarValue()) {}
  RowValue(bool b) : value(ScalarValue(b)) {}
  RowValue(double d) : value(ScalarValue(d)) {}
  RowValue(int n) : value(ScalarValue(n)) {}
  RowValue(std::int64_t n) : value(ScalarValue(n)) {}
  RowValue(std::string s) : value(ScalarValue(std::move(s))) {}
  RowValue(const char* s) : value(ScalarValue(s)) {}
  RowValue(List l) : value(std::move(l)) {}
  RowValue(Map m) : value(std::move(m)) {}

  const ScalarValue* asScalar() const { return std::get_if<ScalarValue>(&value); }
  const List* asList() const { return std::get_if<List>(&value); }
  const Map* asMap() const { return std::get_if<Map>(&value); }

  friend bool operator==(const RowValue& a, const RowValue& b) { return a.value == b.value; }
};

using Row = OrderedMap<RowValue>;

std::size_t hashValue(const RowValue& v);
std::size_t hashValue(const Row& m);

/// The row with every non-finite number, at any depth, replaced by null: the
/// form DISTINCT compares.
RowValue distinctNormalForm(const RowValue& v);
Row distinctNormalForm(const Row& row);

/// ECMAScript Number::toString (radix 10) of a double.
std::string numberText(double value);

/// "[k: v, ...]", the printed form of a map.
std::string printedForm(const RowValue& v);
std::string printedForm(const Row& m);

/// The language's one error. Printed form: "BadRequestError: " + message.
class BadRequestError : public std::exception {
 public:
  BadRequestError(std::string message, std::optional<std::string> hint = std::nullopt);
  BadRequestError(std::string code, std::string message, std::optional<std::string> hint);

  const std::string& code() const { return code_; }
  const std::string& message() const { return message_; }
  const std::optional<std::string>& hint() const { return hint_; }
  const char* what() const noexcept override { return printed_.c_str(); }

  friend bool operator==(const BadRequestError& a, const BadRequestError& b) {
    return a.code_ == b.code_ && a.message_ == b.message_ && a.hint_ == b.hint_;
  }

 private:
  std::string code_;
  std::string message_;
  std::optional<std::string> hint_;
  std::string printed_;
};

}  // namespace glimmerstrand::cypher

template <>
struct std::hash<glimmerstrand::cypher::ScalarValue> {
  std::size_t operator()(const glimmerstrand::cypher::ScalarValue& v) const {
    return glimmerstrand::cypher::hashValue(v);
  }
};
template <>
struct std::hash<glimmerstrand::cypher::RowValue> {
  std::size_t operator()(const glimmerstrand::cypher::RowValue& v) const { return glimmerstrand::cypher::hashValue(v); }
};
