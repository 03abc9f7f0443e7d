// Applications that misbehave beside a healthy galculator, on a headless
// desktop of the bench's own, met as an agent meets them: through the
// daemon's socket. Each figure is printed beside its goal:
//   - galculator's queries (by name and by pid, four a second) while nothing
//     misbehaves, while another application is frozen, while a list blocks
//     its application, and while 16 MB names are read;
//   - the daemon's memory and its mirrors after the misbehaving applications
//     have exited;
//   - an application back under a new bus name, at the next query;
//   - a stuck subtree and a tree without end: how long their first copy
//     takes, and whether it says it was cut (through the line protocol,
//     which shows the flag).
// Then a soak: for --minutes (default 1; --minutes 10 for the full soak)
// applications start, misbehave and exit one after another, with galculator
// queried between them; the daemon's resident memory and open descriptors
// are printed at the start and the end.
//
//   build/release/bench/linux_faults_bench [--minutes N] [--soak-only]
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "core/json_value.h"
#include "platform/linux/test_desktop.h"
#include "support/daemon_client.h"
#include "support/line_client.h"

namespace {

using namespace glimmerstrand;
using core::JSONValue;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

const std::string faultApp = GLIMMERSTRAND_SOURCE_DIR "/tests/platform/linux/data/fault_app.py";

double msSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// One more connection to the daemon's socket, one line each way.
class Connection {
 public:
  explicit Connection(const fs::path& socket) {
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socket.c_str(), sizeof address.sun_path - 1);
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
      throw std::runtime_error("cannot connect to " + socket.string());
  }
  ~Connection() { ::close(fd_); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  JSONValue ask(const std::string& operation, JSONValue params) {
    std::string line = core::jsonText(JSONValue::Object{{"operation", operation}, {"params", std::move(params)}});
    line += '\n';
    for (std::size_t sent = 0; sent < line.size();) {
      auto n = ::write(fd_, line.data() + sent, line.size() - sent);
      if (n <= 0) throw std::runtime_error("the daemon's socket closed");
      sent += static_cast<std::size_t>(n);
    }
    for (;;) {
      if (auto end = pending_.find('\n'); end != std::string::npos) {
        auto reply = pending_.substr(0, end);
        pending_.erase(0, end + 1);
        return core::parseJSON(reply);
      }
      char buffer[65536];
      auto n = ::read(fd_, buffer, sizeof buffer);
      if (n <= 0) throw std::runtime_error("the daemon's socket closed");
      pending_.append(buffer, static_cast<std::size_t>(n));
    }
  }

 private:
  int fd_ = -1;
  std::string pending_;
};

JSONValue query(Connection& daemon, const std::string& app, const std::string& cypher) {
  return daemon.ask("query", JSONValue::Object{{"app", app}, {"cypher", cypher}});
}

bool ok(const JSONValue& reply) { return core::optionalBool(reply, "ok").value_or(false); }

struct Figures {
  std::vector<double> ms;
  int failed = 0;
  double median() const {
    if (ms.empty()) return 0;
    auto sorted = ms;
    std::sort(sorted.begin(), sorted.end());
    return sorted[sorted.size() / 2];
  }
  double worst() const { return ms.empty() ? 0 : *std::max_element(ms.begin(), ms.end()); }
};

// galculator queried by name and by pid, four times a second.
Figures neighbourQueries(Connection& daemon, std::int32_t galculator, int count) {
  Figures figures;
  for (int k = 0; k < count; ++k) {
    const auto start = Clock::now();
    auto reply = query(daemon, k % 2 ? "pid:" + std::to_string(galculator) : "galculator", "MATCH (b) RETURN count(b)");
    figures.ms.push_back(msSince(start));
    if (!ok(reply)) ++figures.failed;
    std::this_thread::sleep_for(std::chrono::milliseconds(250) -
                                std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start));
  }
  return figures;
}

struct Process {
  long rssKb = 0;
  long descriptors = 0;
};

