// Prefix lookup in the crit-bit tree against a std::map prefix scan (lower_bound, then walk while
// the key has the prefix), over 100 000 generated query strings; and the memory each holds.
//
// Lookups enumerate every stored key that begins with a prefix of a stored query, 3 to 10 bytes
// long, as the query cache does while the user types. Memory is what malloc reports in use
// (mallinfo2: chunk headers and padding included) after building each structure from keys that
// were made beforehand, so it counts the nodes and the key bytes each structure stores, and
// nothing else. Values are one shared object, stored the way each structure stores it.
//
// Usage: orvex_bench_critbit [Google Benchmark flags]
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <map>
#include <memory>
#include <random>
#include <string>
#include <unordered_set>
#include <vector>

#include "orvexd/query/critbit.h"
#include "orvexd/query/critbit_tree.h"

namespace orvex {
namespace {

constexpr size_t kKeys = 100'000;

const char* const kWords[] = {
    "weather",   "in",       "paris",   "pizza",    "near",     "me",       "how",      "to",
    "make",      "bread",    "best",    "movies",   "2024",     "cheap",    "flights",  "london",
    "news",      "today",    "score",   "football", "recipe",   "chicken",  "soup",     "train",
    "times",     "berlin",   "what",    "is",       "the",      "time",     "convert",  "usd",
    "eur",       "stock",    "price",   "apple",    "open",     "now",      "coffee",   "shop",
    "lyrics",    "song",     "cast",    "of",       "review",   "phone",    "battery",  "life",
    "translate", "hello",    "german",  "map",      "route",    "hotel",    "rome",     "tokyo",
    "museum",    "hours",    "ticket",  "concert",  "festival", "summer",   "winter",   "jacket",
    "running",   "shoes",    "yoga",    "class",    "dentist",  "closest",  "pharmacy", "library",
    "bus",       "schedule", "airport", "parking",  "rain",     "forecast", "tomorrow", "weekend"};

// Distinct lower-case queries of one to four words, in random order.
const std::vector<std::string>& queries() {
  static const std::vector<std::string> all = [] {
    std::mt19937 random(42);
    std::unordered_set<std::string> seen;
    std::vector<std::string> out;
    while (out.size() < kKeys) {
      std::string query;
      const int words = 1 + static_cast<int>(random() % 4);
      for (int w = 0; w < words; ++w) {
        if (w > 0) query += ' ';
        query += kWords[random() % std::size(kWords)];
      }
      if (random() % 3 == 0) query += " " + std::to_string(random() % 100);
      if (seen.insert(query).second) out.push_back(std::move(query));
    }
    return out;
  }();
  return all;
}

const std::vector<std::string>& prefixes() {
  static const std::vector<std::string> all = [] {
    std::mt19937 random(7);
    std::vector<std::string> out;
    for (int i = 0; i < 1000; ++i) {
      const std::string& q = queries()[random() % kKeys];
      out.push_back(q.substr(0, 3 + random() % 8));
    }
    return out;
  }();
  return all;
}

const CritbitTree::Object& sharedObject() {
  static const CritbitTree::Object object = std::make_shared<int>(1);
  return object;
}

int64_t mallocInUse() { return static_cast<int64_t>(mallinfo2().uordblks); }

void reportMemory(benchmark::State& state, int64_t bytes) {
  state.counters["bytes_total"] = static_cast<double>(bytes);
  state.counters["bytes_per_key"] = static_cast<double>(bytes) / kKeys;
}

const CritbitTree& tree() {
  static const CritbitTree built = [] {
    CritbitTree t;
    for (const auto& q : queries()) t.setObject(sharedObject(), q);
    return t;
  }();
  return built;
}

const std::map<std::string, CritbitTree::Object>& orderedMap() {
  static const std::map<std::string, CritbitTree::Object> built = [] {
    std::map<std::string, CritbitTree::Object> m;
    for (const auto& q : queries()) m.emplace(q, sharedObject());
    return m;
  }();
  return built;
}

void BM_PrefixLookupCritbitTree(benchmark::State& state) {
  const auto& t = tree();
  size_t i = 0;
  int64_t found = 0;
  for (auto _ : state) {
    t.keysMatchingPrefix(prefixes()[i++ % prefixes().size()],
                         [&](std::string_view key, bool&) { found += !key.empty(); });
  }
  benchmark::DoNotOptimize(found);
  state.counters["keys_per_lookup"] =
      static_cast<double>(found) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_PrefixLookupCritbitTree);

void BM_PrefixLookupStdMap(benchmark::State& state) {
  const auto& m = orderedMap();
  size_t i = 0;
  int64_t found = 0;
  for (auto _ : state) {
    const std::string& prefix = prefixes()[i++ % prefixes().size()];
    for (auto it = m.lower_bound(prefix); it != m.end() && it->first.starts_with(prefix); ++it) {
      const std::string_view key = it->first;
      found += !key.empty();
    }
  }
  benchmark::DoNotOptimize(found);
  state.counters["keys_per_lookup"] =
      static_cast<double>(found) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_PrefixLookupStdMap);

void BM_MemoryCritbitTree(benchmark::State& state) {
  queries();
  sharedObject();
  int64_t bytes = 0;
  for (auto _ : state) {
    const int64_t before = mallocInUse();
    CritbitTree t;
    for (const auto& q : queries()) t.setObject(sharedObject(), q);
    bytes = mallocInUse() - before;
  }
  reportMemory(state, bytes);
}
BENCHMARK(BM_MemoryCritbitTree)->Unit(benchmark::kMillisecond)->Iterations(3);

// The core alone, holding plain pointers: the nodes without the shared-pointer holders.
void BM_MemoryCritbitCore(benchmark::State& state) {
  queries();
  int64_t bytes = 0;
  int value = 1;
  for (auto _ : state) {
    const int64_t before = mallocInUse();
    critbit_tree t{};
    for (const auto& q : queries()) critbit_insert(&t, q.c_str(), &value, 1);
    bytes = mallocInUse() - before;
    critbit_clear(&t);
  }
  reportMemory(state, bytes);
}
BENCHMARK(BM_MemoryCritbitCore)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_MemoryStdMap(benchmark::State& state) {
  queries();
  sharedObject();
  int64_t bytes = 0;
  for (auto _ : state) {
    const int64_t before = mallocInUse();
    std::map<std::string, CritbitTree::Object> m;
    for (const auto& q : queries()) m.emplace(q, sharedObject());
    bytes = mallocInUse() - before;
  }
  reportMemory(state, bytes);
}
BENCHMARK(BM_MemoryStdMap)->Unit(benchmark::kMillisecond)->Iterations(3);

// std::map holding plain pointers, the counterpart of the core alone.
void BM_MemoryStdMapPlainPointers(benchmark::State& state) {
  queries();
  int64_t bytes = 0;
  int value = 1;
  for (auto _ : state) {
    const int64_t before = mallocInUse();
    std::map<std::string, void*> m;
    for (const auto& q : queries()) m.emplace(q, &value);
    bytes = mallocInUse() - before;
  }
  reportMemory(state, bytes);
}
BENCHMARK(BM_MemoryStdMapPlainPointers)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace
}  // namespace orvex

BENCHMARK_MAIN();
