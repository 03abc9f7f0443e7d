// The daemon as a process on the simulated desktop, reached through its
// socket the way an agent host and the shell reach it.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <regex>
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

JSONValue ask(SocketClient& client, const std::string& line) {
  client.sendLine(line);
  auto reply = client.readLine(20s);
  if (!reply) throw std::runtime_error("no reply to " + line);
  return core::parseJSON(*reply);
}

TEST(Daemon, AnAgentDrivesTheCalculatorOverMcp) {
  TempFolder folder;
  Daemon daemon(folder);
  SocketClient agent(daemon.socket());
  agent.sendLine(R"({"mode":"mcp"})");
  auto init = ask(agent, R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18"}})");
  EXPECT_EQ(core::optionalString(*init.find("result"), "protocolVersion"), "2025-06-18");
  auto tools = ask(agent, R"({"jsonrpc":"2.0","id":2,"method":"tools/list"})");
  EXPECT_EQ(core::optionalString(tools.find("result")->find("tools")->asArray()->at(0), "name"), "do");

  auto reply = ask(agent, R"x({"jsonrpc":"2.0","id":3,"method":"tools/call","params":{"name":"do","arguments":{)x"
                          R"x("app":"Calculator","cypher":"CALL ui.open(\"Calculator\"); CALL ui.press(\"7\"); )x"
                          R"x(MATCH (t:StaticText) RETURN t.value"}}})x");
  const auto text = *reply.find("result")->find("content")->asArray()->at(0).find("text")->asString();
  EXPECT_EQ(reply.find("result")->find("isError"), nullptr) << text;
  // Everything but the closing line's generation and time is fixed.
  const std::string expected =
      "#1\nok open \"Calculator\"\napp\tpid\telements\nCalculator\t501\t18\n"
      "#2\nok e3 pressed\n~ e2 StaticText \"07\" (was \"0\")\n"
      "#3\nt.value\n07\n";
  EXPECT_EQ(text.substr(0, expected.size()), expected);
  EXPECT_TRUE(std::regex_match(text.substr(std::min(expected.size(), text.size())),
                               std::regex(R"(\(Calculator g[0-9]+ [0-9]+ms\)\n?)")))
      << text;
}

TEST(Daemon, ASecondDaemonStopsAtTheLockAndTermRemovesTheSocket) {
  TempFolder folder;
  Daemon daemon(folder);
  ASSERT_TRUE(std::filesystem::exists(daemon.socket()));
  SocketClient shell(daemon.socket());
  auto pong = ask(shell, R"({"id":1,"operation":"ping","params":{}})");
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
