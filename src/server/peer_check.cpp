#include "server/peer_check.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>

#include "server/sha256.h"

namespace glimmerstrand::server {
namespace {

class SystemPeerInspector final : public PeerInspector {
 public:
  std::optional<PeerCredentials> credentials(int fd) override {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return std::nullopt;
    return PeerCredentials{credentials.pid, credentials.uid};
  }
  std::string executablePath(std::int64_t pid) override { return "/proc/" + std::to_string(pid) + "/exe"; }
  std::uint32_t ownUid() override { return ::getuid(); }
};

bool isHexDigest(const std::string& text) {
  return text.size() == 64 && std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isxdigit(c); });
}

// Whether the executable meets the requirement; nothing when it can't be read.
std::optional<bool> executableMeets(const std::string& executable, const PeerRequirement& requirement) {
  if (requirement.kind == PeerRequirement::Kind::sha256) {
    auto digest = fileSha256(executable);
    if (!digest) return std::nullopt;
    return *digest == requirement.value;
  }
  struct stat peer {};
  if (::stat(executable.c_str(), &peer) != 0) return std::nullopt;
  struct stat wanted {};
  if (::stat(requirement.value.c_str(), &wanted) != 0) return false;
  return peer.st_dev == wanted.st_dev && peer.st_ino == wanted.st_ino;
}

}  // namespace

std::shared_ptr<PeerInspector> PeerInspector::system() {
  static auto inspector = std::make_shared<SystemPeerInspector>();
  return inspector;
}

std::optional<PeerRequirement> parsePeerRequirement(const std::string& text) {
  if (text.starts_with("path=")) {
    std::string path = text.substr(5);
    if (path.empty() || path[0] != '/') return std::nullopt;
    return PeerRequirement{PeerRequirement::Kind::path, path, text};
  }
  if (text.starts_with("sha256=")) {
    std::string hex = text.substr(7);
    if (!isHexDigest(hex)) return std::nullopt;
    std::transform(hex.begin(), hex.end(), hex.begin(), [](unsigned char c) { return std::tolower(c); });
    return PeerRequirement{PeerRequirement::Kind::sha256, hex, text};
  }
  return std::nullopt;
}

std::optional<std::string> checkPeer(int fd, const std::optional<PeerRequirement>& requirement,
                                     PeerInspector& inspector) {
  auto credentials = inspector.credentials(fd);
  if (!credentials) return "相手のユーザーを読めませんでした";
  // The socket's file mode says the same, but this holds when the mode alone
  // wouldn't (a loosened mode, a socket passed on).
  if (credentials->uid != inspector.ownUid())
    return "別のユーザーからの接続です: uid " + std::to_string(credentials->uid);
  if (!requirement) return std::nullopt;
  if (credentials->pid <= 0) return "相手のプロセスを特定できませんでした";
  auto meets = executableMeets(inspector.executablePath(credentials->pid), *requirement);
  if (!meets) return "相手の署名を読めませんでした";
  if (!*meets) return "相手の署名が条件を満たしません: " + std::to_string(requirementNotMetStatus);
  return std::nullopt;
}

std::optional<std::string> fileSha256(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  Sha256 hash;
  char chunk[65536];
  for (;;) {
    ssize_t count = ::read(fd, chunk, sizeof chunk);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) {
      ::close(fd);
      return std::nullopt;
    }
    if (count == 0) break;
    hash.update(std::string_view(chunk, static_cast<std::size_t>(count)));
  }
  ::close(fd);
  return hash.hexDigest();
}

}  // namespace glimmerstrand::server
