// The shell client as a process: its conventions as a table of invocations,
// then the daemon's start, stop and restart on the simulated desktop.
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "client/client_process.h"

namespace glimmerstrand::client {
namespace {

using testing::ClientProcess;
using testing::Outcome;
using testing::readFile;

struct Case {
  std::vector<std::string> args;
  std::string input;
  int status;
  bool onStdout;  // else standard error, and the other stream stays empty
  std::string firstLine;
};

void expectCase(const ClientProcess& client, const Case& c) {
  std::string label;
  for (const auto& arg : c.args) label += " " + arg;
  const Outcome outcome = client.run(c.args, c.input);
  EXPECT_EQ(outcome.status, c.status) << label << "\n" << outcome.out << outcome.err;
  const std::string& stream = c.onStdout ? outcome.out : outcome.err;
  EXPECT_TRUE(Outcome::firstLine(stream).starts_with(c.firstLine)) << label << "\n" << stream;
  if (!c.onStdout) {
    EXPECT_EQ(outcome.out, "") << label;
  }
}

class ClientTest : public ::testing::Test {
 protected:
  ClientTest() : client_(GLIMMERSTRAND_CLIENT_BINARY, "client-test") {}
  ~ClientTest() override { client_.run({"stop"}); }

  pid_t daemonPid(const std::map<std::string, std::string>& extra = {}) {
    const auto status = client_.run({"--json", "status"}, "", extra).out;
    const auto at = status.find("\"pid\":");
    return at == std::string::npos ? 0 : std::stoi(status.substr(at + 6));
  }

