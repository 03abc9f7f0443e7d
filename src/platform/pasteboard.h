// The general clipboard. Callable from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace glimmerstrand::platform {

enum class ImageFormat { png, tiff };

class Pasteboard {
 public:
  virtual ~Pasteboard() = default;
  virtual void clear() = 0;
  /// The plain text on the clipboard; absent when it holds none.
  virtual std::optional<std::string> readText() = 0;
  /// Replaces the contents. False when the platform refused.
  virtual bool writeText(const std::string& text) = 0;
  virtual bool writeImage(ImageFormat format, const std::vector<std::uint8_t>& bytes) = 0;
  /// Grows by one at every change of the contents, by anyone.
  virtual std::int64_t changeCount() = 0;
};

}  // namespace glimmerstrand::platform
