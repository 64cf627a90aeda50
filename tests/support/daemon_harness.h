// The real daemon, as a front-end meets it: orvexd on a private bus, pointed at the reference
// back-end through its defaults, with its own configuration and cache directories.
//
//   testing::DaemonHarness harness(R"({"version": "1", "enabled": true})");
//   harness.start();
//   auto client = harness.client();
//   client->configure({"com.zelmor.glance", "Glance/1"});
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "orvexd/base/property_list.h"
#include "orvexd/client/orvex_client.h"
#include "tests/support/private_bus.h"
#include "tests/support/reference_backend.h"
#include "tests/support/test_environment.h"

namespace orvex::testing {

// A search request as a front-end sends it while the user types `query`.
ORVRequest searchRequest(int64_t queryId, std::string query);

class DaemonHarness {
 public:
  // `bag` is the back-end's bag (JSON, "${BASE_URL}" is the back-end's address); `defaults`
  // joins "ORVBagURL" in the daemon's defaults store; `backendArguments` go on the back-end's
  // command line.
  explicit DaemonHarness(const std::string& bag, PlistDictionary defaults = {},
                         const std::vector<std::string>& backendArguments = {});
  ~DaemonHarness();
  DaemonHarness(const DaemonHarness&) = delete;
  DaemonHarness& operator=(const DaemonHarness&) = delete;

  // Starts the daemon and waits until it owns its name; each launch logs to a file of its own,
  // at `logLevel` (tests read the debug lines; benchmarks want the daemon quiet). The words of
  // ORVEX_TEST_DAEMON_WRAPPER, when it is set, come before the daemon's path on its command line
  // (a profiler, say).
  void start();
  std::string logLevel = "debug";
  // More environment for the daemon (XDG_DATA_DIRS, say), set before start().
  std::map<std::string, std::string> environment;
  // SIGTERM, and the exit status.
  std::optional<int> stop();
  void kill();

  std::unique_ptr<OrvexClient> client() const;
  // A client that has configured itself with `configuration`; throws when the daemon refuses.
  std::unique_ptr<OrvexClient> configuredClient(const ORVSessionConfiguration& configuration) const;
  // The same, once its first BagDidLoad with a bag has come: the daemon then knows the client's
  // user agent and holds the bag for it, which searches need. A search made sooner may find
  // neither (Configure answers before the client's bag is looked up, and the bag's fetch may
  // outlast the second a search waits for it on a loaded machine). Throws after `watchdog`.
  std::unique_ptr<OrvexClient> clientWithBag(
      const ORVSessionConfiguration& configuration,
      std::chrono::milliseconds watchdog = std::chrono::seconds(30)) const;
  std::string daemonLog() const;
  int64_t counter(const std::string& key) const;
  // The bag the daemon holds, as Diagnostics.GetBag answers it ("" while it holds none).
  std::string heldBag() const;

  const std::filesystem::path& directory() const { return dir_.path(); }
  std::filesystem::path cacheDirectory() const { return dir_.path() / "cache"; }
  // The daemon's $TMPDIR, its own so that tests can see what it leaves there.
  std::filesystem::path tmpDirectory() const { return dir_.path() / "tmp"; }
  const PrivateBus& bus() const { return bus_; }
  ReferenceBackend& backend() { return *backend_; }
  ChildProcess* daemon() const { return daemon_.get(); }

 private:
  TempDir dir_;
  TempDir busDir_;
  PrivateBus bus_{busDir_.path()};
  std::unique_ptr<ReferenceBackend> backend_;
  std::unique_ptr<sdbus::IConnection> connection_;
  std::unique_ptr<ChildProcess> daemon_;
  int launches_ = 0;
  std::filesystem::path logFile_;
};

}  // namespace orvex::testing
