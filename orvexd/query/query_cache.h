// The per-client cache of search answers, keyed by completed query.
//
// An answer for the completed query "weather in paris" fetched when the user had typed "wea" is
// a good answer for "weath" as well: entries live in a crit-bit tree keyed by the lower-cased
// completed query, and a lookup walks every key that begins with what has been typed, keeps the
// entries fetched for an input no longer than it, and chooses the shortest completion, then the
// best "completion_score" (ties keep the smaller key).
//
// Size: each entry costs its JSON serialisation's length times 1.5. A store that would bring the
// running total to 2 MiB empties the cache first; a single answer of that cost or more is not
// stored. The total only ever grows until the cache is emptied as a whole: replacing an entry, or
// dropping it because it expired, subtracts nothing. This errs on the side of flushing early and
// keeps the accounting free of per-entry bookkeeping.
//
// Lifetime: an answer with a positive "max_age" (seconds) expires that long after it was stored,
// on the cache's clock; a lookup that meets an expired entry removes it. Entries are also all
// dropped:
// - on critical memory pressure (a PSI trigger, watched only while the cache holds entries);
// - when the user's identity or the device context changes. The notifications observed are
//   "ORVUserGUIDChangeNotification" (GUID rotation) and the context changes the request factory
//   posts where it notices them: "ORVCountryCodeChangeNotification" (the device country, from
//   the locale's region or the ORVCountryCode override), "ORVTimeZoneChangeNotification" (the
//   system time zone file), "ORVLocaleChangeNotification" (the system locale files) and
//   "ORVDeviceManagementChangeNotification" (the ORVManagedAccount setting).
//
// Threads: every field of Impl marked "queue" belongs to the serial queue
// "com.zelmor.orvex.queryCache". Stores and clears are posted to it; lookups run on it
// synchronously (the caller waits, except in tryGetRequest). Calls may come from any thread
// except that queue. Each entry keeps the text a hit is sent as, made once when it is stored.
#pragma once

#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>

#include "orvexd/model/orv_request.h"
#include "orvexd/query/cached_result_set.h"
#include "orvexd/query/memory_pressure_source.h"

namespace orvex {

class Assembly;

class QueryCache {
 public:
  static constexpr uint64_t kMaxCost = 2097152;  // bytes, 2 MiB
  static constexpr const char* kQueueLabel = "com.zelmor.orvex.queryCache";

  // Observes the clearing notifications on the assembly's notification centre. Memory pressure
  // comes from `pressureSources`; none given: the PSI source on the assembly's worker pool.
  explicit QueryCache(Assembly& assembly, MemoryPressureSourceFactory pressureSources = {});
  ~QueryCache();
  QueryCache(const QueryCache&) = delete;
  QueryCache& operator=(const QueryCache&) = delete;

  // Stores an answer under its completed query, replacing any entry with that key. Ignored
  // without a completed query; not stored (and logged) when what was typed is longer than the
  // completed query or when the answer alone costs kMaxCost or more. `serialized`, when given, is
  // the answer as resultSet().dump() writes it, which the store then does not make again. Never
  // waits: the store runs at once on the calling thread when the cache's queue is idle, and is
  // queued behind the cache's work otherwise.
  void set(const CachedResultSet& entry, std::optional<std::string> serialized = std::nullopt);
  // The best entry for the request's query string and display scale (a scale of 0 accepts
  // entries of every scale), or nothing.
  std::optional<CachedResultSet> getRequest(const ORVRequest& request) const;
  // The same, but nothing (at once) when the cache's queue is busy: never waits, for callers
  // that must not block.
  std::optional<CachedResultSet> tryGetRequest(const ORVRequest& request) const;
  // getRequest() of a search request for `queryString` with trigger event 0.
  std::optional<CachedResultSet> get(std::string_view queryString) const;
  // Empties the cache and stops watching memory pressure; returns at once.
  void removeAllObjects();

  uint64_t count() const;
  // The running cost total (see above).
  uint64_t currentCost() const;
  bool isListeningForMemoryPressure() const;

  // An answer's cost: the length of its JSON serialisation (compact, as dump() writes it) times
  // 1.5, truncated. Nothing when it cannot be serialised.
  static std::optional<uint64_t> costOf(const nlohmann::json& resultSet);

 private:
  std::optional<CachedResultSet> find(const ORVRequest& request, bool wait) const;
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace orvex
