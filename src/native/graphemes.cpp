#include "native/graphemes.h"

#include <unicode/brkiter.h>
#include <unicode/locid.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <memory>

namespace glimmerstrand::native {

namespace {

icu::UnicodeString unicode(std::string_view text) {
  return icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
}

bool isASCII(std::string_view text) {
  for (char c : text)
    if (static_cast<unsigned char>(c) >= 0x80 || c == '\r') return false;
  return true;
}

// Calls `each` with the UTF-16 bounds of every grapheme, until it returns false.
template <typename Each>
void forEachGrapheme(const icu::UnicodeString& text, Each each) {
  UErrorCode status = U_ZERO_ERROR;
  // A break iterator costs microseconds to make; one per thread is kept.
  thread_local std::unique_ptr<icu::BreakIterator> iterator(
      icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
  if (!iterator || U_FAILURE(status)) {
    for (int32_t at = 0; at < text.length();) {
      int32_t next = text.moveIndex32(at, 1);
      if (!each(at, next)) return;
      at = next;
    }
    return;
  }
  iterator->setText(text);
  int32_t start = iterator->first();
  for (int32_t end = iterator->next(); end != icu::BreakIterator::DONE; start = end, end = iterator->next())
    if (!each(start, end)) return;
}

}  // namespace

std::vector<std::string> splitGraphemes(std::string_view text) {
  std::vector<std::string> out;
  if (isASCII(text)) {
    for (char c : text) out.emplace_back(1, c);
    return out;
  }
  icu::UnicodeString u = unicode(text);
  forEachGrapheme(u, [&](int32_t start, int32_t end) {
    std::string piece;
    u.tempSubStringBetween(start, end).toUTF8String(piece);
    out.push_back(std::move(piece));
    return true;
  });
  return out;
}

std::size_t graphemeCount(std::string_view text) {
  if (isASCII(text)) return text.size();
  std::size_t count = 0;
  forEachGrapheme(unicode(text), [&](int32_t, int32_t) {
    ++count;
    return true;
  });
  return count;
}

std::string graphemePrefix(std::string_view text, std::size_t count) {
  if (isASCII(text)) return std::string(text.substr(0, count));
  icu::UnicodeString u = unicode(text);
  int32_t cut = 0;
  std::size_t taken = 0;
  forEachGrapheme(u, [&](int32_t, int32_t end) {
    if (taken == count) return false;
    ++taken;
    cut = end;
    return true;
  });
  std::string out;
  u.tempSubStringBetween(0, cut).toUTF8String(out);
  return out;
}

std::string trimmedText(std::string_view text) {
  icu::UnicodeString u = unicode(text);
  int32_t start = 0, end = u.length();
  while (start < end && u_isUWhiteSpace(u.char32At(start))) start = u.moveIndex32(start, 1);
  while (end > start && u_isUWhiteSpace(u.char32At(u.moveIndex32(end, -1)))) end = u.moveIndex32(end, -1);
  std::string out;
  u.tempSubStringBetween(start, end).toUTF8String(out);
  return out;
}

std::size_t utf16Length(std::string_view text) {
  if (isASCII(text)) return text.size();
  return static_cast<std::size_t>(unicode(text).length());
}

std::u16string utf16(std::string_view text) {
  icu::UnicodeString u = unicode(text);
  return std::u16string(reinterpret_cast<const char16_t*>(u.getBuffer()), static_cast<std::size_t>(u.length()));
}

}  // namespace glimmerstrand::native
