#include "server/gateway.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <fstream>
#include <thread>

#include "core/errors.h"
#include "server/support/event_log.h"
#include "server/support/socket_client.h"

namespace glimmerstrand::server {
namespace {

using testing::EventLog;
using testing::SocketClient;
using testing::TempFolder;
using Events = std::vector<std::string>;
using namespace std::chrono_literals;

// The system's answers, except for the uid when told to lie about it, and
// the executable when told to show another file. Can hold the check of the
// first peer until released, as a slow read of a large executable would.
class PeerInspectorProbe final : public PeerInspector {
 public:
  std::optional<PeerCredentials> credentials(int fd) override {
    auto real = PeerInspector::system()->credentials(fd);
    if (real && otherUid) real->uid = *otherUid;
    return real;
  }
  std::string executablePath(std::int64_t pid) override {
    std::unique_lock guard(lock_);
    if (holdFirst && checks_++ == 0) {
      held_ = true;
      changed_.notify_all();
      changed_.wait_for(guard, 20s, [&] { return released_; });
    }
    return executable ? *executable : PeerInspector::system()->executablePath(pid);
  }
  std::uint32_t ownUid() override { return PeerInspector::system()->ownUid(); }

  bool waitUntilHeld() {
    std::unique_lock guard(lock_);
    return changed_.wait_for(guard, 20s, [&] { return held_; });
  }
  void release() {
    std::lock_guard guard(lock_);
    released_ = true;
    changed_.notify_all();
  }

  std::optional<std::uint32_t> otherUid;
  std::optional<std::string> executable;
  bool holdFirst = false;

 private:
  std::mutex lock_;  // guards the fields below
  std::condition_variable changed_;
  int checks_ = 0;
  bool held_ = false;
  bool released_ = false;
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
  // The peer shows a small file as its executable: what is checked is the
  // same, and no case waits for a large file to be read.
  const std::string program = folder_.path() / "program";
  std::ofstream(program) << "abc";
  struct Case {
    std::string requirement;
    std::optional<std::uint32_t> otherUid;
    std::string event;
    std::optional<std::string> executable;
  };
  std::vector<Case> cases{
      {"", std::nullopt, "open", std::nullopt},
      {"path=" + ownExecutable(), std::nullopt, "open", std::nullopt},
      {"sha256=BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD", std::nullopt, "open", program},
      {"sha256=" + std::string(64, '0'), std::nullopt, "rejected 相手の署名が条件を満たしません: -67050", program},
      {"path=/bin/true", std::nullopt, "rejected 相手の署名が条件を満たしません: -67050", std::nullopt},
      {"", ::getuid() + 1, "rejected 別のユーザーからの接続です: uid " + std::to_string(::getuid() + 1), std::nullopt},
  };
  int opened = 0;
  for (const auto& c : cases) {
    auto probe = std::make_shared<PeerInspectorProbe>();
    probe->otherUid = c.otherUid;
    probe->executable = c.executable;
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

// A peer whose check takes long (a large executable read, say) holds up
// neither the accept of others nor their lines.
TEST_F(GatewayTest, ASlowCheckHoldsUpNoOtherPeer) {
  auto probe = std::make_shared<PeerInspectorProbe>();
  probe->holdFirst = true;
  Gateway& gateway = makeGateway(GatewayOptions{probe});
  gateway.listen(folder_.socketPath(), "path=" + ownExecutable());
  SocketClient slow(folder_.socketPath());
  ASSERT_TRUE(probe->waitUntilHeld());
  SocketClient quick(folder_.socketPath());
  quick.sendLine("hello");
  EXPECT_EQ(events_.waitFor(2), (Events{"open 1", "line 1 hello"}));
  probe->release();
  EXPECT_EQ(events_.waitFor(3).back(), "open 2");
}

// Beyond the cap a peer is told why and closed; a place that frees up is
// taken again.
TEST_F(GatewayTest, ConnectionsBeyondTheCapAreRefusedInOneLine) {
  GatewayOptions options;
  options.maxConnections = 2;
  Gateway& gateway = makeGateway(options);
  gateway.listen(folder_.socketPath(), std::nullopt);
  auto first = std::make_unique<SocketClient>(folder_.socketPath());
  events_.waitFor(1);
  SocketClient second(folder_.socketPath());
  EXPECT_EQ(events_.waitFor(2), (Events{"open 1", "open 2"}));
  SocketClient third(folder_.socketPath());
  EXPECT_EQ(third.readLine(), R"({"ok":false,"error":{"code":"busy","message":"接続が多すぎます: 上限 2"}})");
  EXPECT_TRUE(third.closedByPeer());
  EXPECT_EQ(events_.waitFor(3).back(), "rejected 接続が多すぎます: 上限 2");
  first.reset();
  EXPECT_EQ(events_.waitFor(4).back(), "close 1");
  // The close event comes just before the connection's thread ends: try
  // until the place has been given back.
  bool admitted = false;
  for (int k = 0; k < 1000 && !admitted; ++k) {
    const auto before = events_.waitFor(0).size();
    SocketClient again(folder_.socketPath());
    const auto seen = events_.waitFor(before + 1);
    ASSERT_GT(seen.size(), before);
    admitted = seen[before].starts_with("open ");
  }
  EXPECT_TRUE(admitted);
}

TEST(ExecutableDigests, KnownDigestsReadOncePerVersionOfAFile) {
  TempFolder folder;
  const std::string path = folder.path() / "program";
  std::ofstream(path) << std::string(1'000'000, 'a');
  EXPECT_EQ(fileSha256(path), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
  auto& digests = ExecutableDigests::shared();
  const auto before = digests.hashed();
  EXPECT_EQ(digests.digest(path), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
  EXPECT_EQ(digests.digest(path), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
  EXPECT_EQ(digests.hashed(), before + 1);
  // The same size, another content: a new version, read again.
  std::ofstream(path) << std::string(999'999, 'a') << 'b';
  EXPECT_NE(digests.digest(path), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
  EXPECT_EQ(digests.hashed(), before + 2);
  EXPECT_EQ(fileSha256(folder.path() / "missing"), std::nullopt);
}

}  // namespace
}  // namespace glimmerstrand::server
