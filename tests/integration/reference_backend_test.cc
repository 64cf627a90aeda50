// The reference back-end's routes, faults and upload store, as the daemon's tests rely on them.
// (Its request log: every daemon test that counts or reads the requests the daemon made.)
#include "tests/support/reference_backend.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <fstream>
#include <set>

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

// Every image description in an answer: what is stored under an image key, however deep.
void collectImages(const nlohmann::json& value, std::vector<nlohmann::json>& images) {
  static const std::set<std::string> kImageKeys = {
      "thumbnail",    "image",           "image_overlay",     "value_image", "secondary_image",
      "icon",         "completion_icon", "more_icons",        "base_icon",   "glyph",
      "rt_glyph",     "title_glyph",     "attribution_glyph", "more_glyphs", "more_glyphs1",
      "more_glyphs2", "play_button",     "posters",           "badge_image"};
  for (const auto& [key, item] : value.items()) {
    if (!value.is_object() || !kImageKeys.contains(key)) {
      if (item.is_structured()) collectImages(item, images);
    } else if (item.is_array()) {
      images.insert(images.end(), item.begin(), item.end());
    } else {
      images.push_back(item);
    }
  }
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

TEST_F(ReferenceBackendTest, AnswersEachQueryKindNamingImagesThatItServes) {
  testing::ReferenceBackend backend(std::filesystem::path(ORVEX_BACKEND_BINARY).parent_path() /
                                    "bag.json");
  auto client = clientFor(backend);
  const auto resources = nlohmann::json::parse(get(client, "/bag").second).at("resources");
  const auto answer = [&](const std::string& target, int expected = 200) {
    const auto [status, body] = get(client, target);
    EXPECT_EQ(status, expected) << target << ": " << body;
    return nlohmann::json::parse(body, nullptr, false);
  };
  const auto zkw = answer("/search?qtype=zkw");
  ASSERT_EQ(zkw["results"].size(), 5u);
  EXPECT_EQ(zkw["results"][0]["title"], "break");  // the word with the most senses
  // More results page through the senses the search answer begins: 10 a page, page 2 first.
  EXPECT_EQ(answer("/more?q=Break&page=1")["results"][9]["id"],
            answer("/search?q=break")["results"][9]["id"]);
  const auto more = answer("/more?q=break&page=8");
  EXPECT_EQ(more["page_count"], 8);
  EXPECT_EQ(more["results"].size(), 5u);
  EXPECT_EQ(answer("/more?q=dog")["results"].size(), 0u);
  const auto card = answer("/card?q=dog");
  EXPECT_EQ(card["card"]["synonyms"], nlohmann::json({"dog", "domestic dog", "Canis familiaris"}));
  EXPECT_EQ(card["card"]["examples"], nlohmann::json({"the dog barked all night"}));
  EXPECT_EQ(answer("/card?q=dog&sense=2")["card"]["definition"],
            "a dull unattractive unpleasant girl or woman");
  const auto lookup = answer("/search?q=dog&context=org.example.Editor&ltype=explicit&qlang=en");
  EXPECT_EQ(
      lookup["context"],
      nlohmann::json({{"context", "org.example.Editor"}, {"ltype", "explicit"}, {"qlang", "en"}}));
  EXPECT_EQ(lookup["results"].size(), 3u);
  answer("/card?q=dog&sense=9", 404);
  answer("/card?q=zzqx", 404);
  answer("/more?q=dog&page=0", 400);
  answer("/more?page=2", 400);

  // Each image has a URL of the images route, an identifier the bag maps to one, or both, and
  // every such URL is served, but for the one that "missing_image" asks for.
  std::set<std::string> urls;
  size_t identified = 0;
  for (const auto& json : {zkw, more, card, lookup, answer("/card?q=dog&missing_image=1")}) {
    std::vector<nlohmann::json> images;
    collectImages(json, images);
    EXPECT_GE(images.size(), 3u) << json;
    for (const auto& image : images) {
      if (image.contains("url")) urls.insert(image["url"]);
      if (image.contains("id")) urls.insert(resources.at(image["id"].get<std::string>()));
      identified += image.contains("id");
    }
  }
  EXPECT_GE(identified, 8u);
  const std::string missing = backend.baseUrl() + "/images/48x48/legacy/no-such-icon.png";
  ASSERT_TRUE(urls.contains(missing));
  for (const std::string& url : urls) {
    ASSERT_TRUE(url.starts_with(backend.baseUrl() + "/images/")) << url;
    const auto image = client.Get(url.substr(backend.baseUrl().size()));
    ASSERT_TRUE(image);
    EXPECT_EQ(image->status, url == missing ? 404 : 200) << url;
    EXPECT_EQ(image->get_header_value("Content-Type").starts_with("image/"), url != missing);
  }
}

TEST_F(ReferenceBackendTest, ServesImageFilesWithTagsAndNothingOutsideTheirDirectory) {
  const auto images = dir / "images";
  std::filesystem::create_directories(images / "icons");
  testing::writeTextFile(images / "icons" / "a.svg", "<svg/>");
  testing::writeTextFile(dir / "secret.png", "secret");
  testing::writeTextFile(images / "notes.txt", "text");
  testing::writeTextFile(images / "big.png", "");
  std::filesystem::resize_file(images / "big.png", (8 << 20) + 1);
  std::filesystem::create_symlink(dir / "secret.png", images / "out.png");
  std::filesystem::create_symlink("icons/a.svg", images / "in.svg");
  testing::ReferenceBackend backend(bag, {"--images-dir", images.string()});
  auto client = clientFor(backend);

  const auto svg = client.Get("/images/icons/a.svg");
  ASSERT_TRUE(svg);
  EXPECT_EQ(svg->status, 200);
  EXPECT_EQ(svg->body, "<svg/>");
  EXPECT_EQ(svg->get_header_value("Content-Type"), "image/svg+xml");
  EXPECT_EQ(svg->get_header_value("Cache-Control"), "max-age=86400");
  const std::string tag = svg->get_header_value("ETag");
  EXPECT_TRUE(tag.size() > 2 && tag.starts_with('"') && tag.ends_with('"')) << tag;
  const auto revalidate = [&](const std::string& path, const std::string& condition) {
    auto reply = client.Get(path, {{"If-None-Match", condition}});
    return reply ? reply->status : -1;
  };
  EXPECT_EQ(revalidate("/images/icons/a.svg", "\"other\", " + tag), 304);
  EXPECT_EQ(revalidate("/images/in.svg", tag), 304);  // a link inside leads to the same file
  EXPECT_EQ(revalidate("/images/icons/a.svg", "\"other\""), 200);
  for (const std::string path :
       {"/images/out.png", "/images/../secret.png", "/images/icons/%2e%2e/%2E%2E/secret.png",
        "/images/%2Fetc%2Fpasswd", "/images/big.png", "/images/notes.txt", "/images/none.png",
        "/images/icons", "/images/"}) {
    EXPECT_EQ(get(client, path).first, 404) << path;
  }
  backend.setFault("images", {{"status", 503}, {"count", 1}});
  EXPECT_EQ(get(client, "/images/icons/a.svg").first, 503);
  EXPECT_EQ(get(client, "/images/icons/a.svg").first, 200);
  EXPECT_EQ(backend.requests().back().endpoint, "images");
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
