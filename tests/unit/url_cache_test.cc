#include "orvexd/platform/url_cache.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>

#include "orvexd/platform/http_session.h"
#include "orvexd/platform/serial_queue.h"
#include "tests/support/loopback_http_server.h"
#include "tests/support/test_environment.h"

namespace orvex {
namespace {

using testing::LoopbackHttpServer;
using testing::RecordedRequest;
using testing::TempDir;
using testing::VirtualPlatform;
using namespace std::chrono_literals;

constexpr auto kWatchdog = std::chrono::seconds(30);

HttpRequest get(std::string url) {
  HttpRequest request;
  request.url = std::move(url);
  return request;
}

HttpResponse answer(int64_t status, HttpHeaderMap headers) {
  HttpResponse response;
  response.statusCode = status;
  response.headers = std::move(headers);
  return response;
}

std::vector<std::filesystem::path> filesIn(const std::filesystem::path& directory) {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    files.push_back(entry.path());
  }
  return files;
}

class UrlCacheTest : public ::testing::Test {
 protected:
  VirtualPlatform platform_;
  TempDir temp_;
  std::string directory_ = (temp_ / "cache").string();
};

TEST_F(UrlCacheTest, StoresOnlyWhatHttpAllowsAndComputesFreshness) {
  UrlCache cache(1 << 20, 1 << 20, directory_, *platform_.clock);
  const WallTime now = platform_.clock->wallNow();
  const HttpHeaderMap cacheable{{"Cache-Control", "public, max-age=60"}};

  EXPECT_TRUE(cache.storeResponse(get("http://a/1"), answer(200, cacheable), "one"));
  auto stored = cache.cachedResponseForRequest(get("http://a/1"));
  ASSERT_TRUE(stored);
  EXPECT_EQ(stored->body, "one");
  EXPECT_EQ(stored->response.statusCode, 200);
  EXPECT_EQ(stored->storedAt, now);
  EXPECT_EQ(stored->freshUntil, now + 60s);

  HttpRequest post = get("http://a/post");
  post.method = "POST";
  EXPECT_FALSE(cache.storeResponse(post, answer(200, cacheable), "x"));
  EXPECT_FALSE(cache.cachedResponseForRequest(post));
  EXPECT_FALSE(cache.storeResponse(get("http://a/500"), answer(500, cacheable), "x"));
  EXPECT_FALSE(cache.storeResponse(get("http://a/206"), answer(206, cacheable), "x"));
  EXPECT_TRUE(cache.storeResponse(get("http://a/404"), answer(404, cacheable), "gone"));
  EXPECT_FALSE(cache.storeResponse(get("http://a/ns"),
                                   answer(200, {{"Cache-Control", "max-age=60, No-Store"}}), "x"));
  HttpRequest noStore = get("http://a/ns2");
  noStore.headers["cache-control"] = "no-store";
  EXPECT_FALSE(cache.storeResponse(noStore, answer(200, cacheable), "x"));
  EXPECT_FALSE(cache.storeResponse(
      get("http://a/vary"), answer(200, {{"Cache-Control", "max-age=5"}, {"Vary", "*"}}), "x"));
  EXPECT_FALSE(cache.storeResponse(get("http://a/nothing"), answer(200, {}), "x"))
      << "neither fresh nor revalidatable";
  EXPECT_FALSE(cache.storeResponse(get("http://a/big"), answer(200, cacheable),
                                   std::string((1 << 20) / 20 + 1, 'b')))
      << "larger than 5% of the disk capacity";
  EXPECT_TRUE(cache.storeResponse(get("http://a/limit"), answer(200, cacheable),
                                  std::string((1 << 20) / 20, 'b')));
  EXPECT_FALSE(cache.cachedResponseForRequest(get("http://a/ns")));

  // Freshness from Expires - Date, from 10% of the Last-Modified age (at most a day), or none.
  EXPECT_TRUE(cache.storeResponse(get("http://a/expires"),
                                  answer(200, {{"Date", "Thu, 01 Jan 2026 00:00:00 GMT"},
                                               {"Expires", "Thu, 01 Jan 2026 02:00:00 GMT"}}),
                                  "e"));
  EXPECT_EQ(cache.cachedResponseForRequest(get("http://a/expires"))->freshUntil, now + 2h);
  EXPECT_TRUE(cache.storeResponse(get("http://a/heuristic"),
                                  answer(200, {{"Date", "Thu, 01 Jan 2026 00:00:00 GMT"},
                                               {"Last-Modified", "Wed, 31 Dec 2025 14:00:00 GMT"}}),
                                  "h"));
  EXPECT_EQ(cache.cachedResponseForRequest(get("http://a/heuristic"))->freshUntil, now + 1h);
  EXPECT_TRUE(cache.storeResponse(get("http://a/capped"),
                                  answer(200, {{"Last-Modified", "Mon, 01 Jan 2024 00:00:00 GMT"}}),
                                  "c"));
  EXPECT_EQ(cache.cachedResponseForRequest(get("http://a/capped"))->freshUntil, now + 24h);
  EXPECT_TRUE(cache.storeResponse(
      get("http://a/etag"), answer(200, {{"ETag", "\"v1\""}, {"Cache-Control", "no-cache"}}), "t"));
  auto mustRevalidate = cache.cachedResponseForRequest(get("http://a/etag"));
  ASSERT_TRUE(mustRevalidate);
  EXPECT_FALSE(mustRevalidate->freshUntil);
  EXPECT_TRUE(cache.storeResponse(get("http://a/bad"),
                                  answer(200, {{"Expires", "0"}, {"ETag", "\"x\""}}), "b"));
  EXPECT_LE(cache.cachedResponseForRequest(get("http://a/bad"))->freshUntil, now);

  cache.removeResponseForRequest(get("http://a/1"));
  EXPECT_FALSE(cache.cachedResponseForRequest(get("http://a/1")));
  cache.removeAllResponses();
  EXPECT_FALSE(cache.cachedResponseForRequest(get("http://a/404")));
  EXPECT_EQ(cache.currentMemoryUsage(), 0u);
  EXPECT_EQ(cache.currentDiskUsage(), 0u);
  EXPECT_TRUE(filesIn(directory_).empty());
}

TEST_F(UrlCacheTest, EvictsLeastRecentlyUsedEntriesFromEachTier) {
  const HttpHeaderMap headers{{"Cache-Control", "max-age=600"}};
  {
    // Memory only: 10000 bytes, entries of about 400.
    UrlCache memory(10000, 0, "", *platform_.clock);
    for (int i = 0; i < 40; ++i) {
      ASSERT_TRUE(memory.storeResponse(get("http://m/" + std::to_string(i)), answer(200, headers),
                                       std::string(400, 'm')));
      if (i >= 1) {
        ASSERT_TRUE(memory.cachedResponseForRequest(get("http://m/0"))) << i;
      }
    }
    EXPECT_LE(memory.currentMemoryUsage(), 10000u);
    EXPECT_GT(memory.currentMemoryUsage(), 8000u);
    EXPECT_TRUE(memory.cachedResponseForRequest(get("http://m/0"))) << "kept by being used";
    EXPECT_FALSE(memory.cachedResponseForRequest(get("http://m/1")));
    EXPECT_TRUE(memory.cachedResponseForRequest(get("http://m/39")));
  }
  // Disk only: 20000 bytes, entries of about 900.
  UrlCache disk(0, 20000, directory_, *platform_.clock);
  for (int i = 0; i < 40; ++i) {
    ASSERT_TRUE(disk.storeResponse(get("http://d/" + std::to_string(i)), answer(200, headers),
                                   std::string(900, 'd')));
    if (i >= 1) {
      ASSERT_TRUE(disk.cachedResponseForRequest(get("http://d/0"))) << i;
    }
  }
  EXPECT_EQ(disk.currentMemoryUsage(), 0u);
  EXPECT_LE(disk.currentDiskUsage(), 20000u);
  uint64_t onDisk = 0;
  for (const auto& file : filesIn(directory_)) onDisk += std::filesystem::file_size(file);
  EXPECT_EQ(onDisk, disk.currentDiskUsage()) << "the index matches the directory";
  EXPECT_TRUE(disk.cachedResponseForRequest(get("http://d/0")));
  EXPECT_FALSE(disk.cachedResponseForRequest(get("http://d/1")));
  EXPECT_TRUE(disk.cachedResponseForRequest(get("http://d/39")));
}

TEST_F(UrlCacheTest, PersistsAcrossInstancesAndDropsDamagedFiles) {
  const HttpHeaderMap headers{
      {"Cache-Control", "max-age=300"}, {"ETag", "\"abc\""}, {"Content-Type", "text/plain"}};
  {
    UrlCache cache(1 << 20, 1 << 20, directory_, *platform_.clock);
    HttpResponse response = answer(203, headers);
    response.url = "http://p/final";
    ASSERT_TRUE(cache.storeResponse(get("http://p/keep"), response, std::string("bo\0dy", 5)));
    ASSERT_TRUE(cache.storeResponse(get("http://p/corrupt"), answer(200, headers), "c"));
  }
  auto files = filesIn(directory_);
  ASSERT_EQ(files.size(), 2u);
  for (const auto& file : files) {
    EXPECT_EQ(file.filename().string().size(), 64u) << "named by the SHA-256 of the URL";
  }

  UrlCache reopened(1 << 20, 1 << 20, directory_, *platform_.clock);
  EXPECT_GT(reopened.currentDiskUsage(), 0u);
  auto kept = reopened.cachedResponseForRequest(get("http://p/keep"));
  ASSERT_TRUE(kept);
  EXPECT_EQ(kept->body, std::string("bo\0dy", 5));
  EXPECT_EQ(kept->response.statusCode, 203);
  EXPECT_EQ(kept->response.url, "http://p/final");
  EXPECT_EQ(kept->response.headers, headers);
  EXPECT_EQ(kept->freshUntil, platform_.clock->wallNow() + 300s);

  // Find the other file, then damage it in several ways.
  std::filesystem::path keepFile, corruptFile;
  for (const auto& file : files) {
    std::ifstream in(file, std::ios::binary);
    std::string content(std::istreambuf_iterator<char>(in), {});
    (content.find("http://p/keep") != std::string::npos ? keepFile : corruptFile) = file;
  }
  ASSERT_FALSE(keepFile.empty());
  ASSERT_FALSE(corruptFile.empty());
  std::ifstream in(keepFile, std::ios::binary);
  const std::string good(std::istreambuf_iterator<char>(in), {});
  const std::vector<std::string> damaged = {
      good.substr(0, good.size() - 1),  // truncated body
      good.substr(0, 30),               // truncated header
      good + "x",                       // trailing bytes
      "garbage",
      std::string(),
      good,  // intact, but for another URL
  };
  for (const std::string& bytes : damaged) {
    std::ofstream(corruptFile, std::ios::binary | std::ios::trunc) << bytes;
    UrlCache cache(1 << 20, 1 << 20, directory_, *platform_.clock);
    EXPECT_FALSE(cache.cachedResponseForRequest(get("http://p/corrupt"))) << bytes.size();
    EXPECT_FALSE(std::filesystem::exists(corruptFile)) << "a damaged file is deleted";
    EXPECT_TRUE(cache.cachedResponseForRequest(get("http://p/keep"))) << "others stay";
  }
  // A header that claims more bytes than there are.
  std::string lying = good;
  lying[12] = '\xff';
  lying[13] = '\xff';
  lying[14] = '\xff';
  lying[15] = '\x7f';
  std::ofstream(corruptFile, std::ios::binary | std::ios::trunc) << lying;
  UrlCache cache(1 << 20, 1 << 20, directory_, *platform_.clock);
  EXPECT_FALSE(cache.cachedResponseForRequest(get("http://p/corrupt")));
}

// The cache as a session uses it, against a real server.
class CachedSessionTest : public ::testing::Test {
 protected:
  CachedSessionTest() {
    cache_ =
        std::make_shared<UrlCache>(1 << 20, 4 << 20, (temp_ / "cache").string(), *platform_.clock);
    HttpSessionConfiguration configuration;
    configuration.identifier = "cached";
    configuration.urlCache = cache_;
    session_ = std::make_unique<HttpSession>(configuration, *platform_.pool, *platform_.clock,
                                             temp_.path().string());
  }
  ~CachedSessionTest() override { session_.reset(); }

