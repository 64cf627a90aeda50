#include "orvexd/model/conversion_tables.h"

namespace orvex {
namespace {

// ASCII-only lower-casing: the texts compared are ASCII, and bytes of other scripts in a user
// agent must pass through unchanged whatever the process locale is.
std::string asciiLower(std::string_view text) {
  std::string lowered(text);
  for (char& c : lowered) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lowered;
}

}  // namespace

int featureTypeFromString(std::string_view text) {
  FeatureType type = FeatureType::kUnknown;
  if (text == "domain" || text == "tld") {
    type = FeatureType::kDomain;
  } else if (asciiLower(text) == "mediatype" || text == "mt") {
    type = FeatureType::kMediaType;
  } else if (text == "topic") {
    type = FeatureType::kTopic;
  }
  return static_cast<int>(type);
}

std::string stringFromFeatureType(int type) {
  switch (static_cast<FeatureType>(type)) {
    case FeatureType::kDomain:
      return "domain";
    case FeatureType::kMediaType:
      return "mediaType";
    case FeatureType::kTopic:
      return "topic";
    case FeatureType::kUnknown:
      break;
  }
  return "unkonwn";
}

int clientTypeFromString(std::string_view text) {
  ClientType type = ClientType::kUnknown;
  if (text == "roamer") {
    type = ClientType::kRoamer;
  } else if (text == "glance") {
    type = ClientType::kGlance;
  }
  return static_cast<int>(type);
}

std::string stringFromClientType(int type) {
  switch (static_cast<ClientType>(type)) {
    case ClientType::kRoamer:
      return "roamer";
    case ClientType::kGlance:
      return "glance";
    case ClientType::kUnknown:
      break;
  }
  return "unknown";
}

int funcTypeFromString(std::string_view text) {
  FunctionType type = FunctionType::kUnknown;
  if (text == "eng") {
    type = FunctionType::kEng;
  } else if (text == "engrate" || text == "eng/render") {
    type = FunctionType::kEngRender;
  }
  return static_cast<int>(type);
}

std::string stringFromFunctionType(int type) {
  switch (static_cast<FunctionType>(type)) {
    case FunctionType::kEng:
      return "eng";
    case FunctionType::kEngRender:
      return "eng/render";
    case FunctionType::kUnknown:
      break;
  }
  return "unknown";
}

int resultPlacementFromString(std::string_view text) {
  ResultPlacement placement = ResultPlacement::kUnknown;
  if (text == "top") {
    placement = ResultPlacement::kTop;
  } else if (text == "bottom") {
    placement = ResultPlacement::kBottom;
  }
  return static_cast<int>(placement);
}

std::string stringFromResultPlacement(int placement) {
  switch (static_cast<ResultPlacement>(placement)) {
    case ResultPlacement::kTop:
      return "top";
    case ResultPlacement::kBottom:
      return "bottom";
    case ResultPlacement::kUnknown:
      break;
  }
  return "unkonw";
}

std::string getClientFromUserAgent(std::optional<std::string_view> userAgent) {
  if (!userAgent) return "unknown";
  const std::string lowered = asciiLower(*userAgent);
  if (lowered.find("roamer") != std::string::npos) return "roamer";
  if (lowered.find("glance") != std::string::npos) return "glance";
  return "unknown";
}

}  // namespace orvex
