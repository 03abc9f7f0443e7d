#include "client/desktop.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <set>
#include <sstream>
#include <thread>

#include "client/desktop_compositor.h"
#include "core/errors.h"
#include "platform/accessibility_bus.h"
#include "platform/browser_accessibility.h"
#include "platform/headless_desktop.h"
#include "platform/process_family.h"

// Last: its macros (None, Bool, Status) clash with names in the headers above.
#include <X11/Xatom.h>
#include <X11/Xlib.h>

extern char** environ;

namespace glimmerstrand::client {
namespace {

using core::GlimmerstrandError;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr auto pollInterval = std::chrono::milliseconds(50);
constexpr auto serverLimit = std::chrono::seconds(10);  // the X server and the buses
constexpr auto applicationLimit = std::chrono::seconds(30);
constexpr auto stopGrace = std::chrono::seconds(5);
constexpr const char* accessibilityLauncher = "/usr/libexec/at-spi-bus-launcher";

// What toolkits need to build their trees on a bare X server: the bridge on,
// Qt's accessibility always on, a theme that every GTK application has, and
// LibreOffice's GTK front end (its plain X11 one has no accessibility).
const std::vector<std::pair<std::string, std::string>> toolkitSettings{{"NO_AT_BRIDGE", "0"},
                                                                       {"QT_LINUX_ACCESSIBILITY_ALWAYS_ON", "1"},
                                                                       {"QT_ACCESSIBILITY", "1"},
                                                                       {"GTK_THEME", "Adwaita"},
                                                                       {"SAL_USE_VCLPLUGIN", "gtk3"}};

// The status with which an application asks to be started again, as
// LibreOffice does once on a new profile.
constexpr int restartStatus = 81;

[[noreturn]] void fail(const std::string& message) { throw GlimmerstrandError(core::codes::native, message); }

// ---- Processes, recorded by pid and start time ------------------------------

using Recorded = platform::DesktopRecord;

bool isAlive(const Recorded& process) {
  ::waitpid(process.pid, nullptr, WNOHANG);  // reaps it when this process started it
  return platform::recordedProcessRuns(process);
}

Recorded record(const fs::path& folder, pid_t pid, const std::string& name) {
  return platform::recordDesktopProcess(folder, pid, name);
}

bool anyAlive(const std::vector<Recorded>& processes) {
  return std::any_of(processes.begin(), processes.end(), isAlive);
}

void waitUntilGone(const std::vector<Recorded>& processes, Clock::duration limit) {
  const auto deadline = Clock::now() + limit;
  while (anyAlive(processes) && Clock::now() < deadline) std::this_thread::sleep_for(pollInterval);
}

// Arguments and environment as exec wants them, made before the fork: the
// child of a process with threads may only make system calls.
struct ExecArguments {
  explicit ExecArguments(std::vector<std::string> words, const std::map<std::string, std::string>& variables)
      : words_(std::move(words)) {
    for (const auto& [name, value] : variables) entries_.push_back(name + "=" + value);
    for (auto& word : words_) argv.push_back(word.data());
    for (auto& entry : entries_) envp.push_back(entry.data());
    argv.push_back(nullptr);
    envp.push_back(nullptr);
  }
  std::vector<char*> argv, envp;

