// Splitting a connection's byte stream into lines of text. Not thread-safe:
// each connection's reader owns one buffer.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace glimmerstrand::server {

class LineBuffer {
 public:
  void append(std::string_view bytes) { buffer_.append(bytes); }
  /// The next complete line, without its line feed (a carriage return
  /// before it stays), each maximal ill-formed sequence replaced by U+FFFD;
  /// nothing until a line feed has arrived.
  std::optional<std::string> nextLine();

 private:
  std::string buffer_;
  std::size_t start_ = 0;  // where the unread bytes begin
};

}  // namespace glimmerstrand::server
