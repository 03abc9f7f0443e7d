#include "cypher/utf16.h"

#include <unicode/unistr.h>

#include <algorithm>

namespace glimmerstrand::cypher {
namespace {

bool isContinuation(unsigned char c) { return (c & 0xC0) == 0x80; }

// The first UTF-16 unit of a code point. Two code points with the same first
// unit are both supplementary, and then their order is that of the values.
char32_t firstUnit(char32_t cp) { return cp < 0x10000 ? cp : 0xD800 + ((cp - 0x10000) >> 10); }

bool wellFormed(std::string_view text) {
  std::size_t i = 0;
  const std::size_t n = text.size();
  while (i < n) {
    auto c = static_cast<unsigned char>(text[i]);
    if (c < 0x80) {
      ++i;
      continue;
    }
    std::size_t len = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC2 ? 2 : 0;
    if (len == 0 || c > 0xF4 || i + len > n) return false;
    for (std::size_t k = 1; k < len; ++k)
      if (!isContinuation(static_cast<unsigned char>(text[i + k]))) return false;
    auto c1 = static_cast<unsigned char>(text[i + 1]);
    if (c == 0xE0 && c1 < 0xA0) return false;   // overlong
    if (c == 0xED && c1 >= 0xA0) return false;  // surrogate
    if (c == 0xF0 && c1 < 0x90) return false;   // overlong
    if (c == 0xF4 && c1 >= 0x90) return false;  // beyond U+10FFFF
    i += len;
  }
  return true;
}

}  // namespace

CodePoint decodeAt(std::string_view text, std::size_t at) {
  auto c = static_cast<unsigned char>(text[at]);
  if (c < 0x80) return {c, 1};
  std::size_t len = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : 2;
  char32_t value = c & (0x7F >> len);
  for (std::size_t k = 1; k < len && at + k < text.size(); ++k)
    value = (value << 6) | (static_cast<unsigned char>(text[at + k]) & 0x3F);
  return {value, len};
}

std::optional<std::string> repairedUtf8(std::string_view text) {
  if (wellFormed(text)) return std::nullopt;
  std::string out;
  icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size()))).toUTF8String(out);
  return out;
}

std::string encodeUtf8(char32_t cp) {
  std::string out;
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
  return out;
}

int compareCodeUnits(std::string_view a, std::string_view b) {
  auto [ai, bi] = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
  if (ai == a.end() && bi == b.end()) return 0;
  if (ai == a.end()) return -1;
  if (bi == b.end()) return 1;
  // Back up to the start of the differing code points (both texts agree on
  // the bytes before, so they start at the same offset).
  std::size_t at = static_cast<std::size_t>(ai - a.begin());
  while (at > 0 && isContinuation(static_cast<unsigned char>(a[at]))) --at;
  char32_t x = decodeAt(a, at).value;
  char32_t y = decodeAt(b, at).value;
  char32_t ux = firstUnit(x), uy = firstUnit(y);
  if (ux != uy) return ux < uy ? -1 : 1;
  return x < y ? -1 : x > y ? 1 : 0;
}

}  // namespace glimmerstrand::cypher