 private:
  std::vector<std::string> words_, entries_;
};

// Starts `words` in a session of its own, its output in `log`; `handOver`,
// when given, becomes the child's descriptor 3; `runAs`, when given, is whom
// it runs as.
pid_t spawn(const std::vector<std::string>& words, const std::map<std::string, std::string>& variables,
            const fs::path& log, int handOver = -1, const std::optional<Credentials>& runAs = std::nullopt) {
  ExecArguments exec(words, variables);
  const std::string cannotRun = "glimmerstrand desktop: cannot run " + words[0] + ": ";
  const pid_t child = ::fork();
  if (child < 0) fail(std::string("cannot fork: ") + std::strerror(errno));
  if (child > 0) return child;
  ::setsid();
  ::dup2(::open("/dev/null", O_RDONLY), 0);
  const int output = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  ::dup2(output, 1);
  ::dup2(output, 2);
  if (handOver >= 0) ::dup2(handOver, 3);
  ::close_range(handOver >= 0 ? 4 : 3, ~0U, 0);
  if (runAs && (::setgroups(0, nullptr) != 0 || ::setgid(runAs->gid) != 0 || ::setuid(runAs->uid) != 0)) ::_exit(126);
  ::execvpe(exec.argv[0], exec.argv.data(), exec.envp.data());
  const std::string message = cannotRun + std::strerror(errno) + "\n";
  if (::write(2, message.data(), message.size()) < 0) ::_exit(127);
  ::_exit(127);
}

// One line from `fd`, without its line feed; none at end of input or when
// the deadline passes first.
std::optional<std::string> readLine(int fd, Clock::time_point deadline) {
  std::string line;
  while (Clock::now() < deadline) {
    pollfd ready{fd, POLLIN, 0};
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (::poll(&ready, 1, static_cast<int>(std::max<long long>(left, 1))) <= 0) continue;
    char c = 0;
    const ssize_t n = ::read(fd, &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return std::nullopt;
    if (c == '\n') return line;
    line += c;
  }
  return std::nullopt;
}

// How a child of this process ended, once it has.
struct Ended {
  int status;        // the exit status, or -1 after a signal
  std::string text;  // " (exit status 1)"
};
std::optional<Ended> endedChild(pid_t pid) {
  int status = 0;
  if (::waitpid(pid, &status, WNOHANG) != pid) return std::nullopt;
  if (WIFEXITED(status))
    return Ended{WEXITSTATUS(status), " (exit status " + std::to_string(WEXITSTATUS(status)) + ")"};
  return Ended{-1, " (signal " + std::to_string(WTERMSIG(status)) + ")"};
}
std::optional<std::string> endOf(pid_t pid) {
  auto ended = endedChild(pid);
  return ended ? std::optional(ended->text) : std::nullopt;
}

// ---- The accessibility bus -----------------------------------------------------

// The process among `family` whose application is registered and whose
// tree answers.
std::optional<pid_t> answeringProcess(platform::AccessibilityBus& bus, const std::set<pid_t>& family) {
  for (const auto& name : bus.registered())
    if (const auto pid = bus.ownerOf(name); pid && family.contains(*pid) && bus.treeAnswers(name)) return pid;
  return std::nullopt;
}

// ---- Start -------------------------------------------------------------------------

std::string processName(const std::string& command) {
  std::istringstream words(command);
  std::string first;
  words >> first;
  return fs::path(first).filename().string();
}

std::string pidVariable(const std::string& name) {
  std::string variable = "GLIMMERSTRAND_PID_" + name;
  for (auto& c : variable)
    if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
  return variable;
}

void say(const std::string& line) { std::cerr << "desktop: " << line << "\n"; }

// One start, from the X server to the last application. Lives on the
// client's one thread for the length of `desktop start`.
class DesktopStart {
 public:
  explicit DesktopStart(fs::path folder) : folder_(std::move(folder)) {
    for (char** entry = environ; *entry; ++entry) {
      const std::string text = *entry;
      if (auto equals = text.find('='); equals != std::string::npos)
        variables_[text.substr(0, equals)] = text.substr(equals + 1);
    }
    // What a launcher started and left behind comes to this process rather
    // than to init, so that it can still be told from others.
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
  }

  std::string run(const DesktopRequest& request) {
    const bool wayland = !request.compositor.empty();
    prepareFolder(wayland);
    if (wayland)
      startCompositor(request.compositor);
    else
      startXServer();
    startSessionBus();
    auto bus = startAccessibilityBus(!wayland);
    if (request.windowManager && !wayland) launch({"openbox"}, "openbox");
    exported_.emplace_back("GLIMMERSTRAND_DESKTOP_DIR", folder_.string());
    for (const auto& command : request.applications) startApplication(*bus, command);
    const std::string text = exportLines(exported_);
    std::ofstream(platform::desktopEnvironmentFile(folder_)) << text;
    return text;
  }

 private:
  void prepareFolder(bool wayland) {
    fs::create_directories(folder_);
    // A folder in /tmp that another user made first would hold our buses.
    struct stat info {};
    if (::lstat(folder_.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != ::getuid())
      fail(folder_.string() + " is not a folder of this user's; set GLIMMERSTRAND_DESKTOP_DIR to another");
    fs::create_directories(folder_ / "runtime");
    fs::permissions(folder_, fs::perms::owner_all);
    fs::permissions(folder_ / "runtime", fs::perms::owner_all);
    fs::remove(folder_ / "bus");
    // A bus address left by another desktop would keep this one from coming up.
    for (const char* stale : {"AT_SPI_BUS_ADDRESS", "DBUS_SESSION_BUS_ADDRESS", "WAYLAND_DISPLAY", "SWAYSOCK"})
      variables_.erase(stale);
    // A Wayland desktop's applications must not find an X server instead.
    if (wayland) variables_.erase("DISPLAY");
    variables_[platform::desktopMemberVariable] = folder_.string();
    setVariable("XDG_RUNTIME_DIR", (folder_ / "runtime").string());
    for (const auto& [name, value] : toolkitSettings) setVariable(name, value);
  }

  void setVariable(const std::string& name, const std::string& value) {
    variables_[name] = value;
    exported_.emplace_back(name, value);
  }

  Recorded launch(const std::vector<std::string>& words, const std::string& name, int handOver = -1,
                  const std::map<std::string, std::string>* environment = nullptr,
                  const std::optional<Credentials>& runAs = std::nullopt) {
    // What came to this process until now belongs to earlier launches.
    for (const auto& [child, parent] : platform::processParents())
      if (parent == ::getpid()) known_.insert(child);
    const pid_t pid = spawn(words, environment ? *environment : variables_, logOf(name), handOver, runAs);
    known_.insert(pid);
    const Recorded process = record(folder_, pid, name);
    say("started " + name + " (pid " + std::to_string(pid) + ")");
    return process;
  }

  fs::path logOf(const std::string& name) const { return folder_ / (name + ".log"); }

  // A process that tells it is ready by writing a line on descriptor 3: the
  // display number of Xvfb, the address of dbus-daemon.
  std::string launchAndRead(const std::vector<std::string>& words, const std::string& name) {
    int pipe[2];
    if (::pipe2(pipe, O_CLOEXEC) != 0) fail(std::string("cannot make a pipe: ") + std::strerror(errno));
    const Recorded process = launch(words, name, pipe[1]);
    ::close(pipe[1]);
    const auto line = readLine(pipe[0], Clock::now() + serverLimit);
    ::close(pipe[0]);
    if (!line || line->empty()) {
      const auto end = endOf(process.pid);
      fail(name + (end ? " exited" + *end : " did not get ready within 10 s") + "; its log is " + logOf(name).string());
    }
    return *line;
  }

  void startXServer() {
    // -noreset: the server would otherwise reset whenever its last client
    // leaves, taking the root window's properties with it.
    const std::string display =
        ":" + launchAndRead({"Xvfb", "-displayfd", "3", "-screen", "0", "1280x800x24", "-nolisten", "tcp", "-noreset"},
                            "Xvfb");
    setVariable("DISPLAY", display);
  }

  // The compositor tells it is ready by making its sockets.
  void startCompositor(const std::string& name) {
    const CompositorPlan plan = planCompositor(name, folder_);
    const Recorded process = launch(plan.command, plan.name, -1, &plan.environment, plan.runAs);
    const auto deadline = Clock::now() + serverLimit;
    auto sockets = compositorSockets(plan);
    for (; !sockets; sockets = compositorSockets(plan)) {
      if (const auto end = endOf(process.pid)) fail(name + " exited" + *end + "; its log is " + logOf(name).string());
      if (Clock::now() >= deadline) fail(name + " did not get ready within 10 s; its log is " + logOf(name).string());
      std::this_thread::sleep_for(pollInterval);
    }
    for (const auto& [variable, value] : *sockets) setVariable(variable, value);
    for (const auto& [variable, value] : waylandToolkitSettings()) setVariable(variable, value);
  }

  void startSessionBus() {
    const std::string address =
        launchAndRead({"dbus-daemon", "--session", "--nofork", "--nopidfile", "--print-address=3",
                       "--address=unix:path=" + (folder_ / "bus").string()},
                      "dbus-daemon");
    setVariable("DBUS_SESSION_BUS_ADDRESS", address);
  }

  // Qt finds the accessibility bus through the root window's AT_SPI_BUS, as
  // on a desktop session; asking the session bus instead races its own
  // start-up, and the application never registers.
  void publishOnRootWindow(const std::string& address) {
    ::Display* display = XOpenDisplay(variables_["DISPLAY"].c_str());
    if (!display) fail("the X server on " + variables_["DISPLAY"] + " does not answer");
    const Atom property = XInternAtom(display, "AT_SPI_BUS", False);
    XChangeProperty(display, DefaultRootWindow(display), property, XA_STRING, 8, PropModeReplace,
                    reinterpret_cast<const unsigned char*>(address.data()), static_cast<int>(address.size()));
    XCloseDisplay(display);
  }

  std::unique_ptr<platform::AccessibilityBus> startAccessibilityBus(bool onRootWindow) {
    // Read by GDBus in this process: set before its first use, so before any of its threads runs.
    ::setenv("DBUS_SESSION_BUS_ADDRESS", variables_["DBUS_SESSION_BUS_ADDRESS"].c_str(), 1);
    ::unsetenv("AT_SPI_BUS_ADDRESS");
    const Recorded launcher = launch({accessibilityLauncher, "--launch-immediately"}, "at-spi-bus-launcher");
    const auto deadline = Clock::now() + serverLimit;
    std::string problem;
    while (Clock::now() < deadline && !endOf(launcher.pid)) {
      if (auto bus = platform::AccessibilityBus::connect(problem)) {
        if (!bus->enable()) fail("the accessibility bus did not turn org.a11y.Status IsEnabled on");
        setVariable("AT_SPI_BUS_ADDRESS", bus->address());
        if (onRootWindow) publishOnRootWindow(bus->address());
        return bus;
      }
      std::this_thread::sleep_for(pollInterval);
    }
    fail("the accessibility bus did not come up (" + problem + "); its log is " +
         logOf("at-spi-bus-launcher").string());
  }

  // Starts one application and waits for its tree. A launcher that hands
  // over to another process is followed to the process whose tree answers,
  // which is then recorded too, so that `stop` ends it.
  void startApplication(platform::AccessibilityBus& bus, const std::string& command) {
    std::istringstream split(command);
    std::vector<std::string> words;
    for (std::string word; split >> word;) words.push_back(word);
    if (words.empty()) return;
    words = platform::withAccessibilityOn(std::move(words), ::geteuid() == 0);
    const std::string name = processName(command);
    Recorded launcher = launch(words, name);
    std::optional<Ended> launcherEnd;
    bool restarted = false;
    const auto deadline = Clock::now() + applicationLimit;
    std::optional<pid_t> owner;
    while (!(owner = answeringProcess(bus, familyOf(launcher.pid)))) {
      if (!launcherEnd) launcherEnd = endedChild(launcher.pid);
      if (launcherEnd && familyOf(launcher.pid).size() == 1) {  // ended, and nothing it started runs
        if (launcherEnd->status != restartStatus || restarted)
          fail(name + " exited" + launcherEnd->text + " before its accessibility tree answered; its log is " +
               logOf(name).string());
        say(name + " asked to be started again");
        restarted = true;
        launcher = launch(words, name);
        launcherEnd.reset();
      }
      if (Clock::now() >= deadline)
        fail(name + "'s accessibility tree did not answer within 30 s; its log is " + logOf(name).string());
      std::this_thread::sleep_for(pollInterval);
    }
    if (*owner != launcher.pid) {
      record(folder_, *owner, name);
      say(name + " runs as pid " + std::to_string(*owner) + ", started by its launcher");
    }
    say(name + " answers on the accessibility bus");
    exported_.emplace_back(pidVariable(name), std::to_string(*owner));
  }

  // The launched process and what it led to, without what this start
  // launched besides or had inherited before the launch.
  std::set<pid_t> familyOf(pid_t launched) const {
    return platform::processFamily(launched, platform::processParents(), ::getpid(), known_);
  }

  fs::path folder_;
  std::set<pid_t> known_;                         // launched by this start, or inherited before the latest launch
  std::map<std::string, std::string> variables_;  // the applications' environment
  std::vector<std::pair<std::string, std::string>> exported_;  // what start prints, in order
};

// ---- The command ---------------------------------------------------------------------

int startCommand(const fs::path& folder, const std::vector<std::string>& words) {
  DesktopRequest request;
  for (std::size_t k = 1; k < words.size(); ++k) {
    if (words[k] == "--wm")
      request.windowManager = true;
    else if (words[k] == "--no-wm")
      request.windowManager = false;
    else if (words[k] == "--wayland" && k + 1 < words.size())
      request.compositor = words[++k];
    else
      request.applications.push_back(words[k]);
  }
  std::cout << startDesktop(folder, request) << std::flush;
  return 0;
}

int stopCommand(const fs::path& folder) {
  const auto processes = stopDesktop(folder);
  if (processes.empty()) std::cout << "no desktop in " << folder.string() << "\n";
  for (auto process = processes.rbegin(); process != processes.rend(); ++process)
    std::cout << (process->running ? "stopped " : "already gone: ") << process->name << " (pid " << process->pid
              << ")\n";
  return 0;
}

int statusCommand(const fs::path& folder) {
  const auto processes = desktopProcesses(folder);
  if (!processes) {
    std::cout << "no desktop in " << folder.string() << "\n";
    return 1;
  }
  std::cout << "desktop in " << folder.string() << "\n";
  for (const auto& process : *processes)
    std::cout << "  " << process.name << " " << process.pid << " " << (process.running ? "running" : "gone") << "\n";
  return 0;
}

}  // namespace

fs::path desktopFolder(const Environment& environment) { return platform::headlessDesktopFolder(environment); }

std::string startDesktop(const fs::path& folder, const DesktopRequest& request) {
  if (auto running = desktopProcesses(folder)) {
    if (std::any_of(running->begin(), running->end(), [](const DesktopProcess& p) { return p.running; }))
      throw GlimmerstrandError(core::codes::busy, "a desktop already runs in " + folder.string() +
                                                      "; stop it first: glimmerstrand desktop stop");
    stopDesktop(folder);  // what is left of one that ended: its files
  }
  try {
    return DesktopStart(folder).run(request);
  } catch (...) {
    stopDesktop(folder);
    throw;
  }
}

std::optional<std::vector<DesktopProcess>> desktopProcesses(const fs::path& folder) {
  std::error_code error;
  if (!fs::exists(platform::desktopRecordsFile(folder), error)) return std::nullopt;
  std::vector<DesktopProcess> processes;
  for (const auto& process : platform::desktopRecords(folder))
    processes.push_back({process.pid, process.name, isAlive(process)});
  return processes;
}

// What the desktop's processes started and left behind (a launcher's
// children, a crash handler, an application the daemon opened), and was not
// recorded: stopped first, while the buses they may use still run.
std::vector<Recorded> unrecordedMembers(const fs::path& folder, const std::vector<Recorded>& records) {
  auto members = platform::desktopMembers(folder);
  std::erase_if(members, [&](const Recorded& member) {
    return std::any_of(records.begin(), records.end(), [&](const Recorded& r) { return r.pid == member.pid; });
  });
  return members;
}

std::vector<DesktopProcess> stopDesktop(const fs::path& folder) {
  auto records = platform::desktopRecords(folder);
  if (!records.empty()) {
    const auto members = unrecordedMembers(folder, records);
    records.insert(records.end(), members.begin(), members.end());
  }
  std::vector<DesktopProcess> processes;
  for (const auto& process : records) processes.push_back({process.pid, process.name, isAlive(process)});
  // Last started, first stopped: the applications before the buses they use.
  for (auto process = records.rbegin(); process != records.rend(); ++process)
    if (isAlive(*process)) ::kill(process->pid, SIGTERM);
  waitUntilGone(records, stopGrace);
  for (const auto& process : records)
    if (isAlive(process) || process.started == 0) ::kill(process.pid, SIGKILL);
  waitUntilGone(records, stopGrace);
  std::error_code error;
  for (const auto& file :
       {platform::desktopRecordsFile(folder), platform::desktopEnvironmentFile(folder), folder / "bus"})
    fs::remove(file, error);
  removeCompositorFolder(folder);
  return processes;
}

int runDesktopCommand(const std::vector<std::string>& words) {
  const fs::path folder = desktopFolder(platform::processEnvironmentValue);
  if (words.at(0) == "start") return startCommand(folder, words);
  if (words[0] == "stop") return stopCommand(folder);
  return statusCommand(folder);
}

}  // namespace glimmerstrand::client