Process measure(std::int32_t pid) {
  Process p;
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind("VmRSS:", 0) == 0) p.rssKb = std::stol(line.substr(6));
  std::error_code error;
  for (auto it = fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", error); it != fs::directory_iterator();
       ++it)
    ++p.descriptors;
  return p;
}

bool alive(std::int64_t pid) { return ::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM; }

// The daemon's mirrors, and how many of them belong to processes that ended.
std::pair<std::size_t, std::size_t> mirrorsOf(Connection& daemon) {
  auto status = daemon.ask("status", JSONValue::Object{});
  const auto* mirrors = status.find("result") ? status.find("result")->find("mirrors") : nullptr;
  if (!mirrors || !mirrors->asArray()) return {0, 0};
  std::size_t dead = 0;
  for (const auto& mirror : *mirrors->asArray())
    if (!alive(core::optionalInt(mirror, "pid").value_or(0))) ++dead;
  return {mirrors->asArray()->size(), dead};
}

void line(const std::string& what, const std::string& measured, const std::string& goal) {
  std::printf("  %-58s %-34s goal: %s\n", what.c_str(), measured.c_str(), goal.c_str());
}

std::string ms(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f ms", value);
  return text;
}

std::string figuresText(const Figures& f) {
  return "median " + ms(f.median()) + ", worst " + ms(f.worst()) +
         (f.failed ? ", " + std::to_string(f.failed) + " failed" : "");
}

class Bench {
 public:
  explicit Bench(const std::vector<std::string>& faults) {
    folder_ = fs::temp_directory_path() / ("glimmerstrand-faults-bench-" + std::to_string(::getpid()));
    fs::create_directories(folder_);
    std::vector<std::string> apps{"galculator"};
    for (const auto& name : faults) {
      fs::create_symlink(faultApp, folder_ / name);
      apps.push_back((folder_ / name).string());
    }
    ::setenv("FAULT_FREEZE_S", "60", 1);
    desktop_ = std::make_unique<testing::TestDesktop>(apps);
    environment_ = desktop_->environment();
    environment_["GLIMMERSTRAND_PLATFORM"] = "linux";
    environment_["GLIMMERSTRAND_LOG_LEVEL"] = "silent";
    environment_["GLIMMERSTRAND_CURSOR"] = "0";
    daemon_ = std::make_unique<testing::DaemonClient>(GLIMMERSTRAND_NATIVE_BINARY, (folder_ / "state").string(),
                                                      environment_);
    connection_ = std::make_unique<Connection>(socket());
    daemonPid_ = static_cast<std::int32_t>(
        core::optionalInt(*connection_->ask("status", JSONValue::Object{}).find("result"), "pid").value_or(0));
  }
  ~Bench() {
    connection_.reset();
    daemon_.reset();
    desktop_.reset();
    fs::remove_all(folder_);
  }

  fs::path socket() const { return folder_ / "state" / "glimmerstrand" / "glimmerstrand.sock"; }
  Connection& daemon() { return *connection_; }
  std::int32_t daemonPid() const { return daemonPid_; }
  std::int32_t pid(const std::string& name) const { return desktop_->pid(name); }
  const std::map<std::string, std::string>& environment() const { return environment_; }

  // Runs `statement` on `app` over a connection of its own, again and
  // again, until stop() returns.
  void keepAsking(const std::string& operation, const std::string& app, const std::string& statement) {
    stopping_ = false;
    worker_ = std::thread([this, operation, app, statement] {
      Connection own(socket());
      while (!stopping_) own.ask(operation, JSONValue::Object{{"app", app}, {"cypher", statement}});
    });
  }
  void stop() {
    stopping_ = true;
    if (worker_.joinable()) worker_.join();
  }

 private:
  fs::path folder_;
  std::unique_ptr<testing::TestDesktop> desktop_;
  std::map<std::string, std::string> environment_;
  std::unique_ptr<testing::DaemonClient> daemon_;
  std::unique_ptr<Connection> connection_;
  std::int32_t daemonPid_ = 0;
  std::atomic<bool> stopping_ = false;
  std::thread worker_;
};

