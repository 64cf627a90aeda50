#include "orvexd/model/input_limits.h"

#include <initializer_list>
#include <string_view>

namespace orvex {

namespace {

std::string overBound(std::string_view what, size_t size, size_t bound, std::string_view unit) {
  return std::string(what) + " is " + std::to_string(size) + " " + std::string(unit) +
         ", more than " + std::to_string(bound);
}

}  // namespace

std::optional<std::string> configurationProblem(const ORVSessionConfiguration& configuration,
                                                const InputLimits& limits) {
  if (configuration.identifier.size() > limits.identifierLength) {
    return overBound("identifier", configuration.identifier.size(), limits.identifierLength,
                     "bytes");
  }
  if (configuration.userAgent.size() > limits.userAgentLength) {
    return overBound("userAgent", configuration.userAgent.size(), limits.userAgentLength, "bytes");
  }
  return std::nullopt;
}

std::optional<std::string> requestProblem(const ORVRequest& request, const InputLimits& limits) {
  const std::initializer_list<std::pair<std::string_view, const std::string*>> strings = {
      {"queryString", &request.queryString},
      {"keyboardInputMode", &request.keyboardInputMode},
      {"moreResultsURL", &request.moreResultsURL},
      {"applicationBundleIdentifier", &request.applicationBundleIdentifier},
      {"hintDomain", &request.hintDomain},
      {"contextText", &request.contextText},
      {"flightQuery", &request.flightQuery},
      {"flightId", &request.flightId},
  };
  for (const auto& [key, value] : strings) {
    if (value->size() > limits.queryStringLength) {
      return overBound(key, value->size(), limits.queryStringLength, "bytes");
    }
  }
  if (request.queryItems.size() > limits.queryItemCount) {
    return overBound("queryItems", request.queryItems.size(), limits.queryItemCount, "items");
  }
  if (request.topics.size() > limits.queryItemCount) {
    return overBound("topics", request.topics.size(), limits.queryItemCount, "items");
  }
  for (const auto& item : request.queryItems) {
    if (item.name.size() + item.value.size() > limits.queryStringLength) {
      return overBound("a query item", item.name.size() + item.value.size(),
                       limits.queryStringLength, "bytes");
    }
  }
  for (const auto& topic : request.topics) {
    if (topic.size() > limits.queryStringLength) {
      return overBound("a topic", topic.size(), limits.queryStringLength, "bytes");
    }
  }
  return std::nullopt;
}

std::optional<std::string> imagesProblem(const std::vector<ImageDescription>& images,
                                         const InputLimits& limits) {
  if (images.size() > limits.imageCount) {
    return overBound("images", images.size(), limits.imageCount, "items");
  }
  for (const auto& image : images) {
    for (const auto& [key, value] : {std::pair{"url", &image.url}, std::pair{"id", &image.id}}) {
      if (*value && (*value)->size() > limits.queryStringLength) {
        return overBound(std::string("an image's ").append(key), (*value)->size(),
                         limits.queryStringLength, "bytes");
      }
    }
  }
  return std::nullopt;
}

}  // namespace orvex
