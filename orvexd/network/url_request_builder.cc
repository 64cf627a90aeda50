#include "orvexd/network/url_request_builder.h"

#include <curl/curl.h>

#include <algorithm>
#include <utility>

#include "orvexd/base/c_handle.h"
#include "orvexd/base/property_list.h"

namespace orvex {

namespace {

using CurlUrlHandle = std::unique_ptr<CURLU, CFree<&curl_url_cleanup>>;

// Characters a query item may carry unescaped: RFC 3986 unreserved characters and the
// sub-delimiters that do not separate items. ";" is left as it is here and escaped for the whole
// query when the request is made.
bool isQueryComponentSafe(unsigned char c) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  switch (c) {
    case '-':
    case '.':
    case '_':
    case '~':
    case '!':
    case '$':
    case '\'':
    case '(':
    case ')':
    case '*':
    case ',':
    case ';':
    case ':':
    case '@':
    case '/':
    case '?':
      return true;
    default:
      return false;
  }
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The query of a URL as it stands, percent-encoding kept; empty when it has none.
std::string rawQuery(CURLU* url) {
  char* part = nullptr;
  if (curl_url_get(url, CURLUPART_QUERY, &part, 0) != CURLUE_OK || part == nullptr) return {};
  std::string query(part);
  curl_free(part);
  return query;
}

// A query item of a URL as servers read it: '+' is a space, then the escapes.
std::string decodeQueryComponent(std::string_view text) {
  std::string spaced(text);
  std::replace(spaced.begin(), spaced.end(), '+', ' ');
  return percentDecode(spaced);
}

std::string replaceSemicolons(std::string_view query) {
  std::string out;
  out.reserve(query.size());
  for (char c : query) {
    if (c == ';') {
      out += "%3B";
    } else {
      out += c;
    }
  }
  return out;
}

}  // namespace

struct OrvexURLRequestBuilder::Components {
  CurlUrlHandle url;  // every part of the URL except the query
};

std::string percentEncodeQueryComponent(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (unsigned char c : text) {
    if (isQueryComponentSafe(c)) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 0x0F];
    }
  }
  return out;
}

std::string percentDecode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      const int high = hexValue(text[i + 1]);
      const int low = hexValue(text[i + 2]);
      if (high >= 0 && low >= 0) {
        out += static_cast<char>(high * 16 + low);
        i += 2;
        continue;
      }
    }
    out += text[i];
  }
  return out;
}

std::optional<OrvexURLRequestBuilder> OrvexURLRequestBuilder::requestBuilderWithURL(
    std::string_view url) {
  CurlUrlHandle handle(curl_url());
  if (!handle) return std::nullopt;
  const std::string terminated(url);
  if (curl_url_set(handle.get(), CURLUPART_URL, terminated.c_str(), 0) != CURLUE_OK) {
    return std::nullopt;
  }
  const std::string query = rawQuery(handle.get());
  curl_url_set(handle.get(), CURLUPART_QUERY, nullptr, 0);

  OrvexURLRequestBuilder builder(std::make_unique<Components>(Components{std::move(handle)}));
  size_t start = 0;
  while (start < query.size()) {
    size_t end = query.find('&', start);
    if (end == std::string::npos) end = query.size();
    const std::string_view piece = std::string_view(query).substr(start, end - start);
    if (!piece.empty()) {
      const size_t equals = piece.find('=');
      if (equals == std::string_view::npos) {
        builder.forceQueryItemWithName(decodeQueryComponent(piece), "");
      } else {
        builder.forceQueryItemWithName(decodeQueryComponent(piece.substr(0, equals)),
                                       decodeQueryComponent(piece.substr(equals + 1)));
      }
    }
    start = end + 1;
  }
  return builder;
}

OrvexURLRequestBuilder::OrvexURLRequestBuilder(std::unique_ptr<Components> components)
    : components_(std::move(components)) {}

OrvexURLRequestBuilder::OrvexURLRequestBuilder(const OrvexURLRequestBuilder& other)
    : components_(std::make_unique<Components>(
          Components{CurlUrlHandle(curl_url_dup(other.components_->url.get()))})),
      queryItems_(other.queryItems_),
      httpHeaders_(other.httpHeaders_) {}

