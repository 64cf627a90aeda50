// The installed-app signature through the real daemon: the applications installed (metainfo in
// the daemon's $XDG_DATA_DIRS) that the downloaded whitelist names reach the back-end's searches
// as "X-Zelmor-Whitelisted-App-Signature", stays while the probe helper that reads them is
// missing, and goes when the bag drops the whitelist.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "orvexd/base/orvex_names.h"
#include "orvexd/base/text_util.h"
#include "tests/support/daemon_harness.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::ordered_json;
namespace fs = std::filesystem;

Json shippedBag() {
  return Json::parse(
      testing::readTextFile(fs::path(ORVEX_BACKEND_BINARY).parent_path() / "bag.json"));
}

void writeApplication(const fs::path& metainfo, const std::string& id, const char* release) {
  fs::create_directories(metainfo);
  std::string releases = release ? std::string("<release version=\"") + release + "\"/>" : "";
  testing::writeTextFile(metainfo / (id + ".metainfo.xml"),
                         "<?xml version=\"1.0\"?><component type=\"desktop-application\"><id>" +
                             id + "</id><name>n</name><releases>" + releases +
                             "</releases></component>");
}

TEST(AppSignatureTest, SearchesCarryTheInstalledWhitelistedAppsUntilTheWhitelistGoes) {
  testing::TempDir data;
  // Alpha and Beta are installed with a version; Gamma has no release; Delta is not installed.
  writeApplication(data.path() / "share/metainfo", "org.example.Alpha", "2.0");
  writeApplication(data.path() / "share/metainfo", "org.example.Beta", "1.0");
  writeApplication(data.path() / "share/metainfo", "org.example.Gamma", nullptr);
  const Json inner{{"version", "c0ffee"},
                   {"apps",
                    {{"org.example.Alpha", {{{"encoding_id", 1}}, {{"encoding_id", 3}}}},
                     {"org.example.Beta", {{{"encoding_id", 9}}}},
                     {"org.example.Gamma", {{{"encoding_id", 5}}}},
                     {"org.example.Delta", {{{"encoding_id", 12}}}}}}};
  const fs::path whitelist = data.path() / "whitelist.json";
  testing::writeTextFile(
      whitelist,
      Json{{"apps", inner.dump()}, {"compression", "RLE"}, {"encoding", "bitmap"}}.dump());
  std::string resource = kORVInstalledAppWhitelist;
  resource.append("=").append(whitelist.string());
  testing::DaemonHarness harness(shippedBag().dump(), {}, {"--resource", resource});
  harness.environment = {{"XDG_DATA_DIRS", (data.path() / "share").string()},
                         {"XDG_DATA_HOME", (data.path() / "home").string()}};

  int64_t queryId = 0;
  std::unique_ptr<OrvexClient> client;
  const auto signatureOfSearch = [&]() -> std::optional<std::string> {
    auto answer =
        client->request(testing::searchRequest(queryId + 1, "light" + std::to_string(queryId + 1)));
    ++queryId;
    EXPECT_TRUE(answer && answer.value().reply);
    const auto requests = harness.backend().requests();
    for (auto request = requests.rbegin(); request != requests.rend(); ++request) {
      if (request->endpoint != "search") continue;
      const auto found = request->headers.find("X-Zelmor-Whitelisted-App-Signature");
      if (found == request->headers.end()) return std::nullopt;
      return found->second;
    }
    return std::nullopt;
  };

  harness.start();
  client = harness.clientWithBag({"com.zelmor.glance", "Glance/1"});
  std::optional<std::string> signature;
  ASSERT_TRUE(testing::eventually([&] { return (signature = signatureOfSearch()).has_value(); }))
      << harness.daemonLog();
  // Bits 3 (Alpha's last entry) and 9 (Beta): a bitmap of ceil(9 / 8) = 2 bytes, 0x10 0x40. Its
  // five runs (3, 1, 5, 1, 6 bits) would take 5 + 1 + 2 = 8 bytes, more than the bitmap: sent
  // as it is. Bytes: CRC-32 (4), version 0xff 0xee (bit 7 of the first clear: not run-length
  // encoded), length 0x0002, MD5 prefix (4), the bitmap.
  const auto bytes = decodeBase64(*signature);
  ASSERT_TRUE(bytes);
  ASSERT_EQ(bytes->size(), 14u);
  EXPECT_EQ((*bytes)[4], 0xff & 0x7f);
  EXPECT_EQ((*bytes)[5], 0xee);
  EXPECT_EQ((*bytes)[6], 0x00);
  EXPECT_EQ((*bytes)[7], 0x02);
  EXPECT_EQ((*bytes)[12], 0x10);
  EXPECT_EQ((*bytes)[13], 0x40);

  // Without its probe helper the daemon still answers searches, in the locale of no locale, and
  // keeps the signature it has: a failed scan says nothing about what is installed.
  ASSERT_EQ(harness.stop(), 0);
  harness.environment[kORVProbePathVariable] = (data.path() / "no-probe").string();
  harness.start();
  client = harness.clientWithBag({"com.zelmor.glance", "Glance/1"});
  EXPECT_TRUE(testing::eventually([&] {
    return harness.daemonLog().find("could not read the installed applications") !=
           std::string::npos;
  })) << harness.daemonLog();
  EXPECT_EQ(signatureOfSearch(), signature);
  EXPECT_NE(harness.daemonLog().find("could not read the locale"), std::string::npos);
  harness.environment.erase(kORVProbePathVariable);

  // The bag drops the whitelist: the file is deleted, and the header goes with it.
  ASSERT_EQ(harness.stop(), 0);
  Json bag = shippedBag();
  bag.erase(kORVInstalledAppWhitelist);
  testing::writeTextFile(harness.directory() / "bag.json", bag.dump());
  fs::remove(harness.cacheDirectory() / "com.zelmor.orvexd" / "bag.plist");
  harness.start();
  client = harness.clientWithBag({"com.zelmor.glance", "Glance/1"});
  EXPECT_TRUE(testing::eventually([&] { return !signatureOfSearch().has_value(); }))
      << harness.daemonLog();
}

}  // namespace
}  // namespace orvex
