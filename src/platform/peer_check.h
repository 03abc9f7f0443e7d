// Who is on the other end of a Unix-domain socket, and whether that peer
// meets the requirement the daemon was given. Callable from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace glimmerstrand::platform {

class PeerCheck {
 public:
  virtual ~PeerCheck() = default;
  /// The user id of the connected peer of socket `fd`; absent when unknown.
  virtual std::optional<std::uint32_t> peerUid(int fd) = 0;
  /// Whether the requirement text parses; a daemon refuses to start with one
  /// that does not.
  virtual bool parses(const std::string& requirement) = 0;
  /// Whether the peer of socket `fd` meets the requirement. False when it
  /// does not parse or the peer cannot be examined.
  virtual bool meets(int fd, const std::string& requirement) = 0;
};

}  // namespace glimmerstrand::platform
