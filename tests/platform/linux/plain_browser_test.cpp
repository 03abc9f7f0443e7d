// Chromium as a user starts it, without the flag that shows its pages to
// accessibility, already running when the daemon first looks: its page is
// read through the daemon all the same, and the doctor names only a browser
// that cannot be helped without a new start. The page is served on loopback.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/json_value.h"
#include "page_server.h"
#include "platform/desktop_suite.h"
#include "platform/linux/x11_connection.h"
#include "support/daemon_client.h"

namespace glimmerstrand::testing {
namespace {

using core::JSONValue;

// A Chromium of the test's own, with a profile of its own, ended by pid
// however the test ends: a browser left running holds the test's output open.
class Chromium {
 public:
  Chromium(const std::filesystem::path& profile, const std::string& page,
           const std::map<std::string, std::string>& environment) {
    const std::string profileWord = "--user-data-dir=" + profile.string();
    pid_ = ::fork();
    if (pid_ == 0) {
      for (const auto& [name, value] : environment) ::setenv(name.c_str(), value.c_str(), 1);
      // Its complaints about the desktop's missing services are not the test's.
      const int quiet = ::open("/dev/null", O_WRONLY);
      ::dup2(quiet, STDOUT_FILENO);
      ::dup2(quiet, STDERR_FILENO);
      ::execlp("chromium", "chromium", "--no-sandbox", "--no-first-run", profileWord.c_str(), page.c_str(),
               static_cast<char*>(nullptr));
      ::_exit(127);
    }
  }
  ~Chromium() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
  }
  Chromium(const Chromium&) = delete;
  Chromium& operator=(const Chromium&) = delete;
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
};

// Whether a window of `pid` shows on the desktop of $DISPLAY.
bool hasWindow(pid_t pid) {
  auto* x = platform::linux_desktop::openX11();
  if (!x) return false;
  const bool shown = platform::linux_desktop::topWindowOf(x, pid).has_value();
  platform::linux_desktop::closeX11(x);
  return shown;
}

class PlainChromiumTest : public DesktopSuite {
 protected:
  static void SetUpTestSuite() {
    folder_ = std::filesystem::temp_directory_path() / ("glimmerstrand-plain-" + std::to_string(::getpid()));
    std::filesystem::create_directories(folder_);
    server_ = new PageServer(folder_, {{"page.html", "<!doctype html><title>Plain</title><h1>Seen unflagged</h1>"}});
    startSuite({});
  }
  static void TearDownTestSuite() { endBrowserSuite(desktop_, server_, folder_); }

  std::unique_ptr<Chromium> start(const std::string& profile, const std::map<std::string, std::string>& environment) {
    return std::make_unique<Chromium>(folder_ / profile, server_->url("page.html"), environment);
  }
  // The daemon of the test's own, in a folder of its own.
  std::unique_ptr<DaemonClient> daemon(const std::string& name) {
    const auto state = folder_ / name;
    std::filesystem::create_directories(state);
    auto environment = desktop_->environment();
    environment["GLIMMERSTRAND_PLATFORM"] = "linux";
    environment["GLIMMERSTRAND_LOG_LEVEL"] = "silent";
    return std::make_unique<DaemonClient>(GLIMMERSTRAND_NATIVE_BINARY, state.string(), environment);
  }
  static JSONValue result(DaemonClient& daemon, const JSONValue& request) {
    const JSONValue reply = core::parseJSON(daemon.roundTrip(core::jsonText(request)));
    const JSONValue* result = reply.find("result");
    return result ? *result : JSONValue(nullptr);
  }

  inline static std::filesystem::path folder_;
  inline static PageServer* server_ = nullptr;
};

TEST_F(PlainChromiumTest, ItsPageIsReadThroughTheDaemon) {
  const auto browser = start("page-profile", {});
  const auto client = daemon("page-daemon");
  const JSONValue query =
      JSONValue::Object{{"operation", "query"},
                        {"params", JSONValue::Object{{"cypher", "MATCH (h:Heading) RETURN h.name AS heading"},
                                                     {"app", "pid:" + std::to_string(browser->pid())}}}};
  std::string rows;
  EXPECT_TRUE(eventually(
      [&] {
        const JSONValue read = result(*client, query);
        const JSONValue* results = read.find("results");
        rows = results && !results->asArray()->empty() ? core::jsonText(*results->asArray()->front().find("rows"))
                                                       : core::jsonText(read);
        return rows == R"([{"heading":"Seen unflagged"}])";
      },
      std::chrono::seconds(30)))
      << rows;
}

// The doctor asks a browser for its pages as the daemon does; only one that
// is not on the accessibility bus at all, as it started while accessibility
// was off, is named. Chromium reads that from its environment at start.
TEST_F(PlainChromiumTest, TheDoctorNamesOnlyAChromiumThatStartedOutsideAccessibility) {
  struct Case {
    std::string profile;
    std::map<std::string, std::string> environment;
    bool named;
  };
  const Case cases[] = {
      {"doctor-plain", {}, false},
      {"doctor-outside", {{"ACCESSIBILITY_ENABLED", "0"}}, true},
  };
  std::vector<std::unique_ptr<Chromium>> browsers;
  std::vector<std::int64_t> expected;
  for (const auto& c : cases) {
    browsers.push_back(start(c.profile, c.environment));
    if (c.named) expected.push_back(browsers.back()->pid());
  }
  const auto client = daemon("doctor-daemon");
  auto named = [&] {
    std::vector<std::int64_t> pids;
    const JSONValue doctor =
        result(*client, JSONValue::Object{{"operation", "doctor"}, {"params", JSONValue::Object{}}});
    if (const JSONValue* browsers = doctor.find("browsersWithoutPages"))
      for (const auto& b : *browsers->asArray()) pids.push_back(core::optionalInt(b, "pid").value_or(0));
    return pids;
  };
  // Both show their windows, and those that can have joined the
  // accessibility bus, before the doctor is asked, once.
  auto onBus = [&](pid_t pid) {
    const JSONValue apps =
        result(*client,
               JSONValue::Object{{"operation", "query"}, {"params", JSONValue::Object{{"cypher", "CALL ui.apps()"}}}});
    const JSONValue* results = apps.find("results");
    if (!results || results->asArray()->empty()) return false;
    const auto& rows = *results->asArray()->front().find("rows")->asArray();
    return std::any_of(rows.begin(), rows.end(), [&](const auto& row) { return core::optionalInt(row, "pid") == pid; });
  };
  ASSERT_TRUE(eventually(
      [&] {
        for (std::size_t k = 0; k < browsers.size(); ++k)
          if (!hasWindow(browsers[k]->pid()) || (!cases[k].named && !onBus(browsers[k]->pid()))) return false;
        return true;
      },
      std::chrono::seconds(20)));
  EXPECT_EQ(named(), expected);
}

}  // namespace
}  // namespace glimmerstrand::testing