// How long the first copy of an application takes through the line
// protocol, and whether it says it was cut.
std::pair<double, bool> firstCopy(const std::map<std::string, std::string>& environment, const std::string& name) {
  testing::LineClient client(GLIMMERSTRAND_NATIVE_BINARY, environment);
  client.call("apps", JSONValue::Object{});  // a new process learns the names first
  const auto start = Clock::now();
  for (;;) {
    auto copy = client.call("axSnapshot",
                            JSONValue::Object{{"name", name}, {"fresh", true}, {"timeoutMs", 100}, {"all", true}});
    if (core::optionalInt(copy, "generation").value_or(0) >= 1)
      return {msSince(start), core::optionalBool(copy, "truncated").value_or(false)};
    if (msSince(start) > 60000) return {msSince(start), false};
  }
}

void goals() {
  std::printf("Goals, beside galculator (20 queries at 4 a second for each figure)\n");
  Bench bench({"fault-frozen", "fault-list", "fault-huge", "fault-stuck", "fault-endless", "fault-rejoin"});
  auto& daemon = bench.daemon();
  const auto galculator = bench.pid("galculator");
  neighbourQueries(daemon, galculator, 4);  // the mirror and every name, first
  const Figures quiet = neighbourQueries(daemon, galculator, 20);
  line("galculator's query, nothing misbehaving", figuresText(quiet), "the reference");
  const Process before = measure(bench.daemonPid());

  ::kill(bench.pid("fault-frozen"), SIGUSR1);
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  const Figures frozen = neighbourQueries(daemon, galculator, 20);
  ::kill(bench.pid("fault-frozen"), SIGUSR2);
  line("... while another application is frozen", figuresText(frozen),
       "< 50 ms more (" + ms(frozen.median() - quiet.median()) + " more)");

  bench.keepAsking("query", "pid:" + std::to_string(bench.pid("fault-list")), "MATCH (n) RETURN count(n)");
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  const Figures list = neighbourQueries(daemon, galculator, 20);
  ::kill(bench.pid("fault-list"), SIGUSR2);
  bench.stop();
  line("... while a list of 2^31-1 blocks its application", figuresText(list),
       "< 50 ms more (" + ms(list.median() - quiet.median()) + " more)");

  bench.keepAsking("do", "pid:" + std::to_string(bench.pid("fault-huge")), "CALL ui.refresh()");
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  const Figures huge = neighbourQueries(daemon, galculator, 20);
  bench.stop();
  line("... while 16 MB names are read again and again", figuresText(huge),
       "< 50 ms more (" + ms(huge.median() - quiet.median()) + " more)");

  auto [stuckMs, stuckCut] = firstCopy(bench.environment(), "fault-stuck");
  line("a stuck subtree: the first copy of the rest", ms(stuckMs) + (stuckCut ? ", marked cut" : ", NOT marked"),
       "< 2000 ms, marked as cut");
  auto [endlessMs, endlessCut] = firstCopy(bench.environment(), "fault-endless");
  line("a tree without end: the first copy", ms(endlessMs) + (endlessCut ? ", marked cut" : ", NOT marked"),
       "< 2000 ms, marked as cut");

  const auto rejoin = bench.pid("fault-rejoin");
  query(daemon, "fault-rejoin", "MATCH (n) RETURN count(n)");
  ::kill(rejoin, SIGUSR1);
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  const auto start = Clock::now();
  const auto title = core::jsonText(query(daemon, "fault-rejoin", "MATCH (w:Window) RETURN w.title"));
  const bool found = title.find("Faults 1") != std::string::npos;
  line("an application back under a new bus name",
       std::string(found ? "found" : "NOT found") + " in " + ms(msSince(start)), "found at the next query");

  for (const auto* name : {"fault-frozen", "fault-list", "fault-huge", "fault-stuck", "fault-endless", "fault-rejoin"})
    ::kill(bench.pid(name), SIGKILL);
  std::this_thread::sleep_for(std::chrono::seconds(3));
  const Process after = measure(bench.daemonPid());
  auto [mirrors, dead] = mirrorsOf(daemon);
  line("daemon memory: before the faults, after they exited",
       std::to_string(before.rssKb / 1024) + " MB, " + std::to_string(after.rssKb / 1024) + " MB",
       "within 10 MB (" + std::to_string((after.rssKb - before.rssKb) / 1024) + " MB more)");
  line("mirrors after they exited", std::to_string(mirrors) + ", of them dead: " + std::to_string(dead), "no dead");
}

