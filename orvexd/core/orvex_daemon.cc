#include "orvexd/core/orvex_daemon.h"

#include <systemd/sd-login.h>

#include <csignal>
#include <cstdlib>
#include <string>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/core/diagnostics_service.h"
#include "orvexd/core/endpoint_service.h"
#include "orvexd/core/orvex_flusher_ipc.h"
#include "orvexd/core/orvex_service.h"
#include "orvexd/core/subscriptions_service.h"
#include "orvexd/feedback/background_activities_manager.h"
#include "orvexd/feedback/client_session_manager.h"
#include "orvexd/feedback/dp_app_deep_link_ingester.h"
#include "orvexd/feedback/dp_periodic_task_manager.h"
#include "orvexd/feedback/orvex_feedback_flusher.h"
#include "orvexd/feedback/persistent_storage.h"
#include "orvexd/feedback/standalone_client_session.h"
#include "orvexd/model/assembly.h"
#include "orvexd/network/app_whitelist_controller.h"
#include "orvexd/network/bag_controller.h"
#include "orvexd/network/download_manager.h"
#include "orvexd/network/network_request_factory.h"
#include "orvexd/network/orvex_subscription_manager.h"
#include "orvexd/network/orvex_subscription_registry.h"
#include "orvexd/network/user_guid_controller.h"
#include "orvexd/platform/activity_scheduler.h"
#include "orvexd/platform/bus_connection.h"
#include "orvexd/platform/bus_system_notifier.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/defaults_store.h"
#include "orvexd/platform/diagnostic_data_reporter.h"
#include "orvexd/platform/file_manager.h"
#include "orvexd/platform/http_session.h"
#include "orvexd/platform/logind_session_state.h"
#include "orvexd/platform/notification_center.h"
#include "orvexd/platform/serial_queue.h"
#include "orvexd/platform/signal_source.h"
#include "orvexd/platform/tracing_setup.h"
#include "orvexd/platform/url_cache.h"
#include "orvexd/platform/worker_pool.h"
#include "orvexd/query/client_state_manager.h"

