// What the feedback upload form costs: the time to encode a 200-record session into its upload
// JSON text, and the memory of 10 000 small dictionaries with the same keys, over the shared key
// set and as plain nlohmann::json objects.
//
// Memory is counted by replacing the global allocation functions: the usable size of every live
// block (malloc_usable_size), and the number of blocks.
//
// Usage: orvex_bench_feedback [Google Benchmark flags]
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "bench/search_session_records.h"
#include "orvexd/base/orvex_logging.h"
#include "orvexd/model/orvex_feedback.h"
#include "orvexd/model/orvex_session_feedback.h"

namespace {

std::atomic<bool> g_counting{false};
std::atomic<int64_t> g_liveBytes{0};
std::atomic<int64_t> g_liveBlocks{0};

void* allocate(std::size_t size) {
  void* block = std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) throw std::bad_alloc();
  if (g_counting.load(std::memory_order_relaxed)) {
    g_liveBytes += static_cast<int64_t>(malloc_usable_size(block));
    ++g_liveBlocks;
  }
  return block;
}

void release(void* block) noexcept {
  if (block == nullptr) return;
  if (g_counting.load(std::memory_order_relaxed)) {
    g_liveBytes -= static_cast<int64_t>(malloc_usable_size(block));
    --g_liveBlocks;
  }
  std::free(block);
}

}  // namespace

void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void operator delete(void* block) noexcept { release(block); }
void operator delete[](void* block) noexcept { release(block); }
void operator delete(void* block, std::size_t) noexcept { release(block); }
void operator delete[](void* block, std::size_t) noexcept { release(block); }

