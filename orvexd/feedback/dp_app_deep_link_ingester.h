// Twice a day, the application pages the user opened during the last 24 hours, recorded through
// the local differential-privacy recorder so that only noised reports are ever kept.
//
// A run reads at most 100 events from the usage-knowledge store (KnowledgeStore), keeps the
// publicly indexable ones, and filters them with the two crowdsourcing lists the download
// manager keeps: an application on the whitelist contributes its first usable link, normalised
// (a web link as it is, any other as "<bundle id>://<normal form>", lower-cased) unless that link
// is blacklisted; an application not on the whitelist contributes its own lower-cased bundle
// identifier unless that is blacklisted. Each application's links go to the recorder under
// "com.zelmor.orvex.AppDeepLink.<bundle id>". Counters tell what each step kept.
//
// Made once at start-up; scheduleMaintenance() registers the repeating task
// "com.zelmor.Orvex.DeepLinkIngest" (every 43,200 s) with the periodic task manager, which runs it
// on the task's own queue. The ingester keeps no mutable state besides the recorder, which is
// thread-safe.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "orvexd/base/time_types.h"
#include "orvexd/platform/dp_string_recorder.h"
#include "orvexd/platform/knowledge_store.h"

namespace orvex {

class Assembly;
class OrvexDPPeriodicTaskManager;
struct UrlComponents;

class OrvexDPAppDeepLinkIngester : public std::enable_shared_from_this<OrvexDPAppDeepLinkIngester> {
 public:
  // One entry per event: bundle identifier → its one or two links (page identifier, URL).
  using DeepLinkList = std::vector<std::pair<std::string, std::vector<std::string>>>;
  // Lower-cased bundle identifier → lower-cased links to record.
  using Submission = std::map<std::string, std::set<std::string>>;

  static constexpr char appDeepLinkKey[] = "com.zelmor.orvex.AppDeepLink";
  static constexpr uint64_t kPeriodSeconds = 43200;
  static constexpr size_t kEventLimit = 100;
  // Bounds on a filter list: its file's size and its number of entries.
  static constexpr size_t kMaxListFileBytes = size_t{8} << 20;
  static constexpr size_t kMaxListEntries = 100000;

  OrvexDPAppDeepLinkIngester(Assembly& assembly,
                             std::shared_ptr<OrvexDPPeriodicTaskManager> taskManager);

  void scheduleMaintenance();
  void scheduleMaintenanceWithName(const std::string& name);

  // One run over [start, end]; the outcome of the last recording (true when there was none).
  bool ingestStartingOn(WallTime start, WallTime end);
  // None when start is later than end.
  std::optional<DeepLinkList> queryAppActivitiesAfterDate(WallTime start, WallTime end,
                                                          size_t limit) const;
  static DeepLinkList deepLinksFor(const std::vector<AppActivityEvent>& events);

  std::optional<std::vector<std::string>> _fetchCrowdsourcingWhitelist() const;
  std::optional<std::vector<std::string>> _fetchCrowdsourcingBlacklist() const;
  // Adds the filter's counts to the counters.
  static Submission _normalizeAndFilterDeepLinks(
      const DeepLinkList& deepLinks, const std::optional<std::vector<std::string>>& blacklist,
      const std::optional<std::vector<std::string>>& whitelist);
  static void save(const std::string& key, const std::string& link, Submission* submission);
  static bool _isUniversalLink(const UrlComponents& components);

  const DPStringRecorder& recorder() const { return recorder_; }
  // The knowledge store's path: the defaults key "ORVKnowledgeStorePath", else the default.
  std::string knowledgeDirectoryPath() const;

 private:
  struct ListSource;
  std::optional<std::vector<std::string>> fetchList(const ListSource& source) const;

  Assembly& assembly_;
  const std::shared_ptr<OrvexDPPeriodicTaskManager> taskManager_;
  DPStringRecorder recorder_;
};

}  // namespace orvex
