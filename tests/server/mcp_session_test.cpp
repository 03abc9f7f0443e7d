#include "server/mcp_session.h"

#include <gtest/gtest.h>

#include "core/errors.h"
#include "server/server_texts.h"
#include "server/support/fake_backend.h"

namespace glimmerstrand::server {
namespace {

using testing::BackendCall;
using testing::FakeBackend;
using testing::readResult;

std::string initializeReply(std::string_view id, std::string_view version) {
  return R"({"jsonrpc":"2.0","id":)" + std::string(id) + R"(,"result":{"protocolVersion":")" + std::string(version) +
         R"(","capabilities":{"tools":{"listChanged":true}},"serverInfo":{"name":"glimmerstrand","version":")" GLIMMERSTRAND_VERSION
         R"("},"instructions":)" +
         core::jsonString(serverInstructions()) + "}}";
}

std::string toolText(std::string_view id, std::string_view text, bool isError = true) {
  return R"({"jsonrpc":"2.0","id":)" + std::string(id) + R"(,"result":{"content":[{"type":"text","text":)" +
         core::jsonString(text) + "}]" + (isError ? R"(,"isError":true)" : "") + "}}";
}

class McpSessionTest : public ::testing::Test {
 protected:
  McpSessionTest()
      : backend_(std::make_shared<FakeBackend>()),
        session_(
            backend_, [this](const std::string& line) { sent_.push_back(line); },
            makeLog("mcp", "info", [this](std::string_view line) { logged_.emplace_back(line); })) {}

  std::vector<std::string> exchange(std::string_view line) {
    sent_.clear();
    session_.handleLine(line);
    return sent_;
  }

  std::shared_ptr<FakeBackend> backend_;
  std::vector<std::string> sent_;
  std::vector<std::string> logged_;
  McpSession session_;
};

using Lines = std::vector<std::string>;

TEST_F(McpSessionTest, MethodsAndErrors) {
  struct Case {
    std::string message;
    Lines replies;
  };
  std::vector<Case> cases{
      {R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18"}})",
       {initializeReply("1", "2025-06-18")}},
      {R"({"jsonrpc":"2.0","id":"a","method":"initialize","params":{"protocolVersion":"2099-01-01"}})",
       {initializeReply("\"a\"", "2025-11-25")}},
      {R"({"jsonrpc":"2.0","id":2,"method":"initialize","params":{"protocolVersion":20241105}})",
       {R"({"jsonrpc":"2.0","id":2,"error":{"code":-32602,"message":"Invalid params: protocolVersion is required"}})"}},
      {R"({"jsonrpc":"2.0","id":3,"method":"resources/list"})",
       {R"({"jsonrpc":"2.0","id":3,"error":{"code":-32601,"message":"Method not found"}})"}},
      {R"({"jsonrpc":"2.0","id":4,"method":"tools/call","params":{"arguments":{}}})",
       {R"({"jsonrpc":"2.0","id":4,"error":{"code":-32602,"message":"Invalid params: name is required"}})"}},
      {R"({"jsonrpc":"2.0","id":7})",
       {R"({"jsonrpc":"2.0","id":7,"error":{"code":-32600,"message":"Invalid Request"}})"}},
      {R"({"jsonrpc":"2.0","id":7,"result":{}})", {}},
      {R"({"jsonrpc":"2.0","id":true,"method":"ping"})", {}},
      {R"({"jsonrpc":"2.0","method":"notifications/initialized"})", {}},
  };
  for (const auto& c : cases) EXPECT_EQ(exchange(c.message), c.replies) << c.message;
  EXPECT_TRUE(logged_.empty());
}

