#include "core/base64.h"

#include <openssl/evp.h>

namespace glimmerstrand::core {
namespace {
constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
}

std::string base64Text(const std::vector<std::uint8_t>& bytes) {
  std::string out((bytes.size() + 2) / 3 * 4 + 1, '\0');  // and the terminator EVP writes
  const int length =
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), bytes.data(), static_cast<int>(bytes.size()));
  out.resize(static_cast<std::size_t>(length));
  return out;
}

std::optional<std::vector<std::uint8_t>> base64Bytes(std::string_view text) {
  // Padding is optional; anything else outside the alphabet (white space,
  // which EVP would pass over) makes the text no base64.
  while (!text.empty() && text.back() == '=') text.remove_suffix(1);
  if (text.find_first_not_of(alphabet) != std::string_view::npos) return std::nullopt;
  if (text.size() % 4 == 1) return std::nullopt;  // one stray character cannot end a byte
  const std::size_t padding = (4 - text.size() % 4) % 4;
  const std::string padded = std::string(text) + std::string(padding, '=');
  std::vector<std::uint8_t> out(padded.size() / 4 * 3);
  if (EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(padded.data()),
                      static_cast<int>(padded.size())) < 0)
    return std::nullopt;
  out.resize(out.size() - padding);  // EVP counts a padded group as three bytes
  return out;
}

}  // namespace glimmerstrand::core
