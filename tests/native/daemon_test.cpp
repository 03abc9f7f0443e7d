// The daemon as a process on the simulated desktop, reached through its
// socket the way an agent host and the shell reach it.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
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
  /// `apps`: a fixture file of simulated applications; the demo set without.
  explicit Daemon(const TempFolder& folder, const std::string& apps = "")
      : socket_((folder.path() / "state/glimmerstrand/glimmerstrand.sock").string()) {
    pid_ = start(folder, apps);
    // Polled for up to 20 s: a loaded machine (browsers on a test desktop beside) can be slow to start it.
    for (int k = 0; k < 2000 && !std::filesystem::exists(socket_); ++k) std::this_thread::sleep_for(10ms);
  }
  ~Daemon() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }

  static pid_t start(const TempFolder& folder, const std::string& apps = "") {
    pid_t child = ::fork();
    if (child == 0) {
      ::setenv("XDG_STATE_HOME", (folder.path() / "state").c_str(), 1);
      ::setenv("GLIMMERSTRAND_PLATFORM", "sim", 1);
      ::setenv("GLIMMERSTRAND_LOG_LEVEL", "error", 1);
      ::unsetenv("GLIMMERSTRAND_SOCKET");
      if (apps.empty())
        ::unsetenv("GLIMMERSTRAND_SIM_APPS");
      else
        ::setenv("GLIMMERSTRAND_SIM_APPS", apps.c_str(), 1);
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

  // A regular file at the socket path is no leftover: it stays, and the
  // daemon refuses to start.
  std::ofstream(daemon.socket()) << "notes";
  second = Daemon::start(folder);
  ::waitpid(second, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1);
  std::ifstream kept(daemon.socket());
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(kept), {}), "notes");
}

// A press that hangs for half a minute in one application: reads of another
// application, and of the hanging one, come back long before it ends (the
// hanging one's text is still as it was before the press).
TEST(Daemon, AHangingPressHoldsUpNoRead) {
  TempFolder folder;
  auto window = [](int pid, const std::string& title, const std::string& onPress) {
    std::string children = R"({"key":"go","role":"AXButton","title":"Go","frame":[10,10,50,30],"onPress":)" + onPress +
                           R"(},{"key":"status","role":"AXStaticText","value":"idle","frame":[10,50,100,20]})";
    // Enough elements that the application never counts as showing almost nothing.
    for (int k = 0; k < 40; ++k)
      children += R"(,{"role":"AXStaticText","value":"row )" + std::to_string(k) + R"(","frame":[200,)" +
                  std::to_string(5 * k) + ",50,5]}";
    return R"({"pid":)" + std::to_string(pid) + R"(,"name":")" + title +
           R"(","windows":[{"role":"AXWindow","title":")" + title + R"(","frame":[0,0,400,300],"children":[)" +
           children + "]}]}";
  };
  const auto apps = folder.path() / "apps.json";
  std::ofstream(apps) << R"({"apps":[)"
                      << window(601, "Hang", R"([{"hangMs":30000},{"set":{"key":"status","value":"done"}}])") << ","
                      << window(602, "Other", "[]") << "]}";
  Daemon daemon(folder, apps.string());
  SocketClient presser(daemon.socket());
  presser.sendLine(R"x({"id":1,"operation":"do","params":{"app":"Hang","cypher":"CALL ui.press(\"Go\")"}})x");
  SocketClient reader(daemon.socket());
  const std::string readStatus =
      R"({"id":2,"operation":"query","params":{"app":"APP","cypher":"MATCH (t:StaticText {value: 'idle'}) RETURN count(t) AS idle"}})";
  auto readsIdle = [&](const char* app) {
    auto reply = ask(reader, std::regex_replace(readStatus, std::regex("APP"), app));
    EXPECT_EQ(core::optionalBool(reply, "ok"), true) << core::jsonText(reply);
    auto results = reply.find("result") ? reply.find("result")->find("results") : nullptr;
    return results && core::jsonText(*results->asArray()->at(0).find("rows")) == R"([{"idle":1}])";
  };
  // While the press is waited for, and after it has been given up on while
  // the application still hangs.
  EXPECT_TRUE(readsIdle("Other"));
  EXPECT_TRUE(readsIdle("Hang"));
  auto pressed = presser.readLine(20s);
  ASSERT_TRUE(pressed);
  EXPECT_NE(pressed->find(R"("ok":true)"), std::string::npos) << *pressed;
  EXPECT_TRUE(readsIdle("Other"));
  EXPECT_TRUE(readsIdle("Hang")) << "the press's effect came: the reads were not made while it hung";
}

}  // namespace
}  // namespace glimmerstrand::native
