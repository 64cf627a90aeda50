// Computes the installed-app signature (app_whitelist_signature.h) from the downloaded whitelist
// resource and the installed applications, keeps it for the request factory and mirrors it in
// the defaults key "ORVAppWhitelistSignature".
//
// It is computed again when a new whitelist file has been downloaded
// ("ORVFileDownloadCompletedNotification" for the whitelist's key), when the installed
// applications change (the metainfo directories are watched; a burst of changes is answered
// once, kInstalledAppsSettleDelay after it ends), and once at start. At start the stored value is
// taken first, so that a restarted daemon sends the last signature at once; a start-time run
// that cannot open the whitelist (the download manager may not know its files yet) keeps it. A
// run whose scan of the installed applications fails (the probe helper crashed or is missing)
// keeps the signature it has: the installed set is unknown, not empty.
// Deleting the whitelist file ("ORVFileDeletedNotification") clears the signature, so the header
// goes away with its source. Without a download manager there is never a signature.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "orvexd/model/interfaces/app_whitelist_controller.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/installed_applications.h"
#include "orvexd/platform/installed_applications_watcher.h"
#include "orvexd/platform/notification_center.h"
#include "orvexd/platform/serial_queue.h"

namespace orvex {

class Assembly;

class OrvexAppWhitelistController final
    : public AppWhitelistController,
      public std::enable_shared_from_this<OrvexAppWhitelistController> {
 public:
  static constexpr Duration kInstalledAppsSettleDelay = std::chrono::seconds(5);

  // `roots` says where installed applications are found (MetainfoRoots::fromEnvironment() in
  // the daemon; a temporary directory in tests).
  OrvexAppWhitelistController(Assembly& assembly, MetainfoRoots roots,
                              InstalledApplicationLimits limits = {});
  // Observes the notifications, starts watching, restores the stored signature and asks for a
  // generation.
  void start();

  std::optional<std::string> whitelistSignature() const override;

  // Asks for a generation on the queue; returns at once when one is already waiting to run.
  void generate() { requestGeneration(false); }
  // The watcher's report: generates kInstalledAppsSettleDelay after the last report of a burst.
  void installedApplicationsChanged();

 private:
  void requestGeneration(bool atStart);
  // Must run on queue_.
  void _generate(bool atStart);
  void _clear();
  // Why a run gives no signature; kComputed when it gives one or found none to give.
  enum class Outcome { kComputed, kCouldNotOpenWhitelist, kScanFailed };
  // The signature, or none, with the reason logged.
  std::optional<std::string> _computeSignature(Outcome& outcome);
  void setSignature(std::optional<std::string> signature);

  Assembly& assembly_;
  const MetainfoRoots roots_;
  const InstalledApplicationLimits limits_;
  SerialQueue queue_;  // "com.zelmor.orvex.AppWhitelistController"
  // Set while a generation waits on queue_, cleared as it starts reading, so that a request
  // while one waits adds nothing (the waiting one reads the newest files) and one made while a
  // generation reads is not lost.
  std::atomic<bool> generationPending_{false};
  // Owned by queue_: counts the watcher's reports, so only the last of a burst generates.
  uint64_t settleGeneration_ = 0;
  // Guarded by signatureMutex_: read from any thread by the request factory.
  mutable std::mutex signatureMutex_;
  std::optional<std::string> whitelistSignature_;

  // Set by start(), before any job runs; afterwards the watcher is used on queue_ only.
  ObserverToken downloadObserver_;
  ObserverToken deletionObserver_;
  std::unique_ptr<InstalledApplicationsWatcher> watcher_;
};

}  // namespace orvex
