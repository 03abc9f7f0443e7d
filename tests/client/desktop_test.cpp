// `glimmerstrand desktop` as a shell runs it: one headless desktop with
// galculator for the suite, its environment through a real shell's eval, a
// daemon started without a display that finds it, and stop by pid.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <regex>
#include <thread>

#include "client/client_process.h"
#include "client/desktop.h"

namespace glimmerstrand::client {
namespace {

using testing::ClientProcess;
using testing::Outcome;
using testing::readFile;

// The pids that start announced on standard error: "desktop: started NAME (pid N)".
std::map<std::string, pid_t> startedPids(const std::string& err) {
  static const std::regex started(R"(desktop: started (\S+) \(pid (\d+)\))");
  std::map<std::string, pid_t> pids;
  for (std::sregex_iterator m(err.begin(), err.end(), started), end; m != end; ++m) pids[(*m)[1]] = std::stoi((*m)[2]);
  return pids;
}

// A zombie counts as gone: where pid 1 does not reap, ended processes stay as zombies.
bool processExists(pid_t pid) {
  const std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
  const auto nameEnd = stat.rfind(") ");
  return nameEnd != std::string::npos && stat[nameEnd + 2] != 'Z';
}

std::string commandName(pid_t pid) {
  std::string name = readFile("/proc/" + std::to_string(pid) + "/comm");
  return name.substr(0, name.find('\n'));
}

// A client whose desktop lives in a folder of its own.
struct DesktopClient : ClientProcess {
  explicit DesktopClient(const std::string& name) : ClientProcess(GLIMMERSTRAND_CLIENT_BINARY, name) {
    environment()["GLIMMERSTRAND_DESKTOP_DIR"] = (folder() / "desktop").string();
  }
};

// Stops a test's daemon and desktop however the test ends; with
// `waitForWriters`, also removes its folder once nothing writes there any
// more, as a browser's helpers do for a moment after it ended.
struct StopsAtTheEnd {
  const DesktopClient& client;
  bool waitForWriters = false;
  ~StopsAtTheEnd() {
    client.run({"stop"});
    client.run({"desktop", "stop"});
    std::error_code error;
    for (int attempt = 0; waitForWriters && attempt < 100; ++attempt) {
      std::filesystem::remove_all(client.folder(), error);
      if (!error) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  }
};

class DesktopTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    client_ = new DesktopClient("desktop-test");
    started_ = new Outcome(client_->run({"desktop", "start", "galculator"}));
  }
  static void TearDownTestSuite() {
    client_->run({"stop"});
    client_->run({"desktop", "stop"});
    delete started_;
    delete client_;
  }
  void SetUp() override { ASSERT_EQ(started_->status, 0) << started_->err; }

  static std::map<std::string, std::string> exported() {
    std::map<std::string, std::string> variables;
    for (const auto& [name, value] : parseExportLines(started_->out)) variables[name] = value;
    return variables;
  }

