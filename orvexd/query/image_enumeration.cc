#include "orvexd/query/image_enumeration.h"

#include <curl/curl.h>

#include <memory>

#include "orvexd/base/c_handle.h"
#include "orvexd/base/json_limits.h"
#include "orvexd/model/orv_bag.h"

namespace orvex {

namespace {

using CurlUrlHandle = std::unique_ptr<CURLU, CFree<&curl_url_cleanup>>;

void walk(const nlohmann::json& value, const std::function<void(const nlohmann::json&)>& block,
          const ImageKeySet& keys, size_t depth) {
  if (depth > kJsonMaxDepth) return;
  if (value.is_object()) {
    for (const auto& [key, member] : value.items()) {
      if (!keys.contains(key)) {
        walk(member, block, keys, depth + 1);
      } else if (member.is_object()) {
        block(member);
      } else if (member.is_array()) {
        for (const auto& element : member) block(element);
      }
    }
  } else if (value.is_array()) {
    for (const auto& element : value) walk(element, block, keys, depth + 1);
  }
}

const std::string* stringMember(const nlohmann::json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_string() ? found->get_ptr<const std::string*>()
                                                     : nullptr;
}

// Adds `url` to the order, in primary or fallback, unless it is no URL with a host or was seen;
// its host goes to `hosts` either way. Whether it had been seen.
bool collectUrl(const std::string& url, bool asFallback, std::set<std::string>* hosts,
                ImageFetchOrder& order) {
  const auto parsed = parseImageUrl(url);
  if (!parsed || parsed->host.empty()) return false;
  if (hosts != nullptr) hosts->insert(parsed->host);
  if (!order.seen.insert(url).second) return true;
  (asFallback ? order.fallback : order.primary).push_back(url);
  return false;
}

void collect(const ORVBag& bag, const std::string* url, const std::string* id,
             std::set<std::string>* hosts, ImageFetchOrder& order) {
  // A description whose URL was seen already is done: its id is not looked at.
  if (url != nullptr && collectUrl(*url, false, hosts, order)) return;
  if (id == nullptr) return;
  if (const auto mapped = bag.urlForIdentifier(*id)) {
    collectUrl(*mapped, url != nullptr, hosts, order);
  }
}

}  // namespace

const ImageKeySet& imageKeys() {
  static const ImageKeySet keys = {
      "thumbnail",    "image",           "image_overlay",     "value_image", "secondary_image",
      "icon",         "completion_icon", "more_icons",        "base_icon",   "glyph",
      "rt_glyph",     "title_glyph",     "attribution_glyph", "more_glyphs", "more_glyphs1",
      "more_glyphs2", "play_button",     "posters",           "badge_image",
  };
  return keys;
}

void enumerateImagesInResponse(const nlohmann::json& object,
                               const std::function<void(const nlohmann::json&)>& block,
                               const ImageKeySet* keys) {
  walk(object, block, keys != nullptr ? *keys : imageKeys(), 0);
}

std::optional<ImageUrl> parseImageUrl(std::string_view url) {
  if (url.size() > kMaxImageUrlLength) return std::nullopt;
  const CurlUrlHandle handle(curl_url());
  const std::string terminated(url);
  if (!handle || curl_url_set(handle.get(), CURLUPART_URL, terminated.c_str(),
                              CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK) {
    return std::nullopt;
  }
  ImageUrl parsed;
  // The parser lower-cases the scheme; the URL's own spelling is what the scheme checks see.
  parsed.scheme = terminated.substr(0, terminated.find(':'));
  char* host = nullptr;
  if (curl_url_get(handle.get(), CURLUPART_HOST, &host, 0) == CURLUE_OK && host != nullptr) {
    parsed.host = host;
  }
  curl_free(host);
  return parsed;
}

std::vector<std::string> ImageFetchOrder::urls() const {
  std::vector<std::string> all = primary;
  all.insert(all.end(), fallback.begin(), fallback.end());
  return all;
}

void collectOrderedImages(const ORVBag& bag, const nlohmann::json& image,
                          std::set<std::string>* hosts, ImageFetchOrder& order) {
  if (!image.is_object()) return;
  collect(bag, stringMember(image, "url"), stringMember(image, "id"), hosts, order);
}

void collectOrderedImages(const ORVBag& bag, const ImageDescription& image,
                          std::set<std::string>* hosts, ImageFetchOrder& order) {
  collect(bag, image.url ? &*image.url : nullptr, image.id ? &*image.id : nullptr, hosts, order);
}

std::vector<nlohmann::json> collectResponseImageIdentifiers(const nlohmann::json& answer) {
  std::vector<nlohmann::json> found;
  enumerateImagesInResponse(answer, [&found](const nlohmann::json& image) {
    if (!image.is_object() || stringMember(image, "id") == nullptr) return;
    const auto data = image.find("data");
    const bool noData =
        data == image.end() || (data->is_string() ? data->get_ref<const std::string&>().empty()
                                                  : data->is_null() || data->empty());
    if (noData) found.push_back(image);
  });
  return found;
}

}  // namespace orvex
