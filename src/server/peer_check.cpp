#include "server/peer_check.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <memory>
#include <vector>

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
    auto digest = ExecutableDigests::shared().digest(executable);
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

namespace {

// A descriptor closed when it goes out of scope.
struct OpenFile {
  explicit OpenFile(const std::string& path) : fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
  ~OpenFile() {
    if (fd >= 0) ::close(fd);
  }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;
  const int fd;
};

std::optional<std::string> sha256Of(int fd) {
  std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) return std::nullopt;
  std::vector<char> chunk(1 << 16);
  for (;;) {
    ssize_t count = ::read(fd, chunk.data(), chunk.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::nullopt;
    if (count == 0) break;
    if (EVP_DigestUpdate(context.get(), chunk.data(), static_cast<std::size_t>(count)) != 1) return std::nullopt;
  }
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int size = 0;
  if (EVP_DigestFinal_ex(context.get(), digest.data(), &size) != 1) return std::nullopt;
  static constexpr char hex[] = "0123456789abcdef";
  std::string text;
  for (unsigned int k = 0; k < size; ++k) {
    text += hex[digest[k] >> 4];
    text += hex[digest[k] & 0xf];
  }
  return text;
}

}  // namespace

std::optional<std::string> fileSha256(const std::string& path) {
  OpenFile file(path);
  if (file.fd < 0) return std::nullopt;
  return sha256Of(file.fd);
}

ExecutableDigests& ExecutableDigests::shared() {
  static auto* digests = new ExecutableDigests();  // lives as long as the process
  return *digests;
}

std::optional<std::string> ExecutableDigests::digest(const std::string& path) {
  // Identity and contents come from the same open file, so a file replaced
  // between the two can't pair one's identity with the other's digest.
  OpenFile file(path);
  if (file.fd < 0) return std::nullopt;
  struct stat info {};
  if (::fstat(file.fd, &info) != 0) return std::nullopt;
  const Identity identity{info.st_dev,          info.st_ino,         info.st_size,        info.st_mtim.tv_sec,
                          info.st_mtim.tv_nsec, info.st_ctim.tv_sec, info.st_ctim.tv_nsec};
  {
    std::lock_guard guard(lock_);
    if (auto known = digests_.find(identity); known != digests_.end()) return known->second;
  }
  auto computed = sha256Of(file.fd);
  if (!computed) return std::nullopt;
  std::lock_guard guard(lock_);
  ++hashed_;
  if (digests_.size() >= maxEntries) digests_.clear();
  digests_[identity] = *computed;
  return computed;
}

std::size_t ExecutableDigests::hashed() const {
  std::lock_guard guard(lock_);
  return hashed_;
}

}  // namespace glimmerstrand::server
