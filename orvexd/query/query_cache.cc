#include "orvexd/query/query_cache.h"

#include <cstdlib>
#include <limits>
#include <ostream>
#include <span>
#include <streambuf>
#include <string>
#include <utility>
#include <vector>

#include "orvexd/base/json_limits.h"
#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/base/text_util.h"
#include "orvexd/model/assembly.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/notification_center.h"
#include "orvexd/platform/serial_queue.h"
#include "orvexd/platform/worker_pool.h"
#include "orvexd/query/critbit_tree.h"

namespace orvex {
namespace {

const OrvexLog& cachingLog() { return OrvexLogForCategory(kOrvexLogCaching); }

// An output stream that only counts what is written to it.
class NullStream final : public std::ostream {
 public:
  NullStream() : std::ostream(&counter_) {}
  uint64_t count() const { return counter_.count; }

 private:
  struct Counter final : std::streambuf {
    std::streamsize xsputn(const char*, std::streamsize n) override {
      count += static_cast<uint64_t>(n);
      return n;
    }
    int_type overflow(int_type c) override {
      if (!traits_type::eq_int_type(c, traits_type::eof())) ++count;
      return traits_type::not_eof(c);
    }
    uint64_t count = 0;
  };
  Counter counter_;
};

constexpr const char* kClearingNotifications[] = {
    kORVUserGUIDChangeNotification,         kORVCountryCodeChangeNotification,
    kORVTimeZoneChangeNotification,         kORVLocaleChangeNotification,
    kORVDeviceManagementChangeNotification,
};

}  // namespace

struct QueryCache::Impl : std::enable_shared_from_this<Impl> {
  Impl(Assembly& a, MemoryPressureSourceFactory factory)
      : assembly(a),
        queue(kQueueLabel, *a.workerPool, *a.clock),
        pressureSources(std::move(factory)) {}

  void store(CachedResultSet entry, const std::string& query, std::optional<std::string> text);
  std::optional<CachedResultSet> lookup(const std::string& input, float scale);
  // An entry that matches a lookup: how many units its key is longer than what was typed.
  struct Candidate {
    std::size_t excess;
    const CachedResultSet* entry;
    std::string_view key;
  };
  // The shortest completion, then the best score; ties keep the first.
  static std::optional<CachedResultSet> choose(std::span<const Candidate> candidates);
  void removeAllObjects();
  void _clearCache();
  void _listenForMemoryPressure();
  void _stopListeningForMemoryPressure();