// One application after another starts, misbehaves and exits.
void soak(int minutes) {
  std::printf("Soak: %d minute(s) of applications that start, misbehave and exit\n", minutes);
  Bench bench({});
  auto& daemon = bench.daemon();
  const auto galculator = bench.pid("galculator");
  neighbourQueries(daemon, galculator, 2);
  const Process start = measure(bench.daemonPid());
  std::printf("  start: daemon %ld MB resident, %ld descriptors\n", start.rssKb / 1024, start.descriptors);
  const std::vector<std::string> modes{"fault-frozen",  "fault-list",  "fault-huge",   "fault-stuck",
                                       "fault-endless", "fault-storm", "fault-rejoin", "fault-plain"};
  const auto end = Clock::now() + std::chrono::minutes(minutes);
  int started = 0, neighbourFailures = 0;
  Figures neighbour;
  while (Clock::now() < end) {
    const std::string name = modes[static_cast<std::size_t>(started) % modes.size()] + "-" + std::to_string(started);
    ++started;
    const pid_t child = ::fork();
    if (child == 0) {
      for (const auto& [key, value] : bench.environment()) ::setenv(key.c_str(), value.c_str(), 1);
      ::setenv("FAULT_FREEZE_S", "3", 1);
      ::execl("/usr/bin/python3", "python3", faultApp.c_str(), "--mode", name.c_str(), static_cast<char*>(nullptr));
      ::_exit(127);
    }
    const std::string app = "pid:" + std::to_string(child);
    for (int attempt = 0; attempt < 100 && !ok(query(daemon, app, "MATCH (n) RETURN count(n)")); ++attempt)
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ::kill(child, SIGUSR1);  // frozen, storm and rejoin begin; the others misbehave when read
    for (int round = 0; round < 3; ++round) {
      query(daemon, app, "MATCH (n) RETURN count(n)");
      auto figures = neighbourQueries(daemon, galculator, 2);
      neighbourFailures += figures.failed;
      neighbour.ms.insert(neighbour.ms.end(), figures.ms.begin(), figures.ms.end());
    }
    ::kill(child, started % 2 ? SIGKILL : SIGTERM);
    ::waitpid(child, nullptr, 0);
  }
  std::this_thread::sleep_for(std::chrono::seconds(3));
  const Process last = measure(bench.daemonPid());
  auto [mirrors, dead] = mirrorsOf(daemon);
  std::printf("  %d applications; galculator's queries meanwhile: %s, %d failed\n", started,
              figuresText(neighbour).c_str(), neighbourFailures);
  std::printf("  end:   daemon %ld MB resident, %ld descriptors; %zu mirrors, of them dead: %zu\n", last.rssKb / 1024,
              last.descriptors, mirrors, dead);
}

}  // namespace

int main(int argc, char** argv) {
  int minutes = 1;
  bool soakOnly = false;
  for (int k = 1; k < argc; ++k) {
    const std::string argument = argv[k];
    if (argument == "--minutes" && k + 1 < argc)
      minutes = std::stoi(argv[++k]);
    else if (argument == "--soak-only")
      soakOnly = true;
    else {
      std::fprintf(stderr, "usage: %s [--minutes N] [--soak-only]\n", argv[0]);
      return 2;
    }
  }
  try {
    if (!soakOnly) goals();
    soak(minutes);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "faults bench: %s\n", e.what());
    return 1;
  }
}
