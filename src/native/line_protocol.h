// The line protocol: one JSON request per line in, one JSON reply per line
// out. The reader never waits for an operation; each request is dispatched on
// the input queue (the 12 input operations, strictly in order) or on the
// concurrent work queue (everything else), and replies leave through Output in
// whatever order the operations finish.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>

#include "core/json_value.h"
#include "native/dispatch_queue.h"
#include "native/operations.h"
#include "native/output.h"

namespace glimmerstrand::native {

class LineHost {
 public:
  LineHost(const OperationTable& operations, Queues& queues, Output& output)
      : operations_(operations), queues_(queues), output_(output) {}

  /// Takes one request line (without its line ending) and queues its
  /// operation. Lines that are no JSON object and lines without `id` are
  /// dropped silently; a line that does not parse but whose `id` can be read
  /// gets an "invalid_argument" reply.
  void handleLine(std::string_view line);

  /// Runs the named operation and writes its reply. Runs on a queue.
  void dispatch(const core::JSONValue& id, const std::string& method, const core::JSONValue& params);

  /// Reads request lines from `fd` until end of input, then returns.
  void readRequests(int fd);

  /// Waits until every dispatched operation has replied, or `limit` passed;
  /// true when none is left. End of input uses it so that replies a moment
  /// from done still leave, while a hanging operation cannot hold the exit.
  bool waitForReplies(std::chrono::milliseconds limit);

 private:
  const OperationTable& operations_;
  Queues& queues_;
  Output& output_;

  std::mutex inFlightLock_;  // guards inFlight_
  std::condition_variable allReplied_;
  std::size_t inFlight_ = 0;
};

/// {"id":…,"ok":true,"result":…} for a handler's result.
std::string successLine(const core::JSONValue& id, const HandlerResult& result);
/// {"id":…,"ok":false,"error":{"code":…,"message":…}}.
std::string failureLine(const core::JSONValue& id, std::string_view code, std::string_view message);

}  // namespace glimmerstrand::native
