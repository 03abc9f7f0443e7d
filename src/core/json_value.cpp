#include "core/json_value.h"

#include <nlohmann/json.hpp>

#include <cctype>
#include <cmath>

#include "core/errors.h"

namespace glimmerstrand::core {

const JSONValue* JSONValue::find(std::string_view key) const {
  auto object = asObject();
  if (!object) return nullptr;
  for (const auto& [k, v] : *object)
    if (k == key) return &v;
  return nullptr;
}

std::optional<std::string> optionalString(const JSONValue& object, std::string_view key) {
  auto v = object.find(key);
  if (!v || !v->asString()) return std::nullopt;
  return *v->asString();
}

std::optional<double> optionalNumber(const JSONValue& object, std::string_view key) {
  auto v = object.find(key);
  if (!v) return std::nullopt;
  if (auto d = v->asNumber()) return *d;
  if (auto b = v->asBool()) return *b ? 1.0 : 0.0;
  return std::nullopt;
}

std::optional<std::int64_t> optionalInt(const JSONValue& object, std::string_view key) {
  auto d = optionalNumber(object, key);
  return d ? integerOf(*d) : std::nullopt;
}

std::optional<std::int64_t> integerOf(double number) {
  // -2^63 and 2^63 are exact doubles; anything outside, and NaN, has no reading.
  if (!(number >= -0x1p63 && number < 0x1p63)) return std::nullopt;
  return static_cast<std::int64_t>(number);
}

std::optional<bool> optionalBool(const JSONValue& object, std::string_view key) {
  auto v = object.find(key);
  if (!v) return std::nullopt;
  if (auto b = v->asBool()) return *b;
  if (auto d = v->asNumber()) return *d != 0;
  return std::nullopt;
}

void appendJSONString(std::string& out, std::string_view text) {
  static constexpr char hex[] = "0123456789abcdef";
  out += '"';
  for (char ch : text) {
    auto c = static_cast<unsigned char>(ch);
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\f':
        out += "\\f";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        if (c < 0x20) {
          out += "\\u00";
          out += hex[c >> 4];
          out += hex[c & 0xf];
        } else {
          out += ch;
        }
    }
  }
  out += '"';
}

std::string jsonString(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 2);
  appendJSONString(out, text);
  return out;
}

void appendJSONText(std::string& out, const JSONValue& value) {
  std::visit(
      [&](const auto& x) {
        using T = std::decay_t<decltype(x)>;
        if constexpr (std::is_same_v<T, bool>) {
          out += x ? "true" : "false";
        } else if constexpr (std::is_same_v<T, double>) {
          out += std::isfinite(x) ? cypher::numberText(x) : "null";
        } else if constexpr (std::is_same_v<T, std::string>) {
          appendJSONString(out, x);
        } else if constexpr (std::is_same_v<T, JSONValue::Array>) {
          out += '[';
          for (std::size_t i = 0; i < x.size(); ++i) {
            if (i) out += ',';
            appendJSONText(out, x[i]);
          }
          out += ']';
        } else if constexpr (std::is_same_v<T, JSONValue::Object>) {
          out += '{';
          for (std::size_t i = 0; i < x.size(); ++i) {
            if (i) out += ',';
            appendJSONString(out, x[i].first);
            out += ':';
            appendJSONText(out, x[i].second);
          }
          out += '}';
        } else {
          out += "null";
        }
      },
      value.value);
}

std::string jsonText(const JSONValue& value) {
  std::string out;
  appendJSONText(out, value);
  return out;
}

JSONValue jsonValue(const cypher::RowValue& value) {
  if (auto s = value.asScalar()) {
    if (auto b = s->asBool()) return *b;
    if (auto d = s->asNumber()) return *d;
    if (auto t = s->asString()) return *t;
    return nullptr;
  }
  if (auto l = value.asList()) {
    JSONValue::Array out;
    out.reserve(l->size());
    for (const auto& e : *l) out.push_back(jsonValue(e));
    return out;
  }
  return jsonValue(*value.asMap());
}

JSONValue jsonValue(const cypher::Row& row) {
  JSONValue::Object out;
  out.reserve(row.count());
  row.forEach([&](const std::string& k, const cypher::RowValue& v) { out.emplace_back(k, jsonValue(v)); });
  return out;
}

