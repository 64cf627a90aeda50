// Builds an HTTP request from a base URL, named query items and headers.
//
// One item and one header per name. A "forced" item or header replaces any of that name already
// present; a "default" one is added only when none of that name is present, so that an item the
// base URL already carries (from a server-supplied endpoint, say) wins over the daemon's own.
// Items come out sorted by name, whatever order they were added in, and a ";" in the query is
// sent as "%3B" (some servers split queries on it).
//
// A plain value: copy it freely; not for concurrent use.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "orvexd/base/http_types.h"
#include "orvexd/model/url_query_item.h"

namespace orvex {

class OrvexURLRequestBuilder {
 public:
  // Splits an absolute URL; none when it does not parse. The URL's own query items are loaded
  // as forced items, so of two items of one name in it, the later wins. They are read as
  // servers read them ('+' is a space) and sent again escaped, so they keep their meaning.
  static std::optional<OrvexURLRequestBuilder> requestBuilderWithURL(std::string_view url);

  OrvexURLRequestBuilder(const OrvexURLRequestBuilder& other);
  OrvexURLRequestBuilder& operator=(const OrvexURLRequestBuilder& other);
  OrvexURLRequestBuilder(OrvexURLRequestBuilder&&) noexcept;
  OrvexURLRequestBuilder& operator=(OrvexURLRequestBuilder&&) noexcept;
  ~OrvexURLRequestBuilder();

  bool containsQueryItemWithName(std::string_view name) const;
  bool containsHttpHeaderWithName(std::string_view name) const;
  std::optional<std::string> queryItemValue(std::string_view name) const;
  std::optional<std::string> httpHeaderValue(std::string_view name) const;

  void forceQueryItem(URLQueryItem item);
  void forceQueryItemWithName(std::string name, std::string value);
  void forceQueryItemsFromArray(const std::vector<URLQueryItem>& items);
  void defaultQueryItem(URLQueryItem item);
  void defaultQueryItemWithName(std::string name, std::string value);

  void forceHttpHeaderWithName(std::string name, std::string value);
  void defaultHttpHeaderWithName(std::string name, std::string value);

  // The URL with the query as it would be sent.
  std::string urlString() const;
  // A new request for urlString() with every header set; method GET, default cache policy.
  HttpRequest createMutableUrlRequest() const;
  HttpRequest createUrlRequest() const { return createMutableUrlRequest(); }

 private:
  struct Components;
  explicit OrvexURLRequestBuilder(std::unique_ptr<Components> components);

  std::unique_ptr<Components> components_;  // the URL split into its parts, query aside
  std::map<std::string, URLQueryItem, std::less<>> queryItems_;
  HttpHeaderMap httpHeaders_;
};

// Percent-encodes a query item's name or value: everything but the characters a query may hold
// unescaped, and with "&", "=", "+" and "#" escaped so they cannot split or end the item.
std::string percentEncodeQueryComponent(std::string_view text);
// Decodes %XX escapes; a malformed escape is kept as it stands.
std::string percentDecode(std::string_view text);

}  // namespace orvex
