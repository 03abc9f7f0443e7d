#include "support/line_client.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

namespace glimmerstrand::testing {

using core::JSONValue;

LineClient::LineClient(const std::string& binary, const std::map<std::string, std::string>& environment) {
  int toChild[2], fromChild[2];
  if (::pipe(toChild) != 0 || ::pipe(fromChild) != 0) throw std::runtime_error("pipe");
  child_ = ::fork();
  if (child_ == 0) {
    ::dup2(toChild[0], 0);
    ::dup2(fromChild[1], 1);
    ::close(toChild[1]);
    ::close(fromChild[0]);
    for (const auto& [name, value] : environment) {
      if (value.empty())
        ::unsetenv(name.c_str());
      else
        ::setenv(name.c_str(), value.c_str(), 1);
    }
    ::execl(binary.c_str(), binary.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(toChild[0]);
  ::close(fromChild[1]);
  input_ = toChild[1];
  output_ = fromChild[0];
}

LineClient::~LineClient() {
  ::close(input_);  // end of input ends the process
  int status = 0;
  ::waitpid(child_, &status, 0);
  ::close(output_);
}

JSONValue LineClient::reply(const std::string& method, const JSONValue& params) {
  const std::int64_t id = nextId_++;
  const std::string line = core::jsonText(JSONValue::Object{{"id", id}, {"method", method}, {"params", params}}) + "\n";
  if (::write(input_, line.data(), line.size()) != static_cast<ssize_t>(line.size())) throw std::runtime_error("write");
  pollfd poller{output_, POLLIN, 0};
  for (;;) {
    for (std::size_t end; (end = pending_.find('\n')) != std::string::npos;) {
      auto reply = core::parseJSON(pending_.substr(0, end));
      pending_.erase(0, end + 1);
      if (core::optionalInt(reply, "id") == id) return reply;
    }
    if (::poll(&poller, 1, 30'000) <= 0) throw std::runtime_error(method + ": no reply");
    char buffer[65536];
    ssize_t n = ::read(output_, buffer, sizeof buffer);
    if (n <= 0) throw std::runtime_error(method + ": the process ended");
    pending_.append(buffer, static_cast<std::size_t>(n));
  }
}

JSONValue LineClient::call(const std::string& method, const JSONValue& params) {
  auto answer = reply(method, params);
  if (core::optionalBool(answer, "ok") != true) throw std::runtime_error(method + ": " + core::jsonText(answer));
  return *answer.find("result");
}

std::vector<core::JSONValue> cypherResults(LineClient& client, const std::string& app, const std::string& script) {
  JSONValue::Object params{{"cypher", script}};
  if (!app.empty()) params.emplace_back("app", JSONValue::Object{{"name", app}});
  auto result = client.call("cypher", params);
  const auto* list = result.find("results");
  if (result.find("error") || !list || !list->asArray() || list->asArray()->empty())
    throw std::runtime_error(script + ": " + core::jsonText(result));
  return *list->asArray();
}

std::vector<core::JSONValue> cypherRows(LineClient& client, const std::string& app, const std::string& script) {
  const auto last = cypherResults(client, app, script).back();
  const auto* rows = last.find("rows");
  if (!rows || !rows->asArray()) throw std::runtime_error(script + ": no rows: " + core::jsonText(last));
  return *rows->asArray();
}

std::vector<std::string> cypherColumn(LineClient& client, const std::string& app, const std::string& read,
                                      const std::string& name) {
  std::vector<std::string> out;
  for (const auto& row : cypherRows(client, app, read)) {
    const auto* value = row.find(name);
    out.push_back(!value ? "" : value->asString() ? *value->asString() : core::jsonText(*value));
  }
  return out;
}

std::string firstCell(LineClient& client, const std::string& app, const std::string& read, const std::string& name) {
  const auto cells = cypherColumn(client, app, read, name);
  return cells.empty() ? "" : cells.front();
}

}  // namespace glimmerstrand::testing
