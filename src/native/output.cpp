#include "native/output.h"

#include <unistd.h>

#include <cerrno>
#include <string>

namespace glimmerstrand::native {
namespace {

void writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;  // the reader has gone; nobody is left to tell
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
}

}  // namespace

Output& Output::shared() {
  // Never destroyed: detached workers may write while the process exits.
  static Output* output = new Output([](std::string_view line) { writeAll(1, line); });
  return *output;
}

void Output::writeLine(std::string_view line) {
  std::string whole;
  whole.reserve(line.size() + 1);
  whole.append(line);
  whole.push_back('\n');
  std::lock_guard guard(lock_);
  sink_(whole);
}

}  // namespace glimmerstrand::native
