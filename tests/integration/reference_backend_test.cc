// The reference back-end's routes, faults and upload store, as the daemon's tests rely on them.
// (Its request log: every daemon test that counts or reads the requests the daemon made.)
#include "tests/support/reference_backend.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <fstream>

#include "tests/support/upload_body.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;

httplib::Client clientFor(const testing::ReferenceBackend& backend) {
  httplib::Client client(backend.baseUrl());
  client.set_read_timeout(5s);
  client.set_url_encode(false);  // send request targets exactly as written
  return client;
}

// The status and body of a GET; status -1 when no answer came.
std::pair<int, std::string> get(httplib::Client& client, const std::string& target) {
  auto answer = client.Get(target);
  return answer ? std::make_pair(answer->status, answer->body) : std::make_pair(-1, std::string());
}

class ReferenceBackendTest : public ::testing::Test {
 protected:
  ReferenceBackendTest() { writeBag(R"({"version": "1", "warm_url": "${BASE_URL}/warm"})"); }
  void writeBag(const std::string& text) const { std::ofstream(bag, std::ios::trunc) << text; }

  testing::TempDir dir;
  std::filesystem::path bag = dir / "bag.json";
};

TEST_F(ReferenceBackendTest, ServesTheBagWithItsOwnUrlReadAfreshOnEveryRequest) {
  writeBag(R"({"z": "${BASE_URL}/search", "a": [1, {"u": "${BASE_URL}"}], "n": null})");
  testing::ReferenceBackend backend(bag);
  auto client = clientFor(backend);
  const std::string url = backend.baseUrl();
  // Every string value is substituted, however deep; key order stays as written.
  auto [status, body] = get(client, "/bag?locale=en_US");
  EXPECT_EQ(status, 200);
  EXPECT_EQ(
      nlohmann::ordered_json::parse(body).dump(),
      nlohmann::ordered_json({{"z", url + "/search"}, {"a", {1, {{"u", url}}}}, {"n", nullptr}})
          .dump());

  // The file is read again on every request; a broken one is a 500 and the server carries on.
  writeBag(R"({"version": )");
  std::tie(status, body) = get(client, "/bag");
  EXPECT_EQ(status, 500);
  EXPECT_NE(body.find("is not valid JSON"), std::string::npos) << body;
  writeBag(R"({"version": "2"})");
  EXPECT_EQ(nlohmann::json::parse(get(client, "/bag").second).at("version"), "2");
  // (Searches: a word's completion in the daemon's search test, a query no word begins with in
  // its load test.)
  EXPECT_EQ(get(client, "/search?lang=en").first, 400);
}

TEST_F(ReferenceBackendTest, InjectsEachKindOfFaultAndRemovesCountedOnes) {
  testing::ReferenceBackend backend(bag);
  auto client = clientFor(backend);

  backend.setFault("bag", {{"status", 503}, {"count", 2}});
  EXPECT_EQ(backend.faults(), nlohmann::json::parse(R"({"bag": {"status": 503, "count": 2}})"));
  EXPECT_EQ(get(client, "/bag").first, 503);
  EXPECT_EQ(get(client, "/bag").first, 503);
  EXPECT_EQ(backend.faults(), nlohmann::json::object());
  EXPECT_EQ(get(client, "/bag").first, 200);

  // A dropped answer is a transport error; the fault replaces the one before it.
  backend.setFault("bag", {{"garbage", true}});
  backend.setFault("bag", {{"drop", true}, {"count", 1}});
  EXPECT_FALSE(client.Get("/bag"));
  EXPECT_EQ(nlohmann::json::parse(get(client, "/bag").second).at("version"), "1");
  // A fault the server refuses is an exception here, and changes nothing.
  EXPECT_THROW(backend.setFault("bag", {{"status", "503"}}), std::runtime_error);
  EXPECT_EQ(backend.faults(), nlohmann::json::object());
}

// Uploads are taken as the daemon sends them: raw deflate under "Content-Encoding: deflate",
// which the HTTP library alone would refuse as broken zlib.
TEST_F(ReferenceBackendTest, StoresUploadsThatInflateToJsonMatchingTheirDigest) {
  testing::ReferenceBackend backend(bag);
  auto client = clientFor(backend);
  const std::string json = R"({"events":[{"input":"caf\u00e9"}],"n":2})";
  const std::string digest = testing::sha512Hex(json);
  const auto post = [&](const std::string& target, const std::string& body,
                        const std::string& digestSent) {
    httplib::Headers headers{{"Content-Encoding", "deflate"}};
    if (!digestSent.empty()) headers.emplace("X-Zelmor-Digest", digestSent);
    auto answer = client.Post(target, headers, body, "application/json");
    return answer ? answer->status : -1;
  };
  EXPECT_EQ(post("/feedback?v=2", testing::rawDeflate(json), digest), 200);
  EXPECT_EQ(post("/feedback", testing::zlibWrapped(json), digest), 400);
  EXPECT_EQ(post("/feedback", testing::rawDeflate(json).substr(0, 10), digest), 400);
  EXPECT_EQ(post("/feedback", testing::rawDeflate(json), testing::sha512Hex(json + " ")), 400);
  EXPECT_EQ(post("/feedback", testing::rawDeflate(json), ""), 400);
  EXPECT_EQ(post("/feedback", testing::rawDeflate("{"), testing::sha512Hex("{")), 400);
  // A fault's status replaces the answer, and the upload is not kept.
  backend.setFault("crowdsourcing", {{"status", 500}, {"count", 1}});
  EXPECT_EQ(post("/crowdsourcing", testing::rawDeflate(json), digest), 500);
  EXPECT_EQ(post("/crowdsourcing?a=b", testing::rawDeflate(json), digest), 200);

  // (What a stored upload records: the end-to-end upload test, through the daemon.)
  const auto uploads = backend.uploads();
  ASSERT_EQ(uploads.size(), 2u) << uploads;
  EXPECT_EQ(uploads[0]["query"], "v=2");
  EXPECT_EQ(uploads[1]["path"], "/crowdsourcing");
  EXPECT_EQ(uploads[1]["query"], "a=b");
  EXPECT_GT(uploads[1]["id"], uploads[0]["id"]);
  EXPECT_EQ(backend.requests().front().headers.at("Content-Encoding"), "deflate");
}

}  // namespace
}  // namespace orvex
