#include "server/daemon_server.h"

#include <gtest/gtest.h>

#include <thread>

#include "server/support/driven_lease_clock.h"
#include "server/support/fake_backend.h"
#include "server/support/socket_client.h"

namespace glimmerstrand::server {
namespace {

using testing::DrivenLeaseClock;
using testing::eventually;
using testing::FakeBackend;
using testing::roundTrip;
using testing::SocketClient;
using testing::TempFolder;
using namespace std::chrono_literals;

class DaemonServerTest : public ::testing::Test {
 protected:
  DaemonServerTest() { backend_->coordinator = &coordinator_; }

  void SetUp() override {
    server_ = DaemonServer::make(backend_, folder_.path() / "state", makeLog("daemon", "info", [](std::string_view) {}),
                                 DaemonServerOptions{&coordinator_, {}, {}});
    server_->start(folder_.socketPath(), std::nullopt);
  }

  void TearDown() override {
    backend_->release();
    server_->stop();
    EXPECT_TRUE(server_->gateway().waitForThreads(10s));
  }

  std::unique_ptr<SocketClient> mcpClient() {
    auto client = std::make_unique<SocketClient>(folder_.socketPath());
    client->sendLine(R"({"mode":"mcp"})");
    // The session exists once it answers.
    EXPECT_EQ(roundTrip(*client, R"({"jsonrpc":"2.0","id":0,"method":"ping"})"),
              R"({"jsonrpc":"2.0","id":0,"result":{}})");
    return client;
  }

  TempFolder folder_;
  DrivenLeaseClock clock_;
  AppCoordinator coordinator_{clock_};
  std::shared_ptr<FakeBackend> backend_ = std::make_shared<FakeBackend>();
  std::shared_ptr<DaemonServer> server_;
};

TEST_F(DaemonServerTest, PlainConnectionTranscript) {
  SocketClient client(folder_.socketPath());
  EXPECT_EQ(roundTrip(client, R"({"operation":"ping"})"), R"({"ok":true,"result":{"pong":true}})");
  // Only a first line can ask for a mode; later it is an unknown request.
  EXPECT_EQ(
      roundTrip(client, R"({"mode":"mcp"})"),
      R"({"ok":false,"error":{"code":"invalid_argument","message":"未知の操作です: ","retry":"fix the statement, then retry"}})");
  client.sendLine("not json");
  EXPECT_EQ(roundTrip(client, R"({"operation":"ping"})"), R"({"ok":true,"result":{"pong":true}})");
}

TEST_F(DaemonServerTest, McpConnectionListsTheTool) {
  auto agent = mcpClient();
  EXPECT_EQ(
      roundTrip(*agent, R"({"jsonrpc":"2.0","id":"t","method":"tools/list"})"),
      R"({"jsonrpc":"2.0","id":"t","result":{"tools":[{"name":"do","title":"Mac のアプリを見て操作する","description":"Look at and operate macOS apps (Spotify, Finder, Safari, Calculator, Notes, System Settings, any app) through their accessibility tree with Cypher. Mac のアプリを見る、押す、入力する、開く。Read with MATCH ... RETURN, act with SET b.pressed = true or CALL ui.open/ui.press/ui.type/ui.key/ui.click/ui.menu/ui.scroll/ui.read/ui.screenshot/ui.window/ui.clipboard/ui.wait_for/ui.quit. Separate statements with ; to act and check in one call. The server instructions describe the grammar.","inputSchema":{"$schema":"http://json-schema.org/draft-07/schema#","type":"object","properties":{"cypher":{"type":"string","description":"Cypher statements separated by ;, e.g. CALL ui.open(\"Spotify\"); MATCH (b:Button) WHERE b.name CONTAINS \"Play\" RETURN b LIMIT 5"},"app":{"description":"App name or bundle id to look at or operate, such as \"Calculator\" or \"計算機\". Pass it on every call: several agents can share this connection, so the previous call's app is not remembered.","type":"string"}},"required":["cypher","app"]},"annotations":{"title":"Mac のアプリを見て操作する","readOnlyHint":false,"destructiveHint":true,"openWorldHint":false},"execution":{"taskSupport":"forbidden"}}]}})");
}

TEST_F(DaemonServerTest, LongDoHoldsUpOnlyItsOwnConnection) {
  backend_->hold("long");
  SocketClient busy(folder_.socketPath());
  busy.sendLine(R"({"id":1,"operation":"do","params":{"cypher":"long","app":"Finder"}})");
  busy.sendLine(R"({"id":2,"operation":"ping"})");
  ASSERT_TRUE(backend_->waitForHeld(1));

  SocketClient other(folder_.socketPath());
  EXPECT_EQ(roundTrip(other, R"({"id":3,"operation":"ping"})"), R"({"id":3,"ok":true,"result":{"pong":true}})");

  backend_->release();
  EXPECT_TRUE(busy.readLine()->starts_with(R"({"id":1,"ok":true,"result":{"fresh":true)"));
  EXPECT_EQ(busy.readLine(), R"({"id":2,"ok":true,"result":{"pong":true}})");
}

TEST_F(DaemonServerTest, SessionsShareAnAppThroughLeases) {
  auto call = [](int id) {
    return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) +
           R"(,"method":"tools/call","params":{"name":"do","arguments":{"cypher":"MATCH (n) RETURN n","app":"Spotify"}}})";
  };
  auto first = mcpClient();
  auto second = mcpClient();
  const std::string done = R"j("result":{"content":[{"type":"text","text":"(no rows)\n(Calculator g4 3ms)"}]}})j";

  EXPECT_TRUE(roundTrip(*first, call(1)).ends_with(done));
  second->sendLine(call(2));
  ASSERT_TRUE(clock_.waitForWaits(1));  // the first session's grace holds the app
  clock_.advance(9.9s);
  ASSERT_TRUE(clock_.waitForWaits(2));  // looked again, and went back to waiting
  EXPECT_FALSE(second->readLine(0ms));
  clock_.advance(0.1s);
  EXPECT_TRUE(second->readLine()->ends_with(done));

  // Now the second session holds its grace; the first waits, until the
  // second connection closes.
  first->sendLine(call(3));
  ASSERT_TRUE(clock_.waitForWaits(3));
  second.reset();
  EXPECT_TRUE(first->readLine()->ends_with(done));  // at once: no time has passed
}

TEST_F(DaemonServerTest, ClosingDuringADoReleasesTheLeaseAfterIt) {
  backend_->hold("long");
  auto agent = mcpClient();
  agent->sendLine(
      R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"do","arguments":{"cypher":"long","app":"Notes"}}})");
  ASSERT_TRUE(backend_->waitForHeld(1));
  agent.reset();
  EXPECT_EQ(coordinator_.lease("name:notes")->running, 1);  // the running call keeps it
  backend_->release();
  EXPECT_TRUE(eventually([&] { return !coordinator_.lease("name:notes"); }));
  EXPECT_EQ(server_->sessionCount(), 0);
}

}  // namespace
}  // namespace glimmerstrand::server
