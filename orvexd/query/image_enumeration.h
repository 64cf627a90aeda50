// The images a search answer names, and the order they are fetched in.
//
// An image description is a JSON object with any of "url" (an absolute URL), "id" (an identifier
// the bag's resource table turns into a URL) and "data" (the image's own bytes). Inside an answer
// a description is any object, or any object element of an array, stored under one of the image
// keys, at any depth.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "orvexd/model/image_description.h"

namespace orvex {

class ORVBag;

using ImageKeySet = std::set<std::string, std::less<>>;

// The 19 keys an answer keeps image descriptions under ("thumbnail", "icon", "posters", ...).
const ImageKeySet& imageKeys();

// Calls `block` once per image description of `object`, in the containers' own order: each value
// stored under one of `keys` (imageKeys() when none are given) that is an object, and each
// element of an array stored under one (the block checks that the element is an object). The
// values under other keys, and the elements of arrays, are walked in turn, down to kJsonMaxDepth
// levels; deeper values are not looked into.
void enumerateImagesInResponse(const nlohmann::json& object,
                               const std::function<void(const nlohmann::json&)>& block,
                               const ImageKeySet* keys = nullptr);

// What an absolute URL says of where an image is. The scheme is as the URL writes it (case
// kept); the host as the URL parser reads it ("" for a URL without one).
struct ImageUrl {
  std::string scheme;
  std::string host;
};
// URLs longer than this are not image URLs: they are never fetched nor their hosts remembered.
inline constexpr size_t kMaxImageUrlLength = 4096;
// None when `url` is not an absolute URL (or is longer than kMaxImageUrlLength).
std::optional<ImageUrl> parseImageUrl(std::string_view url);

// The URLs of images to fetch: `seen` holds every URL added, so that none is fetched twice; the
// fetch order is all of `primary`, then all of `fallback`.
struct ImageFetchOrder {
  std::set<std::string> seen;
  std::vector<std::string> primary;
  std::vector<std::string> fallback;
  std::vector<std::string> urls() const;
};

// Adds one description's URLs to `order`, and their hosts to `hosts` when given: its "url" when
// that is a URL with a host and not yet seen, to primary (when it was seen, the description adds
// nothing more); then the bag's URL for its "id" when that has a host and was not seen, to
// fallback when the description also had a "url" string, else to primary. A URL already seen
// still gives its host. Values that are not objects add nothing.
void collectOrderedImages(const ORVBag& bag, const nlohmann::json& image,
                          std::set<std::string>* hosts, ImageFetchOrder& order);
// The same for a description a client sent.
void collectOrderedImages(const ORVBag& bag, const ImageDescription& image,
                          std::set<std::string>* hosts, ImageFetchOrder& order);

// The descriptions of `answer`, in walk order, that have an "id" string and no "data" (or an
// empty one).
std::vector<nlohmann::json> collectResponseImageIdentifiers(const nlohmann::json& answer);

}  // namespace orvex
