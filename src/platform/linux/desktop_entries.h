// The installed applications of the XDG data folders' `.desktop` entries,
// the default handler of a URL, and the starting of an entry or a command,
// through GIO (GDesktopAppInfo): it reads the entries, expands their `Exec`
// field codes and knows the MIME defaults. Internal to the Linux backend.
// Callable from any thread.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/workspace.h"

namespace glimmerstrand::platform::linux_desktop {

/// Every shown entry of type Application (not Hidden, not NoDisplay), the
/// first folder that has an id deciding it; `bundleId` is the desktop id
/// without `.desktop`, `names` Name as "en" and each Name[xx] by its language.
std::vector<InstalledApplication> installedEntries();

/// The folders that hold the entries, in the order that decides an id.
std::vector<std::string> entryFolders();

/// What a start did: the process it started, or none when the application
/// was asked over D-Bus to start itself; or why it could not start.
struct Started {
  std::optional<pid_t> pid;
  std::optional<std::string> error;
};

/// Starts the entry at `path`, with `uris` for its field codes, in a session
/// of its own, so that it outlives this process's terminal and signals, with
/// its standard streams on /dev/null: an application holding the daemon's
/// log would keep whoever reads that log waiting after the daemon ended, and
/// fill it with its own chatter. Nobody has to reap it.
Started startEntry(const std::string& path, const std::vector<std::string>& uris = {});

/// Starts a command (found on PATH) the same way.
Started startCommand(const std::vector<std::string>& command);

/// The entry of the default application for a URL, as the XDG MIME settings
/// name it: by the file's content type, or by the URL's scheme.
std::optional<std::string> handlerEntry(const std::string& url);

/// The program an entry runs (the first word of its Exec), without folders.
std::optional<std::string> entryProgram(const std::string& path);

}  // namespace glimmerstrand::platform::linux_desktop
