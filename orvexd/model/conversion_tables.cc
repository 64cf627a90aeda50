#include "orvexd/model/conversion_tables.h"

#include "orvexd/base/name_table.h"

namespace orvex {
namespace {

// Each value's first entry is the name it is written as; the entries after it are read too.
constexpr Named<FeatureType> kFeatureTypeNames[] = {
    {FeatureType::kDomain, "domain"}, {FeatureType::kMediaType, "mediaType"},
    {FeatureType::kTopic, "topic"},   {FeatureType::kDomain, "tld"},
    {FeatureType::kMediaType, "mt"},
};
constexpr Named<ClientType> kClientTypeNames[] = {
    {ClientType::kRoamer, "roamer"},
    {ClientType::kGlance, "glance"},
};
constexpr Named<FunctionType> kFunctionTypeNames[] = {
    {FunctionType::kEng, "eng"},
    {FunctionType::kEngRender, "eng/render"},
    {FunctionType::kEngRender, "engrate"},
};
constexpr Named<ResultPlacement> kResultPlacementNames[] = {
    {ResultPlacement::kTop, "top"},
    {ResultPlacement::kBottom, "bottom"},
};

// The value named `text` as its integer, or the enumeration's kUnknown.
template <typename E, std::size_t N>
int valueOrUnknown(const Named<E> (&table)[N], std::string_view text) {
  return static_cast<int>(valueNamed(table, text).value_or(E::kUnknown));
}

// The name of the value `value` stands for, or `unknown` (each enumeration spells it its way).
template <typename E, std::size_t N>
std::string nameOrUnknown(const Named<E> (&table)[N], int value, std::string_view unknown) {
  return std::string(nameOf(table, static_cast<E>(value)).value_or(unknown));
}

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
  if (asciiLower(text) == "mediatype") return static_cast<int>(FeatureType::kMediaType);
  return valueOrUnknown(kFeatureTypeNames, text);
}

std::string stringFromFeatureType(int type) {
  return nameOrUnknown(kFeatureTypeNames, type, "unkonwn");
}

int clientTypeFromString(std::string_view text) { return valueOrUnknown(kClientTypeNames, text); }

std::string stringFromClientType(int type) {
  return nameOrUnknown(kClientTypeNames, type, "unknown");
}

int funcTypeFromString(std::string_view text) { return valueOrUnknown(kFunctionTypeNames, text); }

std::string stringFromFunctionType(int type) {
  return nameOrUnknown(kFunctionTypeNames, type, "unknown");
}

int resultPlacementFromString(std::string_view text) {
  return valueOrUnknown(kResultPlacementNames, text);
}

std::string stringFromResultPlacement(int placement) {
  return nameOrUnknown(kResultPlacementNames, placement, "unkonw");
}

std::string getClientFromUserAgent(std::optional<std::string_view> userAgent) {
  if (!userAgent) return "unknown";
  const std::string lowered = asciiLower(*userAgent);
  if (lowered.find("roamer") != std::string::npos) return "roamer";
  if (lowered.find("glance") != std::string::npos) return "glance";
  return "unknown";
}

}  // namespace orvex