namespace orvex {
namespace {

using bench::searchResult;

PlistDictionary timing() {
  PlistDictionary t;
  const char* names[] = {"fetchStart",          "domainLookupStart", "domainLookupEnd",
                         "connectStart",        "connectEnd",        "secureConnectionStart",
                         "secureConnectionEnd", "requestStart",      "requestEnd",
                         "responseStart",       "responseEnd"};
  double at = 1'700'000'000.0;
  for (const char* name : names) {
    t["_orvexTiming_" + std::string(name)] = at;
    at += 0.004;
  }
  t["_orvexTiming_connectionReused"] = false;
  t["_orvexTiming_interfaceIdentifier"] = "wlan0";
  t["_orvexTiming_peerAddress"] = PlistData{16, 2, 1, 187, 192, 0, 2, 7, 0, 0, 0, 0, 0, 0, 0, 0};
  return t;
}

// A session as a search front-end makes it: per query a start, the network request and its
// end, the visible results, now and then a ranking, suggestions or an engagement.
std::vector<OrvexFeedback> session() {
  std::vector<OrvexFeedback> records;
  int query = 0;
  while (records.size() < 200) {
    ++query;
    std::vector<FeedbackRecordPtr> made;
    const auto start = bench::searchStart(query);
    made.push_back(start);
    made.push_back(bench::networkRequest(*start, query));
    auto end = std::make_shared<ORVEndNetworkSearchFeedback>();
    end->uuid = start->uuid;
    end->responseSize = 18000;
    end->statusCode = 200;
    end->networkTimingData = timing();
    end->orvexStatus = "ok";
    end->orvexDuration = 0.042;
    made.push_back(end);
    made.push_back(bench::visibleResults(query));
    if (query % 3 == 0) {
      auto ranking = std::make_shared<NBRankingFeedback>();
      ranking->blendingDuration = 0.003;
      ranking->sections.emplace();
      for (int s = 0; s < 3; ++s) {
        NBSectionRankingFeedback section;
        section.section =
            NBResultSection{"section-" + std::to_string(s), 1.0, "com.zelmor.web", {}};
        section.localSectionPosition = s;
        section.results.emplace();
        for (int i = 0; i < 4; ++i) {
          section.results->push_back(
              NBResultRankingFeedback{searchResult(query * 10 + i), i, {}, {}});
        }
        ranking->sections->push_back(std::move(section));
      }
      made.push_back(ranking);
    }
    if (query % 4 == 0) {
      auto suggestions = std::make_shared<NBVisibleSuggestionsFeedback>();
      suggestions->suggestions.emplace();
      for (int i = 0; i < 5; ++i) {
        NBSearchSuggestion s;
        s.recordClass = NBSearchSuggestion::Class::kORVSearchSuggestion;
        s.identifier = "suggestion-" + std::to_string(i);
        s.suggestion = "weather paris " + std::to_string(i);
        s.query = "weather";
        s.fbr = "f";
        suggestions->suggestions->push_back(std::move(s));
      }
      made.push_back(suggestions);
    }
    if (query % 5 == 0) {
      auto engagement = std::make_shared<NBResultEngagementFeedback>();
      engagement->triggerEvent = 2;
      engagement->destination = 2;
      engagement->result = searchResult(query * 10);
      made.push_back(engagement);
    }
    for (auto& record : made) {
      if (records.size() == 200) break;
      auto envelope = OrvexFeedback::initWithFeedback(record, query, "guid", "Glance/1",
                                                      static_cast<uint64_t>(query));
      envelope.setRelTimestamp(records.size() * 350);
      records.push_back(std::move(envelope));
    }
  }
  return records;
}

// The upload JSON text of a whole session ("fb" of the upload body).
void BM_EncodeSession200(benchmark::State& state) {
  setLogThreshold(LogLevel::kError);
  const auto records = session();
  std::size_t bytes = 0;
  for (auto _ : state) {
    FeedbackArray uploads;
    uploads.reserve(records.size());
    for (const auto& envelope : records) uploads.push_back(envelope.dictionary());
    std::string text;
    FeedbackValue(std::move(uploads)).appendJson(text);
    bytes = text.size();
    benchmark::DoNotOptimize(text);
  }
  state.counters["records"] = static_cast<double>(records.size());
  state.counters["json_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_EncodeSession200)->Unit(benchmark::kMicrosecond);

// The same session through nlohmann::json documents, for comparison.
void BM_EncodeSession200ThroughNlohmannJson(benchmark::State& state) {
  const auto records = session();
  for (auto _ : state) {
    nlohmann::json uploads = nlohmann::json::array();
    for (const auto& envelope : records) uploads.push_back(envelope.dictionary().toJson());
    std::string text = uploads.dump();
    benchmark::DoNotOptimize(text);
  }
}
BENCHMARK(BM_EncodeSession200ThroughNlohmannJson)->Unit(benchmark::kMicrosecond);

constexpr int kSmallDictionaries = 10'000;

// Live memory of 10 000 upload objects of search results (8 keys each), made by `make`.
template <typename Make>
void measureDictionaries(benchmark::State& state, Make make) {
  std::vector<NBSearchResult> results;
  for (int i = 0; i < kSmallDictionaries; ++i) results.push_back(searchResult(i));
  int64_t bytes = 0;
  int64_t blocks = 0;
  for (auto _ : state) {
    std::vector<decltype(make(results[0]))> kept;
    kept.reserve(results.size());
    const int64_t bytesBefore = g_liveBytes;
    const int64_t blocksBefore = g_liveBlocks;
    g_counting = true;
    for (const auto& r : results) kept.push_back(make(r));
    g_counting = false;
    bytes = g_liveBytes - bytesBefore;
    blocks = g_liveBlocks - blocksBefore;
    benchmark::DoNotOptimize(kept);
    // The vector that holds them was allocated before counting; each element's size is added.
    bytes += static_cast<int64_t>(kept.size() * sizeof(kept[0]));
  }
  state.counters["bytes_total"] = static_cast<double>(bytes);
  state.counters["bytes_each"] = static_cast<double>(bytes) / kSmallDictionaries;
  state.counters["blocks_each"] = static_cast<double>(blocks) / kSmallDictionaries;
}

void BM_SmallDictionariesSharedKeys(benchmark::State& state) {
  measureDictionaries(
      state, [](const NBSearchResult& r) { return FeedbackUploadWriter::dictionaryOf(r); });
}
BENCHMARK(BM_SmallDictionariesSharedKeys)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_SmallDictionariesNlohmannJson(benchmark::State& state) {
  measureDictionaries(state, [](const NBSearchResult& r) {
    return FeedbackUploadWriter::dictionaryOf(r).toJson();
  });
}
BENCHMARK(BM_SmallDictionariesNlohmannJson)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace
}  // namespace orvex

BENCHMARK_MAIN();
