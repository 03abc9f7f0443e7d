// Who may talk to the daemon: only its own user, and, when a requirement is
// in force, only a peer whose executable meets it. A requirement names the
// executable by file (`path=/abs/path`) or by the SHA-256 of its contents
// (`sha256=HEX`). Callable from any thread.
//
// What the executable requirement guarantees, and what it does not: the
// executable is read through /proc/PID/exe when the connection is checked,
// not when the peer connected, so a program of the same user that connects
// and then execs an allowed program passes. The uid check is the boundary;
// the requirement only keeps other programs of the user from connecting by
// mistake.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>

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

/// The SHA-256 of a file's contents as 64 lower-case hex digits; nothing
/// when it can't be read.
std::optional<std::string> fileSha256(const std::string& path);

/// The SHA-256 of executables, remembered by the file's identity (device,
/// inode, size, modification and change times), so that a program that
/// connects again and again is read once, not at every connection.
///
/// Thread-safe: `lock_` guards the table and is never held while a file is
/// read.
class ExecutableDigests {
 public:
  /// The process-wide one, made on first use.
  static ExecutableDigests& shared();

  /// As fileSha256, from the table when the file is unchanged.
  std::optional<std::string> digest(const std::string& path);
  /// How many files were actually read so far.
  std::size_t hashed() const;

 private:
  /// Forgotten whole when full: executables that connect are few.
  static constexpr std::size_t maxEntries = 64;
  using Identity = std::tuple<dev_t, ino_t, off_t, time_t, long, time_t, long>;

  mutable std::mutex lock_;
  std::map<Identity, std::string> digests_;
  std::size_t hashed_ = 0;
};

}  // namespace glimmerstrand::server
