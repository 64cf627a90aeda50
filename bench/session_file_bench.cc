// How fast the daemon appends feedback records to an open session file: records of a search
// front-end's session (query starts, network requests with their headers, visible results),
// written through FileContainer on the storage's queue into a real file in a temporary
// directory. Each iteration appends a batch of 100 records and waits until the queue has
// written them, so the figure includes the archiving, the queue hop and the write(2).
//
// Appends are not flushed one by one: the records the queue finds waiting go out in one
// pwritev(2), and the file is flushed with fdatasync(2) once, when the session is closed.
//
// Besides Google Benchmark's table it prints the median rate over the repetitions as
// "FIGURE session_appends_per_s <value> /s".
//
// Usage: orvex_bench_session_file [Google Benchmark flags]
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "bench/search_session_records.h"
#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/feedback/persistent_storage.h"
#include "orvexd/model/assembly.h"
#include "orvexd/model/orvex_feedback.h"
#include "orvexd/platform/defaults_store.h"
#include "orvexd/platform/file_manager.h"
#include "orvexd/platform/worker_pool.h"
#include "tests/support/test_environment.h"

namespace orvex {
namespace {

constexpr int kBatch = 100;
// A new file is started when the current one passes this size, as a long session would.
constexpr uint64_t kRotateAt = uint64_t{64} << 20;

std::vector<OrvexFeedback> records() {
  std::vector<OrvexFeedback> made;
  for (int query = 1; made.size() < 90; ++query) {
    const auto start = bench::searchStart(query);
    for (FeedbackRecordPtr record :
         {FeedbackRecordPtr(start), FeedbackRecordPtr(bench::networkRequest(*start, query)),
          FeedbackRecordPtr(bench::visibleResults(query))}) {
      made.push_back(OrvexFeedback::initWithFeedback(
          record, query, "6F1A3C2E-0000-4000-8000-000000000001", "glance/1.0"));
    }
  }
  return made;
}

void BM_AppendToSessionFile(benchmark::State& state) {
  setLogThreshold(LogLevel::kError);
  testing::TempDir directory;
  DirectoryEnvironment directories;
  directories.home = directory.path().string();
  directories.xdgCacheHome = (directory / "cache").string();
  directories.xdgConfigHome = (directory / "config").string();
  directories.tmpdir = directory.path().string();
  Assembly assembly(std::make_shared<WorkerPool>(2), std::make_shared<SystemClock>());
  assembly.fileManager = std::make_shared<FileManager>(directories);
  assembly.userDefaults = std::make_shared<DefaultsStore>(
      assembly.fileManager, DefaultsStore::standardPath(*assembly.fileManager));
  (void)assembly.userDefaults->setObject(kORVSessionSizeLimitKey, int64_t{1} << 30);
  auto storage = std::make_shared<OrvexPersistentStorage>(assembly, kORVOrvexdNameVersion);

  const auto feedbacks = records();
  uint64_t recordBytes = 0;
  for (const auto& feedback : feedbacks) recordBytes += 8 + feedback.archiveData().size();

  auto container = storage->createFileContainerForWriting();
  if (!container) {
    state.SkipWithError("could not create a session file");
    return;
  }
  container->writeSessionHeader({{"$class", "ClientSession"}, {"agent", "glance/1.0"}});
  size_t next = 0;
  uint64_t written = 0;
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) {
      container->writeFeedback(feedbacks[next]);
      next = (next + 1) % feedbacks.size();
    }
    // Waits for the queue to have written the batch.
    benchmark::DoNotOptimize(storage->getAvailableSessionHandles());
    written += kBatch;
    if (std::filesystem::file_size(container->fileUrl()) > kRotateAt) {
      state.PauseTiming();
      storage->deleteSessionWithFileContainer(container);
      container = storage->createFileContainerForWriting();
      container->writeSessionHeader({{"$class", "ClientSession"}, {"agent", "glance/1.0"}});
      state.ResumeTiming();
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(written));
  state.counters["bytes_per_record"] =
      static_cast<double>(recordBytes) / static_cast<double>(feedbacks.size());
  state.counters["fsync_per_append"] = 0;
  storage->deleteSessionWithFileContainer(container);
  (void)storage->getAvailableSessionHandles();
}
BENCHMARK(BM_AppendToSessionFile)->Unit(benchmark::kMicrosecond)->UseRealTime()->Repetitions(5);

// The console table, and the rate of every repetition.
class RateReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      const auto rate = run.counters.find("items_per_second");
      if (run.run_type == Run::RT_Iteration && rate != run.counters.end()) {
        rates.push_back(rate->second.value);
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  std::vector<double> rates;
};

}  // namespace
}  // namespace orvex

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  orvex::RateReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  if (reporter.rates.empty()) return 1;
  std::sort(reporter.rates.begin(), reporter.rates.end());
  std::printf("FIGURE session_appends_per_s %.0f /s\n", reporter.rates[reporter.rates.size() / 2]);
  return 0;
}
