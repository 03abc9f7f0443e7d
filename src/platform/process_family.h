// The processes an application's launcher leads to, from Linux's /proc.
// Launchers such as LibreOffice's `soffice` start the process that owns the
// windows and may end before it; the backend and the desktop helper follow
// them to it. Pure functions over a snapshot; safe from any thread.
#pragma once

#include <sys/types.h>

#include <map>
#include <set>

namespace glimmerstrand::platform {

/// Each running process's parent, by pid, as /proc tells it now.
std::map<pid_t, pid_t> processParents();

/// `root` and its descendants; with `self` given, also the children of
/// `self` that are not in `known` and their descendants: the orphans a
/// subreaper inherits once a launcher in between has ended.
std::set<pid_t> processFamily(pid_t root, const std::map<pid_t, pid_t>& parents, pid_t self = 0,
                              const std::set<pid_t>& known = {});

}  // namespace glimmerstrand::platform