  static ClientProcess* client_;
  static Outcome* started_;
};
ClientProcess* DesktopTest::client_ = nullptr;
Outcome* DesktopTest::started_ = nullptr;

TEST_F(DesktopTest, ThePrintedEnvironmentEvalsInAShell) {
  const Outcome shell = ClientProcess("/bin/bash", "desktop-shell")
                            .run({"-c",
                                  "eval \"$(cat)\" && printf '%s\\n' \"$DISPLAY\" \"$AT_SPI_BUS_ADDRESS\" "
                                  "\"$GLIMMERSTRAND_PID_galculator\" && xdpyinfo >/dev/null"},
                                 started_->out);
  ASSERT_EQ(shell.status, 0) << shell.err;
  auto variables = exported();
  EXPECT_EQ(shell.out, variables["DISPLAY"] + "\n" + variables["AT_SPI_BUS_ADDRESS"] + "\n" +
                           variables["GLIMMERSTRAND_PID_galculator"] + "\n");
  EXPECT_TRUE(variables["DISPLAY"].starts_with(":")) << started_->out;
  EXPECT_EQ(commandName(std::stoi(variables["GLIMMERSTRAND_PID_galculator"])), "galculator");
}

TEST_F(DesktopTest, StatusListsEveryPartRunning) {
  const Outcome status = client_->run({"desktop", "status"});
  EXPECT_EQ(status.status, 0) << status.err;
  for (const auto& [name, pid] : startedPids(started_->err))
    EXPECT_NE(status.out.find("  " + name + " " + std::to_string(pid) + " running\n"), std::string::npos)
        << name << "\n"
        << status.out;
  for (const char* part : {"Xvfb", "dbus-daemon", "at-spi-bus-launcher", "openbox", "galculator"})
    EXPECT_NE(status.out.find(std::string("  ") + part + " "), std::string::npos) << part << "\n" << status.out;
}

TEST_F(DesktopTest, ASecondStartIsRefusedAndLeavesTheFirstRunning) {
  const Outcome second = client_->run({"desktop", "start", "galculator"});
  EXPECT_EQ(second.status, 1);
  EXPECT_NE(second.err.find("a desktop already runs in"), std::string::npos) << second.err;
  EXPECT_EQ(second.out, "");
  for (const auto& [name, pid] : startedPids(started_->err)) EXPECT_TRUE(processExists(pid)) << name;
}

TEST_F(DesktopTest, ADaemonStartedWithoutADisplayReachesTheDesktopsApplication) {
  // An agent host's bare environment: no display, no bus, the default platform.
  auto& environment = client_->environment();
  environment.erase("GLIMMERSTRAND_PLATFORM");
  ASSERT_EQ(environment.count("DISPLAY"), 0u);
  const Outcome reply =
      client_->run({"--app", "galculator", "query", "MATCH (c:Control {name:\"7\"}) RETURN c.name LIMIT 1"});
  EXPECT_EQ(reply.status, 0) << reply.err;
  EXPECT_NE(reply.out.find("7"), std::string::npos) << reply.out;
  client_->run({"stop"});
  environment["GLIMMERSTRAND_PLATFORM"] = "sim";
}

TEST_F(DesktopTest, TheDaemonsOwnBinaryWithoutADisplayTakesTheDesktop) {
  // As its systemd unit starts it: no client in between to lend the desktop's environment.
  ClientProcess native(GLIMMERSTRAND_NATIVE_BINARY, "desktop-native");
  native.environment().erase("GLIMMERSTRAND_PLATFORM");
  native.environment()["GLIMMERSTRAND_DESKTOP_DIR"] = (client_->folder() / "desktop").string();
  const Outcome reply = native.run({}, "{\"id\":1,\"method\":\"displays\",\"params\":{}}\n");
  EXPECT_NE(reply.out.find("\"width\":1280"), std::string::npos) << reply.out << reply.err;
}

TEST_F(DesktopTest, StopEndsEveryProcessItStarted) {
  const auto pids = startedPids(started_->err);
  ASSERT_EQ(pids.size(), 5u) << started_->err;
  const Outcome stop = client_->run({"desktop", "stop"});
  EXPECT_EQ(stop.status, 0) << stop.err;
  for (const auto& [name, pid] : pids) {
    EXPECT_NE(stop.out.find("stopped " + name + " (pid " + std::to_string(pid) + ")"), std::string::npos) << stop.out;
    EXPECT_FALSE(processExists(pid)) << name << " " << pid << " still runs";
  }
  EXPECT_EQ(client_->run({"desktop", "status"}).status, 1);
}

bool carriesMarkOf(pid_t pid, const std::filesystem::path& desktop) {
  const std::string environ = readFile("/proc/" + std::to_string(pid) + "/environ");
  return environ.find(std::string("GLIMMERSTRAND_DESKTOP_OF=") + desktop.string() + '\0') != std::string::npos;
}

// What the desktop's processes leave behind, and what the daemon opened on the
// desktop, end with it; a process of the user's that only shares its
// environment does not.
TEST(DesktopLeftovers, StopEndsWhatTheDesktopsProcessesStartedAndNothingElse) {
  DesktopClient client("desktop-leftovers");
  client.environment().erase("GLIMMERSTRAND_PLATFORM");
  const StopsAtTheEnd cleanup{client};
  const auto script = client.folder() / "leaves-a-child";
  const auto childFile = client.folder() / "child.pid";
  {
    std::ofstream out(script);
    out << "#!/bin/sh\nsleep 600 &\necho $! > " << childFile.string() << "\nexec galculator\n";
  }
  std::filesystem::permissions(script, std::filesystem::perms::owner_all);
  const Outcome started = client.run({"desktop", "start", script.string()});
  ASSERT_EQ(started.status, 0) << started.err;
  const pid_t leftover = std::stoi(readFile(childFile));

  const Outcome opened = client.run({"--json", "do", "CALL ui.open(\"mousepad\")"});
  ASSERT_EQ(opened.status, 0) << opened.err;
  std::smatch pid;
  ASSERT_TRUE(std::regex_search(opened.out, pid, std::regex(R"("pid":(\d+))"))) << opened.out;
  const pid_t editor = std::stoi(pid[1]);
  EXPECT_TRUE(carriesMarkOf(editor, client.folder() / "desktop")) << "what the daemon opened is the desktop's";

  // The user's own process, with the desktop's environment as a shell's eval
  // gives it, but not started by the desktop.
  std::vector<std::string> entries;
  for (const auto& [name, value] : parseExportLines(started.out)) entries.push_back(name + "=" + value);
  std::vector<char*> envp;
  for (auto& entry : entries) envp.push_back(entry.data());
  envp.push_back(nullptr);
  const pid_t users = ::fork();
  if (users == 0) {
    ::execle("/bin/sleep", "sleep", "600", nullptr, envp.data());
    ::_exit(127);
  }
  client.run({"stop"});
  const Outcome stop = client.run({"desktop", "stop"});
  EXPECT_EQ(stop.status, 0) << stop.err;
  EXPECT_NE(stop.out.find("stopped sleep (pid " + std::to_string(leftover) + ")"), std::string::npos) << stop.out;
  EXPECT_FALSE(processExists(leftover)) << "an application's child still runs";
  EXPECT_FALSE(processExists(editor)) << "the editor the daemon opened still runs";
  EXPECT_TRUE(processExists(users)) << "the user's own process was stopped";
  ::kill(users, SIGKILL);
  ::waitpid(users, nullptr, 0);
}

// The pid in the first line of `status`: "glimmerstrand 0.3.5, daemon pid 42".
std::string daemonPid(const ClientProcess& client) {
  const std::string line = Outcome::firstLine(client.run({"status"}).out);
  return line.substr(line.rfind(' ') + 1);
}

// A daemon that an agent host or its systemd unit started before the desktop,
// with no display and no bus, uses the desktop once it runs: no restart.
TEST(DesktopLater, ADaemonStartedBeforeTheDesktopUsesItOnceItRuns) {
  DesktopClient client("desktop-later");
  client.environment().erase("GLIMMERSTRAND_PLATFORM");
  const StopsAtTheEnd cleanup{client};
  const std::vector<std::string> query{"--app", "galculator", "query",
                                       "MATCH (c:Control {name:\"7\"}) RETURN c.name LIMIT 1"};

  const Outcome before = client.run(query);
  EXPECT_EQ(before.status, 1);
  EXPECT_NE(before.err.find("glimmerstrand desktop start"), std::string::npos) << before.err;
  EXPECT_NE(before.err.find("\nhint: "), std::string::npos) << before.err;
  EXPECT_EQ(before.err.find("retry"), std::string::npos) << "nothing to retry without a desktop: " << before.err;
  const std::string pid = daemonPid(client);

  const Outcome started = client.run({"desktop", "start", "galculator"});
  ASSERT_EQ(started.status, 0) << started.err;
  // The daemon looks again at most once a second: ask until it has looked.
  Outcome after;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while ((after = client.run(query)).status != 0 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(after.status, 0) << after.err;
  EXPECT_NE(after.out.find("\n7\n"), std::string::npos) << after.out;
  EXPECT_EQ(daemonPid(client), pid) << "the same daemon";
}

// A failed start names the application and its log, and ends everything it
// had started.
TEST(DesktopStartFailure, NamesTheApplicationAndItsLogAndLeavesNothingRunning) {
  struct Case {
    std::string command;
    std::string name;
    std::string message;
    std::string inLog;
  };
  const std::vector<Case> cases{
      {"no-such-application-here", "no-such-application-here", "no-such-application-here exited (exit status 127)",
       "cannot run no-such-application-here: No such file or directory"},
      {"false", "false", "false exited (exit status 1)", ""},
  };
  for (const auto& c : cases) {
    const DesktopClient client("desktop-failure");
    const Outcome outcome = client.run({"desktop", "start", "--no-wm", c.command});
    EXPECT_EQ(outcome.status, 1) << c.command;
    const auto log = (client.folder() / "desktop" / (c.name + ".log")).string();
    EXPECT_NE(outcome.err.find(c.message), std::string::npos) << outcome.err;
    EXPECT_NE(outcome.err.find("its log is " + log), std::string::npos) << outcome.err;
    EXPECT_NE(readFile(log).find(c.inLog), std::string::npos) << readFile(log);
    const auto pids = startedPids(outcome.err);
    EXPECT_EQ(pids.size(), 4u) << outcome.err;
    for (const auto& [name, pid] : pids) EXPECT_FALSE(processExists(pid)) << name << " " << pid << " still runs";
    EXPECT_EQ(client.run({"desktop", "status"}).status, 1) << "a failed start left its records";
  }
}

TEST(DesktopStartFailure, AFolderThatIsNotPlainlyThisUsersIsRefused) {
  // A link, as another user could leave in /tmp for the folder's name.
  const DesktopClient client("desktop-link");
  std::filesystem::create_directories(client.folder() / "elsewhere");
  std::filesystem::create_directory_symlink(client.folder() / "elsewhere", client.folder() / "desktop");
  const Outcome outcome = client.run({"desktop", "start", "--no-wm"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_NE(outcome.err.find("is not a folder of this user's"), std::string::npos) << outcome.err;
  EXPECT_TRUE(startedPids(outcome.err).empty()) << outcome.err;
}

TEST(DesktopArguments, UsageErrorsAreCaughtBeforeAnythingStarts) {
  const DesktopClient client("desktop-usage");
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases{
      {{"desktop"}, "glimmerstrand: 'desktop' needs start, stop or status"},
      {{"desktop", "begin"}, "glimmerstrand: unknown desktop command 'begin'"},
      {{"desktop", "stop", "now"}, "glimmerstrand: unexpected argument 'now': 'desktop stop' takes none"},
      {{"desktop", "start", "--fast"}, "glimmerstrand: unknown option '--fast' of 'desktop start'"},
      {{"--json", "desktop", "status"}, "glimmerstrand: option --json does not apply to 'desktop'"},
      {{"desktop", "start", "--wayland"}, "glimmerstrand: 'desktop start --wayland' needs a compositor: sway"},
      {{"desktop", "start", "--wayland", "weston"},
       "glimmerstrand: 'desktop start --wayland' needs a compositor: sway"},
  };
  for (const auto& [args, message] : cases) {
    const Outcome outcome = client.run(args);
    EXPECT_EQ(outcome.status, 2) << message;
    EXPECT_TRUE(outcome.err.starts_with(message)) << outcome.err;
  }
  EXPECT_FALSE(std::filesystem::exists(client.folder() / "desktop"));
  EXPECT_TRUE(client.run({"desktop", "--help"}).out.starts_with("usage: glimmerstrand desktop start"));
}

// The uid a process runs as, from /proc.
uid_t uidOf(pid_t pid) {
  const std::string status = readFile("/proc/" + std::to_string(pid) + "/status");
  const auto at = status.find("Uid:");
  return at == std::string::npos ? static_cast<uid_t>(-1) : static_cast<uid_t>(std::stoul(status.substr(at + 4)));
}

TEST(DesktopWayland, SwayRunsUnprivilegedItsApplicationsAsItsClientsAndStopLeavesNothing) {
  const DesktopClient client("desktop-wayland");
  const Outcome started = client.run({"desktop", "start", "--wayland", "sway", "galculator"});
  ASSERT_EQ(started.status, 0) << started.err;
  std::map<std::string, std::string> variables;
  for (const auto& [name, value] : parseExportLines(started.out)) variables[name] = value;
  const auto pids = startedPids(started.err);
  ASSERT_TRUE(pids.count("sway") && pids.count("galculator")) << started.err;
  // sway refuses root; as any other user it runs as that user.
  EXPECT_NE(uidOf(pids.at("sway")), 0u) << "sway runs as root";
  if (::getuid() != 0) {
    EXPECT_EQ(uidOf(pids.at("sway")), ::getuid());
  }
  const std::filesystem::path display = variables["WAYLAND_DISPLAY"];
  EXPECT_TRUE(display.is_absolute() && std::filesystem::is_socket(display)) << started.out;
  EXPECT_TRUE(std::filesystem::is_socket(variables["SWAYSOCK"])) << started.out;
  EXPECT_EQ(variables.count("DISPLAY"), 0u) << "no X server for a Wayland desktop";
  // The application is sway's client: it reaches the display it was given.
  const std::string environ = readFile("/proc/" + std::to_string(pids.at("galculator")) + "/environ");
  EXPECT_NE(environ.find("WAYLAND_DISPLAY=" + display.string() + '\0'), std::string::npos);
  EXPECT_NE(environ.find(std::string("GDK_BACKEND=wayland") + '\0'), std::string::npos);
  const Outcome stopped = client.run({"desktop", "stop"});
  EXPECT_EQ(stopped.status, 0) << stopped.err;
  for (const auto& [name, pid] : pids) EXPECT_FALSE(processExists(pid)) << name;
  EXPECT_FALSE(std::filesystem::exists(display.parent_path())) << "the compositor's folder is removed";
}

// A page in Chromium, started as a newcomer types it, is in the mirror.
TEST(DesktopBrowsers, APageInChromiumIsReadWithoutFlagsOfTheUsers) {
  DesktopClient client("desktop-chromium");
  client.environment().erase("GLIMMERSTRAND_PLATFORM");
  const StopsAtTheEnd cleanup{client, true};
  const auto page = client.folder() / "page.html";
  {
    std::ofstream out(page);
    out << "<!doctype html><title>Order</title><h1>Order form</h1><label>Name <input></label>";
  }
  const Outcome started = client.run({"desktop", "start", "chromium --no-first-run file://" + page.string()});
  ASSERT_EQ(started.status, 0) << started.err;
  // The page loads after the browser's window answers: ask until it has.
  auto read = [&] { return client.run({"--app", "chromium", "query", "MATCH (h:Heading) RETURN h.name"}); };
  Outcome heading = read();
  for (const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
       heading.out.find("Order form") == std::string::npos && std::chrono::steady_clock::now() < deadline;
       heading = read())
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_NE(heading.out.find("Order form"), std::string::npos) << heading.out << heading.err;
}

TEST(DesktopEnvironment, ValuesSurviveAShellsEvalWhateverTheirQuotes) {
  const std::vector<std::pair<std::string, std::string>> variables{{"PLAIN", "unix:path=/tmp/x/bus,guid=1f"},
                                                                   {"QUOTE", "it's"},
                                                                   {"SPACES", "a  b"},
                                                                   {"MIXED", "'\"$HOME`\\'"},
                                                                   {"EMPTY", ""}};
  const std::string lines = exportLines(variables);
  EXPECT_EQ(parseExportLines(lines), variables);
  const Outcome shell = ClientProcess("/bin/bash", "desktop-quotes")
                            .run({"-c",
                                  "eval \"$(cat)\" && printf '%s|' \"$PLAIN\" \"$QUOTE\" \"$SPACES\" \"$MIXED\" "
                                  "\"$EMPTY\""},
                                 lines);
  EXPECT_EQ(shell.out, "unix:path=/tmp/x/bus,guid=1f|it's|a  b|'\"$HOME`\\'||") << lines;
}

}  // namespace
}  // namespace glimmerstrand::client
