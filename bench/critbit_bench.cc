// Prefix lookup in the crit-bit tree against a std::map prefix scan (lower_bound, then walk while
// the key has the prefix), over 100 000 generated query strings; and the memory each holds.
//
// Lookups enumerate every stored key that begins with a prefix of a stored query, 3 to 10 bytes
// long, as the query cache does while the user types.
//
// Memory is counted allocation by allocation: this program replaces malloc and its family with
// counting wrappers around the C library's allocator, and sums, while a structure is built from
// keys made beforehand, both the bytes asked for and the heap chunks they occupy (usable size
// plus the allocator's header word). Values are one object every key refers to; the map holds
// it as a std::shared_ptr (and, for comparison, as a plain pointer), the tree as a plain pointer,
// as the query cache's tree holds its entries.
//
// Usage: orvex_bench_critbit [Google Benchmark flags]
// The summary (time per lookup and bytes, tree against map) is printed first, then the Google
// Benchmark runs.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <unordered_set>
#include <vector>

#include "orvexd/query/critbit.h"
#include "orvexd/query/critbit_tree.h"

// The C library's allocator under its internal names, which the replacements below forward to.
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* pointer, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* pointer);
}

namespace {

std::atomic<bool> g_counting{false};
std::atomic<int64_t> g_requested{0};
std::atomic<int64_t> g_chunks{0};
std::atomic<int64_t> g_allocations{0};

// The chunk a pointer occupies: what it can hold plus the size word in front of it.
int64_t chunkBytes(void* pointer) {
  return static_cast<int64_t>(malloc_usable_size(pointer) + sizeof(size_t));
}

void* counted(void* pointer, size_t requested) {
  if (pointer != nullptr && g_counting.load(std::memory_order_relaxed)) {
    g_requested += static_cast<int64_t>(requested);
    g_chunks += chunkBytes(pointer);
    ++g_allocations;
  }
  return pointer;
}

void uncount(void* pointer) {
  if (pointer != nullptr && g_counting.load(std::memory_order_relaxed)) {
    g_chunks -= chunkBytes(pointer);
  }
}

}  // namespace

extern "C" {
void* malloc(size_t size) { return counted(__libc_malloc(size), size); }
void* calloc(size_t count, size_t size) {
  return counted(__libc_calloc(count, size), count * size);
}
void* realloc(void* pointer, size_t size) {
  uncount(pointer);
  return counted(__libc_realloc(pointer, size), size);
}
void free(void* pointer) {
  uncount(pointer);
  __libc_free(pointer);
}
void* memalign(size_t alignment, size_t size) {
  return counted(__libc_memalign(alignment, size), size);
}
void* aligned_alloc(size_t alignment, size_t size) { return memalign(alignment, size); }
int posix_memalign(void** out, size_t alignment, size_t size) {
  if (alignment % sizeof(void*) != 0 || (alignment & (alignment - 1)) != 0) return EINVAL;
  void* pointer = memalign(alignment, size);
  if (pointer == nullptr) return ENOMEM;
  *out = pointer;
  return 0;
}
}

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

// The one object every key refers to.
const std::shared_ptr<const int>& sharedObject() {
  static const std::shared_ptr<const int> object = std::make_shared<int>(1);
  return object;
}
void* plainObject() { return const_cast<int*>(sharedObject().get()); }

using SharedMap = std::map<std::string, std::shared_ptr<const int>>;

const CritbitTree& tree() {
  static const CritbitTree built = [] {
    CritbitTree t;
    for (const auto& q : queries()) t.setObject(plainObject(), q);
    return t;
  }();
  return built;
}

const SharedMap& orderedMap() {
  static const SharedMap built = [] {
    SharedMap m;
    for (const auto& q : queries()) m.emplace(q, sharedObject());
    return m;
  }();
  return built;
}

// One prefix lookup each: the number of keys found, so that the work cannot be optimised away.
int64_t lookupTree(const std::string& prefix) {
  int64_t found = 0;
  tree().keysMatchingPrefix(prefix, [&](std::string_view key, bool&) { found += !key.empty(); });
  return found;
}

int64_t lookupMap(const std::string& prefix) {
  const SharedMap& m = orderedMap();
  int64_t found = 0;
  for (auto it = m.lower_bound(prefix); it != m.end() && it->first.starts_with(prefix); ++it) {
    const std::string_view key = it->first;
    found += !key.empty();
  }
  return found;
}

