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

// Lines written to the output, waited for by count. The gateway of these
// operations lives as long as the process, so the output and its lines must too.
std::mutex lock;  // guards written
std::condition_variable changed;
std::vector<std::string> written;
Output output([](std::string_view line) {
  std::lock_guard guard(lock);
  written.emplace_back(line.substr(0, line.size() - 1));
  changed.notify_all();
});

std::vector<std::string> waitFor(std::size_t count) {
  std::unique_lock guard(lock);
  changed.wait_for(guard, 10s, [&] { return written.size() >= count; });
  return written;
}

TEST(GatewayOperations, DriveASocketFromTheLineProtocol) {
  OperationTable table;
  addGatewayOperations(table, output);
  auto call = [&](const std::string& name, const std::string& params) -> std::string {
    try {
      return core::jsonText(std::get<JSONValue>((*table.find(name))(core::parseJSON(params))));
    } catch (const RPCError& error) {
      return error.code() + ": " + error.message();
    }
  };
  TempFolder folder;
  std::string path = core::jsonString(folder.socketPath());
  EXPECT_EQ(call("gatewayListen", R"({"path":)" + path + "}"), R"({"listening":true,"verifiesSignature":false})");

  auto before = waitFor(0).size();
  SocketClient client(folder.socketPath());
  client.sendLine("hi \"there\"");
  auto events = waitFor(before + 2);
  ASSERT_EQ(events.size(), before + 2);
  EXPECT_EQ(events[before], R"({"event":"gateway","type":"open","conn":1})");
  EXPECT_EQ(events[before + 1], R"({"event":"gateway","type":"line","conn":1,"line":"hi \"there\""})");

  EXPECT_EQ(call("gatewaySend", R"({"conn":1,"line":"yo"})"), R"({"sent":true})");
  EXPECT_EQ(client.readLine(), "yo");
  EXPECT_EQ(call("gatewaySend", R"({"line":"yo"})"), "invalid_argument: conn が必要です");
  EXPECT_EQ(call("gatewayClose", R"({"conn":1})"), R"({"closed":true})");
  EXPECT_EQ(waitFor(before + 3).back(), R"({"event":"gateway","type":"close","conn":1})");
}

}  // namespace
}  // namespace glimmerstrand::native
