#include "orvexd/network/app_whitelist_controller.h"

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/model/assembly.h"
#include "orvexd/model/interfaces/download_manager.h"
#include "orvexd/network/app_whitelist_signature.h"
#include "orvexd/platform/defaults_store.h"
#include "orvexd/platform/mapped_file.h"
#include "orvexd/platform/worker_pool.h"

namespace orvex {

namespace {

const OrvexLog& whitelistLog() { return OrvexLogForCategory(kOrvexLogGeneral); }

bool isWhitelistNotification(const Notification& notification) {
  const auto* identifier = notification.userInfoValue<std::string>("identifier");
  return identifier != nullptr && *identifier == kORVInstalledAppWhitelist;
}

}  // namespace

OrvexAppWhitelistController::OrvexAppWhitelistController(Assembly& assembly, MetainfoRoots roots,
                                                         InstalledApplicationLimits limits)
    : assembly_(assembly),
      roots_(std::move(roots)),
      limits_(limits),
      queue_("com.zelmor.orvex.AppWhitelistController", *assembly.workerPool, *assembly.clock) {}

void OrvexAppWhitelistController::start() {
  const std::weak_ptr<OrvexAppWhitelistController> weak = weak_from_this();
  downloadObserver_ = assembly_.notificationCenter->addObserver(
      kORVFileDownloadCompletedNotification, nullptr, [weak](const Notification& notification) {
        auto self = weak.lock();
        if (self && isWhitelistNotification(notification)) self->generate();
      });
  deletionObserver_ = assembly_.notificationCenter->addObserver(
      kORVFileDeletedNotification, nullptr, [weak](const Notification& notification) {
        auto self = weak.lock();
        if (!self || !isWhitelistNotification(notification)) return;
        self->queue_.async([weak] {
          if (auto owner = weak.lock()) owner->_clear();
        });
      });
  watcher_ = std::make_unique<InstalledApplicationsWatcher>(*assembly_.workerPool, [weak] {
    if (auto self = weak.lock()) self->installedApplicationsChanged();
  });

  if (auto stored = assembly_.userDefaults->stringForKey(kORVAppWhitelistSignatureKey)) {
    std::lock_guard lock(signatureMutex_);
    whitelistSignature_ = std::move(*stored);
  }
  requestGeneration(true);
}

std::optional<std::string> OrvexAppWhitelistController::whitelistSignature() const {
  std::lock_guard lock(signatureMutex_);
  return whitelistSignature_;
}

void OrvexAppWhitelistController::installedApplicationsChanged() {
  queue_.async([weak = weak_from_this()] {
    auto self = weak.lock();
    if (!self) return;
    const uint64_t generation = ++self->settleGeneration_;
    self->queue_.after(kInstalledAppsSettleDelay, [weak, generation] {
      auto owner = weak.lock();
      if (owner && owner->settleGeneration_ == generation) owner->generate();
    });
  });
}

void OrvexAppWhitelistController::requestGeneration(bool atStart) {
  if (generationPending_.exchange(true)) return;
  queue_.async([weak = weak_from_this(), atStart] {
    if (auto self = weak.lock()) self->_generate(atStart);
  });
}

void OrvexAppWhitelistController::_generate(bool atStart) {
  queue_.assertCurrent("_generate");
  generationPending_ = false;
  whitelistLog().info("generating app whitelist");
  Outcome outcome = Outcome::kComputed;
  auto signature = _computeSignature(outcome);
  if (outcome == Outcome::kScanFailed) return;  // the installed set is unknown: keep what we have
  if (outcome == Outcome::kCouldNotOpenWhitelist && atStart) return;  // until a download
  setSignature(std::move(signature));
}

void OrvexAppWhitelistController::_clear() {
  queue_.assertCurrent("_clear");
  whitelistLog().info("app whitelist deleted, dropping the installed app signature");
  setSignature(std::nullopt);
}

std::optional<std::string> OrvexAppWhitelistController::_computeSignature(Outcome& outcome) {
  // The installed set first, and the directories to watch with it, so that a change made while
  // the whitelist is read is seen by the next run.
  const MetainfoLocations locations = findMetainfoLocations(roots_, limits_);
  if (watcher_) watcher_->watch(locations.watchedDirectories);
  const auto scanned = scanInstalledApplications(locations.metainfoDirectories, limits_);
  if (!scanned) {
    outcome = Outcome::kScanFailed;
    return std::nullopt;
  }
  const InstalledApplicationList& installed = *scanned;
  if (installed.skippedFiles > 0) {
    whitelistLog().info("skipped %zu unusable metainfo files", installed.skippedFiles);
  }

  if (!assembly_.downloadManager) {
    whitelistLog().error("error reading app whitelist %@", "no download manager");
    return std::nullopt;
  }
  outcome = Outcome::kCouldNotOpenWhitelist;
  ResourceFileAttributes attributes;
  OrvexError error;
  auto fd = assembly_.downloadManager->fileHandleForResource(kORVInstalledAppWhitelist, &attributes,
                                                             &error);
  if (!fd) {
    whitelistLog().error("error reading app whitelist %@", error);
    return std::nullopt;
  }
  outcome = Outcome::kComputed;
  if (attributes.size > kAppWhitelistMaxBytes) {
    whitelistLog().error("error reading app whitelist %@",
                         std::to_string(attributes.size).append(" bytes, too large"));
    return std::nullopt;
  }
  int mapError = 0;
  const auto mapped = mmapFileHandle(fd->get(), &mapError);
  if (!mapped) {
    whitelistLog().error("mmap failed %@",
                         std::error_code(mapError, std::generic_category()).message());
    return std::nullopt;
  }
  if (mapped->size() > kAppWhitelistMaxBytes) {  // grew since the attributes were taken
    whitelistLog().error("error reading app whitelist %@",
                         std::to_string(mapped->size()).append(" bytes, too large"));
    return std::nullopt;
  }
  const auto bytes = mapped->bytes();
  std::string problem;
  const auto whitelist = processWhitelist(
      std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()), &problem);
  if (!whitelist) {
    whitelistLog().error("error reading app whitelist %@", problem);
    return std::nullopt;
  }
  if (whitelist->skippedEntries > 0) {
    whitelistLog().info("skipped %zu whitelist entries without a usable encoding_id",
                        whitelist->skippedEntries);
  }

  std::vector<std::string> identifiers;
  for (const InstalledApplication& application : installed.applications) {
    if (application.bundleVersion) identifiers.push_back(application.bundleIdentifier);
  }
  const auto indices = whitelistedIndices(*whitelist, identifiers);
  if (indices.empty()) return std::nullopt;
  const AppBitmap bitmap = makeBitmap(indices);
  auto signature = makeSignature(whitelist->version, bitmap.view());
  if (signature) whitelistLog().info("installed app signature: %@", *signature);
  return signature;
}

void OrvexAppWhitelistController::setSignature(std::optional<std::string> signature) {
  if (signature) {
    (void)assembly_.userDefaults->setObject(kORVAppWhitelistSignatureKey, PlistValue(*signature));
  } else {
    assembly_.userDefaults->removeObjectForKey(kORVAppWhitelistSignatureKey);
  }
  (void)assembly_.userDefaults->synchronize();
  std::lock_guard lock(signatureMutex_);
  whitelistSignature_ = std::move(signature);
}

}  // namespace orvex
