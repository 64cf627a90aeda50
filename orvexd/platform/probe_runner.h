// Runs the probe helper (orvexd-probe) for a batch computation the daemon keeps out of its own
// process: the locale through ICU's locale data, the installed applications through AppStream.
// Those libraries would otherwise stay mapped, and partly written, for the daemon's whole life
// for work done at start-up and when the locale or the installed applications change; in a child
// process a hostile locale or metainfo file also cannot crash the daemon.
//
// The child gets no shell, only the environment it is given, /dev/null as standard input and the
// daemon's standard error (its log lines go where the daemon's go); its standard output is read
// through a pipe up to a limit. It is killed when it runs past its time-out and always reaped.
// Blocks the calling thread until the child is done: call it from a queue that may wait.
#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace orvex {

struct ProbeRequest {
  std::filesystem::path executable;
  std::vector<std::string> arguments;    // after the program name
  std::vector<std::string> environment;  // "NAME=value", the child's whole environment
  std::size_t maxOutputBytes = std::size_t{1024} * 1024;
  // Measured on the monotonic clock: a deadline for another process, not daemon time.
  std::chrono::milliseconds timeout = std::chrono::seconds(10);
};

struct ProbeOutcome {
  std::optional<std::string> output;  // what the child printed, when it exited with status 0
  std::string failure;                // otherwise why not, for the log
};

ProbeOutcome runProbe(const ProbeRequest& request);

// The helper's path: $ORVEXD_PROBE when set, else orvexd-probe next to the running executable.
std::filesystem::path probeExecutablePath();

// "NAME=value" for each of `names` set in this process's environment, to hand on to the helper.
// The log's own variables (its level, the journal connection) always come along.
std::vector<std::string> probeEnvironment(const std::vector<const char*>& names);

}  // namespace orvex
