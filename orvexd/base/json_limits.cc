#include "orvexd/base/json_limits.h"

#include <cstdint>
#include <cstdio>
#include <utility>

namespace orvex {

namespace {

bool isNoncharacter(uint32_t code) {
  return (code >= 0xFDD0 && code <= 0xFDEF) || (code & 0xFFFE) == 0xFFFE;
}

// The code point starting at text[at] and its length in bytes; text is valid UTF-8.
std::pair<uint32_t, size_t> codePointAt(std::string_view text, size_t at) {
  const auto lead = static_cast<unsigned char>(text[at]);
  const size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  if (at + length > text.size()) return {lead, 1};
  uint32_t code = length == 1 ? lead : lead & (0x7Fu >> length);
  for (size_t k = 1; k < length; ++k)
    code = code << 6 | (static_cast<unsigned char>(text[at + k]) & 0x3F);
  return {code, length};
}

// `unit` is one UTF-16 code unit (at most 0xFFFF).
void appendEscape(uint32_t unit, std::string& out) {
  constexpr char kHex[] = "0123456789abcdef";
  out.append("\\u");
  for (int shift = 12; shift >= 0; shift -= 4) out.push_back(kHex[(unit >> shift) & 0xF]);
}

}  // namespace

std::string jsonTextForBus(std::string text) {
  std::string out;
  bool escaped = false;  // whether `out` holds the text so far
  for (size_t i = 0; i < text.size();) {
    const auto [code, length] = codePointAt(text, i);
    if (isNoncharacter(code)) {
      if (!escaped) out.assign(text, 0, i);
      escaped = true;
      if (code > 0xFFFF) {  // as a surrogate pair
        appendEscape(0xD800 + ((code - 0x10000) >> 10), out);
        appendEscape(0xDC00 + ((code - 0x10000) & 0x3FF), out);
      } else {
        appendEscape(code, out);
      }
    } else if (escaped) {
      out.append(text, i, length);
    }
    i += length;
  }
  return escaped ? out : text;
}

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
