// Images through the real daemon: those a search answer names are prefetched into the URL cache
// as mapped files, and Endpoint.LoadImages hands their bytes to clients, from the hosts answers
// named only. Answers and images come from a loopback server; the reference back-end serves the
// bag.
#include <gtest/gtest.h>

#include <future>
#include <nlohmann/json.hpp>
#include <random>

#include "tests/support/daemon_harness.h"
#include "tests/support/loopback_http_server.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;

const ORVSessionConfiguration kGlance{"com.zelmor.glance", "Glance/1"};

std::string randomBytes(size_t size) {
  std::mt19937 generator(7);
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(generator());
  return bytes;
}

std::vector<uint8_t> asBytes(const std::string& text) { return {text.begin(), text.end()}; }

ImageDescription byUrl(std::string url) { return {std::move(url), std::nullopt, {}}; }

TEST(ImageTest, AnswerImagesArePrefetchedOnceAndLoadedFromTheCacheForNamedHostsOnly) {
  testing::LoopbackHttpServer server;
  const std::string base = server.baseUrl();
  const std::string photo = randomBytes(50 * 1024), star = randomBytes(3000);
  server.handle("GET", "/search", [&](const testing::RecordedRequest&) {
    const Json answer = {{"results",
                          {{{"thumbnail", {{"url", base + "/img/photo"}}},
                            {"icon", {{"url", base + "/img/missing"}}},
                            {"glyph", {{"id", "star"}}}}}}};
    return testing::LoopbackHttpServer::Response{200, answer.dump(), {}};
  });
  server.handle("GET", "/img/photo", [&](const auto&) {
    return testing::LoopbackHttpServer::Response{200, photo, {{"Content-Type", "image/png"}}};
  });
  server.handle("GET", "/img/huge", [&](const auto&) {
    return testing::LoopbackHttpServer::Response{200, std::string(6 << 20, 'h'), {}};
  });
  server.handle("GET", "/img/star", [&](const auto&) {
    return testing::LoopbackHttpServer::Response{200, star, {}};
  });
  const auto count = [&server](const std::string& path) {
    size_t n = 0;
    for (const auto& request : server.requests()) n += request.path == path;
    return n;
  };
  const std::string bag = R"({"version": "1", "enabled": true, "feedback_enabled": true,
      "search_url": ")" + base +
                          R"(/search", "resources": {"star": ")" + base + R"(/img/star"}})";
  testing::DaemonHarness harness(bag, {{"ORVNoQueryCache", PlistValue(true)}});
  harness.start();
  auto client = harness.clientWithBag(kGlance);
  const auto logged = [&harness](const std::string& text) {
    return testing::eventually([&] { return harness.daemonLog().find(text) != std::string::npos; },
                               10s);
  };

  ORVRequest search;
  search.queryId = 1;
  search.queryString = "weather";
  ASSERT_TRUE(client->request(search));
  EXPECT_TRUE(logged("Bad status code 404 for image " + base + "/img/missing"));
  ASSERT_TRUE(logged("caching 3000 bytes for " + base + "/img/star")) << harness.daemonLog();
  ASSERT_TRUE(logged("caching 51200 bytes for " + base + "/img/photo"));
  // The same answer again: what is cached is not fetched, what was not (the 404) is.
  search.queryId = 2;
  ASSERT_TRUE(client->request(search));
  EXPECT_TRUE(logged("found " + base + "/img/star in cache"));
  EXPECT_TRUE(testing::eventually([&] { return count("/img/missing") == 2; }));
  EXPECT_EQ(count("/img/photo"), 1u);
  EXPECT_EQ(count("/img/star"), 1u);

  // Loads: the cached bytes, by url and by id; another host (the same server, named otherwise)
  // and schemes other than exactly http and https are not fetched, nor kept when too large.
  const std::string port = std::to_string(server.port());
  auto loaded = client->loadImages({byUrl(base + "/img/photo"),
                                    {std::nullopt, "star", {}},
                                    byUrl(base + "/img/missing"),
                                    byUrl(base + "/img/huge"),
                                    byUrl("http://localhost:" + port + "/img/other"),
                                    byUrl("ftp://127.0.0.1:" + port + "/img/other"),
                                    byUrl("HTTP://127.0.0.1:" + port + "/img/other")},
                                   5000ms);
  ASSERT_TRUE(loaded) << loaded.error().message;
  EXPECT_EQ(loaded.value(),
            (OrvexClient::Images{{base + "/img/photo", asBytes(photo)}, {"star", asBytes(star)}}));
  // Over 5% of the cache's disk tier, the download is cut off.
  EXPECT_TRUE(logged("response body larger than 5242880 bytes"));
  EXPECT_TRUE(logged("loadImage with invalid host: http://localhost:"));
  EXPECT_TRUE(logged("loadImage with invalid scheme: ftp://"));
  EXPECT_TRUE(logged("loadImage with invalid scheme: HTTP://"));
  EXPECT_EQ(count("/img/other"), 0u);
  EXPECT_EQ(count("/img/photo"), 1u);

  // The images live in the cache's directory, not in the temporary one.
  size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(harness.cacheDirectory() /
                                                               "com.zelmor.orvexd" / "URLCache")) {
    files += entry.path().filename().string().starts_with("img-");
  }
  EXPECT_EQ(files, 2u);
  EXPECT_TRUE(
      testing::eventually([&] { return std::filesystem::is_empty(harness.tmpDirectory()); }));
  // Each fetch is recorded, as the daemon's own, with the image endpoint.
  EXPECT_TRUE(testing::eventually([&] {
    auto records = client->feedback();
    return records && records.value().find("\"orvex_image\"") != std::string::npos;
  }));

  // Nothing to load answers at once, whatever the time-out; too many images are refused.
  auto nothing =
      std::async(std::launch::async, [&] { return client->loadImages({}, 3'600'000ms); });
  ASSERT_EQ(nothing.wait_for(20s), std::future_status::ready) << "waited for the time-out";
  EXPECT_TRUE(nothing.get().value().empty());
  auto tooMany = client->loadImages(std::vector<ImageDescription>(257), 0ms);
  ASSERT_FALSE(tooMany);
  EXPECT_EQ(tooMany.error().name, "com.zelmor.orvexd.Error.InvalidArgument");
}

}  // namespace
}  // namespace orvex
