#include "native/text_case.h"

#include <unicode/locid.h>
#include <unicode/unistr.h>

#include <algorithm>

namespace glimmerstrand::native {

std::string lowerText(std::string_view text) {
  if (std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; })) {
    std::string out(text);
    for (char& c : out)
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return out;
  }
  std::string out;
  icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())))
      .toLower(icu::Locale::getRoot())
      .toUTF8String(out);
  return out;
}

}  // namespace glimmerstrand::native
