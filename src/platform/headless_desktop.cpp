#include "platform/headless_desktop.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "platform/process_family.h"

namespace glimmerstrand::platform {
namespace {

namespace fs = std::filesystem;

struct ProcessStat {
  char state = '?';
  unsigned long long started = 0;
};

// From /proc/PID/stat: the state (field 3) and the start time in clock ticks (field 22).
std::optional<ProcessStat> processStat(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  if (!std::getline(file, text)) return std::nullopt;
  const auto nameEnd = text.rfind(')');
  if (nameEnd == std::string::npos || nameEnd + 2 > text.size()) return std::nullopt;
  std::istringstream fields(text.substr(nameEnd + 2));
  ProcessStat stat;
  fields >> stat.state;
  std::string skipped;
  for (int k = 0; k < 18; ++k) fields >> skipped;
  fields >> stat.started;
  if (!fields) return std::nullopt;
  return stat;
}

std::string shellQuoted(const std::string& value) {
  std::string quoted = "'";
  for (char c : value) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

}  // namespace

std::optional<std::string> processEnvironmentValue(const char* name) {
  const char* value = std::getenv(name);
  if (!value || !*value) return std::nullopt;
  return std::string(value);
}

std::optional<std::string> instanceName(const Environment& environment) {
  auto name = environment("GLIMMERSTRAND_INSTANCE");
  if (!name) return std::nullopt;
  // It ends folder names: nothing that leaves the folder or hides the file.
  const bool plain = name->size() <= 32 && name->front() != '.' &&
                     std::all_of(name->begin(), name->end(),
                                 [](unsigned char c) { return std::isalnum(c) || c == '-' || c == '_' || c == '.'; });
  if (!plain)
    throw std::invalid_argument("GLIMMERSTRAND_INSTANCE must be 1 to 32 letters, digits, '-', '_' or '.', not '" +
                                *name + "'");
  return name;
}

fs::path headlessDesktopFolder(const Environment& environment) {
  if (auto given = environment("GLIMMERSTRAND_DESKTOP_DIR")) return *given;
  const auto instance = instanceName(environment);
  const std::string suffix = instance ? "-" + *instance : "";
  const std::string user = std::to_string(::getuid());
  const fs::path runtime = "/run/user/" + user;
  std::error_code error;
  if (fs::is_directory(runtime, error) && ::access(runtime.c_str(), W_OK) == 0)
    return runtime / ("glimmerstrand-desktop" + suffix);
  return "/tmp/glimmerstrand-desktop-" + user + suffix;
}

fs::path daemonStateFolder(const Environment& environment) {
  const fs::path base = environment("XDG_STATE_HOME") ? fs::path(*environment("XDG_STATE_HOME"))
                                                      : fs::path(environment("HOME").value_or("/tmp")) / ".local/state";
  const auto instance = instanceName(environment);
  return base / (instance ? "glimmerstrand-" + *instance : "glimmerstrand");
}

fs::path desktopRecordsFile(const fs::path& folder) { return folder / "pids"; }
fs::path desktopEnvironmentFile(const fs::path& folder) { return folder / "env"; }

std::vector<DesktopRecord> desktopRecords(const fs::path& folder) {
  std::vector<DesktopRecord> records;
  std::ifstream file(desktopRecordsFile(folder));
  for (std::string line; std::getline(file, line);) {
    std::istringstream fields(line);
    DesktopRecord record;
    if (fields >> record.pid >> record.started >> record.name) records.push_back(record);
  }
  return records;
}

DesktopRecord recordDesktopProcess(const fs::path& folder, pid_t pid, const std::string& name) {
  // A process not yet in /proc keeps start time 0; it is then never taken for alive.
  const DesktopRecord process{pid, processStat(pid).value_or(ProcessStat{}).started, name};
  std::ofstream(desktopRecordsFile(folder), std::ios::app)
      << process.pid << ' ' << process.started << ' ' << process.name << '\n';
  return process;
}

bool recordedProcessRuns(const DesktopRecord& record) {
  const auto stat = processStat(record.pid);
  return stat && stat->state != 'Z' && stat->started == record.started;
}

namespace {

// The NUL-separated entries of /proc/PID/environ; empty when it can't be read
// (another user's process, or one that ended).
bool environmentHolds(pid_t pid, const std::string& entry) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/environ", std::ios::binary);
  for (std::string item; std::getline(file, item, '\0');)
    if (item == entry) return true;
  return false;
}

std::string commandName(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/comm");
  std::string name;
  std::getline(file, name);
  return name;
}

}  // namespace

std::vector<DesktopRecord> desktopMembers(const fs::path& folder) {
  const std::string entry = std::string(desktopMemberVariable) + "=" + folder.string();
  std::vector<DesktopRecord> members;
  for (const auto& [pid, parent] : processParents()) {
    if (pid == ::getpid() || !environmentHolds(pid, entry)) continue;
    if (const auto stat = processStat(pid)) members.push_back({pid, stat->started, commandName(pid)});
  }
  return members;
}

std::optional<fs::path> desktopOfThisProcess() {
  const fs::path folder = headlessDesktopFolder(processEnvironmentValue);
  const auto variables = runningDesktopEnvironment(folder);
  if (!variables) return std::nullopt;
  // A Wayland desktop's environment has no DISPLAY, an X11 one no WAYLAND_DISPLAY.
  const char* display = variables->contains("WAYLAND_DISPLAY") ? "WAYLAND_DISPLAY" : "DISPLAY";
  const auto theirs = variables->find(display);
  const auto ours = processEnvironmentValue(display);
  if (theirs == variables->end() || ours != theirs->second) return std::nullopt;
  return folder;
}

std::string exportLines(const std::vector<std::pair<std::string, std::string>>& variables) {
  std::string text;
  for (const auto& [name, value] : variables) text += "export " + name + "=" + shellQuoted(value) + "\n";
  return text;
}

std::vector<std::pair<std::string, std::string>> parseExportLines(const std::string& text) {
  std::vector<std::pair<std::string, std::string>> variables;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with("export ")) continue;
    const auto equals = line.find('=');
    if (equals == std::string::npos) continue;
    std::string value;
    bool quoted = false;
    for (std::size_t k = equals + 1; k < line.size(); ++k) {
      if (line[k] == '\'')
        quoted = !quoted;
      else if (!quoted && line[k] == '\\' && k + 1 < line.size())
        value += line[++k];
      else
        value += line[k];
    }
    variables.emplace_back(line.substr(7, equals - 7), value);
  }
  return variables;
}

std::optional<std::map<std::string, std::string>> runningDesktopEnvironment(const fs::path& folder) {
  std::ifstream file(desktopEnvironmentFile(folder));
  if (!file) return std::nullopt;
  const auto records = desktopRecords(folder);
  const bool serverLives = std::any_of(records.begin(), records.end(), [](const DesktopRecord& p) {
    return (p.name == "Xvfb" || p.name == "sway") && recordedProcessRuns(p);
  });
  if (!serverLives) return std::nullopt;
  std::stringstream text;
  text << file.rdbuf();
  std::map<std::string, std::string> variables;
  for (auto& [name, value] : parseExportLines(text.str())) variables[name] = value;
  return variables;
}

bool adoptRunningDesktop() {
  if (processEnvironmentValue("DISPLAY") || processEnvironmentValue("WAYLAND_DISPLAY")) return false;
  const auto variables = runningDesktopEnvironment(headlessDesktopFolder(processEnvironmentValue));
  if (!variables) return false;
  for (const auto& [name, value] : *variables)
    if (!name.starts_with("GLIMMERSTRAND_")) ::setenv(name.c_str(), value.c_str(), 1);
  return true;
}

}  // namespace glimmerstrand::platform
