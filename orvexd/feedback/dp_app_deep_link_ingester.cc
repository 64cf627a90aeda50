#include "orvexd/feedback/dp_app_deep_link_ingester.h"

#include <algorithm>
#include <string_view>
#include <unordered_set>

#include "orvexd/base/json_limits.h"
#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/base/text_util.h"
#include "orvexd/base/url_components.h"
#include "orvexd/feedback/dp_periodic_task.h"
#include "orvexd/feedback/dp_periodic_task_manager.h"
#include "orvexd/model/assembly.h"
#include "orvexd/model/interfaces/download_manager.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/defaults_store.h"
#include "orvexd/platform/diagnostic_data_reporter.h"
#include "orvexd/platform/mapped_file.h"

namespace orvex {

namespace {

const OrvexLog& log() { return OrvexLogForCategory(kOrvexLogFeedback); }

void addToCounter(int64_t value, const char* key) {
  OrvexDiagnosticDataReporter::addValueForScalarKey(value, key);
}

// The lower-cased entries of a filter list, for lookups of lower-cased identifiers and links.
std::unordered_set<std::string> lowercasedSet(const std::optional<std::vector<std::string>>& list) {
  std::unordered_set<std::string> out;
  if (!list) return out;
  for (const auto& entry : *list) out.insert(asciiLowercase(entry));
  return out;
}

}  // namespace

// Where a filter list comes from, and the log texts of fetching it.
struct OrvexDPAppDeepLinkIngester::ListSource {
  const char* resourceKey;
  const char* listKey;
  const char* fetching;
  const char* readError;    // one %@: the error
  const char* streamError;  // one %@: what is wrong with the file
};

OrvexDPAppDeepLinkIngester::OrvexDPAppDeepLinkIngester(
    Assembly& assembly, std::shared_ptr<OrvexDPPeriodicTaskManager> taskManager)
    : assembly_(assembly),
      taskManager_(std::move(taskManager)),
      recorder_(assembly.fileManager, *assembly.clock) {}

void OrvexDPAppDeepLinkIngester::scheduleMaintenance() {
  scheduleMaintenanceWithName(kORVDeepLinkIngestActivityIdentifier);
}

void OrvexDPAppDeepLinkIngester::scheduleMaintenanceWithName(const std::string& name) {
  if (!taskManager_) return;
  std::weak_ptr<OrvexDPAppDeepLinkIngester> weak = weak_from_this();
  auto task = OrvexDPPeriodicTask::taskWithName(
      name, kPeriodSeconds,
      [weak] {
        auto self = weak.lock();
        if (!self) return;
        // The task manager holds the run's process transaction.
        const WallTime now = self->assembly_.clock->wallNow();
        (void)self->ingestStartingOn(now - std::chrono::seconds(86400), now);
      },
      *assembly_.workerPool, *assembly_.clock);
  taskManager_->registerTask(task);
}

std::string OrvexDPAppDeepLinkIngester::knowledgeDirectoryPath() const {
  if (assembly_.userDefaults) {
    if (auto path = assembly_.userDefaults->stringForKey(kORVKnowledgeStorePathKey);
        path && !path->empty()) {
      return *path;
    }
  }
  return KnowledgeStore::defaultPath();
}

bool OrvexDPAppDeepLinkIngester::ingestStartingOn(WallTime start, WallTime end) {
  const auto deepLinks = queryAppActivitiesAfterDate(start, end, kEventLimit);
  const DeepLinkList empty;
  const DeepLinkList& links = deepLinks ? *deepLinks : empty;
  addToCounter(static_cast<int64_t>(links.size()), kORVCounterDPEligibleLinks);

  const auto blacklist = _fetchCrowdsourcingBlacklist();
  const auto whitelist = _fetchCrowdsourcingWhitelist();
  const Submission submission = _normalizeAndFilterDeepLinks(links, blacklist, whitelist);

  bool outcome = true;
  int64_t sent = 0;
  for (const auto& [bundle, linkSet] : submission) {
    const std::string key = formatLog("%@.%@", std::string(appDeepLinkKey), bundle);
    outcome =
        recorder_.recordStrings(key, std::vector<std::string>(linkSet.begin(), linkSet.end()));
    if (!outcome) {
      addToCounter(1, kORVCounterDPRecordAppFailure);
      break;
    }
    sent += static_cast<int64_t>(linkSet.size());
    addToCounter(static_cast<int64_t>(linkSet.size()), kORVCounterDPSentLinksApp);
    addToCounter(1, kORVCounterDPRecordAppSuccess);
  }
  addToCounter(sent, kORVCounterDPSentLinks);
  addToCounter(1, kORVCounterDPRecord);
  return outcome;
}

std::optional<OrvexDPAppDeepLinkIngester::DeepLinkList>
OrvexDPAppDeepLinkIngester::queryAppActivitiesAfterDate(WallTime start, WallTime end,
                                                        size_t limit) const {
  if (start > end) return std::nullopt;
  const KnowledgeStore store(knowledgeDirectoryPath());
  return deepLinksFor(store.appActivities(start, end, limit));
}

OrvexDPAppDeepLinkIngester::DeepLinkList OrvexDPAppDeepLinkIngester::deepLinksFor(
    const std::vector<AppActivityEvent>& events) {
  DeepLinkList out;
  for (const auto& event : events) {
    if (event.bundleIdentifier.empty() || !event.publiclyIndexable) continue;
    std::vector<std::string> links;
    if (event.uniqueIdentifier) links.push_back(*event.uniqueIdentifier);
    if (event.contentURL) links.push_back(*event.contentURL);
    if (links.empty()) continue;
    out.emplace_back(event.bundleIdentifier, std::move(links));
  }
  return out;
}

std::optional<std::vector<std::string>> OrvexDPAppDeepLinkIngester::_fetchCrowdsourcingWhitelist()
    const {
  static constexpr ListSource kWhitelist{kORVCrowdsourcingWhitelist, "static_apps_whitelist",
                                         "fetch crowdsourcing whitelist",
                                         "error reading crowdsourcing whitelist %@",
                                         "failed to fetch the whitelist from the stream %@"};
  return fetchList(kWhitelist);
}

std::optional<std::vector<std::string>> OrvexDPAppDeepLinkIngester::_fetchCrowdsourcingBlacklist()
    const {
  static constexpr ListSource kBlacklist{kORVCrowdsourcingBlacklist, "static_deeplinks_blacklist",
                                         "fetch crowdsourcing blacklist",
                                         "error reading crowdsourcing blacklist %@",
                                         "failed to fetch the blacklist from the stream %@"};
  return fetchList(kBlacklist);
}

std::optional<std::vector<std::string>> OrvexDPAppDeepLinkIngester::fetchList(
    const ListSource& source) const {
  log().debug(source.fetching);
  OrvexError error("ORVErrorDomain", 404, "no download manager");
  std::optional<UniqueFd> file;
  if (assembly_.downloadManager) {
    file = assembly_.downloadManager->fileHandleForResource(source.resourceKey, nullptr, &error);
  }
  if (!file || !file->valid()) {
    log().error(source.readError, error);
    return std::nullopt;
  }
  int mapError = 0;
  const auto mapped = mmapFileHandle(file->get(), &mapError);
  if (!mapped) {
    log().error("mmap failed %@", std::error_code(mapError, std::generic_category()).message());
    return std::nullopt;
  }
  const auto bytes = mapped->bytes();
  std::string problem = "is not an object";
  const auto json = parseJsonWithinLimits(
      std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()),
      JsonLimits{kMaxListFileBytes, 8}, &problem);
  const nlohmann::json* list = nullptr;
  if (json.is_object()) {
    if (auto found = json.find(source.listKey); found != json.end() && found->is_array()) {
      list = &*found;
    } else {
      problem = formatLog("has no array \"%s\"", source.listKey);
    }
  }
  if (list == nullptr) {
    log().error(source.streamError, problem);
    return std::nullopt;
  }
  std::vector<std::string> out;
  for (const auto& entry : *list) {
    if (out.size() >= kMaxListEntries) break;
    if (entry.is_string()) out.push_back(entry.get<std::string>());
  }
  return out;
}

