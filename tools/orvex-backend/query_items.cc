#include "tools/orvex-backend/query_items.h"

namespace orvex::backend {

namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string decode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '+') {
      out += ' ';
    } else if (text[i] == '%' && i + 2 < text.size() && hexValue(text[i + 1]) >= 0 &&
               hexValue(text[i + 2]) >= 0) {
      out += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

}  // namespace

std::vector<std::pair<std::string, std::string>> decodeQueryItems(std::string_view rawQuery) {
  std::vector<std::pair<std::string, std::string>> items;
  while (!rawQuery.empty()) {
    const size_t amp = rawQuery.find('&');
    const std::string_view item = rawQuery.substr(0, amp);
    rawQuery = amp == std::string_view::npos ? std::string_view() : rawQuery.substr(amp + 1);
    if (item.empty()) continue;
    const size_t equals = item.find('=');
    items.emplace_back(decode(item.substr(0, equals)), equals == std::string_view::npos
                                                           ? std::string()
                                                           : decode(item.substr(equals + 1)));
  }
  return items;
}

}  // namespace orvex::backend
