// Feeds arbitrary bytes to what the daemon does with a search answer off the network: reading it
// within the answer limits, writing it back as the reply's raw response (which a D-Bus string
// must carry), and storing it in a query cache, which must then hand it back for its own
// completed query.
#include <sdbus-c++/Message.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "fuzz/fuzz_support.h"
#include "orvexd/base/json_limits.h"
#include "orvexd/model/assembly.h"
#include "orvexd/platform/virtual_clock.h"
#include "orvexd/platform/worker_pool.h"
#include "orvexd/query/cached_result_set.h"
#include "orvexd/query/query_cache.h"

// Exported by sdbus-c++ but declared only in its internal headers: a message on a connection to
// no bus.
namespace sdbus {
PlainMessage createPlainMessage();
}

namespace {

using orvex::fuzz::check;

struct NoPressure final : orvex::MemoryPressureSource {};

struct Cache {
  Cache() {
    auto pool = std::make_shared<orvex::WorkerPool>(1);
    assembly = std::make_shared<orvex::Assembly>(pool, std::make_shared<orvex::VirtualClock>());
    cache = std::make_unique<orvex::QueryCache>(
        *assembly, [](std::function<void()>) { return std::make_unique<NoPressure>(); });
  }
  std::shared_ptr<orvex::Assembly> assembly;
  std::unique_ptr<orvex::QueryCache> cache;
};

Cache* g_cache = nullptr;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  static Cache cache;
  g_cache = &cache;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto answer = orvex::parseJsonWithinLimits(text, {size_t{16} << 20, orvex::kJsonMaxDepth});
  if (answer.is_discarded()) return 0;

  // The raw response a client gets reads back as what it was made from, and the bus carries it.
  const std::string raw = orvex::jsonTextForBus(answer.dump());
  const auto again = orvex::parseJsonWithinLimits(raw, {size_t{16} << 20, orvex::kJsonMaxDepth});
  check(!again.is_discarded() && again.dump() == answer.dump());
  auto message = sdbus::createPlainMessage();
  message << raw;

  if (!answer.is_object()) return 0;
  const auto query = answer.find("query");
  const auto cost = orvex::QueryCache::costOf(answer);
  check(cost.has_value());

  // Stored for what was typed (the first half of the completed query), on an empty cache.
  std::string typed;
  if (query != answer.end() && query->is_string()) {
    const auto& completed = query->get_ref<const std::string&>();
    typed = completed.substr(0, completed.size() / 2);
  }
  orvex::HttpRequest request;
  request.url = "https://search.example/search?q=" + typed;
  const orvex::WallTime now = g_cache->assembly->clock->wallNow();
  const orvex::CachedResultSet entry(typed, request, answer, orvex::Uuid::random(), now);
  auto& cache = *g_cache->cache;
  cache.removeAllObjects();
  cache.set(entry);

  const auto key = entry.query();
  const bool expired = entry.expireTime() && *entry.expireTime() <= now;
  const bool storable = key && !key->empty() && *cost < orvex::QueryCache::kMaxCost &&
                        orvex::queryTextLength(entry.input()) <= orvex::queryTextLength(*key);
  check(storable == (cache.count() == 1));
  if (storable && !expired) {
    const auto found = cache.get(*key);
    check(found.has_value() && found->query() == key && found->resultSet() == answer);
  }
  return 0;
}
