// JSON from outside the daemon (back-end answers, the bag, clients' records) is parsed only
// within limits: a size, and a nesting depth checked by a linear scan before anything is built,
// so that no later walk over the value (serialising it, converting it, looking for images in it)
// can recurse deeper than the limit.
#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace orvex {

// The deepest nesting any JSON document from outside may have: as deep as a property list may
// be (kPlistMaxDepth), so that every accepted document also converts.
inline constexpr size_t kJsonMaxDepth = 512;

struct JsonLimits {
  size_t maxBytes = 0;
  size_t maxDepth = kJsonMaxDepth;
};

// How deeply `text` nests arrays and objects, counting brackets outside strings; stops early
// (returning a value above `stopAbove`) once the depth passes it. Malformed text still gets a
// number: the parser reports what is wrong with it.
size_t jsonNestingDepth(std::string_view text, size_t stopAbove);

// Why `text` is refused by `limits` ("is 123 bytes, more than 100", "nests 600 levels, more than
// 512"), or none when it is within them.
std::optional<std::string> jsonLimitProblem(std::string_view text, const JsonLimits& limits);

// JSON text (as nlohmann writes it: valid UTF-8) that any D-Bus string can carry. sd-bus refuses
// strings holding a noncharacter (U+FDD0-U+FDEF, and U+FFFE and U+FFFF of every plane), which
// JSON from outside may hold; each is written as its \u escape instead, which reads back as the
// same value. Text without one comes back unchanged.
std::string jsonTextForBus(std::string text);

// Parses `text` as JSON (nlohmann::json or nlohmann::ordered_json) within `limits`. Text that is
// refused or not JSON gives a discarded value and, in `problem`, why.
template <class Json = nlohmann::json>
Json parseJsonWithinLimits(std::string_view text, const JsonLimits& limits,
                           std::string* problem = nullptr) {
  if (auto refused = jsonLimitProblem(text, limits)) {
    if (problem != nullptr) *problem = std::move(*refused);
    return Json(Json::value_t::discarded);
  }
  auto parsed = Json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (parsed.is_discarded() && problem != nullptr) *problem = "is not valid JSON";
  return parsed;
}

}  // namespace orvex
