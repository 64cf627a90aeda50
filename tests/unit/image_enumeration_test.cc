#include "orvexd/query/image_enumeration.h"

#include <gtest/gtest.h>

#include "orvexd/model/orv_bag.h"

namespace orvex {
namespace {

using Json = nlohmann::json;

TEST(ImageEnumerationTest, AnswerUrlsComeFirstAndIdUrlsAfterEachOnce) {
  const auto bag = ORVBag::initWithDictionary(BagDictionary::parse(R"({"resources": {
      "star": "https://r.example/star.png", "same": "https://a.example/1.png"}})"),
                                              "Glance/1");
  // Objects walk in key order: "thumbnail" before "title".
  const Json answer = Json::parse(R"({"results": [
      {"thumbnail": {"url": "https://a.example/1.png", "id": "same"},
       "title": {"glyph": [{"url": "https://b.example/2.png", "id": "star"}, "text",
                           {"id": "star"}]}},
      {"icon": {"url": "ftp://c.example/3.png"}, "image": {"url": "relative.png"}},
      {"icon": {"url": "https://a.example/1.png", "id": "other"}},
      {"posters": [{"id": "unknown"}, {"id": "x", "data": "AAAA"}]}],
    "not_an_image": {"url": "https://d.example/4.png"}})");
  std::set<std::string> hosts;
  ImageFetchOrder order;
  enumerateImagesInResponse(
      answer, [&](const Json& image) { collectOrderedImages(*bag, image, &hosts, order); });
  // The id whose URL the description's own "url" already is adds nothing; the other id URL
  // waits for every primary URL. The scheme is the fetch's business, not the collector's.
  EXPECT_EQ(order.urls(),
            (std::vector<std::string>{"https://a.example/1.png", "https://b.example/2.png",
                                      "ftp://c.example/3.png", "https://r.example/star.png"}));
  EXPECT_EQ(hosts, (std::set<std::string>{"a.example", "b.example", "c.example", "r.example"}));

  std::vector<std::string> ids;
  for (const auto& image : collectResponseImageIdentifiers(answer)) ids.push_back(image["id"]);
  EXPECT_EQ(ids, (std::vector<std::string>{"same", "star", "star", "other", "unknown"}));

  // A description nested deeper than answers may be is not looked for.
  const Json image = {{"icon", {{"url", "https://deep.example/i.png"}}}};
  Json deep = image;
  for (int i = 0; i < 600; ++i) deep = Json::array({deep});
  size_t found = 0;
  enumerateImagesInResponse(deep, [&](const Json&) { ++found; });
  enumerateImagesInResponse(Json::array({Json::array({image})}), [&](const Json&) { ++found; });
  EXPECT_EQ(found, 1u);
}

}  // namespace
}  // namespace orvex
