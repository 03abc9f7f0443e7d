#include "cypher/unicode_text.h"

#include <unicode/brkiter.h>
#include <unicode/locid.h>
#include <unicode/uchar.h>
#include <unicode/ustring.h>
#include <unicode/utext.h>
#include <unicode/utf16.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <climits>
#include <memory>

namespace glimmerstrand::cypher {
namespace {

const std::uint8_t* bytesOf(std::string_view text) { return reinterpret_cast<const std::uint8_t*>(text.data()); }

// Plain ASCII without "\r": one grapheme, one code unit and one byte each.
bool isSimple(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x80 && c != '\r'; });
}

// Calls `each` with the byte bounds of every grapheme of UTF-8 text, until it
// returns false.
template <typename Each>
void forEachGrapheme(std::string_view text, Each each) {
  UErrorCode status = U_ZERO_ERROR;
  // A break iterator costs microseconds to make; one per thread is kept.
  thread_local std::unique_ptr<icu::BreakIterator> iterator(
      icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
  UText utext = UTEXT_INITIALIZER;
  utext_openUTF8(&utext, text.data(), static_cast<int64_t>(text.size()), &status);
  if (iterator && U_SUCCESS(status)) iterator->setText(&utext, status);
  if (!iterator || U_FAILURE(status)) {  // without ICU's data: by code point
    for (std::size_t at = 0; at < text.size();) {
      const std::size_t start = at;
      UChar32 c = 0;
      U8_NEXT(bytesOf(text), at, text.size(), c);
      if (!each(start, at)) break;
    }
  } else {
    std::int32_t start = iterator->first();
    for (std::int32_t end = iterator->next(); end != icu::BreakIterator::DONE; start = end, end = iterator->next())
      if (!each(static_cast<std::size_t>(start), static_cast<std::size_t>(end))) break;
  }
  utext_close(&utext);
}

}  // namespace

CodePoint decodeAt(std::string_view text, std::size_t at) {
  const std::size_t start = at;
  UChar32 c = 0;
  U8_NEXT(bytesOf(text), at, text.size(), c);
  return {static_cast<char32_t>(c < 0 ? 0xFFFD : c), at - start};
}

std::string encodeUtf8(char32_t value) {
  char out[U8_MAX_LENGTH];
  std::size_t length = 0;
  U8_APPEND_UNSAFE(out, length, static_cast<UChar32>(value));
  return std::string(out, length);
}

bool isValidUtf8(std::string_view bytes) {
  for (std::size_t at = 0; at < bytes.size();) {
    UChar32 c = 0;
    U8_NEXT(bytesOf(bytes), at, bytes.size(), c);
    if (c < 0) return false;
  }
  return true;
}

std::string validUtf8(std::string_view bytes) {
  if (isValidUtf8(bytes)) return std::string(bytes);
  return utf8(utf16(bytes));
}

std::u16string utf16(std::string_view text) {
  // Never more UTF-16 units than UTF-8 bytes.
  std::u16string out(text.size(), u'\0');
  std::int32_t length = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strFromUTF8WithSub(out.data(), static_cast<std::int32_t>(out.size()), &length, text.data(),
                       static_cast<std::int32_t>(text.size()), 0xFFFD, nullptr, &status);
  out.resize(U_SUCCESS(status) || status == U_STRING_NOT_TERMINATED_WARNING ? static_cast<std::size_t>(length) : 0);
  return out;
}

std::string utf8(std::u16string_view text) {
  // Never more than three bytes a unit (a pair takes four for two).
  std::string out(text.size() * 3, '\0');
  std::int32_t length = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strToUTF8WithSub(out.data(), static_cast<std::int32_t>(out.size()), &length, text.data(),
                     static_cast<std::int32_t>(text.size()), 0xFFFD, nullptr, &status);
  out.resize(U_SUCCESS(status) || status == U_STRING_NOT_TERMINATED_WARNING ? static_cast<std::size_t>(length) : 0);
  return out;
}

std::size_t utf16Length(std::string_view text) {
  if (isSimple(text)) return text.size();
  std::size_t units = 0;
  for (std::size_t at = 0; at < text.size();) {
    UChar32 c = 0;
    U8_NEXT(bytesOf(text), at, text.size(), c);
    units += U16_LENGTH(c < 0 ? 0xFFFD : c);
  }
  return units;
}

int compareCodeUnits(std::string_view a, std::string_view b) {
  auto [ai, bi] = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
  if (ai == a.end() && bi == b.end()) return 0;
  if (ai == a.end()) return -1;
  if (bi == b.end()) return 1;
  // Back up to the start of the differing code points (both texts agree on
  // the bytes before, so they start at the same offset).
  std::size_t at = static_cast<std::size_t>(ai - a.begin());
  U8_SET_CP_START(bytesOf(a), 0, at);
  const char32_t x = decodeAt(a, at).value, y = decodeAt(b, at).value;
  // Two code points with the same first unit are both supplementary, and
  // then their order is that of the values.
  const char16_t ux = x < 0x10000 ? static_cast<char16_t>(x) : U16_LEAD(x);
  const char16_t uy = y < 0x10000 ? static_cast<char16_t>(y) : U16_LEAD(y);
  if (ux != uy) return ux < uy ? -1 : 1;
  return x < y ? -1 : x > y ? 1 : 0;
}

std::vector<std::string> splitGraphemes(std::string_view text) {
  std::vector<std::string> out;
  if (isSimple(text)) {
    for (char c : text) out.emplace_back(1, c);
    return out;
  }
  forEachGrapheme(text, [&](std::size_t start, std::size_t end) {
    out.emplace_back(text.substr(start, end - start));
    return true;
  });
  return out;
}

std::size_t graphemeCount(std::string_view text) {
  if (isSimple(text)) return text.size();
  std::size_t count = 0;
  forEachGrapheme(text, [&](std::size_t, std::size_t) {
    ++count;
    return true;
  });
  return count;
}

std::string graphemePrefix(std::string_view text, std::size_t count) {
  // Never more graphemes than bytes.
  if (text.size() <= count || isSimple(text)) return std::string(text.substr(0, count));
  std::size_t cut = 0, taken = 0;
  forEachGrapheme(text, [&](std::size_t, std::size_t end) {
    if (taken == count) return false;
    ++taken;
    cut = end;
    return true;
  });
  return std::string(text.substr(0, cut));
}

std::string_view trimmedText(std::string_view text) {
  // ICU's backward step takes 32-bit indices; a label longer than that is
  // trimmed at its front only.
  std::int32_t start = 0, end = static_cast<std::int32_t>(std::min<std::size_t>(text.size(), INT32_MAX));
  while (start < end) {
    std::int32_t next = start;
    UChar32 c = 0;
    U8_NEXT(bytesOf(text), next, end, c);
    if (!u_isUWhiteSpace(c)) break;
    start = next;
  }
  if (static_cast<std::size_t>(end) < text.size()) return text.substr(static_cast<std::size_t>(start));
  while (end > start) {
    std::int32_t before = end;
    UChar32 c = 0;
    U8_PREV(bytesOf(text), start, before, c);
    if (!u_isUWhiteSpace(c)) break;
    end = before;
  }
  return text.substr(static_cast<std::size_t>(start), static_cast<std::size_t>(end - start));
}

}  // namespace glimmerstrand::cypher
