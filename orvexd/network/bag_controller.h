// The bag controller owns the daemon's one current bag; every other component reads
// configuration through it.
//
// OrvexBagController keeps the bag in memory, mirrors it to "bag.plist" in the daemon's cache
// directory so that a restarted daemon starts with the last bag, decides when it is stale and
// fetches a new one, one fetch at a time. There is no refresh timer: a stale bag is replaced
// when somebody asks for it (currentBag, cachedBagState), when the request factory reports that
// the locale or country changed ("ORVBagRefreshRequired"), or when a search answer announces a
// newer version (forceFetchBag). A stale bag stays in use until its successor arrives, and a
// failed fetch never removes it.
//
// After a failed fetch none of those triggers starts another before the back-off has passed
// (BagFetchBackoff: 1 s doubling to 5 minutes, at least a 429's or 503's Retry-After). A fetch is
// abandoned, and fails, once it has taken the bag request time-out in all ("ORVBagRequestTimeout"
// seconds, else the bag session's request time-out), however slowly its answer trickles in. Each
// fetch is recorded (start, end, error) in a stand-alone session of its own
// (Assembly::openStandaloneSession), never in a client's.
//
// Every stored bag is announced with "ORVBagChangeNotification" {"bag": shared_ptr<const
// ORVBag>}, every failed fetch with "ORVBagChangeNotification" {"bagError": OrvexError}. Both
// are posted while the store excludes readers: observers run on the storing thread and must not
// call currentBag() or cachedBagState() synchronously (they hop to their own queue instead).
// When the bag's "enabled" as seen by the news client flips with a fetched bag, the system
// notify name kORVNotifyEnabled or kORVNotifyDisabled is broadcast.
#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "orvexd/base/orvex_error.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/model/interfaces/bag_controller.h"
#include "orvexd/model/orv_bag.h"
#include "orvexd/network/bag_fetch_backoff.h"
#include "orvexd/platform/http_session.h"
#include "orvexd/platform/notification_center.h"
#include "orvexd/platform/reader_writer_queue.h"

namespace orvex {

class Assembly;

// The endpoints used when the defaults key "ORVBagURL" names none.
inline constexpr const char* kORVDefaultBagURL = "https://bag.search.zelmor.com/bag";
inline constexpr const char* kORVChinaBagURL = "https://bag.search.zelmor.cn/bag";

class OrvexBagController final : public BagController,
                                 public std::enable_shared_from_this<OrvexBagController> {
 public:
  // Lifetime written into "__expiration", and the margin within which a bag counts as expired.
  static constexpr Duration kBagLifetime = std::chrono::seconds(14400);
  static constexpr Duration kEarlyRefreshMargin = std::chrono::seconds(600);
  // Keys the controller adds to the server's dictionary.
  static constexpr const char* kExpirationKey = "__expiration";
  static constexpr const char* kBagURLKey = "__bagurl";

  using FetchCompletion =
      std::function<void(std::shared_ptr<const ORVBag>, std::optional<OrvexError>)>;

  explicit OrvexBagController(Assembly& assembly);
  ~OrvexBagController() override;
  // Loads the disk copy (which starts a fetch when it is stale) and starts observing
  // "ORVBagRefreshRequired" from the request factory. Call once, when the controller is owned
  // by a shared_ptr and the request factory is in the Assembly.
  void start();

  std::shared_ptr<const ORVBag> currentBag() override;
  std::shared_ptr<const ORVBag> cachedBagState() override;
  std::optional<std::string> warmURL() override;
  void forceFetchBag(const BagDictionary& response) override;
  // The bag endpoint for a device country: the defaults' "ORVBagURL", else the country's.
  std::string bagFetchURLWithCountry(const std::string& countryCode);

  const std::string& userAgent() const { return userAgent_; }

 private:
  void _handleRefreshNotification();
  bool _isRefreshRequiredForCachedBag(const BagDictionary& dictionary);
  // The disk copy, if one can be read; `stale` tells whether it needs refreshing.
  std::optional<BagDictionary> diskCachedBagDictionary(bool* stale);
  std::optional<std::filesystem::path> _pathToCachedBag(std::error_code* error);
  BagDictionary _dictionaryToCacheBag(const BagDictionary& dictionary);
  BagDictionary cacheBagDictionary(const BagDictionary& dictionary);
  void cacheBagState(std::shared_ptr<const ORVBag> bag, bool fromDisk);
  // Starts a fetch unless one is running or the back-off forbids it (the version asked for is
  // then dropped).
  void _fetchBagStateWithVersion(std::optional<std::string> version);
  // Whether a trigger now could start a fetch.
  bool fetchMayStart() const;
  // How long one fetch may take in all.
  Duration bagRequestTimeout() const;
  // Ends the back-off after a fetch that brought a bag, else lengthens it.
  void fetchEnded(bool gotBag, const std::optional<HttpResponse>& response);
  // One fetch; `completion`, when given, runs on the bag session's callback queue.
  void _fetchBagStateWithVersion(std::optional<std::string> version, FetchCompletion completion);
  // The outcome of one fetch's answer: the bag stored, or the error to report (neither for a
  // body that is a JSON object but cannot be taken).
  std::optional<OrvexError> _takeFetchedBag(const HttpDataResult& result,
                                            std::shared_ptr<const ORVBag>& stored);
  // The bag-cache URL as the request factory builds it now; empty when it cannot.
  std::string currentBagCacheURL();

  Assembly& assembly_;
  // The daemon's own user agent, which selects the bag's per-agent values for the daemon.
  const std::string userAgent_;
  // The current bag: read in shared sections, replaced in exclusive ones
  // ("com.zelmor.orvexd.bagcontroller.cacheaccess").
  ReaderWriterQueue<std::shared_ptr<const ORVBag>> inMemoryBagCacheAccessQueue_;
  // Set while a fetch is outstanding; any thread sets it by exchange and the fetch's completion
  // clears it.
  std::atomic<bool> fetchInProgress_{false};
  BagFetchBackoff backoff_;        // thread-safe on its own
  ObserverToken refreshObserver_;  // written once by start()
};

}  // namespace orvex
