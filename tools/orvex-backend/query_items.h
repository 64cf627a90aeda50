// Splitting a raw query string into its decoded name/value pairs.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace orvex::backend {

// The name=value pairs of `rawQuery` in wire order, split on '&' and percent-decoded, with '+'
// read as a space. A pair without '=' has an empty value; empty pairs are skipped; a '%' that
// starts no valid escape stays as it is.
std::vector<std::pair<std::string, std::string>> decodeQueryItems(std::string_view rawQuery);

}  // namespace orvex::backend