namespace orvex {

namespace {

const OrvexLog& defaultLog() { return OrvexLogForCategory(kOrvexLogGeneral); }

// What launched the process, when something did: the bus activating our name, or a systemd
// unit. An empty string when the daemon was started by hand.
std::string launchEventName() {
  if (const char* type = std::getenv("DBUS_STARTER_BUS_TYPE"); type != nullptr && *type != '\0') {
    return formatLog("%s (%s bus activation)", kOrvexBusName, type);
  }
  if (std::getenv("INVOCATION_ID") != nullptr) {
    char* unit = nullptr;
    if (sd_pid_get_user_unit(0, &unit) >= 0 || sd_pid_get_unit(0, &unit) >= 0) {
      std::string name(unit);
      std::free(unit);
      return name;
    }
    return "systemd";
  }
  return {};
}

// Values the daemon uses when the defaults store has none of its own.
void registerDefaults(DefaultsStore& defaults) {
  defaults.registerDefaults({
      {kORVSharedSessionKey, PlistValue(true)},
      {kORVSessionSizeLimitKey, PlistValue(int64_t{4194304})},  // 4 MiB
      {kORVSessionMaxAgeKey, PlistValue(int64_t{172800})},      // 48 hours, in seconds
  });
}

// The HTTP sessions. Settings of the device's own HTTP stack that libcurl has no equivalent for
// are named where they would apply; see each function.
std::shared_ptr<HttpSession> makeSession(Assembly& assembly,
                                         HttpSessionConfiguration configuration) {
  return std::make_shared<HttpSession>(std::move(configuration), *assembly.workerPool,
                                       *assembly.clock,
                                       assembly.fileManager->temporaryDirectory().string());
}

// Queries: the URL cache, no cookies, HTTP/2 multiplexing, TCP fast open and TLS session
// resumption unless "ORVNoParallax" is set. Timing is collected for every transfer. libcurl has
// no memory-mapped cache tier (so no minimum size for one) and does not tell cellular from
// other interfaces, so idle connections are closed after 10 s on all of them.
std::shared_ptr<HttpSession> makeMainSession(Assembly& assembly) {
  const bool noParallax = assembly.userDefaults->boolForKey(kORVNoParallaxKey);
  HttpSessionConfiguration configuration;
  configuration.identifier = "main";
  configuration.urlCache = std::make_shared<UrlCache>(
      1048576, 104857600, (assembly.fileManager->cacheDirectory() / "URLCache").string(),
      *assembly.clock);
  configuration.tcpFastOpen = !noParallax;
  configuration.tlsSessionTickets = !noParallax;
  configuration.multiplexing = true;
  configuration.idleConnectionTimeout = std::chrono::seconds(10);
  // A keystroke's answer is a few KiB; its completion parses it, stores it in the query cache and
  // hands the reply to the bus thread, which is cheaper than waking a worker to do it.
  configuration.completeOnNetworkThreadUpTo = 16 * 1024;
  return makeSession(assembly, std::move(configuration));
}

// The bag: no cookies and no response cache, so every fetch reaches the server; idle
// connections closed after 10 s as on the main session.
std::shared_ptr<HttpSession> makeBagSession(Assembly& assembly) {
  HttpSessionConfiguration configuration;
  configuration.identifier = "bag";
  configuration.idleConnectionTimeout = std::chrono::seconds(10);
  return makeSession(assembly, std::move(configuration));
}

// Downloads to files (images, the resource files): no response cache of its own, since what it
// fetches is kept on disk by whoever asked for it (the image fetcher moves images into the main
// session's URL cache). The device's background-transfer settings (discretionary, no metered
// networks) have no libcurl equivalent.
std::shared_ptr<HttpSession> makeDownloadSession(Assembly& assembly) {
  HttpSessionConfiguration configuration;
  configuration.identifier = "download";
  return makeSession(assembly, std::move(configuration));
}

// Uploads: like the bag session, no response cache; its tasks stream their bodies from files.
std::shared_ptr<HttpSession> makeUploadSession(Assembly& assembly) {
  HttpSessionConfiguration configuration;
  configuration.identifier = "upload";
  return makeSession(assembly, std::move(configuration));
}

// The bounds on client input, each overridable by its defaults key.
InputLimits readInputLimits(const DefaultsStore& defaults) {
  InputLimits limits;
  const auto read = [&defaults](const char* key, size_t& bound) {
    if (const int64_t value = defaults.integerForKey(key); value > 0) {
      bound = static_cast<size_t>(value);
    }
  };
  read(kORVMaxIdentifierLengthKey, limits.identifierLength);
  read(kORVMaxUserAgentLengthKey, limits.userAgentLength);
  read(kORVMaxQueryLengthKey, limits.queryStringLength);
  read(kORVMaxQueryItemsKey, limits.queryItemCount);
  read(kORVMaxRecordBytesKey, limits.recordBytes);
  read(kORVMaxImagesPerLoadKey, limits.imageCount);
  return limits;
}

// How the flusher control channel reaches the client connections: the service that holds them is
// made after the components, and run() puts it here before the bus name is owned (so before any
// call can ask). Held weakly: once the service is gone there are no connections.
struct ClientConnectionsSlot {
  std::weak_ptr<OrvexService> service;
};

// Builds every component in start-up order, each receiving the Assembly, and fills every field
// of the Assembly. Nothing else writes into it: once this returns it is only read.
std::shared_ptr<Assembly> assembleComponents(std::shared_ptr<WorkerPool> pool,
                                             std::shared_ptr<FileManager> fileManager,
                                             std::shared_ptr<DefaultsStore> userDefaults,
                                             BusConnection& bus,
                                             std::shared_ptr<ClientConnectionsSlot> connections) {
  auto assembly = std::make_shared<Assembly>(std::move(pool), std::make_shared<SystemClock>());
  assembly->userDefaults = std::move(userDefaults);
  assembly->fileManager = std::move(fileManager);
  assembly->notificationCenter = std::make_shared<NotificationCenter>();
  assembly->systemNotifier = std::make_shared<BusSystemNotifier>(bus);
  assembly->sharedSession = assembly->userDefaults->boolForKey(kORVSharedSessionKey);
  assembly->inputLimits = readInputLimits(*assembly->userDefaults);

  assembly->urlSession = makeMainSession(*assembly);
  auto requestFactory = std::make_shared<ORVNetworkRequestFactory>(
      *assembly,
      DeviceContextServices::system(assembly->fileManager->configDirectory().parent_path()));
  requestFactory->start();
  assembly->requestFactory = requestFactory;
  // Session files before anything records: the sessions open theirs from the first record on.
  assembly->persistentStorage =
      std::make_shared<OrvexPersistentStorage>(*assembly, kORVOrvexdNameVersion);
  assembly->openStandaloneSession = StandaloneClientSession::opener(*assembly);
  assembly->downloadSession = makeDownloadSession(*assembly);
  OrvexDiagnosticDataReporter::addValueForScalarKey(1, kORVCounterLaunch);
  assembly->bagSession = makeBagSession(*assembly);
  assembly->uploadSession = makeUploadSession(*assembly);
  assembly->activityScheduler =
      std::make_shared<ActivityScheduler>(*assembly->workerPool, *assembly->clock);
  // Screen and unlock criteria from the login manager, read when a run that needs them is due.
  assembly->activityScheduler->setSessionStateSource(
      [state = std::make_shared<LogindSessionState>()] { return state->current(); });
  assembly->crowdsourcingFeedbackFlusher = OrvexFeedbackFlusher::initWithAssembly(
      *assembly, OrvexFeedbackFlusher::kIdentifierCrowdsourcing);
  assembly->backgroundFlusher = BackgroundActivitiesManager::initWithAssembly(*assembly);

  auto bagController = std::make_shared<OrvexBagController>(*assembly);
  assembly->bagController = bagController;
  // Observes the bag from here on, so that it sees the first one the controller announces.
  assembly->downloadManager = OrvexDownloadManager::initWithAssembly(
      *assembly, [&assembly = *assembly](const OrvexError& error) {
        ClientSessionManager::reportErrorAsOrvexdFeedback(error, assembly);
      });
  auto clientStateManager = std::make_shared<OrvexClientStateManager>(*assembly);
  assembly->clientStateManager = clientStateManager;
  assembly->guidController = std::make_shared<OrvexUserGUIDController>(*assembly);
  // The subscriptions header: made before the bag controller starts, so that the manager sees
  // the first bag.
  assembly->subscriptionRegistry = std::make_shared<OrvexSubscriptionRegistry>(*assembly);
  assembly->subscriptionManager = OrvexSubscriptionManager::initWithAssembly(
      *assembly, requestFactory->deviceContext().weak_from_this());
  // Reads the whitelist through the download manager, so it comes after it.
  auto appWhitelistController =
      std::make_shared<OrvexAppWhitelistController>(*assembly, MetainfoRoots::fromEnvironment());
  assembly->appWhitelistController = appWhitelistController;
  assembly->clientSessionManager =
      std::make_shared<ClientSessionManager>(*assembly, assembly->guidController, "orvex");

  // The flusher control channel, exported now so that it is there before the name is owned.
  auto flusherIpc =
      std::make_shared<OrvexFlusherIpc>(*assembly, bus, [connections = std::move(connections)] {
        auto service = connections->service.lock();
        return service ? service->getClientConnections()
                       : std::vector<std::shared_ptr<ClientConnection>>();
      });
  flusherIpc->start();
  assembly->flusherIpcListener = flusherIpc;

  // The persisted client states bind to the GUID controller and session manager, and the bag
  // fetch at start reads the GUID: both start once those exist.
  clientStateManager->start();
  appWhitelistController->start();
  bagController->start();
  return assembly;
}

[[noreturn]] void exitOnSignal(const char* name) {
  defaultLog().debug("%s", name);
  flushLogs();
  std::_Exit(0);
}

}  // namespace

OrvexDaemon::OrvexDaemon(DirectoryEnvironment directories) : directories_(std::move(directories)) {}

OrvexDaemon::~OrvexDaemon() = default;

void OrvexDaemon::blockHandledSignals() { SignalSource::blockSignals({SIGINT, SIGTERM}); }

int OrvexDaemon::run() {
  // The process-wide facilities the daemon's components share.
  auto fileManager = std::make_shared<FileManager>(directories_);
  // The daemon's own directories: 0700 whatever the umask, before anything reads from them.
  (void)fileManager->ensureDirectory(fileManager->configDirectory());
  (void)fileManager->ensureDirectory(fileManager->cacheDirectory());
  auto userDefaults =
      std::make_shared<DefaultsStore>(fileManager, DefaultsStore::standardPath(*fileManager));
  auto pool = std::make_shared<WorkerPool>(WorkerPool::defaultThreadCount());

  ORVTracingSetup(*userDefaults);
  registerDefaults(*userDefaults);

  // The bus connection comes first so that components can broadcast from the start; the name
  // is owned only once they all exist.
  std::string error;
  bus_ = BusConnection::connectToSessionBus(&error);
  if (!bus_) {
    defaultLog().fault("cannot connect to the session bus: %@", error);
    flushLogs();
    return EXIT_FAILURE;
  }

  auto clientConnections = std::make_shared<ClientConnectionsSlot>();
  assembly_ = assembleComponents(pool, fileManager, userDefaults, *bus_, clientConnections);

  // Exported before the name is owned, so that a call that activated the daemon finds it.
  service_ = std::make_shared<OrvexService>(*assembly_, *bus_);
  service_->start();
  clientConnections->service = service_;
  endpoint_ = std::make_shared<EndpointService>(*assembly_, *bus_);
  endpoint_->start();
  diagnostics_ = std::make_unique<DiagnosticsService>(bus_->connection(), *assembly_);
  subscriptions_ = std::make_unique<SubscriptionsService>(bus_->connection(), *assembly_);
  dpTaskManager_ = std::make_shared<OrvexDPPeriodicTaskManager>(assembly_->activityScheduler);
  deepLinkIngester_ = std::make_shared<OrvexDPAppDeepLinkIngester>(*assembly_, dpTaskManager_);
  deepLinkIngester_->scheduleMaintenance();
  if (!bus_->requestName(kOrvexBusName, &error)) {
    defaultLog().fault("cannot own the bus name %s: %@", kOrvexBusName, error);
    flushLogs();
    // The components have started work (the bag, the whitelist, the downloads) that holds the
    // Assembly; leave at once, as on SIGTERM, rather than tear them down under it.
    std::_Exit(EXIT_FAILURE);
  }

  ipcEventQueue_ =
      std::make_unique<SerialQueue>("com.zelmor.orvexd.ipc_event", *pool, *assembly_->clock);
  logLaunchEvent();

  // Job A warms the bag: loaded from disk above, or fetched now that nothing is held.
  pool->post([bags = assembly_->bagController] { (void)bags->currentBag(); });
  pool->post([center = assembly_->notificationCenter] { center->post(kORVStartupNotification); });

  installSignalSources();
  if (!bus_->runEventLoop()) {
    // The bus has gone (logout, a bus restart): without it no client can reach the daemon, and
    // whatever must survive is already on disk. Leave at once, as on SIGTERM.
    flushLogs();
    std::_Exit(EXIT_SUCCESS);
  }
  return EXIT_SUCCESS;
}

void OrvexDaemon::logLaunchEvent() {
  ipcEventQueue_->async([] {
    const std::string event = launchEventName();
    if (!event.empty()) defaultLog().info("launch event for %s", event);
  });
}

void OrvexDaemon::installSignalSources() {
  auto& pool = *assembly_->workerPool;
  sigintSource_ = std::make_unique<SignalSource>(pool, SIGINT, [] { exitOnSignal("SIGINT"); });
  sigtermSource_ = std::make_unique<SignalSource>(pool, SIGTERM, [] { exitOnSignal("SIGTERM"); });
}

}  // namespace orvex
