#include "tests/support/private_bus.h"

#include <fcntl.h>
#include <poll.h>
#include <sdbus-c++/sdbus-c++.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "tests/support/test_environment.h"

extern char** environ;

namespace orvex::testing {

ChildProcess::ChildProcess(const std::vector<std::string>& argv,
                           const std::map<std::string, std::string>& environment,
                           const std::optional<std::filesystem::path>& output) {
  std::map<std::string, std::string> merged;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    std::string_view text(*entry);
    const auto equals = text.find('=');
    if (equals == std::string_view::npos) continue;
    merged[std::string(text.substr(0, equals))] = std::string(text.substr(equals + 1));
  }
  for (const auto& [name, value] : environment) {
    if (value.empty()) {
      merged.erase(name);
    } else {
      merged[name] = value;
    }
  }
  std::vector<std::string> envStrings;
  for (const auto& [name, value] : merged) envStrings.push_back(name + "=" + value);
  std::vector<char*> envp;
  for (auto& entry : envStrings) envp.push_back(entry.data());
  envp.push_back(nullptr);
  std::vector<std::string> args = argv;
  std::vector<char*> argp;
  for (auto& arg : args) argp.push_back(arg.data());
  argp.push_back(nullptr);

  int outputFd = -1;
  if (output) {
    outputFd = ::open(output->c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  }
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    // The child starts with no signal blocked, whatever the test process blocks.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (outputFd >= 0) {
      dup2(outputFd, STDOUT_FILENO);
      dup2(outputFd, STDERR_FILENO);
    }
    execvpe(argp[0], argp.data(), envp.data());
    _exit(127);
  }
  if (outputFd >= 0) ::close(outputFd);
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0 && !reaped_) {
    ::kill(pid_, SIGKILL);
    int status = 0;
    waitpid(pid_, &status, 0);
  }
}

void ChildProcess::signal(int signal) const {
  if (pid_ > 0 && !reaped_) ::kill(pid_, signal);
}

std::optional<int> ChildProcess::waitForExit(std::chrono::milliseconds timeout) {
  int status = 0;
  if (reaped_ || !eventually([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, timeout)) {
    return std::nullopt;
  }
  reaped_ = true;
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return std::nullopt;
}

PrivateBus::PrivateBus(const std::filesystem::path& directory,
                       const std::map<std::string, std::string>& environment,
                       const std::optional<std::filesystem::path>& output)
    : directory_(directory) {
  std::filesystem::create_directories(serviceDirectory());
  const auto config = directory_ / "bus.conf";
  {
    std::ofstream out(config);
    out << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
           " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig>\n  <type>session</type>\n"
        << "  <listen>unix:path=" << (directory_ / "bus").string() << "</listen>\n"
        << "  <servicedir>" << serviceDirectory().string()
        << "</servicedir>\n"
        // Any user may connect: tests play peers of other users than the daemon's.
        << "  <policy context=\"default\">\n    <allow user=\"*\"/>\n"
           "    <allow send_destination=\"*\" "
           "eavesdrop=\"true\"/>\n"
           "    <allow eavesdrop=\"true\"/>\n    <allow own=\"*\"/>\n  </policy>\n"
           "</busconfig>\n";
  }
  int pipeFds[2];
  if (pipe(pipeFds) != 0) throw std::runtime_error("pipe failed");
  // The write end must survive exec in the bus daemon.
  daemon_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{"dbus-daemon", "--nofork", "--config-file=" + config.string(),
                               "--print-address=" + std::to_string(pipeFds[1])},
      environment, output);
  ::close(pipeFds[1]);
  std::string text;
  pollfd poller{pipeFds[0], POLLIN, 0};
  char buffer[512];
  while (text.find('\n') == std::string::npos && poll(&poller, 1, 10000) > 0) {
    const ssize_t got = read(pipeFds[0], buffer, sizeof buffer);
    if (got <= 0) break;
    text.append(buffer, static_cast<std::size_t>(got));
  }
  ::close(pipeFds[0]);
  if (text.find('\n') == std::string::npos) throw std::runtime_error("dbus-daemon did not start");
  address_ = text.substr(0, text.find('\n'));
}

PrivateBus::~PrivateBus() = default;

void PrivateBus::addActivationFile(const std::string& name, const std::string& exec) const {
  std::ofstream out(serviceDirectory() / (name + ".service"));
  out << "[D-BUS Service]\nName=" << name << "\nExec=" << exec << "\n";
}

std::unique_ptr<sdbus::IConnection> PrivateBus::connect() const {
  return sdbus::createSessionBusConnectionWithAddress(address_);
}

std::optional<pid_t> PrivateBus::ownerPid(sdbus::IConnection& connection, const std::string& name) {
  auto proxy = sdbus::createProxy(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus");
  try {
    uint32_t pid = 0;
    proxy->callMethod("GetConnectionUnixProcessID")
        .onInterface("org.freedesktop.DBus")
        .withArguments(name)
        .storeResultsTo(pid);
    return static_cast<pid_t>(pid);
  } catch (const sdbus::Error&) {
    return std::nullopt;
  }
}

bool PrivateBus::hasOwner(sdbus::IConnection& connection, const std::string& name) {
  auto proxy = sdbus::createProxy(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus");
  bool owned = false;
  proxy->callMethod("NameHasOwner")
      .onInterface("org.freedesktop.DBus")
      .withArguments(name)
      .storeResultsTo(owned);
  return owned;
}

}  // namespace orvex::testing
