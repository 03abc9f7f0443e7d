// Who may talk to the daemon: only its own user, and, when a requirement is
// in force, only a peer whose executable meets it. A requirement names the
// executable by file (`path=/abs/path`) or by the SHA-256 of its contents
// (`sha256=HEX`). Callable from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace glimmerstrand::server {

struct PeerRequirement {
  enum class Kind { path, sha256 };
  Kind kind;
  std::string value;  // the absolute path, or 64 lower-case hex digits
  std::string text;   // as given
};

/// Nothing when the text is neither form.
std::optional<PeerRequirement> parsePeerRequirement(const std::string& text);

struct PeerCredentials {
  std::int64_t pid = 0;  // 0 when the kernel did not say
  std::uint32_t uid = 0;
};

/// What the gateway learns about a connected peer. The system inspector asks
/// the kernel; tests put their own in its place.
class PeerInspector {
 public:
  virtual ~PeerInspector() = default;
  /// The peer's credentials on socket `fd`; nothing when they can't be read.
  virtual std::optional<PeerCredentials> credentials(int fd) = 0;
  /// A file that reads as the executable of process `pid`.
  virtual std::string executablePath(std::int64_t pid) = 0;
  /// The uid of this process: the only user who may connect.
  virtual std::uint32_t ownUid() = 0;

  static std::shared_ptr<PeerInspector> system();
};

/// The status a check gives for an executable that does not meet the
/// requirement, as code signature checks report it.
inline constexpr int requirementNotMetStatus = -67050;

/// Nothing when the peer on `fd` may connect, else the reason it may not.
std::optional<std::string> checkPeer(int fd, const std::optional<PeerRequirement>& requirement,
                                     PeerInspector& inspector);

/// The SHA-256 of a file's contents; nothing when it can't be read.
std::optional<std::string> fileSha256(const std::string& path);

}  // namespace glimmerstrand::server
