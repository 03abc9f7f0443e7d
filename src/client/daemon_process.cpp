#include "client/daemon_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "core/errors.h"
#include "core/json_value.h"
#include "platform/headless_desktop.h"

namespace glimmerstrand::client {
namespace {

using core::GlimmerstrandError;
namespace fs = std::filesystem;

constexpr auto pollInterval = std::chrono::milliseconds(20);
constexpr int startLimitSeconds = 10;
constexpr int stopLimitSeconds = 10;

std::optional<std::string> environment(const char* name) {
  const char* value = std::getenv(name);
  if (!value || !*value) return std::nullopt;
  return std::string(value);
}

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t n = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

// Beside this executable when installed, in the build tree's native folder
// when run from there, else on PATH.
fs::path nativeExecutable() {
  const fs::path client = fs::read_symlink("/proc/self/exe");
  const fs::path self = client.parent_path();
  for (const auto& candidate : {self / "glimmerstrand-native", self.parent_path() / "native" / "glimmerstrand-native"})
    if (::access(candidate.c_str(), X_OK) == 0) return candidate;
  std::istringstream path(environment("PATH").value_or("/usr/local/bin:/usr/bin:/bin"));
  for (std::string folder; std::getline(path, folder, ':');)
    if (!folder.empty() && ::access((fs::path(folder) / "glimmerstrand-native").c_str(), X_OK) == 0)
      return fs::path(folder) / "glimmerstrand-native";
  throw GlimmerstrandError(core::codes::notFound,
                           "glimmerstrand-native was found neither beside " + client.string() + " nor on PATH");
}

// The process between client and daemon: detached from the client's session
// and streams, it writes the daemon's log and ends with the daemon's status,
// which tells the client that the daemon ended.
[[noreturn]] void runLogWriter(const fs::path& native, const fs::path& log) {
  ::setsid();
  int null = ::open("/dev/null", O_RDWR);
  for (int fd : {0, 1, 2}) ::dup2(null, fd);
  ::close_range(3, ~0U, 0);  // no descriptor of the client, such as a caller's pipe, stays open
  int output[2];
  if (::pipe2(output, O_CLOEXEC) != 0) ::_exit(126);
  pid_t daemon = ::fork();
  if (daemon == 0) {
    ::dup2(output[1], 1);
    ::dup2(output[1], 2);
    ::execl(native.c_str(), native.c_str(), "daemon", static_cast<char*>(nullptr));
    const std::string message = "glimmerstrand: cannot run " + native.string() + ": " + std::strerror(errno) + "\n";
    if (::write(2, message.data(), message.size()) < 0) ::_exit(127);
    ::_exit(127);
  }
  ::close(output[1]);
  if (daemon > 0) copyToLog(output[0], log, logCapBytes);
  int status = 0;
  if (daemon < 0 || ::waitpid(daemon, &status, 0) < 0) ::_exit(126);
  ::_exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
}

off_t fileSize(const fs::path& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 ? info.st_size : 0;
}

// A log line as a person reads it: the message, then the fields.
std::string readableLogLine(const std::string& line) {
  core::JSONValue value;
  try {
    value = core::parseJSON(line);
  } catch (const std::exception&) {
    return line;  // not one of the daemon's JSON lines, such as a failed exec
  }
  const auto* fields = value.asObject();
  const auto message = core::optionalString(value, "message");
  if (!fields || !message) return line;
  std::string text = *message;
  std::string details;
  for (const auto& [key, field] : *fields) {
    if (key == "t" || key == "level" || key == "name" || key == "message") continue;
    details +=
        (details.empty() ? "" : ", ") + key + ": " + (field.asString() ? *field.asString() : core::jsonText(field));
  }
  return details.empty() ? text : text + " (" + details + ")";
}

// The daemon's last words in the log since `from`, as readable lines.
std::vector<std::string> logSince(const fs::path& log, off_t from) {
  std::ifstream file(log);
  if (fileSize(log) >= from) file.seekg(from);
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);)
    if (!line.empty()) lines.push_back(readableLogLine(line));
  constexpr std::size_t kept = 5;
  if (lines.size() > kept) lines.erase(lines.begin(), lines.end() - kept);
  return lines;
}

// What a lock clash needs: who holds the lock and how to stop it.
std::string lockHolderNote(const DaemonPaths& paths) {
  const auto holder = lockHolder(paths.lock());
  if (!holder) return "";
  const std::string head = "\nprocess " + std::to_string(*holder) + " holds " + paths.lock().string();
  const auto variables = processEnvironment(*holder);
  if (!variables) return head + "; stop it with: kill " + std::to_string(*holder);
  const std::string socket = daemonPaths([&](const char* name) -> std::optional<std::string> {
                               auto found = variables->find(name);
                               if (found == variables->end() || found->second.empty()) return std::nullopt;
                               return found->second;
                             }).socket;
  return head + " and listens on " + socket + "; stop it with: GLIMMERSTRAND_SOCKET=" + socket + " glimmerstrand stop";
}

GlimmerstrandError startFailure(const DaemonPaths& paths, off_t logStart, int status) {
  const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  const auto lines = logSince(paths.log(), logStart);
  std::string message = "the daemon stopped during start (exit status " + std::to_string(code) + ")";
  if (lines.empty()) {
    message += " and logged nothing; its log is " + paths.log().string();
  } else {
    message += ":";
    for (const auto& line : lines) message += "\n  " + line;
  }
  return GlimmerstrandError(core::codes::native, message + lockHolderNote(paths));
}

}  // namespace

DaemonPaths daemonPaths() { return daemonPaths(environment); }

