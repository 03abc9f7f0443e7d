#include "core/base64.h"

namespace glimmerstrand::core {
namespace {
constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
}

std::string base64Text(const std::vector<std::uint8_t>& bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t at = 0; at < bytes.size(); at += 3) {
    const std::size_t left = bytes.size() - at;
    const std::uint32_t group = (std::uint32_t{bytes[at]} << 16) | (left > 1 ? std::uint32_t{bytes[at + 1]} << 8 : 0) |
                                (left > 2 ? std::uint32_t{bytes[at + 2]} : 0);
    out += alphabet[(group >> 18) & 63];
    out += alphabet[(group >> 12) & 63];
    out += left > 1 ? alphabet[(group >> 6) & 63] : '=';
    out += left > 2 ? alphabet[group & 63] : '=';
  }
  return out;
}

std::optional<std::vector<std::uint8_t>> base64Bytes(std::string_view text) {
  while (!text.empty() && text.back() == '=') text.remove_suffix(1);
  std::vector<std::uint8_t> out;
  out.reserve(text.size() * 3 / 4);
  std::uint32_t buffer = 0;
  int bits = 0;
  for (char c : text) {
    auto at = alphabet.find(c);
    if (at == std::string_view::npos) return std::nullopt;
    buffer = (buffer << 6) | static_cast<std::uint32_t>(at);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<std::uint8_t>(buffer >> bits));
    }
  }
  return out;
}

}  // namespace glimmerstrand::core
