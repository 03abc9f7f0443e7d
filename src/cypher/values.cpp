#include "cypher/values.h"

#include <unicode/normalizer2.h>
#include <unicode/unistr.h>

#include <bit>
#include <cmath>

namespace glimmerstrand::cypher {
namespace {

// A 64-bit FNV-1a feed: simple, order-sensitive, and good enough for hash
// tables of rows.
struct Hasher {
  std::uint64_t state = 0xcbf29ce484222325ULL;
  void byte(unsigned char b) {
    state ^= b;
    state *= 0x100000001b3ULL;
  }
  void word(std::uint64_t w) {
    for (int i = 0; i < 8; ++i) byte(static_cast<unsigned char>(w >> (8 * i)));
  }
  void text(std::string_view s) {
    word(s.size());
    for (unsigned char c : s) byte(c);
  }
};

void feed(Hasher& h, const ScalarValue& v) {
  std::visit(
      [&](const auto& x) {
        using T = std::decay_t<decltype(x)>;
        if constexpr (std::is_same_v<T, Null>) {
          h.byte(0);
        } else if constexpr (std::is_same_v<T, bool>) {
          h.byte(1);
          h.byte(x ? 1 : 0);
        } else if constexpr (std::is_same_v<T, double>) {
          h.byte(2);
          h.word(std::bit_cast<std::uint64_t>(x == 0.0 ? 0.0 : x));
        } else {
          h.byte(3);
          h.text(x);
        }
      },
      v.value);
}

void feed(Hasher& h, const RowValue& v);

void feed(Hasher& h, const Row& m) {
  h.word(m.count());
  for (const auto& k : m.keys()) h.text(mapKeyOf(k));
  for (const auto& value : m.values()) feed(h, value);
}

void feed(Hasher& h, const RowValue& v) {
  if (auto s = v.asScalar()) {
    h.byte(0);
    feed(h, *s);
  } else if (auto l = v.asList()) {
    h.byte(1);
    h.word(l->size());
    for (const auto& e : *l) feed(h, e);
  } else {
    h.byte(2);
    feed(h, *v.asMap());
  }
}

void printTo(std::string& out, const RowValue& v);

void printTo(std::string& out, const Row& m) {
  out += '[';
  bool first = true;
  m.forEach([&](const std::string& k, const RowValue& value) {
    if (!first) out += ", ";
    first = false;
    out += k;
    out += ": ";
    printTo(out, value);
  });
  out += ']';
}

void printTo(std::string& out, const RowValue& v) {
  if (auto s = v.asScalar()) {
    out += s->text();
  } else if (auto l = v.asList()) {
    out += '[';
    for (std::size_t i = 0; i < l->size(); ++i) {
      if (i) out += ", ";
      printTo(out, (*l)[i]);
    }
    out += ']';
  } else {
    printTo(out, *v.asMap());
  }
}

}  // namespace

std::string ScalarValue::text() const {
  if (auto b = asBool()) return *b ? "true" : "false";
  if (auto d = asNumber()) return numberText(*d);
  if (auto s = asString()) return *s;
  return "null";
}

bool operator==(const ScalarValue& a, const ScalarValue& b) {
  if (a.value.index() != b.value.index()) return false;
  if (auto x = a.asNumber()) return *x == *b.asNumber();
  return a.value == b.value;
}

std::size_t hashValue(const ScalarValue& v) {
  Hasher h;
  feed(h, v);
  return h.state;
}

std::size_t hashValue(const RowValue& v) {
  Hasher h;
  feed(h, v);
  return h.state;
}

std::size_t hashValue(const Row& m) {
  Hasher h;
  feed(h, m);
  return h.state;
}

std::string mapKeyOf(std::string_view key) {
  bool ascii = true;
  for (unsigned char c : key)
    if (c >= 0x80) ascii = false;
  if (ascii) return std::string(key);
  UErrorCode status = U_ZERO_ERROR;
  const icu::Normalizer2* nfc = icu::Normalizer2::getNFCInstance(status);
  if (U_FAILURE(status)) return std::string(key);
  icu::UnicodeString normal = nfc->normalize(
      icu::UnicodeString::fromUTF8(icu::StringPiece(key.data(), static_cast<int32_t>(key.size()))), status);
  if (U_FAILURE(status)) return std::string(key);
  std::string out;
  normal.toUTF8String(out);
  return out;
}

RowValue distinctNormalForm(const RowValue& v) {
  if (auto s = v.asScalar()) {
    if (auto d = s->asNumber(); d && !std::isfinite(*d)) return RowValue(nullptr);
    return v;
  }
  if (auto l = v.asList()) {
    RowValue::List out;
    out.reserve(l->size());
    for (const auto& e : *l) out.push_back(distinctNormalForm(e));
    return RowValue(std::move(out));
  }
  return RowValue(distinctNormalForm(*v.asMap()));
}

Row distinctNormalForm(const Row& row) {
  Row out;
  row.forEach([&](const std::string& k, const RowValue& value) { out.set(k, distinctNormalForm(value)); });
  return out;
}

std::string printedForm(const RowValue& v) {
  std::string out;
  printTo(out, v);
  return out;
}

std::string printedForm(const Row& m) {
  std::string out;
  printTo(out, m);
  return out;
}

BadRequestError::BadRequestError(std::string message, std::optional<std::string> hint)
    : BadRequestError("invalid_argument", std::move(message), std::move(hint)) {}

BadRequestError::BadRequestError(std::string code, std::string message, std::optional<std::string> hint)
    : code_(std::move(code)),
      message_(std::move(message)),
      hint_(std::move(hint)),
      printed_("BadRequestError: " + message_) {}

}  // namespace glimmerstrand::cypher
