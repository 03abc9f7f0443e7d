// The headless desktop of `glimmerstrand desktop` as other processes find
// it: the folder where it records its processes by pid and its environment as
// export lines, and the adoption of that environment by a process that has no
// display of its own. The shell client does this before it starts a daemon;
// the daemon does it at start and whenever it looks again for a desktop, so a
// daemon started by its systemd unit, or before the desktop, finds it too.
//
// Plain functions over files; adoptRunningDesktop changes the process's
// environment (see there).
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace glimmerstrand::platform {

/// A variable's value, or none when unset or empty.
using Environment = std::function<std::optional<std::string>(const char*)>;
/// The process's own environment.
std::optional<std::string> processEnvironmentValue(const char* name);

/// $GLIMMERSTRAND_INSTANCE: the name of one of several desktops and daemons of
/// this user side by side on one host, each with its own folders (so its own
/// display, buses, socket and log); none for the one by default. Throws
/// std::invalid_argument for a name that is not 1 to 32 letters, digits, '-',
/// '_' or '.', or that starts with '.'.
std::optional<std::string> instanceName(const Environment& environment);

/// $GLIMMERSTRAND_DESKTOP_DIR, else a folder of this user's under
/// /run/user/UID or /tmp, with the instance's name at its end. Not taken from
/// XDG_RUNTIME_DIR: the desktop's own environment changes that, and `stop`
/// after an eval must find the same folder.
std::filesystem::path headlessDesktopFolder(const Environment& environment);

/// The daemon's state folder: $XDG_STATE_HOME/glimmerstrand (else
/// ~/.local/state/glimmerstrand), with "-" and the instance's name at its end.
std::filesystem::path daemonStateFolder(const Environment& environment);

/// One recorded process of a desktop; the start time, in clock ticks since
/// boot, tells it from a later process that reuses the pid.
struct DesktopRecord {
  pid_t pid = 0;
  unsigned long long started = 0;
  std::string name;
};

/// The records of `folder`, in start order; none when nothing was recorded.
std::vector<DesktopRecord> desktopRecords(const std::filesystem::path& folder);
/// Appends one record for `pid`, with its start time as /proc has it now.
DesktopRecord recordDesktopProcess(const std::filesystem::path& folder, pid_t pid, const std::string& name);
/// Whether the recorded process still runs (a zombie does not).
bool recordedProcessRuns(const DesktopRecord& record);

/// The variable that marks every process a desktop started, and what they
/// started in turn, with the desktop's folder as its value, so that `stop`
/// ends what a launcher or an application left behind too. It is never among
/// the export lines: a shell that took the desktop's environment is not part
/// of it.
inline constexpr const char* desktopMemberVariable = "GLIMMERSTRAND_DESKTOP_OF";
/// This user's processes that carry the mark of the desktop in `folder`, but
/// for this process; their names are their /proc comm.
std::vector<DesktopRecord> desktopMembers(const std::filesystem::path& folder);
/// The folder of the running desktop whose display this process uses, for
/// the mark of what it launches; none on any other display.
std::optional<std::filesystem::path> desktopOfThisProcess();

/// The files of a desktop's folder.
std::filesystem::path desktopRecordsFile(const std::filesystem::path& folder);
std::filesystem::path desktopEnvironmentFile(const std::filesystem::path& folder);

/// `export NAME='value'` lines, quoted for any shell's eval, and back.
std::string exportLines(const std::vector<std::pair<std::string, std::string>>& variables);
std::vector<std::pair<std::string, std::string>> parseExportLines(const std::string& text);

/// The environment of a desktop that runs in `folder`: its file exists and
/// its X server or Wayland compositor lives.
std::optional<std::map<std::string, std::string>> runningDesktopEnvironment(const std::filesystem::path& folder);

/// When this process has no display (neither DISPLAY nor WAYLAND_DISPLAY) and
/// a desktop of ours runs, takes that desktop's environment, but for its
/// GLIMMERSTRAND_ settings; children inherit it. Returns whether it did.
/// It sets variables with setenv, which races getenv in other threads: call it
/// at start, or, as the daemon does while it has no desktop, where nothing
/// else reads the environment (nothing that needs a desktop runs then, and no
/// bus connection exists yet). Once the display is set it does nothing.
bool adoptRunningDesktop();

}  // namespace glimmerstrand::platform
