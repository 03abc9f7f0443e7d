// MCP over HTTP against a daemon server in this process: its sessions,
// leases and backend are the test's to look at. Requests are raw HTTP over
// loopback, so that a test can also send what a well-behaved client never
// would, and hang up in the middle of a call.
#include "client/mcp_http.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <sstream>
#include <thread>
#include <tuple>

#include "core/errors.h"
#include "server/daemon_server.h"
#include "server/support/driven_lease_clock.h"
#include "server/support/fake_backend.h"
#include "server/support/socket_client.h"

namespace glimmerstrand::client {
namespace {

using server::testing::DrivenLeaseClock;
using server::testing::eventually;
using server::testing::FakeBackend;
using server::testing::TempFolder;
using namespace std::chrono_literals;

constexpr const char* token = "s3cret-token";

struct Reply {
  int status = 0;
  std::map<std::string, std::string> headers;  // names in lower case
  std::string body;

  std::string header(const std::string& name) const {
    auto found = headers.find(name);
    return found == headers.end() ? "" : found->second;
  }
};

// One HTTP/1.1 connection to the server on loopback.
class HttpClient {
 public:
  explicit HttpClient(std::uint16_t port) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    timeval limit{10, 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  }
  ~HttpClient() { hangUp(); }

  void send(const std::string& method, const std::vector<std::pair<std::string, std::string>>& headers,
            const std::string& body, const std::string& path = "/mcp") {
    std::string text = method + " " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n";
    for (const auto& [name, value] : headers) text += name + ": " + value + "\r\n";
    text += "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    ASSERT_EQ(::send(fd_, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
  }

  Reply receive() {
    Reply reply;
    std::string data;
    std::size_t headEnd;
    while ((headEnd = data.find("\r\n\r\n")) == std::string::npos)
      if (!fill(data)) return reply;
    std::istringstream head(data.substr(0, headEnd));
    std::string line, version;
    std::getline(head, line);
    std::istringstream(line) >> version >> reply.status;
    while (std::getline(head, line)) {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      const auto colon = line.find(':');
      if (colon == std::string::npos) continue;
      std::string name = line.substr(0, colon);
      for (auto& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      reply.headers[name] = line.substr(line.find_first_not_of(' ', colon + 1));
    }
    const std::size_t length = reply.headers.count("content-length") ? std::stoul(reply.header("content-length")) : 0;
    while (data.size() < headEnd + 4 + length)
      if (!fill(data)) break;
    reply.body = data.substr(headEnd + 4, length);
    return reply;
  }

  Reply exchange(const std::string& method, const std::vector<std::pair<std::string, std::string>>& headers,
                 const std::string& body, const std::string& path = "/mcp") {
    send(method, headers, body, path);
    return receive();
  }

  void hangUp() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  bool fill(std::string& data) {
    char buffer[65536];
    const ssize_t n = ::read(fd_, buffer, sizeof buffer);
    if (n <= 0) return false;
    data.append(buffer, static_cast<std::size_t>(n));
    return true;
  }

  int fd_;
};

std::string initialize(int id = 1) {
  return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) +
         R"(,"method":"initialize","params":{"protocolVersion":"2025-11-25","capabilities":{},)"
         R"("clientInfo":{"name":"test","version":"1"}}})";
}

std::string doCall(int id, const std::string& cypher, const std::string& app) {
  return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) +
         R"(,"method":"tools/call","params":{"name":"do","arguments":{"cypher":")" + cypher + R"(","app":")" + app +
         R"("}}})";
}

using Headers = std::vector<std::pair<std::string, std::string>>;

Headers authorized(const std::optional<std::string>& session = std::nullopt) {
  Headers headers{{"Authorization", std::string("Bearer ") + token}, {"Content-Type", "application/json"}};
  if (session) headers.emplace_back("Mcp-Session-Id", *session);
  return headers;
}

class McpHttpTest : public ::testing::Test {
 protected:
  McpHttpTest() { backend_->coordinator = &coordinator_; }

