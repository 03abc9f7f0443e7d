#include "native/gateway_operations.h"

#include <gtest/gtest.h>

#include <condition_variable>

#include "native/rpc_error.h"
#include "server/support/socket_client.h"

namespace glimmerstrand::native {
namespace {

using core::JSONValue;
using server::testing::SocketClient;
using server::testing::TempFolder;
using namespace std::chrono_literals;

// Lines written to the output, waited for by count.
struct OutputLines {
  std::mutex lock;  // guards lines
  std::condition_variable changed;
  std::vector<std::string> lines;

  std::vector<std::string> waitFor(std::size_t count) {
    std::unique_lock guard(lock);
    changed.wait_for(guard, 10s, [&] { return lines.size() >= count; });
    return lines;
  }
};

class GatewayOperationsTest : public ::testing::Test {
 protected:
  GatewayOperationsTest() { addGatewayOperations(table_, output()); }

  // The gateway of these operations lives as long as the process, so its
  // output must too.
  static OutputLines& lines() {
    static OutputLines lines;
    return lines;
  }
  static Output& output() {
    static Output output([](std::string_view line) {
      std::lock_guard guard(lines().lock);
      lines().lines.emplace_back(line.substr(0, line.size() - 1));
      lines().changed.notify_all();
    });
    return output;
  }

  std::string call(const std::string& name, const std::string& params) {
    try {
      return core::jsonText(std::get<JSONValue>((*table_.find(name))(core::parseJSON(params))));
    } catch (const RPCError& error) {
      return error.code() + ": " + error.message();
    }
  }

  TempFolder folder_;
  OperationTable table_;
};

TEST_F(GatewayOperationsTest, DriveASocketFromTheLineProtocol) {
  std::string path = core::jsonString(folder_.socketPath());
  EXPECT_EQ(call("gatewayListen", R"({"path":)" + path + "}"), R"({"listening":true,"verifiesSignature":false})");
  EXPECT_EQ(call("gatewayListen", R"({"path":)" + path + "}"), "invalid_argument: すでに待ち受けています");

  auto before = lines().waitFor(0).size();
  SocketClient client(folder_.socketPath());
  client.sendLine("hi \"there\"");
  auto events = lines().waitFor(before + 2);
  ASSERT_EQ(events.size(), before + 2);
  EXPECT_EQ(events[before], R"({"event":"gateway","type":"open","conn":1})");
  EXPECT_EQ(events[before + 1], R"({"event":"gateway","type":"line","conn":1,"line":"hi \"there\""})");

  EXPECT_EQ(call("gatewaySend", R"({"conn":1,"line":"yo"})"), R"({"sent":true})");
  EXPECT_EQ(client.readLine(), "yo");
  EXPECT_EQ(call("gatewaySend", R"({"line":"yo"})"), "invalid_argument: conn が必要です");
  EXPECT_EQ(call("gatewayClose", R"({})"), "invalid_argument: conn が必要です");
  EXPECT_EQ(call("gatewayClose", R"({"conn":1})"), R"({"closed":true})");
  EXPECT_EQ(call("gatewayClose", R"({"conn":1})"), R"({"closed":false})");
  EXPECT_EQ(lines().waitFor(before + 3).back(), R"({"event":"gateway","type":"close","conn":1})");
  EXPECT_EQ(call("gatewaySend", R"({"conn":1,"line":"late"})"), "stale: 接続 1 はもう閉じています");
}

}  // namespace
}  // namespace glimmerstrand::native
