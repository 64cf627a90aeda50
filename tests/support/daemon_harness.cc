#include "tests/support/daemon_harness.h"

#include <sdbus-c++/sdbus-c++.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "tests/support/collector.h"

namespace orvex::testing {

using namespace std::chrono_literals;

ORVRequest searchRequest(int64_t queryId, std::string query) {
  ORVRequest request;
  request.queryId = queryId;
  request.clientQueryId = static_cast<uint64_t>(queryId);
  request.queryString = std::move(query);
  request.keyboardInputMode = "en_US";
  request.scale = 2;
  return request;
}

DaemonHarness::DaemonHarness(const std::string& bag, PlistDictionary defaults,
                             const std::vector<std::string>& backendArguments) {
  std::ofstream(dir_.path() / "bag.json") << bag;
  backend_ = std::make_unique<ReferenceBackend>(dir_.path() / "bag.json", backendArguments);
  const auto config = dir_.path() / "config" / "com.zelmor.orvexd";
  std::filesystem::create_directories(config);
  defaults.insert_or_assign("ORVBagURL", PlistValue(backend_->baseUrl() + "/bag"));
  const auto bytes = serializePropertyList(PlistValue(std::move(defaults)), PlistFormat::kXml);
  std::ofstream(config / "defaults.plist", std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
  connection_ = bus_.connect();
}

DaemonHarness::~DaemonHarness() {
  if (daemon_) (void)stop();
}

void DaemonHarness::start() {
  logFile_ = dir_.path() / ("orvexd-" + std::to_string(++launches_) + ".log");
  std::filesystem::create_directories(tmpDirectory());
  auto variables = environment;
  variables.insert({{"DBUS_SESSION_BUS_ADDRESS", bus_.address()},
                    {"XDG_CONFIG_HOME", (dir_.path() / "config").string()},
                    {"XDG_CACHE_HOME", cacheDirectory().string()},
                    {"TMPDIR", tmpDirectory().string()},
                    {"ORVEXD_LOG_LEVEL", logLevel},
                    {"JOURNAL_STREAM", ""},
                    {"INVOCATION_ID", ""}});
  std::vector<std::string> command;
  if (const char* wrapper = std::getenv("ORVEX_TEST_DAEMON_WRAPPER")) {
    std::istringstream words(wrapper);
    for (std::string word; words >> word;) command.push_back(word);
  }
  command.emplace_back(ORVEXD_BINARY);
  daemon_ = std::make_unique<ChildProcess>(command, variables, logFile_);
  if (!eventually([&] { return PrivateBus::hasOwner(*connection_, "com.zelmor.orvexd"); }, 10s)) {
    throw std::runtime_error("orvexd did not take its name:\n" + daemonLog());
  }
}

std::optional<int> DaemonHarness::stop() {
  if (!daemon_) return std::nullopt;
  daemon_->signal(SIGTERM);
  auto status = daemon_->waitForExit(5s);
  daemon_.reset();
  return status;
}

void DaemonHarness::kill() {
  if (!daemon_) return;
  daemon_->signal(SIGKILL);
  (void)daemon_->waitForExit(5s);
  daemon_.reset();
}

std::unique_ptr<OrvexClient> DaemonHarness::client() const {
  std::string error;
  auto client = OrvexClient::connect(&error, bus_.address());
  if (!client) throw std::runtime_error("cannot connect to the private bus: " + error);
  return client;
}

std::unique_ptr<OrvexClient> DaemonHarness::configuredClient(
    const ORVSessionConfiguration& configuration) const {
  auto configured = client();
  auto endpoint = configured->configure(configuration);
  if (!endpoint) throw std::runtime_error("configure refused: " + endpoint.error().message);
  return configured;
}

std::unique_ptr<OrvexClient> DaemonHarness::clientWithBag(
    const ORVSessionConfiguration& configuration, std::chrono::milliseconds watchdog) const {
  auto configured = client();
  // Later signals may come at any time: the collector lives as long as the handler.
  auto bags = std::make_shared<Collector<bool>>();
  configured->onBagDidLoad([bags](std::shared_ptr<const ORVBag> bag, std::optional<OrvexError>) {
    if (bag) bags->add(true);
  });
  auto endpoint = configured->configure(configuration);
  if (!endpoint) throw std::runtime_error("configure refused: " + endpoint.error().message);
  if (!bags->waitForCount(1, watchdog)) {
    throw std::runtime_error("no BagDidLoad with a bag came:\n" + daemonLog());
  }
  return configured;
}

std::string DaemonHarness::heldBag() const {
  auto proxy = sdbus::createProxy(*connection_, "com.zelmor.orvexd", "/com/zelmor/orvexd");
  std::string bag;
  proxy->callMethod("GetBag").onInterface("com.zelmor.orvexd.Diagnostics").storeResultsTo(bag);
  return bag;
}

std::string DaemonHarness::daemonLog() const { return readTextFile(logFile_); }

int64_t DaemonHarness::counter(const std::string& key) const {
  auto counters = client()->counters();
  if (!counters) return 0;
  const auto found = counters.value().find(key);
  return found == counters.value().end() ? 0 : found->second;
}

}  // namespace orvex::testing
