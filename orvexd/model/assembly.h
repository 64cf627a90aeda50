// The Assembly holds every long-lived component of the daemon. One start-up function
// (assembleComponents, in core/orvex_daemon.cc) creates the components in a fixed order, each
// receiving the Assembly, and stores them here; components reach their peers only through it, by
// the abstract interfaces in model/interfaces/, and never write into it.
//
// Besides the components, the Assembly carries the platform facilities they share: the worker
// pool their queues run on, the clock, the defaults store, the file manager and the in-process
// notification centre. Fields are written during start-up, on the main thread, before any
// component can run; afterwards they are only read, from any thread.
//
// Components keep a reference to the Assembly (it owns them, so it outlives them); work they
// post that may outlive them holds them weakly.
#pragma once

#include <memory>

#include "orvexd/model/input_limits.h"
#include "orvexd/model/interfaces/standalone_session.h"

namespace orvex {

class Clock;
class DefaultsStore;
class FileManager;
class NotificationCenter;
class SystemNotifier;
class WorkerPool;
class ActivityScheduler;
class AppWhitelistController;
class DownloadManager;
class BackgroundFlusher;
class FeedbackFlusher;
class FlusherListener;
class BagController;
class ClientStateManager;
class GUIDController;
class HttpSession;
class NetworkRequestFactory;
class PersistentStorage;
class SessionManager;
class SubscriptionManager;
class SubscriptionRegistry;

class Assembly {
 public:
  // The platform facilities every component needs. `clock` runs its timers on `workerPool`
  // (or on the test that drives it).
  Assembly(std::shared_ptr<WorkerPool> workerPool, std::shared_ptr<Clock> clock);
  // Members are released in the reverse of their declaration: components before the platform
  // facilities they run on.
  ~Assembly();
  Assembly(const Assembly&) = delete;
  Assembly& operator=(const Assembly&) = delete;

  // Platform. Declared first so they are released last.
  std::shared_ptr<WorkerPool> workerPool;
  std::shared_ptr<Clock> clock;

  // Set by start-up.
  std::shared_ptr<DefaultsStore> userDefaults;
  std::shared_ptr<FileManager> fileManager;
  std::shared_ptr<NotificationCenter> notificationCenter;
  // System-wide notify names; none when the daemon has no bus (tests of single components).
  std::shared_ptr<SystemNotifier> systemNotifier;

  // HTTP sessions, set by start-up: the main session for queries (with the URL cache, which
  // also keeps the images), the bag session, the download session that fetches images and
  // resource files to disk, and the background upload session the flushers send on.
  std::shared_ptr<HttpSession> urlSession;
  std::shared_ptr<HttpSession> bagSession;
  std::shared_ptr<HttpSession> downloadSession;
  std::shared_ptr<HttpSession> uploadSession;
  // Repeating background jobs (the periodic upload).
  std::shared_ptr<ActivityScheduler> activityScheduler;

  // Components, in the order start-up creates them.
  std::shared_ptr<NetworkRequestFactory> requestFactory;
  std::shared_ptr<BagController> bagController;
  std::shared_ptr<ClientStateManager> clientStateManager;
  // The bag's data files on the device; made once the bag controller exists.
  std::shared_ptr<DownloadManager> downloadManager;
  std::shared_ptr<AppWhitelistController> appWhitelistController;
  std::shared_ptr<GUIDController> guidController;
  // What providers published of the user's subscriptions, and the manager that turns it into
  // the subscriptions header.
  std::shared_ptr<SubscriptionRegistry> subscriptionRegistry;
  std::shared_ptr<SubscriptionManager> subscriptionManager;
  // The daemon's own session manager ("orvex"): every client's when sessions are shared, and the
  // one that takes the daemon's own records.
  std::shared_ptr<SessionManager> clientSessionManager;
  // The session files; set by start-up once the feedback pipeline is wired.
  std::shared_ptr<PersistentStorage> persistentStorage;
  // Opens a session outside every session manager (each bag fetch is recorded in one); unset,
  // such records are not kept.
  StandaloneSessionOpener openStandaloneSession;
  // Uploads crowdsourcing records (identifier 0); the feedback flusher is the background
  // flusher's own.
  std::shared_ptr<FeedbackFlusher> crowdsourcingFeedbackFlusher;
  // Runs the flush activity, on its schedule and on demand.
  std::shared_ptr<BackgroundFlusher> backgroundFlusher;
  // The flusher control channel (D-Bus object /com/zelmor/orvexd/Flusher); none without a bus.
  std::shared_ptr<FlusherListener> flusherIpcListener;

  // Value of the defaults key "ORVSharedSession".
  bool sharedSession = false;
  // Bounds on what clients may send, from their defaults keys.
  InputLimits inputLimits;
};

}  // namespace orvex
