// SHA-256, for the peer requirement that names an executable by the hash of
// its contents. Not thread-safe per instance.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace glimmerstrand::server {

class Sha256 {
 public:
  Sha256();
  void update(std::string_view bytes);
  /// The digest as 64 lower-case hex digits. Ends the hash.
  std::string hexDigest();

 private:
  void block(const std::uint8_t* data);

  std::array<std::uint32_t, 8> state_;
  std::array<std::uint8_t, 64> pending_{};
  std::size_t pendingSize_ = 0;
  std::uint64_t totalBytes_ = 0;
};

}  // namespace glimmerstrand::server
