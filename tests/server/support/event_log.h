// Records a gateway's events as short texts ("open 1", "line 1 ping",
// "close 1", "rejected …") and lets a test wait for them.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "server/gateway.h"

namespace glimmerstrand::server::testing {

class EventLog {
 public:
  void record(const GatewayEvent& event) {
    std::string text;
    if (auto open = std::get_if<GatewayOpen>(&event)) text = "open " + std::to_string(open->connection);
    if (auto line = std::get_if<GatewayLine>(&event))
      text = "line " + std::to_string(line->connection) + " " + line->text;
    if (auto close = std::get_if<GatewayClose>(&event)) text = "close " + std::to_string(close->connection);
    if (auto rejected = std::get_if<GatewayRejected>(&event)) text = "rejected " + rejected->reason;
    std::lock_guard guard(lock_);
    events_.push_back(std::move(text));
    changed_.notify_all();
  }

  Gateway::EventHandler handler() {
    return [this](const GatewayEvent& event) { record(event); };
  }

  /// Waits until `count` events have arrived; gives all of them.
  std::vector<std::string> waitFor(std::size_t count) {
    std::unique_lock guard(lock_);
    changed_.wait_for(guard, std::chrono::seconds(10), [&] { return events_.size() >= count; });
    return events_;
  }

 private:
  std::mutex lock_;  // guards events_
  std::condition_variable changed_;
  std::vector<std::string> events_;
};

}  // namespace glimmerstrand::server::testing
