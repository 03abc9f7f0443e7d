#include "native/line_protocol.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <random>
#include <thread>

#include "core/errors.h"
#include "native/rpc_error.h"

namespace glimmerstrand::native {
namespace {

using core::JSONValue;
using namespace std::chrono_literals;

// A host over a table of test operations, collecting reply lines.
class HostFixture : public ::testing::Test {
 protected:
  HostFixture()
      : output_([this](std::string_view line) {
          std::lock_guard guard(linesLock_);
          lines_.emplace_back(line.substr(0, line.size() - 1));  // without its line feed
        }) {
    addProcessOperations(table_);
    table_.add("fail", [](const JSONValue& params) -> HandlerResult {
      auto kind = requiredString("kind", params);
      if (kind == "rpc") throw RPCError("timeout", "遅い");
      if (kind == "core") throw core::GlimmerstrandError("stale", "古い");
      throw std::runtime_error("boom");
    });
    table_.add("echo", [](const JSONValue& params) -> HandlerResult { return params; });
    table_.add("number", [](const JSONValue& params) -> HandlerResult { return requiredNumber("n", params); });
    table_.add("type", [this](const JSONValue& params) -> HandlerResult {
      std::this_thread::sleep_for(std::chrono::milliseconds(requiredNumber("ms", params) > 0 ? 20 : 0));
      typed_.push_back(requiredString("text", params));
      return true;
    });
  }

  // Sends lines and waits for every reply.
  std::vector<std::string> exchange(std::initializer_list<std::string_view> requests) {
    for (auto line : requests) host_.handleLine(line);
    EXPECT_TRUE(host_.waitForReplies(5s));
    std::lock_guard guard(linesLock_);
    std::vector<std::string> out;
    out.swap(lines_);
    return out;
  }

  OperationTable table_;
  Queues queues_;
  std::size_t lineCount() {
    std::lock_guard guard(linesLock_);
    return lines_.size();
  }

  std::mutex linesLock_;  // guards lines_, written by the queues' workers
  std::vector<std::string> lines_;
  Output output_;
  std::vector<std::string> typed_;  // only the serial input queue writes it
  LineHost host_{table_, queues_, output_};
};

TEST_F(HostFixture, RepliesToEachWellFormedRequest) {
  const std::string pid = std::to_string(::getpid());
  const std::pair<std::string_view, std::string> cases[] = {
      {R"({"id":1,"method":"ping"})", R"({"id":1,"ok":true,"result":{"pong":true,"pid":)" + pid + "}}"},
      {R"({"id":"x","method":"nope"})",
       R"({"id":"x","ok":false,"error":{"code":"invalid_argument","message":"未知のメソッドです: nope"}})"},
      {R"({"id":2})", R"({"id":2,"ok":false,"error":{"code":"invalid_argument","message":"未知のメソッドです: "}})"},
      {R"({"id":[1,{"a":2}],"method":"echo","params":{"b":1,"a":"/"}})",
       R"({"id":[1,{"a":2}],"ok":true,"result":{"b":1,"a":"/"}})"},
      {R"({"id":4,"method":"echo","params":[1]})", R"({"id":4,"ok":true,"result":{}})"},
      {R"({"id":5,"method":"fail","params":{"kind":"rpc"}})",
       R"({"id":5,"ok":false,"error":{"code":"timeout","message":"遅い"}})"},
      {R"({"id":6,"method":"fail","params":{"kind":"core"}})",
       R"({"id":6,"ok":false,"error":{"code":"stale","message":"古い"}})"},
      {R"({"id":7,"method":"fail","params":{"kind":"other"}})",
       R"({"id":7,"ok":false,"error":{"code":"native","message":"boom"}})"},
      {R"({"id":10,"method":"number","params":{"n":2.5}})", R"({"id":10,"ok":true,"result":2.5})"},
  };
  for (const auto& [request, reply] : cases) EXPECT_EQ(exchange({request}), std::vector<std::string>{reply}) << request;
}

TEST_F(HostFixture, MalformedLinesGetNoReply) {
  EXPECT_TRUE(exchange({"", "not json", "[1]", "{}", R"({"method":"ping"})", "{\"id\":1", "\"text\"", "null"}).empty());
}

TEST_F(HostFixture, RefusedRequestsWithAReadableIdGetAnErrorReply) {
  const std::string deep = std::string(600, '[') + std::string(600, ']');
  EXPECT_EQ(
      exchange({R"({"id":1,"method":"ping","params":{"a":"\ud800"}})"}),
      std::vector<std::string>{
          R"({"id":1,"ok":false,"error":{"code":"invalid_argument","message":"JSON の文字列に対のないサロゲートがあります"}})"});
  EXPECT_EQ(
      exchange({R"({"method":"echo","params":)" + deep + R"(,"id":[2]})"}),
      std::vector<std::string>{
          R"j({"id":[2],"ok":false,"error":{"code":"invalid_argument","message":"JSON の入れ子が深すぎます (上限 512 段)"}})j"});
}

TEST_F(HostFixture, InputOperationsRunInArrivalOrder) {
  exchange({R"({"id":1,"method":"type","params":{"text":"a","ms":1}})",
            R"({"id":2,"method":"type","params":{"text":"b","ms":0}})",
            R"({"id":3,"method":"type","params":{"text":"c","ms":1}})"});
  EXPECT_EQ(typed_, (std::vector<std::string>{"a", "b", "c"}));
}

TEST_F(HostFixture, SurvivesRandomAndTruncatedLines) {
  const std::string seed = R"({"id":1,"method":"echo","params":{"a":[1,2,{"b":"c\u00e9"}]}})";
  std::mt19937 random(7);
  for (int i = 0; i < 3000; ++i) {
    std::string line = seed;
    for (int k = 0; k < 3; ++k) line[random() % line.size()] = static_cast<char>(random() % 256);
    if (i % 2) line.resize(random() % line.size());
    if (line.find('\n') == std::string::npos) host_.handleLine(line);
  }
  ASSERT_TRUE(host_.waitForReplies(10s));
  exchange({});
  EXPECT_EQ(exchange({R"({"id":"last","method":"ping"})"}).size(), 1u);
}

TEST_F(HostFixture, WaitForRepliesGivesUpOnAHangingOperation) {
  std::atomic<bool> release{false};
  table_.add("hang", [&](const JSONValue&) -> HandlerResult {
    while (!release) std::this_thread::sleep_for(1ms);
    return true;
  });
  host_.handleLine(R"({"id":1,"method":"hang"})");
  EXPECT_FALSE(host_.waitForReplies(50ms));
  host_.handleLine(R"({"id":2,"method":"ping"})");  // the work queue is concurrent: ping is not held up
  for (int i = 0; i < 500 && lineCount() == 0; ++i) std::this_thread::sleep_for(10ms);
  EXPECT_EQ(lineCount(), 1u);
  release = true;
  EXPECT_TRUE(host_.waitForReplies(5s));
}

}  // namespace
}  // namespace glimmerstrand::native
