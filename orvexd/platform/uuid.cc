#include "orvexd/platform/uuid.h"

#include <uuid/uuid.h>

#include <algorithm>

namespace orvex {

Uuid Uuid::random() {
  Bytes bytes;
  uuid_generate_random(bytes.data());
  return Uuid(bytes);
}

std::optional<Uuid> Uuid::fromString(std::string_view text) {
  if (text.size() != 36) return std::nullopt;
  const std::string terminated(text);
  Bytes bytes;
  if (uuid_parse(terminated.c_str(), bytes.data()) != 0) return std::nullopt;
  return Uuid(bytes);
}

bool Uuid::isNil() const {
  return std::all_of(bytes_.begin(), bytes_.end(), [](uint8_t b) { return b == 0; });
}

std::string Uuid::upperString() const {
  char text[37];
  uuid_unparse_upper(bytes_.data(), text);
  return text;
}

std::string Uuid::lowerString() const {
  char text[37];
  uuid_unparse_lower(bytes_.data(), text);
  return text;
}

}  // namespace orvex