namespace {

// Builds a JSONValue straight from parser events, so that key order and
// duplicate keys survive (a DOM would sort or merge them).
class Builder : public nlohmann::json_sax<nlohmann::json> {
 public:
  JSONValue result;

  bool null() override { return put(nullptr); }
  bool boolean(bool v) override { return put(v); }
  bool number_integer(number_integer_t v) override { return put(static_cast<double>(v)); }
  bool number_unsigned(number_unsigned_t v) override { return put(static_cast<double>(v)); }
  bool number_float(number_float_t v, const string_t&) override { return put(v); }
  bool string(string_t& v) override { return put(std::move(v)); }
  bool binary(binary_t&) override { return false; }
  bool start_object(std::size_t) override { return open(JSONValue::Object{}); }
  bool key(string_t& k) override {
    pendingKey_ = std::move(k);
    return true;
  }
  bool end_object() override { return close(); }
  bool start_array(std::size_t) override { return open(JSONValue::Array{}); }
  bool end_array() override { return close(); }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception& error) override {
    // 406: a number beyond the range of a double.
    if (reason) return false;
    if (error.id == 406)
      reason = "JSON の数が倍精度の範囲を超えています";
    else if (std::string_view(error.what()).find("surrogate") != std::string_view::npos)
      reason = "JSON の文字列に対のないサロゲートがあります";
    else
      reason = "JSON ではありません";
    return false;
  }

  /// Why the text was refused; none while it parses.
  std::optional<std::string> reason;

 private:
  // Deeper texts are refused: values are destroyed and printed recursively.
  static constexpr std::size_t maxDepth = 512;

  struct Open {
    JSONValue container;
    std::string keyInParent;
  };

  bool put(JSONValue v) { return place(std::move(v), std::move(pendingKey_)); }
  bool place(JSONValue v, std::string key) {
    if (stack_.empty()) {
      result = std::move(v);
    } else if (auto a = stack_.back().container.asArray()) {
      a->push_back(std::move(v));
    } else {
      stack_.back().container.asObject()->emplace_back(std::move(key), std::move(v));
    }
    return true;
  }
  bool open(JSONValue container) {
    if (stack_.size() >= maxDepth) {
      reason = "JSON の入れ子が深すぎます (上限 " + std::to_string(maxDepth) + " 段)";
      return false;
    }
    stack_.push_back({std::move(container), std::move(pendingKey_)});
    return true;
  }
  bool close() {
    Open done = std::move(stack_.back());
    stack_.pop_back();
    return place(std::move(done.container), std::move(done.keyInParent));
  }

  std::vector<Open> stack_;
  std::string pendingKey_;
};

}  // namespace

JSONValue parseJSON(std::string_view text) {
  Builder builder;
  bool ok = nlohmann::json::sax_parse(text.begin(), text.end(), &builder, nlohmann::json::input_format_t::json, true);
  if (!ok) throw GlimmerstrandError(codes::invalidArgument, builder.reason.value_or("JSON ではありません"));
  return std::move(builder.result);
}

namespace {

// Checks a text against the JSON grammar alone, without the limits the
// parser adds (nesting depth, the range of a double, paired surrogates), and
// notes where the value of one key of the top-level object lies. It keeps
// its nesting in a vector and never recurses.
class GrammarCheck {
 public:
  GrammarCheck(std::string_view text, std::string_view key) : text_(text), key_(key) {}