  void SetUp() override {
    daemon_ = server::DaemonServer::make(backend_, folder_.path() / "state",
                                         server::makeLog("daemon", "info", [](std::string_view) {}),
                                         server::DaemonServerOptions{&coordinator_, {}, {}});
    daemon_->start(folder_.socketPath(), std::nullopt);
    transport_ = std::make_unique<McpHttpTransport>(
        [socket = folder_.socketPath()] { return DaemonLink::open(socket); }, McpHttpOptions{token});
    http_ = HttpServer::start(
        ListenAddress{"127.0.0.1", 0}, [this](const HttpRequest& head) { return transport_->screen(head); },
        [this](const HttpRequest& request) { return transport_->handle(request); });
  }

  void TearDown() override {
    backend_->release();
    http_->stop();
    daemon_->stop();
    EXPECT_TRUE(daemon_->gateway().waitForThreads(10s));
  }

  // A new session: its id, from the initialize reply.
  std::string startSession(HttpClient& client) {
    const Reply reply = client.exchange("POST", authorized(), initialize());
    EXPECT_EQ(reply.status, 200) << reply.body;
    EXPECT_TRUE(reply.body.starts_with(R"({"jsonrpc":"2.0","id":1,"result":{"protocolVersion":"2025-11-25")"));
    return reply.header("mcp-session-id");
  }

  TempFolder folder_;
  DrivenLeaseClock clock_;
  server::AppCoordinator coordinator_{clock_};
  std::shared_ptr<FakeBackend> backend_ = std::make_shared<FakeBackend>();
  std::shared_ptr<server::DaemonServer> daemon_;
  std::unique_ptr<McpHttpTransport> transport_;
  std::unique_ptr<HttpServer> http_;
};

TEST_F(McpHttpTest, RefusedRequestsCostNothingElse) {
  struct Case {
    std::string name;
    std::string method;
    Headers headers;
    std::string body;
    int status;
    std::string path = "/mcp";
  };
  const std::string wrong = "Bearer not-the-token";
  const std::vector<Case> cases{
      {"no token", "POST", {{"Content-Type", "application/json"}}, initialize(), 401},
      {"wrong token", "POST", {{"Authorization", wrong}}, initialize(), 401},
      {"token of another scheme", "POST", {{"Authorization", std::string("Basic ") + token}}, initialize(), 401},
      {"token with a tail", "POST", {{"Authorization", std::string("Bearer ") + token + "x"}}, initialize(), 401},
      {"foreign origin", "POST", {{"Origin", "http://attacker.example"}, authorized()[0]}, initialize(), 403},
      {"origin of a rebound name", "POST", {{"Origin", "http://127.0.0.1.attacker.example:80"}}, initialize(), 403},
      {"a stream asked for", "GET", authorized(), "", 405},
      {"another path", "POST", authorized(), initialize(), 404, "/other"},
      {"unknown protocol version",
       "POST",
       {authorized()[0], {"MCP-Protocol-Version", "1999-01-01"}},
       initialize(),
       400},
      {"no session, not initialize", "POST", authorized(), doCall(2, "MATCH (n) RETURN n", "Notes"), 400},
      {"unknown session", "POST", authorized("feedface"), doCall(2, "MATCH (n) RETURN n", "Notes"), 404},
      {"a batch", "POST", authorized(), "[" + initialize() + "]", 400},
      {"not JSON", "POST", authorized(), "{\"jsonrpc\":", 400},
      {"delete without a session", "DELETE", authorized(), "", 400},
  };
  for (const auto& c : cases) {
    HttpClient client(http_->port());
    const Reply reply = client.exchange(c.method, c.headers, c.body, c.path);
    EXPECT_EQ(reply.status, c.status) << c.name << ": " << reply.body;
    if (c.status == 401) {
      EXPECT_EQ(reply.header("www-authenticate"), "Bearer") << c.name;
    }
  }
  EXPECT_EQ(transport_->sessionCount(), 0u);
  EXPECT_EQ(daemon_->sessionCount(), 0);  // no connection to the daemon was made
  EXPECT_TRUE(backend_->calls().empty());
}

TEST_F(McpHttpTest, ALoopbackPageMayCall) {
  HttpClient client(http_->port());
  Headers headers = authorized();
  headers.emplace_back("Origin", "http://localhost:5173");
  EXPECT_EQ(client.exchange("POST", headers, initialize()).status, 200);
}

