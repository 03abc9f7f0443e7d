#include "server/utf8_lines.h"

#include "cypher/unicode_text.h"

namespace glimmerstrand::server {

std::optional<std::string> LineBuffer::nextLine() {
  std::size_t end = buffer_.find('\n', start_);
  if (end == std::string::npos) {
    if (start_ > 0) {  // keep the unread tail only
      buffer_.erase(0, start_);
      start_ = 0;
    }
    return std::nullopt;
  }
  std::string line = cypher::validUtf8(std::string_view(buffer_).substr(start_, end - start_));
  start_ = end + 1;
  return line;
}

}  // namespace glimmerstrand::server
