// Text as a person counts it: by grapheme (a letter with its accents, an emoji
// with its modifiers, "\r\n"), not by code unit. Typing sends one key per
// grapheme, and lengths and cuts shown to callers count graphemes.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace glimmerstrand::native {

/// The graphemes of a UTF-8 text, in order, each as UTF-8.
std::vector<std::string> splitGraphemes(std::string_view text);
std::size_t graphemeCount(std::string_view text);
/// The first `count` graphemes of the text.
std::string graphemePrefix(std::string_view text, std::size_t count);
/// The text without white space and line ends at either end.
std::string trimmedText(std::string_view text);
/// The number of UTF-16 code units of a UTF-8 text.
std::size_t utf16Length(std::string_view text);
std::u16string utf16(std::string_view text);

}  // namespace glimmerstrand::native