// Looks the prefixes up in turn, one per iteration.
template <int64_t (*lookup)(const std::string&)>
void prefixLookups(benchmark::State& state) {
  size_t i = 0;
  int64_t found = 0;
  for (auto _ : state) found += lookup(prefixes()[i++ % prefixes().size()]);
  benchmark::DoNotOptimize(found);
  state.counters["keys_per_lookup"] =
      static_cast<double>(found) / static_cast<double>(state.iterations());
}

void BM_PrefixLookupCritbitTree(benchmark::State& state) { prefixLookups<lookupTree>(state); }
BENCHMARK(BM_PrefixLookupCritbitTree);

void BM_PrefixLookupStdMap(benchmark::State& state) { prefixLookups<lookupMap>(state); }
BENCHMARK(BM_PrefixLookupStdMap);

struct Footprint {
  int64_t requested = 0;
  int64_t chunks = 0;
  int64_t allocations = 0;
};

// What building a structure allocates, counted while `build` runs; the structure is kept alive
// until the counting has stopped.
template <typename Build>
Footprint measure(Build build) {
  queries();
  plainObject();
  g_requested = 0;
  g_chunks = 0;
  g_allocations = 0;
  g_counting = true;
  auto built = build();
  g_counting = false;
  Footprint footprint{g_requested.load(), g_chunks.load(), g_allocations.load()};
  benchmark::DoNotOptimize(built);
  return footprint;
}

// Nanoseconds per lookup over `rounds` passes through the prefixes, the best of five runs.
template <typename Lookup>
double nanosPerLookup(Lookup lookup) {
  double best = 1e300;
  for (int run = 0; run < 5; ++run) {
    int64_t found = 0;
    const auto start = std::chrono::steady_clock::now();
    for (int round = 0; round < 20; ++round) {
      for (const auto& prefix : prefixes()) found += lookup(prefix);
    }
    const std::chrono::duration<double, std::nano> took = std::chrono::steady_clock::now() - start;
    benchmark::DoNotOptimize(found);
    best = std::min(best, took.count() / (20.0 * static_cast<double>(prefixes().size())));
  }
  return best;
}

void printSummary() {
  const Footprint treeBytes = measure([] {
    auto t = std::make_unique<CritbitTree>();
    for (const auto& q : queries()) t->setObject(plainObject(), q);
    return t;
  });
  const Footprint sharedMapBytes = measure([] {
    auto m = std::make_unique<SharedMap>();
    for (const auto& q : queries()) m->emplace(q, sharedObject());
    return m;
  });
  const Footprint plainMapBytes = measure([] {
    auto m = std::make_unique<std::map<std::string, void*>>();
    for (const auto& q : queries()) m->emplace(q, plainObject());
    return m;
  });

  std::printf("crit-bit tree against std::map, %zu keys\n\n", kKeys);
  std::printf("%-34s %14s %14s %12s\n", "memory", "heap bytes", "asked bytes", "allocations");
  const auto row = [](const char* name, const Footprint& f) {
    std::printf("%-34s %14lld %14lld %12lld   (%.1f heap bytes per key)\n", name,
                static_cast<long long>(f.chunks), static_cast<long long>(f.requested),
                static_cast<long long>(f.allocations),
                static_cast<double>(f.chunks) / static_cast<double>(kKeys));
  };
  row("CritbitTree (plain pointers)", treeBytes);
  row("std::map<string, shared_ptr>", sharedMapBytes);
  row("std::map<string, void*>", plainMapBytes);
  const auto ratio = [](int64_t a, int64_t b) {
    return static_cast<double>(a) / static_cast<double>(b);
  };
  std::printf("tree / map<string, shared_ptr>: %.2fx heap, %.2fx asked\n",
              ratio(treeBytes.chunks, sharedMapBytes.chunks),
              ratio(treeBytes.requested, sharedMapBytes.requested));
  std::printf("tree / map<string, void*>:      %.2fx heap, %.2fx asked\n\n",
              ratio(treeBytes.chunks, plainMapBytes.chunks),
              ratio(treeBytes.requested, plainMapBytes.requested));

  tree();
  orderedMap();
  const double treeNanos = nanosPerLookup(lookupTree);
  const double mapNanos = nanosPerLookup(lookupMap);
  std::printf("prefix lookup: tree %.0f ns, map %.0f ns, tree / map %.2fx\n\n", treeNanos, mapNanos,
              treeNanos / mapNanos);
  std::fflush(stdout);
}

}  // namespace
}  // namespace orvex

int main(int argc, char** argv) {
  orvex::printSummary();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
