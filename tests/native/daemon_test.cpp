// The daemon as a process on the simulated desktop, reached through its
// socket the way an agent host and the shell reach it.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "core/json_value.h"
#include "server/support/socket_client.h"

namespace glimmerstrand::native {
namespace {

using core::JSONValue;
using server::testing::SocketClient;
using server::testing::TempFolder;
using namespace std::chrono_literals;

// A daemon started in its own state folder; killed at the end of the test.
class Daemon {
 public:
  explicit Daemon(const TempFolder& folder)
      : socket_((folder.path() / "state/glimmerstrand/glimmerstrand.sock").string()) {
    pid_ = start(folder);
    for (int k = 0; k < 500 && !std::filesystem::exists(socket_); ++k) std::this_thread::sleep_for(10ms);
  }
  ~Daemon() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }

  static pid_t start(const TempFolder& folder) {
    pid_t child = ::fork();
    if (child == 0) {
      ::setenv("XDG_STATE_HOME", (folder.path() / "state").c_str(), 1);
      ::setenv("GLIMMERSTRAND_PLATFORM", "sim", 1);
      ::setenv("GLIMMERSTRAND_LOG_LEVEL", "error", 1);
      ::unsetenv("GLIMMERSTRAND_SOCKET");
      ::unsetenv("GLIMMERSTRAND_SIM_APPS");
      ::execl(GLIMMERSTRAND_NATIVE_BINARY, GLIMMERSTRAND_NATIVE_BINARY, "daemon", static_cast<char*>(nullptr));
      ::_exit(127);
    }
    return child;
  }
  /// Exit status after SIGTERM.
  int terminate() {
    ::kill(pid_, SIGTERM);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  const std::string& socket() const { return socket_; }

 private:
  std::string socket_;
  pid_t pid_ = -1;
};

JSONValue exchange(SocketClient& client, const std::string& line) {
  client.sendLine(line);
  auto reply = client.readLine(20s);
  if (!reply) throw std::runtime_error("no reply to " + line);
  return core::parseJSON(*reply);
}

TEST(Daemon, ASecondDaemonStopsAtTheLockAndTermRemovesTheSocket) {
  TempFolder folder;
  Daemon daemon(folder);
  ASSERT_TRUE(std::filesystem::exists(daemon.socket()));
  SocketClient shell(daemon.socket());
  auto pong = exchange(shell, R"({"id":1,"operation":"ping","params":{}})");
  EXPECT_EQ(core::optionalBool(pong, "ok"), true) << core::jsonText(pong);

  pid_t second = Daemon::start(folder);
  int status = 0;
  ::waitpid(second, &status, 0);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_TRUE(std::filesystem::exists(daemon.socket())) << "the second daemon leaves the socket alone";

  EXPECT_EQ(daemon.terminate(), 0);
  EXPECT_FALSE(std::filesystem::exists(daemon.socket()));
}

}  // namespace
}  // namespace glimmerstrand::native