OrvexURLRequestBuilder& OrvexURLRequestBuilder::operator=(const OrvexURLRequestBuilder& other) {
  if (this != &other) *this = OrvexURLRequestBuilder(other);
  return *this;
}

OrvexURLRequestBuilder::OrvexURLRequestBuilder(OrvexURLRequestBuilder&&) noexcept = default;
OrvexURLRequestBuilder& OrvexURLRequestBuilder::operator=(OrvexURLRequestBuilder&&) noexcept =
    default;
OrvexURLRequestBuilder::~OrvexURLRequestBuilder() = default;

bool OrvexURLRequestBuilder::containsQueryItemWithName(std::string_view name) const {
  return queryItems_.find(name) != queryItems_.end();
}

bool OrvexURLRequestBuilder::containsHttpHeaderWithName(std::string_view name) const {
  return httpHeaders_.find(name) != httpHeaders_.end();
}

std::optional<std::string> OrvexURLRequestBuilder::queryItemValue(std::string_view name) const {
  const auto it = queryItems_.find(name);
  if (it == queryItems_.end()) return std::nullopt;
  return it->second.value;
}

std::optional<std::string> OrvexURLRequestBuilder::httpHeaderValue(std::string_view name) const {
  const auto it = httpHeaders_.find(name);
  if (it == httpHeaders_.end()) return std::nullopt;
  return it->second;
}

void OrvexURLRequestBuilder::forceQueryItem(URLQueryItem item) {
  std::string name = item.name;
  queryItems_.insert_or_assign(std::move(name), std::move(item));
}

void OrvexURLRequestBuilder::forceQueryItemWithName(std::string name, std::string value) {
  forceQueryItem(URLQueryItem{std::move(name), std::move(value)});
}

void OrvexURLRequestBuilder::forceQueryItemsFromArray(const std::vector<URLQueryItem>& items) {
  for (const URLQueryItem& item : items) forceQueryItem(item);
}

void OrvexURLRequestBuilder::defaultQueryItem(URLQueryItem item) {
  if (containsQueryItemWithName(item.name)) return;
  forceQueryItem(std::move(item));
}

void OrvexURLRequestBuilder::defaultQueryItemWithName(std::string name, std::string value) {
  defaultQueryItem(URLQueryItem{std::move(name), std::move(value)});
}

void OrvexURLRequestBuilder::forceHttpHeaderWithName(std::string name, std::string value) {
  httpHeaders_.insert_or_assign(std::move(name), std::move(value));
}

void OrvexURLRequestBuilder::defaultHttpHeaderWithName(std::string name, std::string value) {
  if (containsHttpHeaderWithName(name)) return;
  httpHeaders_.emplace(std::move(name), std::move(value));
}

std::string OrvexURLRequestBuilder::urlString() const {
  // The map keeps items sorted by name (plain byte-wise comparison).
  std::string query;
  for (const auto& [name, item] : queryItems_) {
    if (!query.empty()) query += '&';
    query += percentEncodeQueryComponent(item.name);
    query += '=';
    query += percentEncodeQueryComponent(item.value);
  }
  query = replaceSemicolons(query);

  // The query is appended here rather than handed to libcurl, which would rewrite its escapes
  // in lower case.
  CurlUrlHandle url(curl_url_dup(components_->url.get()));
  if (!url) return {};
  std::string fragment;
  char* part = nullptr;
  if (curl_url_get(url.get(), CURLUPART_FRAGMENT, &part, 0) == CURLUE_OK && part != nullptr) {
    fragment = part;
    curl_free(part);
  }
  curl_url_set(url.get(), CURLUPART_FRAGMENT, nullptr, 0);
  char* text = nullptr;
  if (curl_url_get(url.get(), CURLUPART_URL, &text, 0) != CURLUE_OK || text == nullptr) return {};
  std::string result(text);
  curl_free(text);
  if (!query.empty()) result += '?' + query;
  if (!fragment.empty()) result += '#' + fragment;
  return result;
}

HttpRequest OrvexURLRequestBuilder::createMutableUrlRequest() const {
  HttpRequest request;
  request.url = urlString();
  request.headers = httpHeaders_;
  return request;
}

}  // namespace orvex
