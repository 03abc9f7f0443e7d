#include "server/gateway.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "core/errors.h"
#include "server/sha256.h"
#include "server/support/event_log.h"
#include "server/support/socket_client.h"

namespace glimmerstrand::server {
namespace {

using testing::EventLog;
using testing::SocketClient;
using testing::TempFolder;
using Events = std::vector<std::string>;
using namespace std::chrono_literals;

// The system's answers, except for the uid when told to lie about it.
class PeerInspectorProbe final : public PeerInspector {
 public:
  std::optional<PeerCredentials> credentials(int fd) override {
    auto real = PeerInspector::system()->credentials(fd);
    if (real && otherUid) real->uid = *otherUid;
    return real;
  }
  std::string executablePath(std::int64_t pid) override { return PeerInspector::system()->executablePath(pid); }
  std::uint32_t ownUid() override { return PeerInspector::system()->ownUid(); }

  std::optional<std::uint32_t> otherUid;
};

class GatewayTest : public ::testing::Test {
 protected:
  void TearDown() override {
    for (auto& gateway : gateways_) gateway->stop();
    for (auto& gateway : gateways_) EXPECT_TRUE(gateway->waitForThreads(10s));
  }

  Gateway& makeGateway(GatewayOptions options = {}) {
    gateways_.push_back(Gateway::make(events_.handler(), std::move(options)));
    return *gateways_.back();
  }

  std::string errorOf(const std::function<void()>& call) {
    try {
      call();
    } catch (const core::GlimmerstrandError& error) {
      return error.code() + ": " + error.message();
    }
    return "no error";
  }

  TempFolder folder_;
  EventLog events_;
  std::vector<std::shared_ptr<Gateway>> gateways_;
};

std::string ownExecutable() { return std::filesystem::read_symlink("/proc/self/exe").string(); }

TEST_F(GatewayTest, SocketPathRequirementAndMode) {
  std::string base = folder_.path().string() + "/";
  std::string longest = base + std::string(103 - base.size(), 's');
  std::string tooLong = longest + "x";
  std::ofstream(tooLong) << "keep";

  Gateway& gateway = makeGateway();
  EXPECT_EQ(errorOf([&] { gateway.listen(tooLong, std::nullopt); }),
            "invalid_argument: ソケットのパスが長すぎます: " + tooLong);
  EXPECT_TRUE(std::filesystem::exists(tooLong));
  EXPECT_EQ(errorOf([&] { gateway.listen(longest, "path=relative"); }),
            "invalid_argument: 署名の条件を読めませんでした: path=relative");

  EXPECT_FALSE(gateway.listen(longest, std::nullopt));
  struct stat info {};
  ASSERT_EQ(::stat(longest.c_str(), &info), 0);
  EXPECT_TRUE(S_ISSOCK(info.st_mode));
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  EXPECT_EQ(errorOf([&] { gateway.listen(longest, std::nullopt); }), "invalid_argument: すでに待ち受けています");

  SocketClient client(longest);
  EXPECT_EQ(events_.waitFor(1), Events{"open 1"});

  // A stale socket is replaced; a file of another kind is left alone.
  gateway.stop();
  EXPECT_FALSE(gateway.listen(longest, std::nullopt));
  gateway.stop();
  std::filesystem::remove(longest);
  std::ofstream(longest) << "keep";
  std::filesystem::create_directory(base + "folder");
  for (const auto& other : {longest, base + "folder"}) {
    EXPECT_EQ(errorOf([&] { gateway.listen(other, std::nullopt); }),
              "invalid_argument: ソケットのパスにソケットではないファイルがあります: " + other);
    EXPECT_TRUE(std::filesystem::exists(other));
  }
  std::ifstream kept(longest);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(kept), {}), "keep");
}

TEST_F(GatewayTest, BytesBecomeLines) {
  Gateway& gateway = makeGateway();
  gateway.listen(folder_.socketPath(), std::nullopt);
  SocketClient client(folder_.socketPath());
  client.write("ping\npong\n");
  client.write("par");
  EXPECT_EQ(events_.waitFor(3), (Events{"open 1", "line 1 ping", "line 1 pong"}));
  client.write("tial\n\n\nx\r\n\xff\xe3\x81\n");
  client.write("no line feed");
  client.close();
  EXPECT_EQ(events_.waitFor(7), (Events{"open 1", "line 1 ping", "line 1 pong", "line 1 partial", "line 1 x\r",
                                        "line 1 \xEF\xBF\xBD\xEF\xBF\xBD", "close 1"}));
}

TEST_F(GatewayTest, SendCloseStaleAndStop) {
  Gateway& gateway = makeGateway();
  gateway.listen(folder_.socketPath(), std::nullopt);
  SocketClient client(folder_.socketPath());
  events_.waitFor(1);
  gateway.send(1, "{\"ok\":true}");
  EXPECT_EQ(client.readLine(), "{\"ok\":true}");
  EXPECT_TRUE(gateway.closeConnection(1));
  EXPECT_FALSE(gateway.closeConnection(1));
  EXPECT_TRUE(client.closedByPeer());
  EXPECT_EQ(events_.waitFor(2), (Events{"open 1", "close 1"}));
  EXPECT_EQ(errorOf([&] { gateway.send(1, "late"); }), "stale: 接続 1 はもう閉じています");

  SocketClient second(folder_.socketPath());
  events_.waitFor(3);
  gateway.stop();
  EXPECT_TRUE(second.closedByPeer());
  EXPECT_EQ(events_.waitFor(4), (Events{"open 1", "close 1", "open 2", "close 2"}));
  EXPECT_TRUE(std::filesystem::exists(folder_.socketPath()));  // removing it is the caller's
}

