#include "server/app_coordinator.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "core/errors.h"
#include "server/support/driven_lease_clock.h"

namespace glimmerstrand::server {
namespace {

using namespace std::chrono_literals;
using testing::DrivenLeaseClock;

// A call on its own thread: the test sees when its body runs and lets it
// finish.
class Call {
 public:
  Call(AppCoordinator& coordinator, std::optional<std::string> session, std::string key = "name:spotify") {
    thread_ = std::thread([this, &coordinator, session, key] {
      try {
        coordinator.withLease(key, std::string("Spotify"), session, [this] {
          entered_.set_value();
          finish_.get_future().wait();
        });
        outcome_.set_value("ran");
      } catch (const core::GlimmerstrandError& error) {
        entered_.set_value();
        outcome_.set_value(error.code() + ": " + error.message());
      }
    });
  }
  ~Call() {
    finish();
    thread_.join();
  }
  bool entered() { return enteredFuture_.wait_for(10s) == std::future_status::ready; }
  bool hasEntered() { return enteredFuture_.wait_for(0s) == std::future_status::ready; }
  void finish() {
    if (!finished_.exchange(true)) finish_.set_value();
  }
  std::string outcome() {
    if (outcomeFuture_.wait_for(10s) != std::future_status::ready) return "still waiting";
    return outcomeFuture_.get();
  }

 private:
  std::promise<void> entered_;
  std::future<void> enteredFuture_ = entered_.get_future();
  std::promise<void> finish_;
  std::atomic<bool> finished_ = false;
  std::promise<std::string> outcome_;
  std::future<std::string> outcomeFuture_ = outcome_.get_future();
  std::thread thread_;
};

class LeaseTest : public ::testing::Test {
 protected:
  DrivenLeaseClock clock_;
  AppCoordinator coordinator_{clock_};
};

TEST_F(LeaseTest, RunningLeaseMakesOthersBusyAfterTheWait) {
  Call first(coordinator_, "mcp-A");
  ASSERT_TRUE(first.entered());
  Call second(coordinator_, "mcp-B");
  ASSERT_TRUE(clock_.waitForWaits(1));
  clock_.advance(30s);
  EXPECT_EQ(second.outcome(), "busy: Another agent is using Spotify. Wait a few seconds, then retry.");
  EXPECT_EQ(coordinator_.lease("name:spotify")->running, 1);
}

TEST_F(LeaseTest, PlainCallsHoldOnlyDuringTheCallAndQueue) {
  Call first(coordinator_, std::nullopt);
  ASSERT_TRUE(first.entered());
  EXPECT_TRUE(coordinator_.lease("name:spotify")->session.starts_with("call-"));
  Call second(coordinator_, std::nullopt);
  ASSERT_TRUE(clock_.waitForWaits(1));
  EXPECT_FALSE(second.hasEntered());
  first.finish();
  ASSERT_TRUE(second.entered());  // woken by the release, with no time passing
  second.finish();
  EXPECT_EQ(second.outcome(), "ran");
  EXPECT_FALSE(coordinator_.lease("name:spotify"));
}

TEST_F(LeaseTest, SessionNeverWaitsForItselfAndExtendsItsGrace) {
  {
    Call first(coordinator_, "mcp-A");
    ASSERT_TRUE(first.entered());
  }
  clock_.advance(5s);
  Call again(coordinator_, "mcp-A");
  ASSERT_TRUE(again.entered());
  Call overlapping(coordinator_, "mcp-A");
  ASSERT_TRUE(overlapping.entered());
  EXPECT_EQ(coordinator_.lease("name:spotify")->running, 2);
  again.finish();
  overlapping.finish();
  EXPECT_EQ(overlapping.outcome(), "ran");
  EXPECT_EQ(again.outcome(), "ran");
  EXPECT_EQ(coordinator_.lease("name:spotify")->until,
            clock_.now() + std::chrono::duration_cast<LeaseClock::Time::duration>(10s));
  EXPECT_EQ(clock_.waitsBegun(), 0);
}

TEST_F(LeaseTest, FailingBodyStillReleases) {
  EXPECT_THROW(coordinator_.withLease(std::string("pid:4"), std::nullopt, std::nullopt,
                                      []() -> int { throw core::GlimmerstrandError("timeout", "遅い"); }),
               core::GlimmerstrandError);
  EXPECT_FALSE(coordinator_.lease("pid:4"));
  EXPECT_THROW(coordinator_.withLease(std::string("pid:4"), std::nullopt, std::string("mcp-A"),
                                      []() -> int { throw std::runtime_error("boom"); }),
               std::runtime_error);
  EXPECT_EQ(coordinator_.lease("pid:4")->running, 0);
}

TEST(LeaseClock, SystemClockWaitIsBounded) {
  // A wait with nobody to wake it still ends: every wait has a time.
  AppCoordinator coordinator(LeaseClock::system(), Seconds(10), Seconds(0.05));
  coordinator.acquire("pid:1", "mcp-A", "One");
  EXPECT_THROW(coordinator.acquire("pid:1", "mcp-B", "One"), core::GlimmerstrandError);
}

}  // namespace
}  // namespace glimmerstrand::server
