#include "orvexd/platform/url_cache.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <vector>

#include "orvexd/base/unique_fd.h"
#include "tests/support/test_environment.h"

namespace orvex {
namespace {

using testing::TempDir;
using testing::VirtualPlatform;
using namespace std::chrono_literals;

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
  const std::string date = "Thu, 01 Jan 2026 00:00:00 GMT";  // the virtual clock's start
  struct Case {
    std::string path;
    int64_t status;
    HttpHeaderMap headers;
    std::optional<Duration> freshFor;  // nothing: not stored
  };
  const std::vector<Case> cases = {
      {"ok", 200, cacheable, 60s},
      {"404", 404, cacheable, 60s},
      {"206", 206, cacheable, std::nullopt},
      {"no-store", 200, {{"Cache-Control", "max-age=60, No-Store"}}, std::nullopt},
      {"vary", 200, {{"Cache-Control", "max-age=5"}, {"Vary", "*"}}, std::nullopt},
      {"nothing", 200, {}, std::nullopt},  // neither fresh nor revalidatable
      // Freshness from Expires - Date, or from 10% of the Last-Modified age, at most a day.
      {"expires", 200, {{"Date", date}, {"Expires", "Thu, 01 Jan 2026 02:00:00 GMT"}}, 2h},
      {"heuristic", 200, {{"Date", date}, {"Last-Modified", "Wed, 31 Dec 2025 14:00:00 GMT"}}, 1h},
      {"capped", 200, {{"Last-Modified", "Mon, 01 Jan 2024 00:00:00 GMT"}}, 24h},
  };
  for (const Case& c : cases) {
    const HttpRequest request = get("http://a/" + c.path);
    EXPECT_EQ(cache.storeResponse(request, answer(c.status, c.headers), c.path),
              c.freshFor.has_value())
        << c.path;
    auto stored = cache.cachedResponseForRequest(request);
    ASSERT_EQ(stored.has_value(), c.freshFor.has_value()) << c.path;
    if (!stored) continue;
    EXPECT_EQ(stored->body, c.path);
    EXPECT_EQ(stored->response.statusCode, c.status);
    EXPECT_EQ(stored->freshUntil, now + *c.freshFor) << c.path;
  }

  HttpRequest post = get("http://a/post");
  post.method = "POST";
  EXPECT_FALSE(cache.storeResponse(post, answer(200, cacheable), "x"));
  HttpRequest noStore = get("http://a/ns2");
  noStore.headers["cache-control"] = "no-store";
  EXPECT_FALSE(cache.storeResponse(noStore, answer(200, cacheable), "x"));
  EXPECT_FALSE(cache.storeResponse(get("http://a/big"), answer(200, cacheable),
                                   std::string((1 << 20) / 20 + 1, 'b')))
      << "larger than 5% of the disk capacity";
  EXPECT_TRUE(cache.storeResponse(get("http://a/limit"), answer(200, cacheable),
                                  std::string((1 << 20) / 20, 'b')));
  // Kept, but never fresh: used only after revalidation.
  EXPECT_TRUE(cache.storeResponse(
      get("http://a/etag"), answer(200, {{"ETag", "\"v1\""}, {"Cache-Control", "no-cache"}}), "t"));
  EXPECT_EQ(cache.cachedResponseForRequest(get("http://a/etag"))->freshUntil, std::nullopt);
  EXPECT_TRUE(cache.storeResponse(get("http://a/bad"),
                                  answer(200, {{"Expires", "0"}, {"ETag", "\"x\""}}), "b"));
  EXPECT_LE(cache.cachedResponseForRequest(get("http://a/bad"))->freshUntil, now);