DaemonPaths daemonPaths(const Environment& environment) {
  const fs::path state = platform::daemonStateFolder(environment);
  const auto socket = environment("GLIMMERSTRAND_SOCKET");
  const bool bundled = environment("GLIMMERSTRAND_BUNDLED") == "1";
  return {state, socket && !bundled ? *socket : (state / "glimmerstrand.sock").string()};
}

Connection::~Connection() {
  if (fd_ >= 0) ::close(fd_);
}

pid_t Connection::peerPid() const {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (::getsockopt(fd_, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0)
    throw GlimmerstrandError(core::codes::native, std::string("cannot tell the daemon's pid: ") + std::strerror(errno));
  return credentials.pid;
}

void Connection::send(const std::string& line) const {
  if (!writeAll(fd_, line + "\n")) throw GlimmerstrandError(core::codes::native, "the daemon closed the connection");
}

std::string Connection::request(const std::string& line) const {
  send(line);
  std::string reply;
  char buffer[4096];
  for (ssize_t n; (n = ::read(fd_, buffer, sizeof buffer)) != 0;) {
    if (n < 0) {
      if (errno == EINTR) continue;
      break;
    }
    reply.append(buffer, static_cast<std::size_t>(n));
    if (reply.back() == '\n') {
      reply.pop_back();
      return reply;
    }
  }
  throw GlimmerstrandError(core::codes::native, "the daemon closed the connection before it replied");
}

std::optional<Connection> connectTo(const std::string& socket) {
  sockaddr_un address{};
  if (socket.size() >= sizeof address.sun_path) return std::nullopt;
  Connection connection(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (connection.fd() < 0) return std::nullopt;
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, socket.c_str(), socket.size() + 1);
  if (::connect(connection.fd(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return std::nullopt;
  return connection;
}

void copyToLog(int from, const fs::path& log, off_t capBytes) {
  const auto open = [&](int flags) { return ::open(log.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | flags, 0600); };
  int file = open(O_APPEND);
  struct stat info {};
  off_t size = file >= 0 && ::fstat(file, &info) == 0 ? info.st_size : 0;
  char buffer[8192];
  for (ssize_t n; (n = ::read(from, buffer, sizeof buffer)) != 0;) {
    if (n < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (size > 0 && size + n > capBytes) {
      ::close(file);
      fs::path previous = log;
      ::rename(log.c_str(), previous.concat(".1").c_str());
      file = open(O_TRUNC);
      size = 0;
    }
    if (file >= 0 && ::write(file, buffer, static_cast<std::size_t>(n)) == n) size += n;
  }
}

Connection startDaemon(const DaemonPaths& paths) {
  const fs::path native = nativeExecutable();
  std::error_code error;
  if (fs::create_directories(paths.stateFolder, error)) ::chmod(paths.stateFolder.c_str(), 0700);
  const off_t logStart = fileSize(paths.log());
  const pid_t writer = ::fork();
  if (writer < 0) throw GlimmerstrandError(core::codes::native, std::string("cannot fork: ") + std::strerror(errno));
  if (writer == 0) runLogWriter(native, paths.log());
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(startLimitSeconds);
  while (std::chrono::steady_clock::now() < deadline) {
    if (auto connection = connectTo(paths.socket)) return std::move(*connection);
    int status = 0;
    if (::waitpid(writer, &status, WNOHANG) == writer) throw startFailure(paths, logStart, status);
    std::this_thread::sleep_for(pollInterval);
  }
  throw GlimmerstrandError(core::codes::timeout, "the daemon did not answer on " + paths.socket + " within " +
                                                     std::to_string(startLimitSeconds) + " s; its log is " +
                                                     paths.log().string());
}

void stopDaemon(pid_t pid) {
  if (::kill(pid, SIGTERM) != 0 && errno != ESRCH)
    throw GlimmerstrandError(core::codes::permission,
                             "cannot stop the daemon (pid " + std::to_string(pid) + "): " + std::strerror(errno));
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(stopLimitSeconds);
  while (std::chrono::steady_clock::now() < deadline) {
    if (::kill(pid, 0) != 0 && errno == ESRCH) return;
    ::waitpid(pid, nullptr, WNOHANG);  // reaped here when this client started it
    std::this_thread::sleep_for(pollInterval);
  }
  throw GlimmerstrandError(core::codes::timeout, "the daemon (pid " + std::to_string(pid) + ") did not stop within " +
                                                     std::to_string(stopLimitSeconds) + " s; end it with: kill -KILL " +
                                                     std::to_string(pid));
}

std::optional<std::map<std::string, std::string>> processEnvironment(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/environ", std::ios::binary);
  if (!file) return std::nullopt;
  std::map<std::string, std::string> variables;
  for (std::string entry; std::getline(file, entry, '\0');)
    if (auto equals = entry.find('='); equals != std::string::npos)
      variables.emplace(entry.substr(0, equals), entry.substr(equals + 1));
  return variables;
}

std::optional<pid_t> lockHolder(const fs::path& lock) {
  struct stat info {};
  if (::stat(lock.c_str(), &info) != 0) return std::nullopt;
  std::ifstream locks("/proc/locks");
  // "1: FLOCK  ADVISORY  WRITE 4242 fe:01:1234 0 EOF"; waiters have "->" after the number.
  for (std::string line; std::getline(locks, line);) {
    std::istringstream fields(line);
    std::string number, kind, mode, access, pid, file;
    fields >> number >> kind >> mode >> access >> pid >> file;
    if (kind != "FLOCK") continue;
    unsigned major = 0, minor = 0;
    unsigned long inode = 0;
    if (std::sscanf(file.c_str(), "%x:%x:%lu", &major, &minor, &inode) != 3) continue;
    if (inode == info.st_ino && major == ::major(info.st_dev) && minor == ::minor(info.st_dev))
      return static_cast<pid_t>(std::stol(pid));
  }
  return std::nullopt;
}

}  // namespace glimmerstrand::client
