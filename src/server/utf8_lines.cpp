#include "server/utf8_lines.h"

#include <cstdint>

namespace glimmerstrand::server {
namespace {

constexpr std::string_view replacement = "\xEF\xBF\xBD";

// The length of the valid sequence at `at`, or 0 when the bytes there don't
// start one. `maximal` gets the length of the longest valid prefix, so that
// a broken sequence is replaced as one unit.
std::size_t sequenceAt(std::string_view bytes, std::size_t at, std::size_t& maximal) {
  auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(bytes[i]); };
  std::uint8_t lead = byte(at);
  maximal = 1;
  if (lead < 0x80) return 1;
  std::size_t length = 0;
  std::uint8_t low = 0x80, high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;  // no surrogates
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  for (std::size_t i = 1; i < length; ++i) {
    if (at + i >= bytes.size()) return 0;
    std::uint8_t next = byte(at + i);
    if (next < low || next > high) return 0;
    low = 0x80;
    high = 0xBF;
    maximal = i + 1;
  }
  return length;
}

}  // namespace

std::string decodeUTF8Lossy(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size());
  std::size_t at = 0;
  while (at < bytes.size()) {
    std::size_t maximal = 1;
    std::size_t length = sequenceAt(bytes, at, maximal);
    if (length > 0) {
      out.append(bytes.substr(at, length));
      at += length;
    } else {
      out.append(replacement);
      at += maximal;
    }
  }
  return out;
}

std::optional<std::string> LineBuffer::nextLine() {
  std::size_t end = buffer_.find('\n', start_);
  if (end == std::string::npos) {
    if (start_ > 0) {  // keep the unread tail only
      buffer_.erase(0, start_);
      start_ = 0;
    }
    return std::nullopt;
  }
  std::string line = decodeUTF8Lossy(std::string_view(buffer_).substr(start_, end - start_));
  start_ = end + 1;
  return line;
}

}  // namespace glimmerstrand::server
