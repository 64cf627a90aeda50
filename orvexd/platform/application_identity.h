// Which application a process belongs to, as the daemon names its callers: the Flatpak
// application id, else the application id of the systemd app unit the process runs in, else the
// file name of its executable.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>

namespace orvex {

// Names process `pid`. None (and an error log) when even the executable cannot be read.
// `procRoot` is where /proc is, for tests.
std::optional<std::string> applicationIdForProcess(pid_t pid,
                                                   const std::filesystem::path& procRoot = "/proc");

}  // namespace orvex
