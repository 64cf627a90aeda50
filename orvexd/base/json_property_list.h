// JSON documents kept as property lists (the bag's disk copy), and read back, with the order
// of object keys preserved through binary documents.
//
// JSON null has no property-list form: members and array elements that are null are left out,
// which readers of the document take as absent anyway. Numbers keep their kind: integers stay
// integers (unsigned ones above INT64_MAX included) and others become reals. Property lists
// that hold dates or data have no JSON form and are refused on reading.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace orvex {

// A binary property list of `json`; empty, with the reason in `error`, when it cannot be
// written (a string holding NUL, nesting deeper than the property-list limit).
std::vector<std::uint8_t> binaryPropertyListFromJson(const nlohmann::ordered_json& json,
                                                     std::string* error = nullptr);

// The JSON form of an XML or binary property list; none, with the reason in `error`, when the
// document is malformed or holds something JSON cannot.
std::optional<nlohmann::ordered_json> jsonFromPropertyList(std::span<const std::uint8_t> bytes,
                                                           std::string* error = nullptr);

}  // namespace orvex
