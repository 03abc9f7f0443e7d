// A line client driving glimmerstrand-native on the simulated desktop: list
// the applications, open one by its Japanese name, type into its focused
// field, press a menu item by its m-id and read what it did.
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "core/json_value.h"

namespace glimmerstrand::native {
namespace {

using core::JSONValue;

// The executable on pipes; requests go out one at a time and each reply is
// awaited by its id. Replies that do not come within 20 seconds fail the test.
class LineClient {
 public:
  LineClient() {
    int toChild[2], fromChild[2];
    if (::pipe(toChild) != 0 || ::pipe(fromChild) != 0) throw std::runtime_error("pipe");
    child_ = ::fork();
    if (child_ == 0) {
      ::dup2(toChild[0], 0);
      ::dup2(fromChild[1], 1);
      ::close(toChild[1]);
      ::close(fromChild[0]);
      ::setenv("GLIMMERSTRAND_PLATFORM", "sim", 1);
      ::unsetenv("GLIMMERSTRAND_SIM_APPS");  // the built-in demo desktop
      ::execl(GLIMMERSTRAND_NATIVE_BINARY, GLIMMERSTRAND_NATIVE_BINARY, static_cast<char*>(nullptr));
      ::_exit(127);
    }
    ::close(toChild[0]);
    ::close(fromChild[1]);
    in_ = toChild[1];
    out_ = fromChild[0];
  }
  ~LineClient() {
    ::close(in_);  // end of input ends the process
    int status = 0;
    ::waitpid(child_, &status, 0);
    ::close(out_);
  }

  JSONValue call(const std::string& method, const JSONValue& params) {
    const std::int64_t id = ++lastId_;
    std::string line = core::jsonText(JSONValue::Object{{"id", id}, {"method", method}, {"params", params}}) + "\n";
    if (::write(in_, line.data(), line.size()) != static_cast<ssize_t>(line.size())) throw std::runtime_error("write");
    for (;;) {
      for (std::size_t end; (end = pending_.find('\n')) != std::string::npos;) {
        auto reply = core::parseJSON(pending_.substr(0, end));
        pending_.erase(0, end + 1);
        if (core::optionalInt(reply, "id") != id) continue;
        if (core::optionalBool(reply, "ok") != true) throw std::runtime_error(method + ": " + core::jsonText(reply));
        return *reply.find("result");
      }
      pollfd poller{out_, POLLIN, 0};
      if (::poll(&poller, 1, 20'000) <= 0) throw std::runtime_error(method + ": no reply");
      char buffer[65536];
      ssize_t n = ::read(out_, buffer, sizeof buffer);
      if (n <= 0) throw std::runtime_error(method + ": the process ended");
      pending_.append(buffer, static_cast<std::size_t>(n));
    }
  }

 private:
  pid_t child_ = 0;
  int in_ = -1, out_ = -1;
  std::int64_t lastId_ = 0;
  std::string pending_;
};

std::int64_t uidOf(const JSONValue& copy, const std::string& identifier) {
  for (const auto& node : *copy.find("nodes")->asArray())
    if (core::optionalString(node, "identifier") == identifier) return *core::optionalInt(node, "uid");
  throw std::runtime_error("no node " + identifier);
}

TEST(ActionsEndToEnd, OpenByJapaneseNameTypeAndPressAMenuItem) {
  LineClient client;
  auto apps = client.call("apps", JSONValue::Object{});
  ASSERT_EQ(apps.asArray()->size(), 3u);
  EXPECT_EQ(core::optionalString(apps.asArray()->front(), "name"), "Calculator");

  auto notes = client.call("launch", JSONValue::Object{{"name", "メモ"}});
  ASSERT_EQ(core::optionalInt(notes, "pid"), 504);
  const JSONValue pid = std::int64_t{504};

  auto typed = client.call("type", JSONValue::Object{{"text", "Dear diary"}, {"pid", pid}});
  EXPECT_EQ(core::optionalBool(typed, "seen"), true);

  auto menus = client.call("axMenus", JSONValue::Object{{"pid", pid}});
  auto pressed =
      client.call("press", JSONValue::Object{{"pid", pid}, {"uid", uidOf(menus, "signature")}, {"menu", true}});
  // Whether the press call itself came back before the application's first
  // notification is a race; what it did shows in the note below.
  EXPECT_EQ(core::optionalString(pressed, "method"), "press");

  auto copy = client.call("axSnapshot", JSONValue::Object{{"pid", pid}, {"fresh", true}, {"all", true}});
  auto text = client.call("readText", JSONValue::Object{{"pid", pid}, {"uid", uidOf(copy, "note")}});
  EXPECT_EQ(core::optionalString(text, "text"), "Dear diary\n— sent from Notes");
}

}  // namespace
}  // namespace glimmerstrand::native
