#include "orvexd/base/http_types.h"

#include <algorithm>

namespace orvex {

namespace {
char asciiLower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }
}  // namespace

bool HttpHeaderNameLess::operator()(std::string_view a, std::string_view b) const {
  return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
    return static_cast<unsigned char>(asciiLower(x)) < static_cast<unsigned char>(asciiLower(y));
  });
}

std::string describeHeaders(const HttpHeaderMap& headers) {
  std::string text = "{";
  for (const auto& [name, value] : headers) {
    if (text.size() > 1) text += "; ";
    text += name + ": " + value;
  }
  return text + "}";
}

}  // namespace orvex