  ClientProcess client_;
};

TEST_F(ClientTest, UsageIsAnsweredWithoutADaemon) {
  const std::string version = "glimmerstrand " GLIMMERSTRAND_VERSION;
  const std::vector<Case> cases{
      {{"--help"}, "", 0, true, "usage: glimmerstrand [--app APP] [--json] COMMAND"},
      {{"-h", "do"}, "", 0, true, "usage: glimmerstrand [--app APP] [--json] do STATEMENTS"},
      {{"help", "query"}, "", 0, true, "usage: glimmerstrand [--app APP] [--json] query STATEMENTS"},
      {{"stop", "--help"}, "", 0, true, "usage: glimmerstrand stop"},
      {{"--version"}, "", 0, true, version},
      {{}, "", 2, false, "glimmerstrand: missing command"},
      {{"bogus"}, "", 2, false, "glimmerstrand: unknown command 'bogus'"},
      {{"help", "bogus"}, "", 2, false, "glimmerstrand: unknown command 'bogus'"},
      {{"--verbose", "status"}, "", 2, false, "glimmerstrand: unknown option '--verbose'"},
      {{"query"}, "", 2, false, "glimmerstrand: 'query' needs statements"},
      {{"do", "MATCH", "(b)"}, "", 2, false, "glimmerstrand: unexpected argument '(b)'"},
      {{"status", "extra"}, "", 2, false, "glimmerstrand: unexpected argument 'extra'"},
      {{"status", "--app", "Calculator"}, "", 2, false, "glimmerstrand: option --app does not apply to 'status'"},
      {{"mcp", "--json"}, "", 2, false, "glimmerstrand: option --json does not apply to 'mcp'"},
      {{"status", "--http", "8765"}, "", 2, false, "glimmerstrand: option --http does not apply to 'status'"},
      {{"mcp", "--token-file", "t"}, "", 2, false, "glimmerstrand: option --token-file needs --http"},
      {{"mcp", "--http=somewhere:http"}, "", 2, false, "glimmerstrand: --http wants ADDRESS:PORT"},
      {{"query", "RETURN 1", "--app="}, "", 2, false, "glimmerstrand: option --app needs a value"},
      {{"query", "RETURN 1", "--app"}, "", 2, false, "glimmerstrand: option --app needs a value"},
  };
  for (const auto& c : cases) expectCase(client_, c);
  EXPECT_FALSE(std::filesystem::exists(client_.stateFolder())) << "a usage error started a daemon";
}

TEST_F(ClientTest, ExitStatusIsTheSameWithAndWithoutJson) {
  const std::string read = "MATCH (b:Button {name:\"7\"}) RETURN b.name";
  const std::string failing = read + "; MATCH (b:Button {name:\"7\"}) SET b.selected = 1";
  const std::vector<Case> cases{
      {{"--app=Calculator", "query", read}, "", 0, true, "b.name"},
      {{"--app", "Calculator", "--json", "query", read}, "", 0, true, "{\"ok\":true"},
      {{"do", "-", "--app", "Calculator"}, failing, 1, true, "#1"},
      {{"--json", "do", "-", "--app", "Calculator"}, failing, 1, true, "{\"ok\":true"},
      {{"query", "-"}, "", 1, false, "glimmerstrand: Cypher の文を指定してください"},
      {{"--json", "query", "-"}, "", 1, true, "{\"ok\":false"},
      {{"ping"}, "", 0, true, "pong"},
      {{"--json", "ping"}, "", 0, true, "{\"ok\":true"},
      {{"status"}, "", 0, true, "glimmerstrand " GLIMMERSTRAND_VERSION ", daemon pid"},
      {{"doctor"}, "", 0, true, "glimmerstrand " GLIMMERSTRAND_VERSION ", daemon pid"},
      {{"--json", "doctor"}, "", 0, true, "{\"ok\":true,\"result\":{\"permissions\""},
  };
  for (const auto& c : cases) expectCase(client_, c);
  const auto status = client_.run({"status"}).out;
  EXPECT_NE(status.find("platform      sim, usable"), std::string::npos) << status;
  EXPECT_NE(status.find("  Calculator (pid "), std::string::npos) << status;
  EXPECT_NE(readFile(client_.stateFolder() / "daemon.log").find("常駐プロセスを起動しました"), std::string::npos)
      << "the autostarted daemon logs into the state folder";
}

TEST_F(ClientTest, TheMcpBridgeServesTheClientsVersion) {
  const Outcome outcome =
      client_.run({"mcp"}, R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18"}})"
                           "\n");
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_NE(outcome.out.find(R"("serverInfo":{"name":"glimmerstrand","version":")" GLIMMERSTRAND_VERSION "\"}"),
            std::string::npos)
      << outcome.out;
}

TEST_F(ClientTest, StopEndsTheDaemonAndRestartTakesThisShellsSettings) {
  ASSERT_EQ(client_.run({"ping"}).status, 0);
  const pid_t first = daemonPid();
  ASSERT_GT(first, 0);

  const Outcome clash = client_.run({"ping"}, "", {{"GLIMMERSTRAND_PLATFORM", "linux"}});
  EXPECT_EQ(clash.status, 1);
  EXPECT_NE(clash.err.find("runs with GLIMMERSTRAND_PLATFORM=sim"), std::string::npos) << clash.err;
  EXPECT_NE(clash.err.find("run: glimmerstrand restart"), std::string::npos) << clash.err;

  // A list that still picks the simulated desktop, but another setting.
  const std::map<std::string, std::string> other{{"GLIMMERSTRAND_PLATFORM", "sim,linux"}};
  const Outcome restarted = client_.run({"restart"}, "", other);
  EXPECT_EQ(restarted.status, 0) << restarted.err;
  EXPECT_NE(::kill(first, 0), 0) << "the first daemon still runs";
  EXPECT_EQ(client_.run({"ping"}, "", other).status, 0) << "the new daemon has this shell's settings";
  const pid_t second = daemonPid(other);
  ASSERT_GT(second, 0);

  const Outcome stopped = client_.run({"stop"});
  EXPECT_EQ(stopped.status, 0) << stopped.err;
  EXPECT_EQ(Outcome::firstLine(stopped.out), "stopped the daemon (pid " + std::to_string(second) + ") on " +
                                                 (client_.stateFolder() / "glimmerstrand.sock").string());
  EXPECT_NE(::kill(second, 0), 0) << "the daemon still runs after stop";
  EXPECT_TRUE(client_.run({"stop"}).out.starts_with("no daemon answers on "));
}

TEST_F(ClientTest, AFailedStartReportsTheDaemonsOwnMessage) {
  // A file where the socket's folder should be: the daemon cannot make it.
  std::ofstream(client_.folder() / "file") << "";
  const Outcome outcome = client_.run({"ping"}, "", {{"GLIMMERSTRAND_SOCKET", (client_.folder() / "file/s").string()}});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(Outcome::firstLine(outcome.err), "glimmerstrand: the daemon stopped during start (exit status 1):");
  EXPECT_NE(outcome.err.find("ソケットのフォルダを作れませんでした"), std::string::npos) << outcome.err;
}

TEST_F(ClientTest, ALockClashNamesTheDaemonThatHoldsIt) {
  // The first daemon on the default socket; the second asks for another
  // socket in the same folder, whose lock the first holds.
  ASSERT_EQ(client_.run({"ping"}).status, 0);
  const Outcome second =
      client_.run({"ping"}, "", {{"GLIMMERSTRAND_SOCKET", (client_.stateFolder() / "second.sock").string()}});
  EXPECT_EQ(second.status, 1);
  EXPECT_NE(second.err.find("常駐プロセスはすでに動いています"), std::string::npos) << second.err;
  const auto first = (client_.stateFolder() / "glimmerstrand.sock").string();
  EXPECT_NE(second.err.find("stop it with: GLIMMERSTRAND_SOCKET=" + first + " glimmerstrand stop"), std::string::npos)
      << second.err;
}

TEST_F(ClientTest, AMissingDaemonBinaryIsNamedAtOnce) {
  // A client alone in a folder, with no glimmerstrand-native beside it or on PATH.
  const auto lone = client_.folder() / "bin" / "glimmerstrand";
  std::filesystem::create_directories(lone.parent_path());
  std::filesystem::copy_file(GLIMMERSTRAND_CLIENT_BINARY, lone);
  const Outcome outcome = ClientProcess(lone.string(), "client-lone").run({"ping"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(Outcome::firstLine(outcome.err),
            "glimmerstrand: glimmerstrand-native was found neither beside " + lone.string() + " nor on PATH");
}

}  // namespace
}  // namespace glimmerstrand::client
