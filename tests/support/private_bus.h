// A private dbus-daemon for tests and benchmarks, and the child processes they start.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sdbus {
class IConnection;
}

namespace orvex::testing {

// A child process started with execvp. Still running at destruction, it is killed (SIGKILL)
// and reaped.
class ChildProcess {
 public:
  // `environment` entries are added to (or override) the current environment; an empty value
  // removes the variable. Standard output and error go to `output` when given.
  ChildProcess(const std::vector<std::string>& argv,
               const std::map<std::string, std::string>& environment = {},
               const std::optional<std::filesystem::path>& output = std::nullopt);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  void signal(int signal) const;
  // The exit status (or 128 + the signal that ended it), when the child ends within `timeout`.
  std::optional<int> waitForExit(std::chrono::milliseconds timeout);

 private:
  pid_t pid_ = -1;
  bool reaped_ = false;
};

// dbus-daemon on a socket in `directory`, with `directory`/services as its activation directory.
// The bus daemon's environment is ours plus `environment`; activated services inherit it, and
// their output goes, with the bus daemon's, to `output` when given.
class PrivateBus {
 public:
  explicit PrivateBus(const std::filesystem::path& directory,
                      const std::map<std::string, std::string>& environment = {},
                      const std::optional<std::filesystem::path>& output = std::nullopt);
  ~PrivateBus();

  const std::string& address() const { return address_; }
  std::filesystem::path serviceDirectory() const { return directory_ / "services"; }
  // Writes an activation file for `name` that runs `exec` (a command line).
  void addActivationFile(const std::string& name, const std::string& exec) const;
  std::unique_ptr<sdbus::IConnection> connect() const;
  // The pid of the connection that owns `name`, when one does.
  static std::optional<pid_t> ownerPid(sdbus::IConnection& connection, const std::string& name);
  static bool hasOwner(sdbus::IConnection& connection, const std::string& name);
  // The bus daemon itself, to end it under its clients.
  ChildProcess& process() const { return *daemon_; }

 private:
  std::filesystem::path directory_;
  std::unique_ptr<ChildProcess> daemon_;
  std::string address_;
};

}  // namespace orvex::testing
