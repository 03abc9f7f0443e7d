// A line client driving glimmerstrand-native on the simulated desktop: list
// the applications, open one by its Japanese name, type into its focused
// field, press a menu item by its m-id and read what it did.
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <stdexcept>
#include <string>

#include "core/json_value.h"

namespace glimmerstrand::native {
namespace {

using core::JSONValue;

const char* const fixture = R"({
  "apps": [
    {"pid": 700, "bundleId": "com.example.finder", "name": "Finder", "frontmost": true,
     "windows": [{"role": "AXWindow", "title": "Home", "frame": [0, 0, 400, 300]}]},
    {"pid": 701, "bundleId": "org.example.memo", "name": "Memo", "names": {"ja": "メモ帳", "en": "Memo"},
     "running": false,
     "windows": [{"role": "AXWindow", "title": "Untitled", "frame": [100, 100, 500, 400], "children": [
        {"key": "note", "role": "AXTextArea", "identifier": "note", "value": "", "focused": true,
         "settable": ["value", "focused"], "frame": [110, 130, 480, 360]}]}],
     "menuBar": {"role": "AXMenuBar", "children": [
        {"role": "AXMenuBarItem", "title": "Edit", "children": [
          {"role": "AXMenu", "children": [
            {"role": "AXMenuItem", "title": "Sign", "identifier": "sign",
             "onPress": [{"append": {"key": "note", "text": " — Ada"}}]}]}]}]}}
  ]})";

// The executable on pipes; requests go out one at a time and each reply is
// awaited by its id. Replies that do not come within 20 seconds fail the test.
class LineClient {
 public:
  explicit LineClient(const std::string& apps) {
    int toChild[2], fromChild[2];
    if (::pipe(toChild) != 0 || ::pipe(fromChild) != 0) throw std::runtime_error("pipe");
    child_ = ::fork();
    if (child_ == 0) {
      ::dup2(toChild[0], 0);
      ::dup2(fromChild[1], 1);
      ::close(toChild[1]);
      ::close(fromChild[0]);
      ::setenv("GLIMMERSTRAND_PLATFORM", "sim", 1);
      ::setenv("GLIMMERSTRAND_SIM_APPS", apps.c_str(), 1);
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
  const std::string path = ::testing::TempDir() + "actions_end_to_end_apps.json";
  std::ofstream(path) << fixture;
  LineClient client(path);

  auto apps = client.call("apps", JSONValue::Object{});
  ASSERT_EQ(apps.asArray()->size(), 1u);
  EXPECT_EQ(core::optionalString(apps.asArray()->front(), "name"), "Finder");

  auto memo = client.call("launch", JSONValue::Object{{"name", "メモ帳"}});
  ASSERT_EQ(core::optionalInt(memo, "pid"), 701);
  const JSONValue pid = std::int64_t{701};

  auto typed = client.call("type", JSONValue::Object{{"text", "Dear diary"}, {"pid", pid}});
  EXPECT_EQ(core::optionalBool(typed, "seen"), true);

  auto menus = client.call("axMenus", JSONValue::Object{{"pid", pid}});
  auto pressed = client.call("press", JSONValue::Object{{"pid", pid}, {"uid", uidOf(menus, "sign")}, {"menu", true}});
  EXPECT_EQ(core::optionalBool(pressed, "completed"), true);

  auto copy = client.call("axSnapshot", JSONValue::Object{{"pid", pid}, {"fresh", true}});
  auto text = client.call("readText", JSONValue::Object{{"pid", pid}, {"uid", uidOf(copy, "note")}});
  EXPECT_EQ(core::optionalString(text, "text"), "Dear diary — Ada");
}

}  // namespace
}  // namespace glimmerstrand::native
