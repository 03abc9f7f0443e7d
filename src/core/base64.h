// Base64 (standard alphabet, padded, no line breaks): images travel in
// results and capture records this way.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace glimmerstrand::core {

std::string base64Text(const std::vector<std::uint8_t>& bytes);
/// The bytes, or absent when the text is not base64. Padding may be left
/// out; white space is not base64.
std::optional<std::vector<std::uint8_t>> base64Bytes(std::string_view text);

}  // namespace glimmerstrand::core