TEST_F(McpHttpTest, ASessionRunsFromInitializeToDelete) {
  HttpClient client(http_->port());
  const std::string session = startSession(client);
  EXPECT_EQ(session.size(), 32u);

  const Reply noted =
      client.exchange("POST", authorized(session), R"({"jsonrpc":"2.0","method":"notifications/initialized"})");
  EXPECT_EQ(noted.status, 202);
  EXPECT_TRUE(noted.body.empty());

  Headers versioned = authorized(session);
  versioned.emplace_back("MCP-Protocol-Version", "2025-11-25");
  // A body spread over lines is one message all the same.
  const Reply called = client.exchange(
      "POST", versioned,
      "{\"jsonrpc\":\"2.0\",\n\"id\":\"c1\",\n\"method\":\"tools/"
      "call\",\"params\":{\"name\":\"do\",\"arguments\":{\"cypher\":\"MATCH (n) RETURN n\",\"app\":\"Notes\"}}}");
  EXPECT_EQ(called.status, 200);
  EXPECT_EQ(called.header("content-type"), "application/json");
  EXPECT_EQ(
      called.body,
      R"j({"jsonrpc":"2.0","id":"c1","result":{"content":[{"type":"text","text":"(no rows)\n(Calculator g4 3ms)"}]}})j");
  ASSERT_EQ(backend_->calls().size(), 1u);
  EXPECT_TRUE(backend_->calls()[0].session->starts_with("mcp-"));
  EXPECT_EQ(daemon_->sessionCount(), 1);

  EXPECT_EQ(client.exchange("DELETE", authorized(session), "").status, 204);
  EXPECT_EQ(client.exchange("POST", authorized(session), doCall(3, "MATCH (n) RETURN n", "Notes")).status, 404);
  EXPECT_TRUE(eventually([&] { return daemon_->sessionCount() == 0; }));
  EXPECT_EQ(transport_->sessionCount(), 0u);
}

TEST_F(McpHttpTest, TwoClientsHoldTheirOwnSessionsAndLeases) {
  HttpClient first(http_->port());
  HttpClient second(http_->port());
  const std::string one = startSession(first);
  const std::string two = startSession(second);
  EXPECT_NE(one, two);

  EXPECT_EQ(first.exchange("POST", authorized(one), doCall(2, "MATCH (n) RETURN n", "Spotify")).status, 200);
  // The first session's lease outlives its call; the second waits for it.
  second.send("POST", authorized(two), doCall(2, "MATCH (n) RETURN n", "Spotify"));
  ASSERT_TRUE(clock_.waitForWaits(1));
  EXPECT_EQ(coordinator_.lease("name:spotify")->session, backend_->calls()[0].session);
  // Ending the first session hands the application over at once.
  HttpClient other(http_->port());
  EXPECT_EQ(other.exchange("DELETE", authorized(one), "").status, 204);
  EXPECT_EQ(second.receive().status, 200);

  const auto calls = backend_->calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_NE(calls[0].session, calls[1].session);
  EXPECT_EQ(coordinator_.lease("name:spotify")->session, calls[1].session);
}

TEST_F(McpHttpTest, AClientThatVanishesMidCallFreesItsLeaseOnceTheCallEnds) {
  backend_->hold("long");
  std::string session;
  {
    HttpClient client(http_->port());
    session = startSession(client);
    client.send("POST", authorized(session), doCall(2, "long", "Notes"));
    ASSERT_TRUE(backend_->waitForHeld(1));
  }                                                         // hangs up
  EXPECT_EQ(coordinator_.lease("name:notes")->running, 1);  // the running call keeps it
  backend_->release();
  // Gone with the call, though no time passed and its grace has not run out.
  EXPECT_TRUE(eventually([&] { return !coordinator_.lease("name:notes"); }));

  // The session itself goes on, on a new session of the daemon's.
  HttpClient again(http_->port());
  const Reply reply = again.exchange("POST", authorized(session), doCall(3, "MATCH (n) RETURN n", "Notes"));
  EXPECT_EQ(reply.status, 200) << reply.body;
  const auto calls = backend_->calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_NE(calls[0].session, calls[1].session);
}

TEST_F(McpHttpTest, ACallAfterTheDaemonWentIsAnsweredWithAnError) {
  HttpClient client(http_->port());
  const std::string session = startSession(client);
  daemon_->stop();
  const Reply reply = client.exchange("POST", authorized(session), doCall(7, "MATCH (n) RETURN n", "Notes"));
  EXPECT_TRUE(reply.status == 502 || reply.status == 503) << reply.status << " " << reply.body;
  EXPECT_NE(reply.body.find("\"error\""), std::string::npos);
}

