// glimmerstrand-native as a process: the platform chosen by the environment,
// requests on standard input, replies on standard output.
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "core/json_value.h"

namespace glimmerstrand::native {
namespace {

using core::JSONValue;

// Runs the binary with the given environment, sends `requests` and collects
// one reply per request, by id; stops waiting after ten seconds. With
// `endInput`, input ends before the replies are read: the process must still
// answer what it was given before it exits.
std::map<std::int64_t, JSONValue> exchange(const std::vector<std::pair<std::string, std::string>>& environment,
                                           const std::vector<std::string>& requests, bool endInput = false) {
  int toChild[2], fromChild[2];
  if (::pipe(toChild) != 0 || ::pipe(fromChild) != 0) throw std::runtime_error("pipe");
  pid_t child = ::fork();
  if (child == 0) {
    ::dup2(toChild[0], 0);
    ::dup2(fromChild[1], 1);
    ::close(toChild[1]);
    ::close(fromChild[0]);
    ::unsetenv("GLIMMERSTRAND_SIM_APPS");
    for (const auto& [name, value] : environment) ::setenv(name.c_str(), value.c_str(), 1);
    ::execl(GLIMMERSTRAND_NATIVE_BINARY, GLIMMERSTRAND_NATIVE_BINARY, static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(toChild[0]);
  ::close(fromChild[1]);
  std::string input;
  for (const auto& request : requests) input += request + "\n";
  [[maybe_unused]] auto written = ::write(toChild[1], input.data(), input.size());
  if (endInput) ::close(toChild[1]);

  std::map<std::int64_t, JSONValue> replies;
  std::string pending;
  pollfd poller{fromChild[0], POLLIN, 0};
  while (replies.size() < requests.size() && ::poll(&poller, 1, 10'000) > 0) {
    char buffer[65536];
    ssize_t n = ::read(fromChild[0], buffer, sizeof buffer);
    if (n <= 0) break;
    pending.append(buffer, static_cast<std::size_t>(n));
    for (std::size_t end; (end = pending.find('\n')) != std::string::npos; pending.erase(0, end + 1)) {
      auto reply = core::parseJSON(pending.substr(0, end));
      replies[*core::optionalInt(reply, "id")] = reply;
    }
  }
  if (!endInput) ::close(toChild[1]);  // end of input ends the process
  int status = 0;
  ::waitpid(child, &status, 0);
  ::close(fromChild[0]);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  return replies;
}

TEST(MirrorEndToEnd, ApplicationsComeFromTheFixtureFileWhenOneIsNamed) {
  std::string path = ::testing::TempDir() + "/glimmerstrand-apps.json";
  std::ofstream(path) << R"({"apps": [{"pid": 4242, "bundleId": "org.example.tiny", "name": "Tiny",
    "windows": [{"role": "AXWindow", "title": "Tiny window", "frame": [0, 0, 100, 100]}]}]})";
  auto replies = exchange({{"GLIMMERSTRAND_PLATFORM", "sim"}, {"GLIMMERSTRAND_SIM_APPS", path}},
                          {R"({"id":1,"method":"axSnapshot","params":{"name":"tiny"}})",
                           R"({"id":2,"method":"axSnapshot","params":{"name":"Calculator"}})"});
  std::remove(path.c_str());
  ASSERT_EQ(replies.size(), 2u);
  EXPECT_EQ(core::optionalInt(*replies[1].find("result"), "pid"), 4242);
  EXPECT_EQ(core::optionalString(*replies[2].find("error"), "code"), "not_found");
}

TEST(MirrorEndToEnd, WithoutAPlatformTheProcessRunsAndExplains) {
  auto replies =
      exchange({{"GLIMMERSTRAND_PLATFORM", "linux"}},
               {R"({"id":1,"method":"ping"})", "[1]", R"({"id":2,"method":"axSnapshot","params":{}})"}, true);
  ASSERT_EQ(replies.size(), 2u);
  EXPECT_EQ(core::optionalBool(replies[1], "ok"), true);
  EXPECT_EQ(core::optionalString(*replies[2].find("error"), "code"), "no_desktop");
  auto fallback = exchange({{"GLIMMERSTRAND_PLATFORM", "linux,sim"}}, {R"({"id":1,"method":"frontmost"})"});
  EXPECT_EQ(core::optionalString(*fallback[1].find("result"), "name"), "Calculator");
}

}  // namespace
}  // namespace glimmerstrand::native