  cache.removeResponseForRequest(get("http://a/ok"));
  EXPECT_FALSE(cache.cachedResponseForRequest(get("http://a/ok")));
  cache.removeAllResponses();
  EXPECT_FALSE(cache.cachedResponseForRequest(get("http://a/404")));
  EXPECT_EQ(cache.currentMemoryUsage(), 0u);
  EXPECT_EQ(cache.currentDiskUsage(), 0u);
  EXPECT_TRUE(filesIn(directory_).empty());
}

TEST_F(UrlCacheTest, EvictsLeastRecentlyUsedEntriesFromEachTier) {
  const HttpHeaderMap headers{{"Cache-Control", "max-age=600"}};
  struct Tier {
    uint64_t memory;
    uint64_t disk;
    size_t body;
  };
  // Memory only, entries of about 400 bytes; then disk only, entries of about 900.
  for (const Tier tier : {Tier{10000, 0, 400}, Tier{0, 20000, 900}}) {
    UrlCache cache(tier.memory, tier.disk, tier.disk > 0 ? directory_ : "", *platform_.clock);
    for (int i = 0; i < 40; ++i) {
      ASSERT_TRUE(cache.storeResponse(get("http://m/" + std::to_string(i)), answer(200, headers),
                                      std::string(tier.body, 'm')));
      // Reading the first entry keeps it the most recently used.
      if (i >= 1) {
        ASSERT_TRUE(cache.cachedResponseForRequest(get("http://m/0"))) << i;
      }
    }
    const uint64_t used = cache.currentMemoryUsage() + cache.currentDiskUsage();
    EXPECT_LE(used, tier.memory + tier.disk);
    EXPECT_GT(used, (tier.memory + tier.disk) * 8 / 10);
    EXPECT_FALSE(cache.cachedResponseForRequest(get("http://m/1")));
    EXPECT_TRUE(cache.cachedResponseForRequest(get("http://m/39")));
    if (tier.disk > 0) {
      EXPECT_EQ(cache.currentMemoryUsage(), 0u);
      uint64_t blocks = 0;  // ~1 KiB entries take a whole block each: blocks, not bytes, count
      for (const auto& file : filesIn(directory_)) {
        struct stat info {};
        ASSERT_EQ(::stat(file.c_str(), &info), 0);
        blocks += static_cast<uint64_t>(info.st_blocks) * 512;
      }
      EXPECT_EQ(blocks, cache.currentDiskUsage()) << "the index matches the directory";
    }
  }
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
    (testing::readTextFile(file).find("http://p/keep") != std::string::npos ? keepFile
                                                                            : corruptFile) = file;
  }
  ASSERT_FALSE(keepFile.empty() || corruptFile.empty());
  const std::string good = testing::readTextFile(keepFile);
  std::string lying = good;  // a header that claims more bytes than there are
  lying.replace(12, 4, "\xff\xff\xff\x7f");
  // (Entry files of every other shape: the fuzz target reads them.)
  const std::vector<std::string> damaged = {
      good.substr(0, good.size() - 1),  // truncated body
      lying,
      good,  // intact, but for another URL
  };
  for (const std::string& bytes : damaged) {
    std::ofstream(corruptFile, std::ios::binary | std::ios::trunc) << bytes;
    UrlCache cache(1 << 20, 1 << 20, directory_, *platform_.clock);
    EXPECT_FALSE(cache.cachedResponseForRequest(get("http://p/corrupt"))) << bytes.size();
    EXPECT_FALSE(std::filesystem::exists(corruptFile)) << "a damaged file is deleted";
    EXPECT_TRUE(cache.cachedResponseForRequest(get("http://p/keep"))) << "others stay";
  }
}

TEST_F(UrlCacheTest, MappedEntriesOutliveTheirEvictionWhileHeldAndTheirFilesGo) {
  const auto mapped = [this](const std::string& name, size_t size, char fill, int* error) {
    const auto path = temp_ / name;
    testing::writeTextFile(path, std::string(size, fill));
    UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return mmapFileHandle(file.get(), error);
  };
  int error = 0;
  EXPECT_FALSE(mapped("empty", 0, 'e', &error));
  EXPECT_EQ(error, EINVAL);

  const auto imageFiles = [this] {
    size_t count = 0;
    for (const auto& file : filesIn(directory_))
      count += file.filename().string().starts_with("img-");
    return count;
  };
  // 12,000 bytes each (three blocks of 4 KiB): 256 KiB hold about 21 of them.
  UrlCache cache(1 << 20, 256 * 1024, directory_, *platform_.clock);
  const auto store = [&](int i) {
    const std::string name = std::to_string(i);
    return cache.storeMappedResponse(get("http://img/" + name), answer(200, {}),
                                     (temp_ / name).string(),
                                     mapped(name, 12000, 'a' + i % 26, nullptr));
  };
  ASSERT_TRUE(store(0));
  EXPECT_FALSE(std::filesystem::exists(temp_ / "0")) << "moved into the cache";
  EXPECT_FALSE(cache.cachedResponseForRequest(get("http://img/0"))) << "not for HTTP lookups";
  const auto held = cache.mappedResponseForRequest(get("http://img/0"));
  ASSERT_TRUE(held);
  for (int i = 1; i < 30; ++i) ASSERT_TRUE(store(i));
  EXPECT_FALSE(cache.mappedResponseForRequest(get("http://img/0"))) << "evicted";
  EXPECT_LE(cache.currentDiskUsage(), 256u * 1024);
  EXPECT_LT(imageFiles(), 30u);
  EXPECT_GT(imageFiles(), 10u);
  const auto bytes = held->body->bytes();
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), std::string(12000, 'a'));

  // Mapped entries are not kept across instances: their files go when the directory is read.
  const auto last = cache.mappedResponseForRequest(get("http://img/29"));
  ASSERT_TRUE(last);
  UrlCache reopened(1 << 20, 256 * 1024, directory_, *platform_.clock);
  EXPECT_FALSE(reopened.mappedResponseForRequest(get("http://img/29")));
  EXPECT_EQ(imageFiles(), 0u);
  EXPECT_EQ(last->body->bytes()[11999], 'a' + 29 % 26);
}

}  // namespace
}  // namespace orvex
