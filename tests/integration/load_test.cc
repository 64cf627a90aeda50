// The daemon under load: a hundred clients search and report at once against the reference
// back-end. Every call is answered, every record reaches a session file, and the daemon's
// resident memory stays within a bound.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <thread>

#include "tests/support/session_files.h"

namespace orvex {
namespace {

#ifndef __has_feature  // g++ names AddressSanitizer __SANITIZE_ADDRESS__ instead
#define __has_feature(feature) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || __has_feature(address_sanitizer)
// Calls cost ten times as much, and the test must stay well within its minute on one core.
constexpr int kSearches = 40;
// Freed memory waits in quarantine (up to 256 MiB) before it is reused, and every block is padded.
constexpr long kGrowthBoundKb = 640 << 10;
#elif defined(__SANITIZE_THREAD__) || __has_feature(thread_sanitizer)
constexpr int kSearches = 200;
// Every byte the daemon touches has its shadow, and freed memory keeps its access history.
constexpr long kGrowthBoundKb = 256 << 10;
#else
constexpr int kSearches = 200;
// Records go to files, not memory; the query cache empties itself at 2 MiB of answers; the
// connections are gone when the figure is taken. What stays is freed memory the allocator keeps
// (about 13 MiB here); a leak of a kilobyte per call would pass 32 MiB.
constexpr long kGrowthBoundKb = 32 << 10;
#endif
constexpr int kClients = 100;  // each makes kSearches searches, each followed by its record
constexpr int kCalls = 2 * kClients * kSearches;

// Search `i` of client `c`: a prefix of a word, which the cache answers once a completion that
// covers it is in, or (one in five) a query no other search makes, which goes to the back-end.
std::string queryFor(int c, int i) {
  static const std::string kWords[] = {"weather", "football", "recipe", "berlin",   "coffee",
                                       "museum",  "forecast", "garden", "mountain", "keyboard"};
  if (i % 5 == 0) return std::string("zq").append(std::to_string(c * kSearches + i));
  const std::string& word = kWords[static_cast<size_t>(c + i) % std::size(kWords)];
  return word.substr(0, 2 + static_cast<size_t>(i / 5 + c) % (word.size() - 1));
}

long residentKb(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) return std::stol(line.substr(6));
  }
  return -1;
}

TEST(LoadTest, AHundredClientsSearchingAtOnceAreAllAnsweredAndRecorded) {
  testing::DaemonHarness harness(R"({"version": "1", "enabled": true, "min_query_length": 2,
    "feedback_enabled": true, "search_url": "${BASE_URL}/search"})");
  harness.logLevel = "error";
  harness.start();
  std::vector<std::unique_ptr<OrvexClient>> clients;
  for (int c = 0; c < kClients; ++c)
    clients.push_back(harness.clientWithBag({"com.zelmor.glance", "Glance/1"}));
  const long before = residentKb(harness.daemon()->pid());
  const auto start = std::chrono::steady_clock::now();
  std::vector<std::thread> threads;
  for (int c = 0; c < kClients; ++c) {
    threads.emplace_back([&, c] {
      OrvexClient& client = *clients[static_cast<size_t>(c)];
      for (int i = 0; i < kSearches; ++i) {
        const ORVRequest request = testing::searchRequest(i + 1, queryFor(c, i));
        // Gtest's checks may be made from any thread.
        auto answer = client.request(request);
        ASSERT_TRUE(answer) << answer.error().name;
        // An answer of its own: this query's id, and the query or its completion in the reply.
        const QueryAnswer& got = answer.value();
        EXPECT_TRUE(!got.error && got.reply && got.queryId == request.queryId &&
                    got.reply->rawResponse.find(request.queryString) != std::string::npos)
            << "wrong answer to " << request.queryString;
        NBStartSearchFeedback record;
        record.timestamp = static_cast<uint64_t>(
            std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count());
        record.input = std::string("load-").append(std::to_string(c * kSearches + i));
        auto sent = client.reportEvent("searchStarted", i + 1, record);
        ASSERT_TRUE(sent) << sent.error().name;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  clients.clear();  // the connections go, and with them the clients' sessions

  // Every record in a session file, once, soon after its session ended with its connection.
  testing::SessionReader reader;
  std::map<std::string, int> onDisk;
  EXPECT_TRUE(testing::eventually(
      [&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
        onDisk.clear();
        for (const auto& file : testing::sessionFiles(testing::sessionDirectory(harness))) {
          for (auto& input : reader.inputs(file, "load-").value_or(std::vector<std::string>{}))
            ++onDisk[input];
        }
        return onDisk.size() == size_t{kClients * kSearches};
      },
      std::chrono::seconds(30)))
      << onDisk.size() << " of the records on disk";
  for (const auto& [input, count] : onDisk) EXPECT_EQ(count, 1) << input;

  // The unique queries and some others went to the back-end; the cache answered the rest.
  const size_t network = harness.backend().requestCount("search");
  EXPECT_GE(network, size_t{kClients * kSearches / 5});
  EXPECT_GT(
      harness.counter(
          std::string("com.zelmor.orvexd.glance.").append(kORVCounterSuffixOnDeviceCacheHits)),
      0);

  const long after = residentKb(harness.daemon()->pid());
  std::printf(
      "load: %d calls in %.1f s, %.0f calls/s, %zu searches to the back-end; daemon "
      "VmRSS %ld kB before, %ld kB after\n",
      kCalls, elapsed.count(), kCalls / elapsed.count(), network, before, after);
  EXPECT_LT(after - before, kGrowthBoundKb);
  EXPECT_EQ(harness.stop(), 0);
}

}  // namespace
}  // namespace orvex
