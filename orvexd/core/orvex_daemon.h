// The daemon's start-up sequence and main loop.
//
// run() performs start-up on the calling (main) thread, in a fixed order: the trace switch, the
// registered defaults, the Assembly with its platform facilities, the components, the launch
// counter, the Diagnostics and Subscriptions objects, the deep-link ingestion's maintenance task,
// the bus name, the launch-event log, the "ORVStartup" notification, the SIGINT and SIGTERM
// sources, and finally the bus event loop, which it runs for the life of the process. SIGINT and
// SIGTERM end the process with status 0 at once.
#pragma once

#include <memory>

#include "orvexd/platform/file_manager.h"

namespace orvex {

class Assembly;
class BusConnection;
class DiagnosticsService;
class EndpointService;
class OrvexDPAppDeepLinkIngester;
class OrvexDPPeriodicTaskManager;
class OrvexService;
class SerialQueue;
class SignalSource;
class SubscriptionsService;

class OrvexDaemon {
 public:
  explicit OrvexDaemon(DirectoryEnvironment directories);
  ~OrvexDaemon();
  OrvexDaemon(const OrvexDaemon&) = delete;
  OrvexDaemon& operator=(const OrvexDaemon&) = delete;

  // Returns only when the daemon cannot reach the bus (status 1) or its main loop stops (status
  // 0). A daemon that cannot own its name exits at once with status 1.
  int run();

  // The signals the daemon handles; main() blocks them before anything else starts a thread.
  static void blockHandledSignals();

 private:
  void logLaunchEvent();
  void installSignalSources();

  DirectoryEnvironment directories_;
  // The bus outlives the Assembly, whose components may hold objects registered on it.
  std::unique_ptr<BusConnection> bus_;
  std::shared_ptr<Assembly> assembly_;
  std::shared_ptr<OrvexService> service_;
  std::shared_ptr<EndpointService> endpoint_;
  std::unique_ptr<DiagnosticsService> diagnostics_;
  std::unique_ptr<SubscriptionsService> subscriptions_;
  // The differential-privacy maintenance: the deep-link ingestion, run by the task manager on
  // the Assembly's activity scheduler. Nothing else reaches them.
  std::shared_ptr<OrvexDPPeriodicTaskManager> dpTaskManager_;
  std::shared_ptr<OrvexDPAppDeepLinkIngester> deepLinkIngester_;
  std::unique_ptr<SerialQueue> ipcEventQueue_;
  std::unique_ptr<SignalSource> sigintSource_;
  std::unique_ptr<SignalSource> sigtermSource_;
};

}  // namespace orvex