  HttpDataResult fetch(std::string path,
                       HttpCachePolicy policy = HttpCachePolicy::kUseProtocolCachePolicy) {
    HttpRequest request = get(server_.baseUrl() + path);
    request.cachePolicy = policy;
    auto promise = std::make_shared<std::promise<HttpDataResult>>();
    auto future = promise->get_future();
    session_
        ->dataTask(request,
                   [promise](HttpDataResult result) { promise->set_value(std::move(result)); })
        ->resume();
    if (future.wait_for(kWatchdog) != std::future_status::ready) {
      ADD_FAILURE() << "no completion for " << path;
      return {};
    }
    return future.get();
  }

  VirtualPlatform platform_;
  TempDir temp_;
  LoopbackHttpServer server_;
  std::shared_ptr<UrlCache> cache_;
  std::unique_ptr<HttpSession> session_;
};

TEST_F(CachedSessionTest, FreshAnswersComeFromTheCacheAndStaleOnesAreRevalidated) {
  int version = 1;
  std::mutex mutex;
  server_.handle("GET", "/doc", [&](const RecordedRequest& request) {
    std::lock_guard lock(mutex);
    const std::string etag = "\"v" + std::to_string(version) + "\"";
    auto match = request.headers.find("If-None-Match");
    if (match != request.headers.end() && match->second == etag) {
      return LoopbackHttpServer::Response{
          304, "", {{"ETag", etag}, {"Cache-Control", "max-age=60"}}};
    }
    return LoopbackHttpServer::Response{
        200, "body " + etag, {{"ETag", etag}, {"Cache-Control", "max-age=60"}}};
  });

  auto first = fetch("/doc");
  ASSERT_TRUE(first.response);
  EXPECT_FALSE(first.response->fromCache);
  EXPECT_EQ(first.data, "body \"v1\"");
  EXPECT_FALSE(first.timing.empty());

  auto second = fetch("/doc");
  ASSERT_TRUE(second.response);
  EXPECT_TRUE(second.response->fromCache);
  EXPECT_EQ(second.data, "body \"v1\"");
  EXPECT_TRUE(second.timing.empty()) << "a cached answer has no timing";
  EXPECT_EQ(server_.requestCount(), 1u) << "a fresh answer needs no request";

  platform_.advance(61s);  // stale now: revalidated with its ETag, still the same
  auto revalidated = fetch("/doc");
  ASSERT_TRUE(revalidated.response);
  EXPECT_EQ(server_.requestCount(), 2u);
  EXPECT_EQ(server_.requests()[1].headers.at("If-None-Match"), "\"v1\"");
  EXPECT_TRUE(revalidated.response->fromCache);
  EXPECT_EQ(revalidated.response->statusCode, 200) << "the stored status, not 304";
  EXPECT_EQ(revalidated.data, "body \"v1\"");

  auto refreshed = fetch("/doc");  // the 304 made the entry fresh again
  EXPECT_TRUE(refreshed.response->fromCache);
  EXPECT_EQ(server_.requestCount(), 2u);

  {
    std::lock_guard lock(mutex);
    version = 2;
  }
  platform_.advance(61s);
  auto changed = fetch("/doc");
  EXPECT_FALSE(changed.response->fromCache);
  EXPECT_EQ(changed.data, "body \"v2\"");
  EXPECT_EQ(fetch("/doc").data, "body \"v2\"") << "the new answer replaced the old";
  EXPECT_EQ(server_.requestCount(), 3u);
}

TEST_F(CachedSessionTest, ReloadPolicyAndNoStoreBypassTheCache) {
  int hits = 0;
  std::mutex mutex;
  server_.handle("GET", "/reload", [&](const RecordedRequest&) {
    std::lock_guard lock(mutex);
    return LoopbackHttpServer::Response{
        200, "r" + std::to_string(++hits), {{"Cache-Control", "max-age=60"}}};
  });
  server_.handle("GET", "/secret", [](const RecordedRequest&) {
    return LoopbackHttpServer::Response{200, "s", {{"Cache-Control", "no-store, max-age=60"}}};
  });

  EXPECT_EQ(fetch("/reload").data, "r1");
  auto reloaded = fetch("/reload", HttpCachePolicy::kReloadIgnoringLocalCacheData);
  EXPECT_FALSE(reloaded.response->fromCache);
  EXPECT_EQ(reloaded.data, "r2") << "the cache is not read";
  auto afterReload = fetch("/reload");
  EXPECT_TRUE(afterReload.response->fromCache);
  EXPECT_EQ(afterReload.data, "r2") << "but the reloaded answer was stored";

  fetch("/secret");
  auto again = fetch("/secret");
  EXPECT_FALSE(again.response->fromCache);
  EXPECT_EQ(server_.requestCount(), 4u);
  EXPECT_FALSE(cache_->cachedResponseForRequest(get(server_.baseUrl() + "/secret")));
}

}  // namespace
}  // namespace orvex
