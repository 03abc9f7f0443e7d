// Standard output of the line host. Replies of concurrent operations and the
// gateway's event lines all leave through one Output, each whole line under
// its lock, so lines never interleave.
#pragma once

#include <functional>
#include <mutex>
#include <string_view>

namespace glimmerstrand::native {

class Output {
 public:
  using Sink = std::function<void(std::string_view)>;

  /// The process-wide output on file descriptor 1.
  static Output& shared();

  /// An output that hands each line to `sink` (tests, other descriptors).
  explicit Output(Sink sink) : sink_(std::move(sink)) {}

  /// Writes `line` and a line feed as one unit. A failed write is dropped.
  void writeLine(std::string_view line);

 private:
  std::mutex lock_;  // held for exactly one line
  Sink sink_;
};

}  // namespace glimmerstrand::native
