#include "orvexd/platform/probe_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "orvexd/base/orvex_names.h"
#include "orvexd/base/unique_fd.h"

namespace orvex {

namespace {

using SteadyClock = std::chrono::steady_clock;

std::string errnoText(const char* what, int error) {
  std::string text(what);
  text.append(": ").append(std::strerror(error));
  return text;
}

// A spawned child until it has been reaped: one that is given up on is killed first, so that no
// path leaves a zombie or a stray process behind.
class ChildProcess {
 public:
  explicit ChildProcess(pid_t pid) : pid_(pid) {}
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    (void)reap(0);
  }

  pid_t pid() const { return pid_; }

  // The wait status once the child has ended (waiting for it unless `flags` has WNOHANG); none
  // while it runs.
  std::optional<int> reap(int flags) {
    int status = 0;
    pid_t done;
    do {
      done = ::waitpid(pid_, &status, flags);
    } while (done < 0 && errno == EINTR);
    if (done == 0) return std::nullopt;
    pid_ = -1;
    if (done < 0) return -1;  // already reaped elsewhere: no status to tell
    return status;
  }

 private:
  pid_t pid_;
};

// Spawn settings released on every path.
struct SpawnActions {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  SpawnActions() {
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
  }
  ~SpawnActions() {
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
  }
  SpawnActions(const SpawnActions&) = delete;
  SpawnActions& operator=(const SpawnActions&) = delete;
};

// Milliseconds to `deadline` for poll(), rounded up; 0 once it has passed.
int millisecondsUntil(SteadyClock::time_point deadline) {
  const auto left = deadline - SteadyClock::now();
  if (left <= SteadyClock::duration::zero()) return 0;
  return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(left).count());
}

std::string statusFailure(int status) {
  if (WIFEXITED(status)) {
    return std::string("exited with status ").append(std::to_string(WEXITSTATUS(status)));
  }
  if (WIFSIGNALED(status)) {
    return std::string("was killed by signal ").append(std::to_string(WTERMSIG(status)));
  }
  return "ended without a status";
}

std::string timeoutFailure(std::chrono::milliseconds timeout) {
  return std::string("did not finish within ")
      .append(std::to_string(timeout.count()))
      .append(" ms");
}

}  // namespace

ProbeOutcome runProbe(const ProbeRequest& request) {
  ProbeOutcome outcome;
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) {
    outcome.failure = errnoText("pipe", errno);
    return outcome;
  }
  UniqueFd readEnd(ends[0]);
  UniqueFd writeEnd(ends[1]);

  SpawnActions spawn;
  posix_spawn_file_actions_addopen(&spawn.actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&spawn.actions, writeEnd.get(), STDOUT_FILENO);
  // Nothing else of the daemon's leaks in, whether or not it was opened close-on-exec.
  posix_spawn_file_actions_addclosefrom_np(&spawn.actions, STDERR_FILENO + 1);
  // The daemon's threads block the signals it reads through a signalfd; the child starts with
  // none blocked and every disposition at its default.
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&spawn.attributes, &none);
  posix_spawnattr_setsigdefault(&spawn.attributes, &all);
  posix_spawnattr_setflags(&spawn.attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  const std::string program = request.executable.string();
  std::vector<char*> argv{const_cast<char*>(program.c_str())};
  for (const std::string& argument : request.arguments) {
    argv.push_back(const_cast<char*>(argument.c_str()));
  }
  argv.push_back(nullptr);
  std::vector<char*> envp;
  for (const std::string& entry : request.environment) {
    envp.push_back(const_cast<char*>(entry.c_str()));
  }
  envp.push_back(nullptr);

  pid_t pid = -1;
  const int spawnError = ::posix_spawn(&pid, program.c_str(), &spawn.actions, &spawn.attributes,
                                       argv.data(), envp.data());
  if (spawnError != 0) {
    outcome.failure = errnoText(program.c_str(), spawnError);
    return outcome;
  }
  ChildProcess child(pid);
  writeEnd = UniqueFd();  // the child holds the only write end: its exit ends the stream
  (void)::fcntl(readEnd.get(), F_SETFL, O_NONBLOCK);
  // The child's exit, as an event poll() can wait for next to the pipe. A grandchild that keeps
  // the pipe open must not keep the daemon waiting once the child itself has ended.
  UniqueFd exitEvent(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));

  const auto deadline = SteadyClock::now() + request.timeout;
  std::string output;
  bool endOfOutput = false;
  bool exited = false;
  char buffer[64 * 1024];
  while (!endOfOutput && !exited) {
    const int wait = millisecondsUntil(deadline);
    if (wait == 0) {
      outcome.failure = timeoutFailure(request.timeout);
      return outcome;
    }
    pollfd events[2] = {{readEnd.get(), POLLIN, 0}, {exitEvent.get(), POLLIN, 0}};
    // Without a pidfd (an old kernel), the exit is looked for every 10 ms once output has ended.
    const int ready = ::poll(events, exitEvent ? 2 : 1, wait);
    if (ready < 0 && errno != EINTR) {
      outcome.failure = errnoText("poll", errno);
      return outcome;
    }
    exited = exitEvent && (events[1].revents & POLLIN) != 0;
    // Drain what is there: after the exit, all the child wrote is already in the pipe.
    for (;;) {
      const ssize_t got = ::read(readEnd.get(), buffer, sizeof buffer);
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) break;  // EAGAIN: nothing more for now
      if (got == 0) {
        endOfOutput = true;
        break;
      }
      output.append(buffer, static_cast<std::size_t>(got));
      if (output.size() > request.maxOutputBytes) {
        outcome.failure = std::string("printed more than ")
                              .append(std::to_string(request.maxOutputBytes))
                              .append(" bytes");
        return outcome;
      }
    }
  }

  std::optional<int> status;
  while (!(status = child.reap(WNOHANG))) {
    const int wait = millisecondsUntil(deadline);
    if (wait == 0) {
      outcome.failure = timeoutFailure(request.timeout);
      return outcome;
    }
    pollfd event{exitEvent.get(), POLLIN, 0};
    (void)::poll(&event, exitEvent ? 1 : 0, exitEvent ? wait : std::min(wait, 10));
  }
  if (*status == -1 || !WIFEXITED(*status) || WEXITSTATUS(*status) != 0) {
    outcome.failure = *status == -1 ? std::string("could not be reaped") : statusFailure(*status);
    return outcome;
  }
  outcome.output = std::move(output);
  return outcome;
}

std::filesystem::path probeExecutablePath() {
  if (const char* path = std::getenv(kORVProbePathVariable); path != nullptr && *path != '\0') {
    return path;
  }
  std::error_code error;
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error) return kORVProbeExecutableName;  // spawning it fails with a clear reason
  return self.parent_path() / kORVProbeExecutableName;
}

std::vector<std::string> probeEnvironment(const std::vector<const char*>& names) {
  std::vector<std::string> environment;
  const auto add = [&environment](const char* name) {
    if (const char* value = std::getenv(name); value != nullptr) {
      environment.emplace_back(name).append("=").append(value);
    }
  };
  for (const char* name : names) add(name);
  for (const char* name : {"ORVEXD_LOG_LEVEL", "JOURNAL_STREAM"}) add(name);
  return environment;
}

}  // namespace orvex