  Assembly& assembly;
  SerialQueue queue;
  const MemoryPressureSourceFactory pressureSources;
  CritbitMap<CachedResultSet> tree;              // queue: key = lower-cased completed query
  std::unique_ptr<MemoryPressureSource> source;  // queue: only while listening
  uint64_t currentCost = 0;                      // queue
  std::vector<ObserverToken> observers;          // written by the constructor and destructor
};

void QueryCache::Impl::store(CachedResultSet entry, const std::string& query,
                             std::optional<std::string> text) {
  queue.assertCurrent("store");
  // Serialised once: the text is both the entry's cost and what every hit sends.
  if (!text) {
    try {
      text = entry.resultSet().dump();
    } catch (const nlohmann::json::exception&) {
      cachingLog().error("NOT caching '%@': the answer cannot be serialised", query);
      return;
    }
  }
  const uint64_t cost = text->size() + text->size() / 2;  // times 1.5, truncated
  if (cost >= kMaxCost) {
    cachingLog().error("NOT caching '%@' with cost %lu", query, cost);
    return;
  }
  cachingLog().info("caching '%@' with cost %lu", query, cost);
  if (currentCost + cost >= kMaxCost) {
    cachingLog().info("!!! exceeded max cost, flushing cache !!!");
    _clearCache();  // the pressure source stays: an entry follows at once
  }
  if (tree.count() == 0) _listenForMemoryPressure();
  // Never subtracted for a replaced entry: the total only goes back to 0 with a full clear.
  currentCost += cost;
  // A hit answers with the entry in an array.
  std::string reply;
  reply.reserve(text->size() + 2);
  reply.append("[").append(*text).append("]");
  entry.setReplyText(jsonTextForBus(std::move(reply)));
  tree.set(std::make_unique<CachedResultSet>(std::move(entry)), query);
}

std::optional<CachedResultSet> QueryCache::Impl::lookup(const std::string& input, float scale) {
  queue.assertCurrent("lookup");
  const WallTime now = assembly.clock->wallNow();
  const std::size_t typed = queryTextLength(input);

  // Keys borrow the tree's storage and the tree must not change while they are in use: expired
  // keys are copied and removed once the choice is made and copied out.
  std::vector<std::string> expired;
  std::vector<Candidate> candidates;
  tree.keysMatchingPrefix(input, [&](std::string_view key, bool&) {
    const CachedResultSet* entry = tree.find(key);
    if (entry == nullptr) return;
    if (entry->expireTime() && *entry->expireTime() <= now) {
      expired.emplace_back(key);
      return;
    }
    if (scale > 0 && scale != entry->uiScale()) return;
    if (queryTextLength(entry->input()) > typed) return;  // fetched for more than was typed
    candidates.push_back({queryTextLength(key) - typed, entry, key});
  });
  std::optional<CachedResultSet> chosen = choose(candidates);
  for (const std::string& key : expired) tree.remove(key);
  return chosen;
}

std::optional<CachedResultSet> QueryCache::Impl::choose(std::span<const Candidate> candidates) {
  if (candidates.empty()) return std::nullopt;
  std::size_t leastExcess = std::numeric_limits<std::size_t>::max();
  for (const Candidate& candidate : candidates) {
    leastExcess = std::min(leastExcess, candidate.excess);
  }
  const CachedResultSet* choice = nullptr;
  float bestScore = 0;
  for (const auto& [excess, entry, key] : candidates) {
    if (excess != leastExcess) continue;
    const float score = entry->completionScore();
    cachingLog().debug("entry %p prefix: %@ input: %@ score: %f", static_cast<const void*>(entry),
                       key, entry->input(), static_cast<double>(score));
    if (choice == nullptr) {
      choice = entry;
      bestScore = score;
    } else if (score > 0 && score > bestScore) {
      choice = entry;
      bestScore = score;
    }
  }
  return *choice;
}

void QueryCache::Impl::removeAllObjects() {
  queue.async([weak = weak_from_this()] {
    auto self = weak.lock();
    if (!self) return;
    self->_clearCache();
    self->_stopListeningForMemoryPressure();
  });
}

void QueryCache::Impl::_clearCache() {
  queue.assertCurrent("_clearCache");
  tree.clear();
  currentCost = 0;
}

void QueryCache::Impl::_listenForMemoryPressure() {
  queue.assertCurrent("_listenForMemoryPressure");
  if (source || !pressureSources) return;
  source = pressureSources([weak = weak_from_this()] {
    auto self = weak.lock();
    if (!self) return;
    self->queue.async([weak] {
      auto self = weak.lock();
      if (!self) return;
      cachingLog().debug("emptying cache under memory pressure");
      self->_clearCache();
      self->_stopListeningForMemoryPressure();
    });
  });
}

void QueryCache::Impl::_stopListeningForMemoryPressure() {
  queue.assertCurrent("_stopListeningForMemoryPressure");
  source.reset();
}

QueryCache::QueryCache(Assembly& assembly, MemoryPressureSourceFactory pressureSources)
    : impl_(std::make_shared<Impl>(
          assembly, pressureSources ? std::move(pressureSources)
                                    : psiMemoryPressureSourceFactory(*assembly.workerPool))) {
  if (!assembly.notificationCenter) return;
  std::weak_ptr<Impl> weak = impl_;
  for (const char* name : kClearingNotifications) {
    impl_->observers.push_back(
        assembly.notificationCenter->addObserver(name, nullptr, [weak](const Notification&) {
          if (auto self = weak.lock()) self->removeAllObjects();
        }));
  }
}

QueryCache::~QueryCache() {
  impl_->observers.clear();
  // Let the stores and clears already posted finish while the cache is whole.
  if (!impl_->queue.isCurrent()) (void)impl_->queue.sync([] {});
}

void QueryCache::set(const CachedResultSet& entry, std::optional<std::string> serialized) {
  if (entry.resultSet().is_null()) return;
  const std::optional<std::string> query = entry.query();
  if (!query || query->empty()) return;
  if (queryTextLength(entry.input()) > queryTextLength(*query)) {
    cachingLog().error("BUG: NOT caching '%@' because input is longer than completed query '%@'",
                       *query, entry.input());
    return;
  }
  // Run in place when it can: handing the store to another thread would cost a wake-up on the
  // way to the reply that follows.
  impl_->queue.runOrAsync([weak = std::weak_ptr<Impl>(impl_), entry = entry, query = *query,
                           text = std::move(serialized)]() mutable {
    if (auto self = weak.lock()) self->store(std::move(entry), query, std::move(text));
  });
}

std::optional<CachedResultSet> QueryCache::getRequest(const ORVRequest& request) const {
  return find(request, true);
}

std::optional<CachedResultSet> QueryCache::tryGetRequest(const ORVRequest& request) const {
  return find(request, false);
}

std::optional<CachedResultSet> QueryCache::find(const ORVRequest& request, bool wait) const {
  const std::string input = lowercasedQueryText(request.queryString);
  cachingLog().debug("cache lookup: %@", input);
  // Entries know their scale from the "X-Zelmor-UI-Scale" header, which has one decimal: the
  // request's scale is compared as that header states it (1.25 is sent as 1.2).
  const float scale =
      request.scale > 0 ? std::strtof(formatOneDecimal(request.scale).c_str(), nullptr) : 0;
  std::optional<CachedResultSet> found;
  const auto job = [&] { found = impl_->lookup(input, scale); };
  if (!(wait ? impl_->queue.sync(job) : impl_->queue.trySync(job))) return std::nullopt;
  return found;
}

std::optional<CachedResultSet> QueryCache::get(std::string_view queryString) const {
  ORVRequest request;
  request.kind = ORVRequestKind::kSearch;
  request.queryString = std::string(queryString);
  request.triggerEvent = 0;
  return getRequest(request);
}

void QueryCache::removeAllObjects() { impl_->removeAllObjects(); }

uint64_t QueryCache::count() const {
  return impl_->queue.syncResult([&] { return impl_->tree.count(); }).value_or(0);
}

uint64_t QueryCache::currentCost() const {
  return impl_->queue.syncResult([&] { return impl_->currentCost; }).value_or(0);
}

bool QueryCache::isListeningForMemoryPressure() const {
  return impl_->queue.syncResult([&] { return impl_->source != nullptr; }).value_or(false);
}

std::optional<uint64_t> QueryCache::costOf(const nlohmann::json& resultSet) {
  NullStream stream;
  try {
    stream << resultSet;
  } catch (const nlohmann::json::exception&) {
    return std::nullopt;
  }
  // Times 1.5, truncated.
  return stream.count() + stream.count() / 2;
}

}  // namespace orvex