TEST_F(GatewayTest, PeersAreCheckedBeforeTheyOpen) {
  auto sha = fileSha256(ownExecutable());
  ASSERT_TRUE(sha);
  struct Case {
    std::string requirement;
    std::optional<std::uint32_t> otherUid;
    std::string event;
  };
  std::vector<Case> cases{
      {"", std::nullopt, "open"},
      {"path=" + ownExecutable(), std::nullopt, "open"},
      {"sha256=" + *sha, std::nullopt, "open"},
      {"path=/bin/true", std::nullopt, "rejected 相手の署名が条件を満たしません: -67050"},
      {"", ::getuid() + 1, "rejected 別のユーザーからの接続です: uid " + std::to_string(::getuid() + 1)},
  };
  int opened = 0;
  for (const auto& c : cases) {
    auto probe = std::make_shared<PeerInspectorProbe>();
    probe->otherUid = c.otherUid;
    EventLog events;
    auto gateway = Gateway::make(events.handler(), GatewayOptions{probe});
    EXPECT_EQ(gateway->listen(folder_.socketPath(), c.requirement), !c.requirement.empty());
    {
      SocketClient client(folder_.socketPath());
      auto seen = events.waitFor(1);
      ASSERT_EQ(seen.size(), 1u);
      EXPECT_EQ(seen[0].substr(0, c.event.size()), c.event) << c.requirement;
      if (c.event == "open") {
        client.sendLine("hello");
        EXPECT_EQ(events.waitFor(2).back(), "line 1 hello");
        ++opened;
      } else {
        EXPECT_TRUE(client.closedByPeer());
      }
    }
    gateway->stop();
    EXPECT_TRUE(gateway->waitForThreads(10s));
  }
  EXPECT_EQ(opened, 3);
}

TEST_F(GatewayTest, StalledPeerHoldsUpOnlyItself) {
  Gateway& gateway = makeGateway(GatewayOptions{PeerInspector::system(), 120s});
  gateway.listen(folder_.socketPath(), std::nullopt);
  SocketClient stalled(folder_.socketPath());
  events_.waitFor(1);
  SocketClient other(folder_.socketPath());
  events_.waitFor(2);

  const std::string big(4 << 20, 'x');  // far more than the socket buffers hold
  std::atomic<bool> sent = false;
  std::thread writer([&] {
    gateway.send(1, big);
    sent = true;
  });
  pollfd arrived{stalled.fd(), POLLIN, 0};
  ASSERT_EQ(::poll(&arrived, 1, 10000), 1);  // the big write is under way and can't finish

  gateway.send(2, "pong");
  EXPECT_EQ(other.readLine(), "pong");
  EXPECT_FALSE(sent);

  auto line = stalled.readLine(30s);  // reading again lets the big write end
  writer.join();
  EXPECT_TRUE(sent);
  EXPECT_EQ(line, big);
}

TEST_F(GatewayTest, StalledWriteGivesUpAndEndsTheConnection) {
  Gateway& gateway = makeGateway(GatewayOptions{PeerInspector::system(), 200ms});
  gateway.listen(folder_.socketPath(), std::nullopt);
  SocketClient stalled(folder_.socketPath());
  events_.waitFor(1);
  EXPECT_EQ(errorOf([&] { gateway.send(1, std::string(4 << 20, 'x')); }), "stale: 接続 1 に書けませんでした");
  EXPECT_EQ(events_.waitFor(2), (Events{"open 1", "close 1"}));
}

TEST_F(GatewayTest, ConcurrentSendsKeepLinesWhole) {
  Gateway& gateway = makeGateway();
  gateway.listen(folder_.socketPath(), std::nullopt);
  SocketClient client(folder_.socketPath());
  events_.waitFor(1);
  constexpr int writers = 4, lines = 50;
  std::vector<std::thread> threads;
  for (int w = 0; w < writers; ++w)
    threads.emplace_back([&, w] {
      for (int i = 0; i < lines; ++i) gateway.send(1, std::string(20000, static_cast<char>('a' + w)));
    });
  std::map<char, int> counts;
  for (int i = 0; i < writers * lines; ++i) {
    auto line = client.readLine();
    ASSERT_TRUE(line);
    ASSERT_EQ(line->size(), 20000u);
    ASSERT_EQ(line->find_first_not_of(line->front()), std::string::npos);
    ++counts[line->front()];
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(counts, (std::map<char, int>{{'a', lines}, {'b', lines}, {'c', lines}, {'d', lines}}));
}

TEST(Sha256, KnownDigests) {
  auto digest = [](std::initializer_list<std::string> parts) {
    Sha256 hash;
    for (const auto& part : parts) hash.update(part);
    return hash.hexDigest();
  };
  EXPECT_EQ(digest({"a", "bc"}), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(digest({std::string(63, 'a'), std::string(999'937, 'a')}),
            "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

}  // namespace
}  // namespace glimmerstrand::server