TEST_F(McpSessionTest, ToolCallValidation) {
  const std::string invalid = "MCP error -32602: Input validation error: Invalid arguments for tool do: ";
  struct Case {
    std::string params;
    std::string text;
  };
  std::vector<Case> cases{
      {R"({"name":"run"})", "MCP error -32602: Tool run not found"},
      {R"({"name":"do"})", invalid + "Invalid input: expected object, received undefined"},
      {R"({"name":"do","arguments":{"app":4}})", invalid +
                                                     "Invalid input: expected string, received undefined at cypher\n"
                                                     "Invalid input: expected string, received number at app"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(exchange(R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":)" + c.params + "}"),
              Lines{toolText("1", c.text)})
        << c.params;
  EXPECT_TRUE(backend_->calls().empty());
}

TEST_F(McpSessionTest, AppIsRequiredUnlessTheScriptNamesIt) {
  const std::string missing =
      "Pass app on every call, such as \"Discord\". Several agents can share this connection, so Glimmerstrand does "
      "not remember the previous call's app or guess the frontmost app.\nretry: fix the statement, then retry";
  struct Case {
    std::string arguments;
    bool runs;
  };
  std::vector<Case> cases{
      {R"j({"cypher":"MATCH (b:Button) RETURN b"})j", false},
      {R"j({"cypher":"MATCH (b:Button) RETURN b","app":" \t "})j", false},
      {R"j({"cypher":"CALL ui.open(\"Safari\"); MATCH (n) RETURN n"})j", true},
      {R"j({"cypher":"\nCALL   UI.OPEN_URL (\"https://example.com\")"})j", true},
      {R"j({"cypher":"CALL ui.openx(\"Safari\")"})j", false},
      {R"j({"cypher":"MATCH (n) RETURN n; CALL ui.open(\"Safari\")"})j", false},
  };
  for (const auto& c : cases) {
    auto replies = exchange(R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"do","arguments":)" +
                            c.arguments + "}}");
    if (c.runs)
      EXPECT_EQ(replies, Lines{toolText("1", "(no rows)\n(Calculator g4 3ms)", false)}) << c.arguments;
    else
      EXPECT_EQ(replies, Lines{toolText("1", missing)}) << c.arguments;
  }
  auto calls = backend_->calls();
  ASSERT_EQ(calls.size(), 2u);
  for (const auto& call : calls) {
    EXPECT_FALSE(call.app);
    EXPECT_FALSE(call.readOnly);
    EXPECT_EQ(call.session, session_.id());
  }
}

TEST_F(McpSessionTest, ResultsBecomeContent) {
  backend_->respond = [](const BackendCall& call) -> core::CypherResult {
    if (call.cypher == "busy") throw core::GlimmerstrandError("busy", "Another agent is using Safari. Wait.");
    auto result = readResult("Safari", {});
    auto shot = std::make_shared<core::StatementResult>("call");
    shot->images = std::vector<core::CypherImage>{{"png", "QUJD", 4, 2, {10, 20, 2, 1}}};
    result.results.push_back(shot);
    if (call.cypher == "fails") {
      result.error = core::StatementError{2, "遅い"};
      result.errorCode = "timeout";
    }
    return result;
  };
  auto call = [&](std::string_view cypher) {
    return exchange(R"({"jsonrpc":"2.0","id":9,"method":"tools/call","params":{"name":"do","arguments":{"cypher":")" +
                    std::string(cypher) + R"(","app":"pid:77"}}})");
  };
  EXPECT_EQ(call("busy"), Lines{toolText("9",
                                         "Another agent is using Safari. Wait.\nretry: another agent is using this "
                                         "app; wait a few seconds, then retry as is")});
  std::string shown = "#1\n(no rows)\n#2\n(image 4x2px png of 2x1pt at 10,20)\n";
  EXPECT_EQ(call("fine"), Lines{R"({"jsonrpc":"2.0","id":9,"result":{"content":[{"type":"text","text":)" +
                                core::jsonString(shown + "(Safari g4 3ms)") +
                                R"(},{"type":"image","data":"QUJD","mimeType":"image/png"}]}})"});
  EXPECT_EQ(
      call("fails"),
      Lines{R"({"jsonrpc":"2.0","id":9,"result":{"content":[{"type":"text","text":)" +
            core::jsonString(shown + "error in #2: 遅い\nretry: statements before #2 already ran, so do not repeat "
                                     "them; safe to retry as is\n(Safari g4 3ms)") +
            R"(},{"type":"image","data":"QUJD","mimeType":"image/png"}],"isError":true}})"});
  EXPECT_EQ(backend_->calls().back().app, (core::AppSelector{77, std::nullopt, std::nullopt}));
}

TEST_F(McpSessionTest, RefusedMessagesWithAnIdAreAnswered) {
  EXPECT_EQ(
      exchange(R"({"jsonrpc":"2.0","id":4,"method":"ping","params":{"a":1e400}})"),
      Lines{
          R"({"jsonrpc":"2.0","id":4,"error":{"code":-32700,"message":"Parse error: JSON の数が倍精度の範囲を超えています"}})"});
  const std::string deep = std::string(513, '[') + std::string(513, ']');
  EXPECT_EQ(
      exchange(R"({"jsonrpc":"2.0","id":"d","method":"ping","params":)" + deep + "}"),
      Lines{
          R"j({"jsonrpc":"2.0","id":"d","error":{"code":-32700,"message":"Parse error: JSON の入れ子が深すぎます (上限 512 段)"}})j"});
  // An id that is no request id, and no id at all, get nothing.
  EXPECT_EQ(exchange(R"({"jsonrpc":"2.0","id":null,"method":"ping","params":{"a":"\udc00"}})"), Lines{});
  EXPECT_EQ(exchange(R"({"jsonrpc":"2.0","method":"ping","params":{"a":"\udc00"}})"), Lines{});
}

TEST_F(McpSessionTest, MalformedLinesAreLoggedNotAnswered) {
  std::string longLine = "[" + std::string(300, '1');
  for (const auto& line : {longLine, std::string("\"が\"")}) EXPECT_EQ(exchange(line), Lines{}) << line;
  ASSERT_EQ(logged_.size(), 2u);
  auto logged = core::parseJSON(logged_[0]);
  EXPECT_EQ(core::optionalString(logged, "message"), "MCP のメッセージを読めませんでした");
  EXPECT_EQ(core::optionalString(logged, "line"), longLine.substr(0, 200));
  EXPECT_EQ(core::optionalString(core::parseJSON(logged_[1]), "line"), "\"が\"");
}

}  // namespace
}  // namespace glimmerstrand::server
