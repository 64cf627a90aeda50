#include "orvexd/network/url_request_builder.h"

#include <gtest/gtest.h>

namespace orvex {
namespace {

TEST(OrvexURLRequestBuilder, DefaultKeepsWhatIsPresentAndForceReplacesIt) {
  auto builder = OrvexURLRequestBuilder::requestBuilderWithURL(
      "https://search.example/v1/search?locale=fr_FR&q=old&q=newer#frag");
  ASSERT_TRUE(builder);
  // Of two items of one name in the URL, the later wins.
  EXPECT_EQ(builder->queryItemValue("q"), "newer");

  builder->defaultQueryItemWithName("locale", "en_US");
  builder->forceQueryItemWithName("q", "forced");
  builder->defaultQueryItemWithName("key", "k");
  builder->defaultQueryItemWithName("key", "ignored");
  builder->forceQueryItemsFromArray({{"b", "1"}, {"a", "2"}});
  EXPECT_EQ(builder->queryItemValue("locale"), "fr_FR");
  EXPECT_EQ(builder->queryItemValue("key"), "k");

  builder->defaultHttpHeaderWithName("User-Agent", "first");
  builder->defaultHttpHeaderWithName("user-agent", "second");  // header names ignore case
  builder->forceHttpHeaderWithName("X-Zelmor-Digest", "a");
  builder->forceHttpHeaderWithName("X-Zelmor-Digest", "b");
  EXPECT_TRUE(builder->containsHttpHeaderWithName("USER-AGENT"));

  const HttpRequest request = builder->createMutableUrlRequest();
  // Sorted by name, whatever order they were added in; the fragment is kept.
  EXPECT_EQ(request.url,
            "https://search.example/v1/search?a=2&b=1&key=k&locale=fr_FR&q=forced#frag");
  EXPECT_EQ(request.method, "GET");
  EXPECT_EQ(request.headers.at("User-Agent"), "first");
  EXPECT_EQ(request.headers.at("X-Zelmor-Digest"), "b");
  EXPECT_EQ(request.headers.size(), 2u);
}

TEST(OrvexURLRequestBuilder, EscapesSeparatorsAndSendsSemicolonsEscaped) {
  auto builder = OrvexURLRequestBuilder::requestBuilderWithURL("http://127.0.0.1:8080/s?x=a;b");
  ASSERT_TRUE(builder);
  builder->forceQueryItemWithName("q", "fish & chips;salt=1+2 #ü");
  builder->forceQueryItemWithName("latlng", "1.5,-2.25,65.0");
  const std::string url = builder->createUrlRequest().url;
  EXPECT_EQ(url,
            "http://127.0.0.1:8080/s?latlng=1.5,-2.25,65.0&"
            "q=fish%20%26%20chips%3Bsalt%3D1%2B2%20%23%C3%BC&x=a%3Bb");
  EXPECT_EQ(url.find(';'), std::string::npos);

  // What was escaped reads back unchanged.
  auto again = OrvexURLRequestBuilder::requestBuilderWithURL(url);
  ASSERT_TRUE(again);
  EXPECT_EQ(again->queryItemValue("q"), "fish & chips;salt=1+2 #ü");
  EXPECT_EQ(again->queryItemValue("x"), "a;b");
}

TEST(OrvexURLRequestBuilder, RejectsWhatIsNotAnAbsoluteUrlAndDecodesLeniently) {
  EXPECT_FALSE(OrvexURLRequestBuilder::requestBuilderWithURL(""));
  EXPECT_FALSE(OrvexURLRequestBuilder::requestBuilderWithURL("no scheme here"));
  EXPECT_FALSE(OrvexURLRequestBuilder::requestBuilderWithURL("/relative/path?q=1"));

  // Items without a value, empty pieces and broken escapes survive without harm.
  auto builder =
      OrvexURLRequestBuilder::requestBuilderWithURL("https://h/p?flag&&bad=%zz%4&sp=a+b%2Bc");
  ASSERT_TRUE(builder);
  EXPECT_EQ(builder->queryItemValue("flag"), "");
  EXPECT_EQ(builder->queryItemValue("bad"), "%zz%4");
  EXPECT_EQ(builder->queryItemValue("sp"), "a b+c");
  EXPECT_EQ(builder->createUrlRequest().url, "https://h/p?bad=%25zz%254&flag=&sp=a%20b%2Bc");
  EXPECT_EQ(percentDecode("%41%4a%4"), "AJ%4");
}

}  // namespace
}  // namespace orvex
