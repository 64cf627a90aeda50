#include "orvexd/base/json_limits.h"

namespace orvex {

size_t jsonNestingDepth(std::string_view text, size_t stopAbove) {
  size_t depth = 0;
  size_t deepest = 0;
  bool inString = false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (inString) {
      if (c == '\\') {
        ++i;  // the escaped character cannot end the string
      } else if (c == '"') {
        inString = false;
      }
      continue;
    }
    switch (c) {
      case '"':
        inString = true;
        break;
      case '[':
      case '{':
        if (++depth > deepest) {
          deepest = depth;
          if (deepest > stopAbove) return deepest;
        }
        break;
      case ']':
      case '}':
        if (depth > 0) --depth;
        break;
      default:
        break;
    }
  }
  return deepest;
}

std::optional<std::string> jsonLimitProblem(std::string_view text, const JsonLimits& limits) {
  if (limits.maxBytes > 0 && text.size() > limits.maxBytes) {
    return "is " + std::to_string(text.size()) + " bytes, more than " +
           std::to_string(limits.maxBytes);
  }
  if (jsonNestingDepth(text, limits.maxDepth) > limits.maxDepth) {
    return "nests more than " + std::to_string(limits.maxDepth) + " levels deep";
  }
  return std::nullopt;
}

}  // namespace orvex