  /// Whether the whole text is one JSON value.
  bool run() {
    std::vector<char> open;  // '{' or '[' for each open container
    bool memberIsKey = false;
    std::size_t memberStart = 0;
    for (;;) {
      // A value is expected here.
      skipSpace();
      if (open.size() == 1 && open.back() == '{') memberStart = at_;
      if (at_ >= text_.size()) return false;
      const char c = text_[at_];
      if (c == '{' || c == '[') {
        open.push_back(c);
        ++at_;
        skipSpace();
        if (at_ < text_.size() && text_[at_] == (c == '{' ? '}' : ']')) {
          ++at_;
          open.pop_back();
        } else if (c == '{') {
          if (!member(open.size(), memberIsKey)) return false;
          continue;
        } else {
          continue;
        }
      } else if (c == '"') {
        if (!string()) return false;
      } else if (c == '-' || (c >= '0' && c <= '9')) {
        if (!number()) return false;
      } else if (!word("true") && !word("false") && !word("null")) {
        return false;
      }
      // A value ended: close containers, or go on to the next item.
      for (;;) {
        if (open.size() == 1 && open.back() == '{' && memberIsKey && !found_) {
          found_ = text_.substr(memberStart, at_ - memberStart);
          memberIsKey = false;
        }
        skipSpace();
        if (open.empty()) return at_ == text_.size();
        if (at_ >= text_.size()) return false;
        const char next = text_[at_++];
        if (next == ',') {
          if (open.back() == '{' && !member(open.size(), memberIsKey)) return false;
          break;
        }
        if (next != (open.back() == '{' ? '}' : ']')) return false;
        open.pop_back();
      }
    }
  }

  /// The text of the key's value, when run() found one.
  std::optional<std::string_view> found() const { return found_; }

 private:
  // A key and its colon; notes whether a top-level member has the key.
  bool member(std::size_t depth, bool& memberIsKey) {
    skipSpace();
    const std::size_t start = at_;
    if (!string()) return false;
    if (depth == 1 && !found_) {
      try {
        auto name = parseJSON(text_.substr(start, at_ - start));
        memberIsKey = name.asString() && *name.asString() == key_;
      } catch (const GlimmerstrandError&) {
        memberIsKey = false;  // a key that does not decode is not the one asked for
      }
    }
    skipSpace();
    return at_ < text_.size() && text_[at_++] == ':';
  }
  void skipSpace() {
    while (at_ < text_.size() && (text_[at_] == ' ' || text_[at_] == '\t' || text_[at_] == '\n' || text_[at_] == '\r'))
      ++at_;
  }
  bool digits() {
    const std::size_t start = at_;
    while (at_ < text_.size() && text_[at_] >= '0' && text_[at_] <= '9') ++at_;
    return at_ > start;
  }
  bool number() {
    if (text_[at_] == '-') ++at_;
    if (at_ < text_.size() && text_[at_] == '0')
      ++at_;
    else if (!digits())
      return false;
    if (at_ < text_.size() && text_[at_] == '.' && (++at_, !digits())) return false;
    if (at_ < text_.size() && (text_[at_] == 'e' || text_[at_] == 'E')) {
      ++at_;
      if (at_ < text_.size() && (text_[at_] == '+' || text_[at_] == '-')) ++at_;
      if (!digits()) return false;
    }
    return true;
  }
  bool word(std::string_view w) {
    if (text_.substr(at_, w.size()) != w) return false;
    at_ += w.size();
    return true;
  }
  bool string() {
    if (at_ >= text_.size() || text_[at_] != '"') return false;
    for (++at_; at_ < text_.size(); ++at_) {
      const auto c = static_cast<unsigned char>(text_[at_]);
      if (c < 0x20) return false;
      if (c == '"') {
        ++at_;
        return true;
      }
      if (c != '\\') continue;
      if (++at_ >= text_.size()) return false;
      const char escape = text_[at_];
      if (escape == 'u') {
        for (int k = 0; k < 4; ++k)
          if (++at_ >= text_.size() || !std::isxdigit(static_cast<unsigned char>(text_[at_]))) return false;
      } else if (std::string_view("\"\\/bfnrt").find(escape) == std::string_view::npos) {
        return false;
      }
    }
    return false;
  }

  std::string_view text_;
  std::string_view key_;
  std::size_t at_ = 0;
  std::optional<std::string_view> found_;
};

}  // namespace

std::optional<JSONValue> keyOfRefusedText(std::string_view text, std::string_view key) {
  GrammarCheck check(text, key);
  if (!check.run() || !check.found()) return std::nullopt;
  try {
    return parseJSON(*check.found());
  } catch (const GlimmerstrandError&) {
    return std::nullopt;  // the key is there, but its own value is refused too
  }
}

}  // namespace glimmerstrand::core