TEST(HttpAccess, OriginsOfThisMachineAloneMayCall) {
  const std::vector<std::pair<std::string, bool>> cases{
      {"http://localhost", true},
      {"http://localhost:3000", true},
      {"https://127.0.0.1:8443", true},
      {"http://127.9.8.7", true},
      {"http://[::1]:5173", true},
      {"http://app.localhost:80", true},
      {"HTTP://LOCALHOST", true},
      {"http://attacker.example", false},
      {"http://localhost.attacker.example", false},
      {"http://127.0.0.1.nip.example", false},
      {"null", false},
      {"file://", false},
      {"http://user@localhost", false},
      {"http://10.0.0.1", false},
      {"http://[::2]", false},
      {"", false},
  };
  for (const auto& [origin, allowed] : cases) EXPECT_EQ(originAllowed(origin), allowed) << origin;
}

TEST(HttpAccess, TheBearerTokenIsReadStrictly) {
  EXPECT_EQ(bearerToken("Bearer abc"), "abc");
  EXPECT_EQ(bearerToken("bearer   abc  "), "abc");
  EXPECT_EQ(bearerToken("Bearer "), std::nullopt);
  EXPECT_EQ(bearerToken("Basic abc"), std::nullopt);
  EXPECT_EQ(bearerToken("Bearerabc"), std::nullopt);
  EXPECT_TRUE(sameToken("abc", "abc"));
  EXPECT_FALSE(sameToken("abd", "abc"));
  EXPECT_FALSE(sameToken("ab", "abc"));
  EXPECT_FALSE(sameToken("abcd", "abc"));
  EXPECT_FALSE(sameToken("", "abc"));
}

TEST(HttpAccess, ListenAddressesAndTheirMistakes) {
  const std::vector<std::tuple<std::string, std::string, int>> good{
      {"8765", "127.0.0.1", 8765}, {":8765", "127.0.0.1", 8765},    {"0.0.0.0:80", "0.0.0.0", 80},
      {"[::1]:9000", "::1", 9000}, {"localhost:0", "localhost", 0},
  };
  for (const auto& [text, host, port] : good) {
    const auto address = parseListenAddress(text);
    EXPECT_EQ(address.host, host) << text;
    EXPECT_EQ(address.port, port) << text;
  }
  for (const std::string bad : {"", "host:", "host:http", "1.2.3.4:65536", "::1:80", "[::1:80", "80x"})
    EXPECT_THROW(parseListenAddress(bad), core::GlimmerstrandError) << bad;
}

TEST(HttpAccess, TheTokenComesFromTheEnvironmentThenAFileThenOneOfOurOwn) {
  TempFolder folder;
  const auto state = folder.path() / "state";
  const Environment none = [](const char*) -> std::optional<std::string> { return std::nullopt; };
  const Environment given = [](const char* name) -> std::optional<std::string> {
    if (std::string(name) == "GLIMMERSTRAND_HTTP_TOKEN") return "from-environment";
    return std::nullopt;
  };
  const auto file = folder.path() / "token";
  std::ofstream(file) << "from-file\n";

  EXPECT_EQ(chooseToken(given, file.string(), state).token, "from-environment");
  EXPECT_EQ(chooseToken(none, file.string(), state).token, "from-file");
  EXPECT_FALSE(std::filesystem::exists(state / "http-token"));

  const auto made = chooseToken(none, std::nullopt, state);
  EXPECT_EQ(made.token.size(), 64u);
  EXPECT_NE(made.source.find((state / "http-token").string()), std::string::npos);
  EXPECT_EQ(std::filesystem::status(state / "http-token").permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  EXPECT_EQ(chooseToken(none, std::nullopt, state).token, made.token);  // kept across starts

  std::ofstream(folder.path() / "empty") << "\n";
  EXPECT_THROW(chooseToken(none, (folder.path() / "empty").string(), state), core::GlimmerstrandError);
  EXPECT_THROW(chooseToken(none, (folder.path() / "missing").string(), state), core::GlimmerstrandError);
}

}  // namespace
}  // namespace glimmerstrand::client
