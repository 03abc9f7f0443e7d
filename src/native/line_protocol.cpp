#include "native/line_protocol.h"

#include <unistd.h>

#include <cerrno>
#include <memory>

#include "core/errors.h"

namespace glimmerstrand::native {

using core::JSONValue;

std::string successLine(const JSONValue& id, const HandlerResult& result) {
  std::string line = "{\"id\":";
  core::appendJSONText(line, id);
  line += ",\"ok\":true,\"result\":";
  if (auto raw = std::get_if<RawJSON>(&result))
    line += raw->text;
  else
    core::appendJSONText(line, std::get<JSONValue>(result));
  line += '}';
  return line;
}

std::string failureLine(const JSONValue& id, std::string_view code, std::string_view message) {
  std::string line = "{\"id\":";
  core::appendJSONText(line, id);
  line += ",\"ok\":false,\"error\":{\"code\":";
  core::appendJSONString(line, code);
  line += ",\"message\":";
  core::appendJSONString(line, message);
  line += "}}";
  return line;
}

void LineHost::dispatch(const JSONValue& id, const std::string& method, const JSONValue& params) {
  std::string line;
  try {
    auto handler = operations_.find(method);
    if (!handler) throw core::GlimmerstrandError("invalid_argument", "未知のメソッドです: " + method);
    line = successLine(id, (*handler)(params));
  } catch (const core::GlimmerstrandError& e) {
    line = failureLine(id, e.code(), e.message());
  } catch (const std::exception& e) {
    line = failureLine(id, "native", core::errorMessage(e));
  }
  output_.writeLine(line);
}

void LineHost::handleLine(std::string_view line) {
  if (line.empty()) return;
  JSONValue request;
  try {
    request = core::parseJSON(line);
  } catch (const core::GlimmerstrandError& error) {
    // Not JSON has no id to answer; a request whose id can still be read
    // (nested too deep, say) is told why, so its client does not wait for ever.
    if (auto id = core::keyOfRefusedText(line, "id"))
      output_.writeLine(failureLine(*id, "invalid_argument", error.message()));
    return;
  }
  auto object = request.asObject();
  if (!object) return;
  auto id = request.find("id");
  if (!id) return;

  auto method = core::optionalString(request, "method").value_or("");
  JSONValue params = JSONValue::Object{};
  if (auto p = request.find("params"); p && p->asObject()) params = *p;

  auto& queue = inputOperations().count(method) ? queues_.input : queues_.work;
  {
    std::lock_guard guard(inFlightLock_);
    ++inFlight_;
  }
  queue.async([this, id = *id, method = std::move(method), params = std::move(params)] {
    dispatch(id, method, params);
    std::lock_guard guard(inFlightLock_);
    if (--inFlight_ == 0) allReplied_.notify_all();
  });
}

bool LineHost::waitForReplies(std::chrono::milliseconds limit) {
  std::unique_lock guard(inFlightLock_);
  return allReplied_.wait_for(guard, limit, [&] { return inFlight_ == 0; });
}

void LineHost::readRequests(int fd) {
  std::string pending;
  char buffer[65536];
  for (;;) {
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    pending.append(buffer, static_cast<std::size_t>(n));
    std::size_t start = 0;
    for (std::size_t end; (end = pending.find('\n', start)) != std::string::npos; start = end + 1) {
      std::string_view line(pending.data() + start, end - start);
      if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
      handleLine(line);
    }
    pending.erase(0, start);
  }
}

}  // namespace glimmerstrand::native
