#include "native/daemon.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "core/errors.h"
#include "native/native_backend.h"
#include "platform/headless_desktop.h"
#include "server/daemon_server.h"
#include "server/settings.h"

namespace glimmerstrand::native {

std::filesystem::path stateFolder() { return platform::daemonStateFolder(platform::processEnvironmentValue); }

bool probeSocket(const std::string& path, int timeoutMs) {
  sockaddr_un address{};
  if (path.size() > sizeof(address.sun_path) - 5) return false;  // 103 bytes at most
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  timeval limit{timeoutMs / 1000, (timeoutMs % 1000) * 1000};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  bool answered = false;
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
    static constexpr std::string_view ping = "{\"id\":1,\"operation\":\"ping\",\"params\":{}}\n";
    if (::send(fd, ping.data(), ping.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(ping.size())) {
      std::string gathered;
      char buffer[4096];
      for (ssize_t n; gathered.find('\n') == std::string::npos && (n = ::read(fd, buffer, sizeof buffer)) > 0;)
        gathered.append(buffer, static_cast<std::size_t>(n));
      answered = gathered.find('\n') != std::string::npos;
    }
  }
  ::close(fd);
  return answered;
}

namespace {

int fail(const server::ServerLog& log, std::string_view message, server::LogFields fields) {
  log.error(message, std::move(fields));
  return 1;
}

// TERM, INT and HUP are taken by one thread with sigwait, so no handler runs
// in the middle of other code; the shutdown itself runs on the main loop.
sigset_t shutdownSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (int s : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&set, s);
  return set;
}

}  // namespace

int runDaemon(DaemonParts parts) {
  const auto settings = server::currentSettings();
  const auto log = server::makeLog("daemon", settings.logLevel);
  std::filesystem::path state;
  try {
    state = stateFolder();
  } catch (const std::invalid_argument& e) {
    return fail(log, "状態フォルダを決められませんでした", {{"error", e.what()}});
  }
  const std::string socketPath =
      !settings.bundled && settings.socketPath ? *settings.socketPath : (state / "glimmerstrand.sock").string();
  ::umask(0077);
  ::signal(SIGPIPE, SIG_IGN);
  // Blocked before any thread of the daemon starts, so every thread inherits it.
  sigset_t signals = shutdownSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  const auto socketFolder = std::filesystem::path(socketPath).parent_path();
  std::error_code error;
  std::filesystem::create_directories(socketFolder, error);  // 0700 under the umask above
  if (error)
    return fail(log, "ソケットのフォルダを作れませんでした",
                {{"path", socketFolder.string()}, {"error", error.message()}});
  // Our own folder is kept private even when it existed before; a folder the
  // user chose keeps its permissions.
  if (std::filesystem::weakly_canonical(socketFolder, error) == std::filesystem::weakly_canonical(state, error))
    ::chmod(state.c_str(), 0700);

  // Kept open for the life of the process: the lock dies with it.
  const int lockFd = ::open((socketFolder / "daemon.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (lockFd >= 0 && ::flock(lockFd, LOCK_EX | LOCK_NB) != 0)
    return fail(log, "常駐プロセスはすでに動いています", {{"socketPath", socketPath}});
  if (const auto found = std::filesystem::symlink_status(socketPath); std::filesystem::exists(found)) {
    // Only a socket can be a leftover of ours; any other file stays, and so
    // does the daemon away.
    if (found.type() != std::filesystem::file_type::socket)
      return fail(
          log, "ソケットのパスにソケットではないファイルがあります。別のパスを GLIMMERSTRAND_SOCKET で指定してください",
          {{"socketPath", socketPath}});
    if (probeSocket(socketPath, 500))
      return fail(log, "常駐プロセスはすでに動いています", {{"socketPath", socketPath}});
    ::unlink(socketPath.c_str());  // a stale socket of a daemon that was killed
  }

  auto backend =
      std::make_shared<NativeBackend>(parts.runner, parts.host, server::AppCoordinator::shared(), log.named("native"));
  auto daemon = server::DaemonServer::make(backend, state, log);
  bool verifies = false;
  try {
    verifies = daemon->start(socketPath, settings.requirement);
  } catch (const std::exception& e) {
    return fail(log, "待ち受けられませんでした", {{"socketPath", socketPath}, {"error", core::errorMessage(e)}});
  }
  log.info("常駐プロセスを起動しました", {{"socketPath", socketPath}, {"verifiesSignature", verifies}});

  std::thread([signals, daemon, socketPath, &mainLoop = parts.mainLoop] {
    int received = 0;
    sigwait(&signals, &received);
    mainLoop.post([daemon, socketPath] {
      daemon->stop();
      ::unlink(socketPath.c_str());
      ::_exit(0);
    });
  }).detach();
  parts.host.startObserving();
  parts.mainLoop.run();
  return 0;
}

}  // namespace glimmerstrand::native
