#include "support/daemon_client.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>

namespace glimmerstrand::testing {

namespace {

int connectTo(const std::string& path) {
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return fd;
  ::close(fd);
  return -1;
}

}  // namespace

DaemonClient::DaemonClient(const std::string& binary, const std::string& stateFolder,
                           const std::map<std::string, std::string>& environment) {
  child_ = ::fork();
  if (child_ == 0) {
    for (const auto& [name, value] : environment) {
      if (value.empty())
        ::unsetenv(name.c_str());
      else
        ::setenv(name.c_str(), value.c_str(), 1);
    }
    ::setenv("XDG_STATE_HOME", stateFolder.c_str(), 1);
    ::unsetenv("GLIMMERSTRAND_SOCKET");
    ::execl(binary.c_str(), binary.c_str(), "daemon", static_cast<char*>(nullptr));
    ::_exit(127);
  }
  const std::string socket = stateFolder + "/glimmerstrand/glimmerstrand.sock";
  for (int k = 0; k < 2000 && fd_ < 0; ++k) {  // up to 20 s on a loaded machine
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    fd_ = connectTo(socket);
  }
  if (fd_ < 0) {
    ::kill(child_, SIGTERM);
    ::waitpid(child_, nullptr, 0);
    throw std::runtime_error("the daemon did not come up on " + socket);
  }
}

DaemonClient::~DaemonClient() {
  ::close(fd_);
  ::kill(child_, SIGTERM);
  ::waitpid(child_, nullptr, 0);
}

std::string DaemonClient::roundTrip(const std::string& line) {
  const std::string out = line + "\n";
  if (::write(fd_, out.data(), out.size()) != static_cast<ssize_t>(out.size())) throw std::runtime_error("write");
  char buffer[65536];
  std::size_t end;
  while ((end = pending_.find('\n')) == std::string::npos) {
    const ssize_t n = ::read(fd_, buffer, sizeof buffer);
    if (n <= 0) throw std::runtime_error("the daemon closed the connection");
    pending_.append(buffer, static_cast<std::size_t>(n));
  }
  std::string reply = pending_.substr(0, end);
  pending_.erase(0, end + 1);
  return reply;
}

}  // namespace glimmerstrand::testing
