#include "server/request_handler.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <regex>

#include "core/errors.h"
#include "core/procedures.h"
#include "core/runner.h"
#include "server/server_texts.h"
#include "server/support/fake_backend.h"
#include "server/support/socket_client.h"

namespace glimmerstrand::server {
namespace {

using testing::BackendCall;
using testing::FakeBackend;
using testing::readResult;

class RequestHandlerTest : public ::testing::Test {
 protected:
  RequestHandlerTest()
      : backend_(std::make_shared<FakeBackend>()),
        handler_(backend_, folder_.path() / "state",
                 makeLog("daemon", "debug", [this](std::string_view line) { logged_.emplace_back(line); }),
                 [] { return 2; }) {}

  testing::TempFolder folder_;
  std::shared_ptr<FakeBackend> backend_;
  std::vector<std::string> logged_;
  RequestHandler handler_;
};

TEST_F(RequestHandlerTest, RepliesToTheByte) {
  backend_->respond = [](const BackendCall& call) -> core::CypherResult {
    if (call.cypher == "boom") throw std::runtime_error("boom");
    return readResult("Calculator", {cypher::Row{{"n", 1}}});
  };
  struct Case {
    std::string request;
    std::optional<std::string> reply;
  };
  std::vector<Case> cases{
      {R"({"id":1,"operation":"ping","params":{}})", R"({"id":1,"ok":true,"result":{"pong":true}})"},
      {R"({"operation":"ping"})", R"({"ok":true,"result":{"pong":true}})"},
      {R"({"id":{"b":1,"a":{"d":2,"c":[{"z":0,"y":1}]}},"operation":"ping"})",
       R"({"id":{"a":{"c":[{"y":1,"z":0}],"d":2},"b":1},"ok":true,"result":{"pong":true}})"},
      {R"({"id":"x","operation":"fly","params":{"cypher":"x"}})",
       R"({"id":"x","ok":false,"error":{"code":"invalid_argument","message":"未知の操作です: fly","retry":"fix the statement, then retry"}})"},
      {R"({"id":3,"operation":"do","params":{"cypher":""}})",
       R"({"id":3,"ok":false,"error":{"code":"invalid_argument","message":"Cypher の文を指定してください","retry":"fix the statement, then retry"}})"},
      {R"({"id":5,"operation":"do","params":{"cypher":"boom"}})",
       R"({"id":5,"ok":false,"error":{"code":"internal","message":"boom","retry":"retry once; if it fails again, tell the user"}})"},
      {R"({"id":7,"operation":"query","params":{"cypher":"MATCH (n) RETURN n"},"format":"TEXT"})",
       R"({"id":7,"ok":true,"result":{"fresh":true,"app":"Calculator","pid":501,"generation":4,"results":[{"kind":"read","rows":[{"n":1}],"actions":[]}],"elapsedMs":3}})"},
      {R"({"id":8,"operation":"do","params":{"cypher":"MATCH (n) RETURN n","app":"pid:12"},"format":"text"})",
       R"j({"id":8,"ok":true,"result":{"text":"n\n1\n(Calculator g4 3ms)"}})j"},
      {R"({"id":9,"operation":"doctor"})",
       R"({"id":9,"ok":true,"result":{"permissions":{"accessibility":true},"displays":[],"frontmost":"Calculator"}})"},
      {"not json", std::nullopt},
  };
  for (const auto& c : cases) EXPECT_EQ(handler_.handleLine(c.request), c.reply) << c.request;
  EXPECT_EQ(logged_.size(), 3u);  // one debug line per failure
  auto calls = backend_->calls();
  ASSERT_EQ(calls.size(), 3u);
  EXPECT_EQ(calls[1].readOnly, true);
  EXPECT_EQ(calls[2].readOnly, false);
  EXPECT_FALSE(calls[2].session);
  EXPECT_EQ(calls[2].app, (core::AppSelector{12, std::nullopt, std::nullopt}));
}

// JSON that the parser refuses still gets an answer when its id can be read,
// so that its client does not wait for ever; text that is no JSON gets none.
TEST_F(RequestHandlerTest, RefusedRequestsWithAReadableIdAreAnswered) {
  const std::string deep = std::string(513, '[') + std::string(513, ']');
  const std::string retry = R"(,"retry":"fix the statement, then retry"}})";
  const std::pair<std::string, std::optional<std::string>> cases[] = {
      {R"({"id":1,"operation":"ping","params":{"a":"\ud800"}})",
       R"({"id":1,"ok":false,"error":{"code":"invalid_argument","message":"JSON の文字列に対のないサロゲートがあります")" +
           retry},
      {R"({"id":2,"operation":"ping","params":{"a":1e400}})",
       R"({"id":2,"ok":false,"error":{"code":"invalid_argument","message":"JSON の数が倍精度の範囲を超えています")" +
           retry},
      {R"({"id":{"b":1,"a":2},"operation":"ping","params":)" + deep + "}",
       R"j({"id":{"a":2,"b":1},"ok":false,"error":{"code":"invalid_argument","message":"JSON の入れ子が深すぎます (上限 512 段)")j" +
           retry},
      {R"({"operation":"ping","params":)" + deep + "}", std::nullopt},
      {R"({"id":3,"operation":"ping")", std::nullopt},
  };
  for (const auto& [request, reply] : cases) EXPECT_EQ(handler_.handleLine(request), reply) << request;
  EXPECT_TRUE(backend_->calls().empty());
}

TEST_F(RequestHandlerTest, StatusAndSkill) {
  auto status = core::parseJSON(*handler_.handleLine(R"({"operation":"status"})"));
  const auto* result = status.find("result");
  ASSERT_TRUE(result && result->asObject());
  std::vector<std::string> keys;
  for (const auto& [key, value] : *result->asObject()) keys.push_back(key);
  EXPECT_EQ(keys, (std::vector<std::string>{"pid", "startedAt", "uptimeMs", "sessions", "mirrors"}));
  EXPECT_EQ(core::optionalString(*result, "startedAt"), internetDateText(handler_.startedAt()));
  EXPECT_EQ(core::optionalInt(*result, "sessions"), 2);
  EXPECT_EQ(core::jsonText(*result->find("mirrors")), R"([{"pid":501}])");

  // The skill wraps the instructions, whose procedure line follows the
  // procedure table, so a new procedure can't go unmentioned.
  auto skill = core::parseJSON(*handler_.handleLine(R"({"operation":"skill"})"));
  std::string usage = *core::optionalString(*skill.find("result"), "text");
  EXPECT_TRUE(usage.starts_with("---\nname: glimmerstrand\ndescription: "));
  EXPECT_TRUE(usage.ends_with("\n\n" + serverInstructions()));
  auto from = usage.find("\nProcedures: ");
  ASSERT_NE(from, std::string::npos);
  std::string procedures = usage.substr(from, usage.find('\n', from + 1) - from);
  std::size_t at = 0;
  for (const auto& procedure : core::procedureTable()) {
    at = procedures.find(procedure.usage, at);
    ASSERT_NE(at, std::string::npos) << procedure.name;
  }
  EXPECT_NE(usage.find("at most " + std::to_string(core::rowCap) + " rows"), std::string::npos);
}

TEST_F(RequestHandlerTest, TextReplyWritesPrivateImages) {
  backend_->respond = [](const BackendCall&) {
    auto result = readResult("Safari", {});
    auto shot = std::make_shared<core::StatementResult>("call");
    // "PNG!" and "JPG" in base64, one of them unpadded.
    shot->images =
        std::vector<core::CypherImage>{{"png", "UE5HIQ==", 2, 2, {0, 0, 1, 1}}, {"jpeg", "SlBH", 2, 2, {0, 0, 1, 1}}};
    result.results.push_back(shot);
    result.error = core::StatementError{2, "遅い"};
    return result;
  };
  auto reply = core::parseJSON(*handler_.handleLine(R"({"operation":"do","params":{"cypher":"x"},"format":"text"})"));
  const auto* result = reply.find("result");
  ASSERT_TRUE(result);
  EXPECT_EQ(core::jsonText(*result->find("error")), R"({"statement":2,"message":"遅い"})");
  std::string text = *core::optionalString(*result, "text");
  std::smatch match;
  std::string folder = (folder_.path() / "state" / "screenshots").string();
  std::regex form("([\\s\\S]*)\nimage: (" + folder + "/[0-9T.Z-]+-1\\.png)\nimage: (" + folder +
                  "/[0-9T.Z-]+-2\\.jpg)");
  ASSERT_TRUE(std::regex_match(text, match, form)) << text;
  EXPECT_TRUE(
      std::string(match[1]).ends_with("error in #2: 遅い\nretry: statements before #2 already ran, so do not "
                                      "repeat them; retry once; if it fails again, tell the user\n(Safari g4 3ms)"));
  EXPECT_EQ(match[2].str().find(':', folder.size()), std::string::npos);
  struct stat info {};
  ASSERT_EQ(::stat(folder.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700u);
  for (auto [path, bytes] : {std::pair{match[2].str(), "PNG!"}, std::pair{match[3].str(), "JPG"}}) {
    ASSERT_EQ(::stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    std::ifstream in(path, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), bytes);
  }
}

TEST(ParseAppSelector, PidFormOrName) {
  using core::AppSelector;
  struct Case {
    std::optional<std::string> app;
    std::optional<AppSelector> selector;
  };
  std::vector<Case> cases{
      {std::nullopt, std::nullopt},
      {"pid:12", AppSelector{12, std::nullopt, std::nullopt}},
      {"pid:+7", AppSelector{7, std::nullopt, std::nullopt}},
      {"pid:-1", AppSelector{std::nullopt, std::nullopt, "pid:-1"}},
      {"pid:99999999999999999999", AppSelector{std::nullopt, std::nullopt, "pid:99999999999999999999"}},
      {"com.apple.Safari", AppSelector{std::nullopt, std::nullopt, "com.apple.Safari"}},
  };
  for (const auto& c : cases) EXPECT_EQ(parseAppSelector(c.app), c.selector) << c.app.value_or("(none)");
}

}  // namespace
}  // namespace glimmerstrand::server
