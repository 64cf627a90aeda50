#include "orvexd/network/bag_controller.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <utility>
#include <vector>

#include "orvexd/base/json_limits.h"
#include "orvexd/base/json_property_list.h"
#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/base/text_util.h"
#include "orvexd/model/assembly.h"
#include "orvexd/model/interfaces/standalone_session.h"
#include "orvexd/model/nb_feedback.h"
#include "orvexd/network/flags.h"
#include "orvexd/network/network_feedback.h"
#include "orvexd/network/network_request_factory.h"
#include "orvexd/network/retryable_network_request.h"
#include "orvexd/network/user_guid_controller.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/defaults_store.h"
#include "orvexd/platform/diagnostic_data_reporter.h"
#include "orvexd/platform/file_manager.h"
#include "orvexd/platform/notification_center.h"
#include "orvexd/platform/process_transaction.h"
#include "orvexd/platform/system_notifier.h"
#include "orvexd/platform/worker_pool.h"

namespace orvex {

namespace {

const OrvexLog& bagLog() { return OrvexLogForCategory(kOrvexLogBag); }

// Error code of every bag fetch failure the controller itself detects.
constexpr int64_t kBagFetchErrorCode = 2;

OrvexError bagFetchError(std::string reason) {
  return OrvexError(kORVErrorDomain, kBagFetchErrorCode, std::move(reason));
}

// Trigger and endpoint of the start record of a bag fetch (their indices in the tables of the
// record's fields).
constexpr uint32_t kBagFetchTriggerEvent = 16;
constexpr uint32_t kBagEndpoint = 10;

double secondsSince1970(WallTime time) {
  return std::chrono::duration<double>(time.time_since_epoch()).count();
}

double secondsOf(Duration duration) { return std::chrono::duration<double>(duration).count(); }

// The largest bag document read from the network. Bags are a few kilobytes; the bound keeps a
// broken back-end from making the daemon build a huge tree.
constexpr size_t kMaxBagBytes = size_t{8} << 20;  // 8 MiB

// Whether the bag enables the news client: 0 or 1, and 2 when there is no bag.
unsigned long newsStatus(const std::shared_ptr<const ORVBag>& bag) {
  if (!bag) return 2;
  const auto news = ORVBag::initWithBag(*bag, kORVNewsUserAgent);
  return news && news->isEnabled() ? 1 : 0;
}

}  // namespace

OrvexBagController::OrvexBagController(Assembly& assembly)
    : assembly_(assembly),
      userAgent_(kORVOrvexdNameVersion),
      inMemoryBagCacheAccessQueue_("com.zelmor.orvexd.bagcontroller.cacheaccess",
                                   *assembly.workerPool, *assembly.clock) {}

OrvexBagController::~OrvexBagController() = default;

void OrvexBagController::start() {
  // The disk copy is stored before a refresh of it can start, so that the refreshed bag can
  // never be overwritten by the older one.
  bool stale = false;
  if (auto dictionary = diskCachedBagDictionary(&stale)) {
    if (auto bag = ORVBag::initWithDictionary(std::move(*dictionary), userAgent_)) {
      cacheBagState(std::move(bag), /*fromDisk=*/true);
    }
  }
  if (stale) _fetchBagStateWithVersion(std::nullopt);

  // Only the request factory's posts count. They come from its context queue, which the
  // staleness check calls into, so the check runs on the worker pool instead.
  const auto* factory = static_cast<const NetworkRequestFactory*>(assembly_.requestFactory.get());
  refreshObserver_ = assembly_.notificationCenter->addObserver(
      kORVBagRefreshRequiredNotification, factory,
      [weak = weak_from_this(), pool = assembly_.workerPool](const Notification&) {
        pool->post([weak] {
          if (auto self = weak.lock()) self->_handleRefreshNotification();
        });
      });
}

std::shared_ptr<const ORVBag> OrvexBagController::currentBag() {
  auto bag = cachedBagState();
  if (!bag) _fetchBagStateWithVersion(std::nullopt);
  return bag;
}

std::shared_ptr<const ORVBag> OrvexBagController::cachedBagState() {
  auto bag = inMemoryBagCacheAccessQueue_.read([](const auto& held) { return held; });
  // While a fetch runs or the controller backs off after failed ones, no read could start a
  // fetch: the bag is not even judged.
  if (bag && fetchMayStart() && _isRefreshRequiredForCachedBag(bag->rawBag())) {
    assembly_.workerPool->post([weak = weak_from_this()] {
      if (auto self = weak.lock()) self->_fetchBagStateWithVersion(std::nullopt);
    });
  }
  return bag;
}

std::optional<std::string> OrvexBagController::warmURL() {
  const auto bag = currentBag();
  return bag ? bag->warmURL() : std::nullopt;
}

std::string OrvexBagController::bagFetchURLWithCountry(const std::string& countryCode) {
  const std::string configured =
      assembly_.userDefaults->stringForKey(kORVBagURLKey).value_or(std::string());
  if (!configured.empty()) {
    if (OrvexURLRequestBuilder::requestBuilderWithURL(configured)) return configured;
    bagLog().error("Malformed orvex bag URL in user defaults key %@", kORVBagURLKey);
  }
  std::string country = countryCode;
  for (char& c : country) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return country == "CN" ? kORVChinaBagURL : kORVDefaultBagURL;
}

void OrvexBagController::forceFetchBag(const BagDictionary& response) {
  const std::string current = inMemoryBagCacheAccessQueue_.read(
      [](const auto& held) { return held ? held->version() : std::string(); });
  const auto found = response.is_object() ? response.find("bag") : response.end();
  if (found == response.end() || !found->is_number()) return;
  std::string announced;
  if (found->is_number_float()) {
    const double value = found->get<double>();
    if (!std::isfinite(value)) return;
    // A whole number reads as an integer ("10", not "10.0"); "10.5" keeps its fraction, in the
    // shortest text that reads back as the same number.
    announced = value == std::trunc(value) && std::abs(value) < 9.0e15
                    ? std::to_string(saturatingInt64(value))
                    : found->dump();
  } else {
    announced = found->dump();  // integers print as their decimal text
  }
  // With no bag held the comparison is made against nothing, which reads as the same.
  if (!current.empty() && compareNumeric(current, announced) == std::strong_ordering::less) {
    _fetchBagStateWithVersion(announced);
  }
}

void OrvexBagController::_handleRefreshNotification() {
  bagLog().debug(
      "something significant changed (locale, geo). checking to see if bag needs update");
  // With no bag held the check sees no expiry, which reads as expired.
  const auto held = inMemoryBagCacheAccessQueue_.read([](const auto& bag) { return bag; });
  if (_isRefreshRequiredForCachedBag(held ? held->rawBag() : BagDictionary::object())) {
    _fetchBagStateWithVersion(std::nullopt);
  }
}

bool OrvexBagController::_isRefreshRequiredForCachedBag(const BagDictionary& dictionary) {
  const auto expirationEntry = dictionary.find(kExpirationKey);
  const double expiration = expirationEntry != dictionary.end() && expirationEntry->is_number()
                                ? expirationEntry->get<double>()
                                : 0;
  const double remaining = expiration - secondsSince1970(assembly_.clock->wallNow());
  if (!(remaining >= std::chrono::duration<double>(kEarlyRefreshMargin).count())) {
    bagLog().info("bag expired: %f", remaining);
    OrvexDiagnosticDataReporter::addValueForScalarKey(1, kORVCounterBagExpired);
    return true;
  }
  const auto cachedURL = dictionary.find(kBagURLKey);
  if (cachedURL == dictionary.end() || !cachedURL->is_string()) {
    bagLog().log("no bag URL found in cache");
    return true;
  }
  const std::string currentURL = currentBagCacheURL();
  if (currentURL != cachedURL->get_ref<const std::string&>()) {
    bagLog().log("bag url changed from: %@ to %@", cachedURL->get_ref<const std::string&>(),
                 currentURL);
    return true;
  }
  return false;
}

std::string OrvexBagController::currentBagCacheURL() {
  NetworkRequestFactory& factory = *assembly_.requestFactory;
  const auto request = factory.bagCacheRequest(bagFetchURLWithCountry(factory.deviceCountryCode()),
                                               userAgent_, std::nullopt);
  return request ? request->url : std::string();
}

std::optional<BagDictionary> OrvexBagController::diskCachedBagDictionary(bool* stale) {
  *stale = false;
  if (!Flags::diskBagCacheEnabled()) {
    bagLog().log("skipping check for bag on disk because the flag is disabled");
    return std::nullopt;
  }
  std::error_code pathError;
  const auto path = _pathToCachedBag(&pathError);
  if (!path) return std::nullopt;
  std::error_code readError;
  const auto bytes = assembly_.fileManager->readFile(*path, readError);
  if (!bytes) {
    if (readError != std::errc::no_such_file_or_directory) {
      bagLog().fault("Error reading from bag cache: %@.", readError.message());
    }
    return std::nullopt;
  }
  std::string why;
  auto dictionary = jsonFromPropertyList(*bytes, &why);
  if (!dictionary) {
    bagLog().fault("Error reading from bag cache: %@.", why);
    return std::nullopt;
  }
  if (!dictionary->is_object()) {
    bagLog().log("Unexpected class deserialized from bag cache: %@.", dictionary->type_name());
    return std::nullopt;
  }
  *stale = _isRefreshRequiredForCachedBag(*dictionary);
  return dictionary;
}

std::optional<std::filesystem::path> OrvexBagController::_pathToCachedBag(std::error_code* error) {
  const FileManager& files = *assembly_.fileManager;
  const std::filesystem::path directory = files.cacheDirectory();
  if ((*error = files.ensureDirectory(directory.parent_path()))) {
    bagLog().log("error getting cache directory %@", error->message());
    return std::nullopt;
  }
  if ((*error = files.ensureDirectory(directory))) {
    bagLog().log("error creating agent-specific cache directory %@", error->message());
    return std::nullopt;
  }
  return directory / "bag.plist";
}

BagDictionary OrvexBagController::_dictionaryToCacheBag(const BagDictionary& dictionary) {
  BagDictionary augmented = dictionary;
  augmented[kExpirationKey] = secondsSince1970(assembly_.clock->wallNow() + kBagLifetime);
  augmented[kBagURLKey] = currentBagCacheURL();
  return augmented;
}

BagDictionary OrvexBagController::cacheBagDictionary(const BagDictionary& dictionary) {
  BagDictionary augmented = _dictionaryToCacheBag(dictionary);
  if (!Flags::diskBagCacheEnabled()) {
    bagLog().log("skipping writing bag to disk because the flag is disabled");
    return augmented;
  }
  std::error_code pathError;
  const auto path = _pathToCachedBag(&pathError);
  if (!path) {
    bagLog().fault("Couldn't get path to cache bag.  Error: %@.", pathError.message());
    return augmented;
  }
  std::string why;
  const std::vector<uint8_t> document = binaryPropertyListFromJson(augmented, &why);
  if (document.empty()) {
    // The previous copy stays: an older bag on disk is better than an empty file.
    bagLog().log("Error writing bag to persistent cache: %@.", why);
    return augmented;
  }
  // The file is replaced whole and made private to the user in the same step.
  ProcessTransaction transaction("bagWrite");
  if (const auto error = assembly_.fileManager->writeFileAtomically(*path, document, 0600)) {
    bagLog().log("Could not write to %@", path->string());
  }
  return augmented;
}

void OrvexBagController::cacheBagState(std::shared_ptr<const ORVBag> bag, bool fromDisk) {
  if (!bag) return;
  inMemoryBagCacheAccessQueue_.write([&](std::shared_ptr<const ORVBag>& held) {
    const unsigned long previousStatus = newsStatus(held);
    const unsigned long newStatus = newsStatus(bag);
    held = bag;
    assembly_.notificationCenter->post(kORVBagChangeNotification, nullptr,
                                       {{"bag", std::shared_ptr<const ORVBag>(bag)}});
    if (previousStatus != newStatus && !fromDisk) {
      bagLog().log("setting Orvex News Available status to %lu", newStatus);
      if (assembly_.systemNotifier) {
        assembly_.systemNotifier->postNotification(newStatus == 1 ? kORVNotifyEnabled
                                                                  : kORVNotifyDisabled);
      }
    }
  });
}

void OrvexBagController::_fetchBagStateWithVersion(std::optional<std::string> version) {
  if (fetchInProgress_.exchange(true)) return;
  // Checked while holding the flag: a failing fetch counts its failure before it lets go of it.
  if (const auto wait = backoff_.remaining(assembly_.clock->monotonicNow())) {
    fetchInProgress_.store(false);
    bagLog().debug("no bag fetch for another %f s, after failed fetches", secondsOf(*wait));
    return;
  }
  _fetchBagStateWithVersion(std::move(version), nullptr);
}

bool OrvexBagController::fetchMayStart() const {
  return !fetchInProgress_.load() && !backoff_.remaining(assembly_.clock->monotonicNow());
}

Duration OrvexBagController::bagRequestTimeout() const {
  const double configured =
      assembly_.userDefaults ? assembly_.userDefaults->doubleForKey(kORVBagRequestTimeoutKey) : 0;
  if (std::isfinite(configured) && configured > 0) {
    return std::chrono::duration_cast<Duration>(
        std::chrono::duration<double>(std::min(configured, 3600.0)));
  }
  return assembly_.bagSession ? assembly_.bagSession->configuration().requestTimeout
                              : HttpSessionConfiguration().requestTimeout;
}

void OrvexBagController::fetchEnded(bool gotBag, const std::optional<HttpResponse>& response) {
  if (gotBag) {
    backoff_.fetchSucceeded();
    return;
  }
  const WallTime now = assembly_.clock->wallNow();
  const auto retryAfter =
      response ? BagFetchBackoff::retryAfter(*response, now) : std::optional<Duration>();
  const Duration wait = backoff_.fetchFailed(assembly_.clock->monotonicNow(), retryAfter);
  bagLog().log("next bag fetch in %f s at the earliest", secondsOf(wait));
}

void OrvexBagController::_fetchBagStateWithVersion(std::optional<std::string> version,
                                                   FetchCompletion completion) {
  NetworkRequestFactory& factory = *assembly_.requestFactory;
  auto request = factory.bagFetchRequest(bagFetchURLWithCountry(factory.deviceCountryCode()),
                                         userAgent_, version);
  if (!request) {
    // Only an unusable endpoint gets here; it fails like an unanswered fetch.
    const OrvexError error = bagFetchError("no request");
    bagLog().log("Error fetching bag: %@", error);
    assembly_.notificationCenter->post(kORVBagChangeNotification, nullptr, {{"bagError", error}});
    OrvexDiagnosticDataReporter::addValueForScalarKey(1, kORVCounterBagFetchesFailed);
    fetchEnded(false, std::nullopt);
    if (completion) completion(nullptr, error);
    fetchInProgress_.store(false);
    return;
  }
  // The whole fetch, not only each wait for bytes, ends at the deadline: a server that drips
  // its answer would otherwise hold the one fetch there is for as long as it likes.
  const Duration deadline = bagRequestTimeout();
  request->timeout = deadline;
  bagLog().log("Initiating bag fetch attempt with request %@ header %@", request->url,
               describeHeaders(request->headers));

  // The fetch is recorded in a session of its own: its start now, its end (and error) when it
  // completes. A client's session would take the records as that client's activity.
  std::optional<std::string> userGuid;
  if (assembly_.guidController)
    userGuid = assembly_.guidController->currentUserGUID().upperString();
  auto start = makeStartNetworkFeedback(*request, "", kBagFetchTriggerEvent, kBagEndpoint,
                                        assembly_.clock->monotonicNow());
  auto record = [userGuid, userAgent = userAgent_](FeedbackRecordPtr feedback) {
    return OrvexFeedback::initWithFeedback(std::move(feedback), 0, userGuid, userAgent);
  };
  std::shared_ptr<StandaloneSession> session;
  if (assembly_.openStandaloneSession) session = assembly_.openStandaloneSession(record(start));

  auto transaction = std::make_shared<ProcessTransaction>("bagFetch");
  auto abandoned = std::make_shared<std::atomic<bool>>(false);
  auto deadlineTimer = std::make_shared<TimerHandle>();
  auto task = dataTaskWithRetryableRequest(
      assembly_.bagSession,
      ORVRetryableNetworkRequest(*request, /*expiry=*/std::nullopt, /*delay=*/true),
      /*attempt=*/1, /*retriesLeft=*/5,
      [weak = weak_from_this(), transaction, completion, session, record, uuid = start->uuid,
       clock = assembly_.clock, abandoned, deadlineTimer](HttpDataResult result) {
        deadlineTimer->cancel();
        bagLog().debug("resp: %@",
                       result.response
                           ? formatLog("%lld %@", result.response->statusCode, result.response->url)
                           : std::string("(null)"));
        auto end = std::make_shared<NBEndNetworkSearchFeedback>();
        end->timestamp = monotonicNanoseconds(clock->monotonicNow());
        end->uuid = uuid;
        end->responseSize = static_cast<int64_t>(result.data.size());
        end->statusCode = result.response ? result.response->statusCode : 0;
        if (!result.timing.empty()) end->networkTimingData = result.timing;
        if (session) session->addFeedback(record(end));
        auto self = weak.lock();
        if (!self) {
          bagLog().log(
              "Error fetching bag, bag fetch task completed after BagFetchController was cleaned "
              "up");
          if (session) session->sessionComplete();
          return;
        }
        if (abandoned->load() && result.error) result.error = bagFetchError("timed out");
        std::shared_ptr<const ORVBag> stored;
        const std::optional<OrvexError> error = self->_takeFetchedBag(result, stored);
        if (!error) {
          OrvexDiagnosticDataReporter::addValueForScalarKey(1, kORVCounterBagFetches);
        } else {
          if (session) {
            auto failure = std::make_shared<NBErrorFeedback>();
            failure->timestamp = monotonicNanoseconds(clock->monotonicNow());
            failure->error = *error;
            session->addFeedback(record(failure));
          }
          self->assembly_.notificationCenter->post(kORVBagChangeNotification, nullptr,
                                                   {{"bagError", *error}});
          OrvexDiagnosticDataReporter::addValueForScalarKey(1, kORVCounterBagFetchesFailed);
        }
        if (session) session->sessionComplete();
        self->fetchEnded(stored != nullptr, result.response);
        if (completion) completion(stored, error);
        self->fetchInProgress_.store(false);
      });
  // Set before the task runs, so that its completion always finds the handle to cancel.
  *deadlineTimer = assembly_.clock->scheduleAfter(
      deadline, [weakTask = std::weak_ptr<HttpTask>(task), abandoned, pool = assembly_.workerPool] {
        pool->post([weakTask, abandoned] {
          if (auto running = weakTask.lock()) {
            bagLog().log("abandoning the bag fetch: it outlasted its deadline");
            abandoned->store(true);
            running->cancel();
          }
        });
      });
  task->resume();
}

std::optional<OrvexError> OrvexBagController::_takeFetchedBag(
    const HttpDataResult& result, std::shared_ptr<const ORVBag>& stored) {
  if (result.error) {
    bagLog().log("Error fetching bag: %@", *result.error);
    return *result.error;
  }
  if (!result.response) {
    bagLog().log("Error fetching bag: returned data was not of the expected type.");
    return bagFetchError("no data");
  }
  if (const int64_t status = result.response->statusCode; status != 200) {
    bagLog().log("Error fetching bag status code: %ld", status);
    return bagFetchError(formatLog("statusCode %ld", status));
  }
  // Size and depth are checked before anything is built; a document nested deeper than the disk
  // copy can hold is refused without an error, like one the disk copy could not be written from.
  const JsonLimits limits{kMaxBagBytes, static_cast<size_t>(kPlistMaxDepth)};
  if (auto problem = jsonLimitProblem(result.data, limits)) {
    bagLog().log("error parsing bag json %@", *problem);
    return std::nullopt;
  }
  BagDictionary json = BagDictionary::parse(result.data, nullptr, /*allow_exceptions=*/false);
  if (!json.is_object()) {
    bagLog().log("Error fetching bag: returned data was not of the expected type.");
    return bagFetchError("not JSON object");
  }
  bagLog().info("Got bag: %@", json.dump());
  BagDictionary augmented = cacheBagDictionary(json);
  if (auto bag = ORVBag::initWithDictionary(std::move(augmented), userAgent_)) {
    stored = bag;
    cacheBagState(std::move(bag), /*fromDisk=*/false);
  }
  return std::nullopt;
}

}  // namespace orvex