OrvexDPAppDeepLinkIngester::Submission OrvexDPAppDeepLinkIngester::_normalizeAndFilterDeepLinks(
    const DeepLinkList& deepLinks, const std::optional<std::vector<std::string>>& blacklist,
    const std::optional<std::vector<std::string>>& whitelist) {
  const auto blocked = lowercasedSet(blacklist);
  const auto allowed = lowercasedSet(whitelist);
  Submission submission;
  int64_t urls = 0;
  int64_t bundleIds = 0;
  int64_t whitelistedBlacklisted = 0;
  int64_t notWhitelistedBlacklisted = 0;
  for (const auto& [bundle, links] : deepLinks) {
    const std::string lowerBundle = asciiLowercase(bundle);
    if (!allowed.contains(lowerBundle)) {
      if (blocked.contains(lowerBundle)) {
        ++notWhitelistedBlacklisted;
      } else {
        save(lowerBundle, lowerBundle, &submission);
        ++bundleIds;
      }
      continue;
    }
    for (const auto& link : links) {
      const auto components = parseUrlComponents(trimWhitespace(link));
      if (!components) continue;
      const auto normal = orvex_normalizedURLStringForDeepLinkIngest(*components);
      if (!normal || normal->empty()) continue;
      const std::string written = asciiLowercase(
          _isUniversalLink(*components) ? *normal : formatLog("%@://%@", bundle, *normal));
      if (blocked.contains(written)) {
        ++whitelistedBlacklisted;
      } else {
        save(lowerBundle, written, &submission);
        ++urls;
      }
      // At most one link per application and event.
      break;
    }
  }
  addToCounter(whitelistedBlacklisted, kORVCounterDPNormalizedLinkWhitelistedBlacklisted);
  addToCounter(notWhitelistedBlacklisted, kORVCounterDPNormalizedLinkNotWhitelistedBlacklisted);
  addToCounter(urls + bundleIds, kORVCounterDPNormalizedLink);
  addToCounter(bundleIds, kORVCounterDPNormalizedLinkBundleIds);
  addToCounter(urls, kORVCounterDPNormalizedLinkUrls);
  return submission;
}

void OrvexDPAppDeepLinkIngester::save(const std::string& key, const std::string& link,
                                      Submission* submission) {
  if (submission == nullptr) return;
  (*submission)[key].insert(link);
}

bool OrvexDPAppDeepLinkIngester::_isUniversalLink(const UrlComponents& components) {
  return components.scheme == "http" || components.scheme == "https";
}

}  // namespace orvex
