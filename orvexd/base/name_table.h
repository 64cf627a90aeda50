// Small constant tables that give the values of an enumeration their names in text.
//
//   inline constexpr Named<Colour> kColourNames[] = {
//       {Colour::kRed, "red"}, {Colour::kGreen, "green"}, {Colour::kGreen, "vert"}};
//   nameOf(kColourNames, Colour::kGreen)   → "green" (the first entry of the value)
//   valueNamed(kColourNames, "vert")       → Colour::kGreen (any entry, aliases included)
//
// Tables are searched in order: they are a handful of entries, read far less often than a
// switch would be worth writing out by hand for each direction.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>
#include <type_traits>

namespace orvex {

template <typename Value>
struct Named {
  Value value;
  std::string_view name;
};

// The name of the first entry holding `value`; nothing when no entry holds it.
template <typename Value, std::size_t N>
constexpr std::optional<std::string_view> nameOf(const Named<Value> (&table)[N],
                                                 std::type_identity_t<Value> value) {
  for (const Named<Value>& entry : table) {
    if (entry.value == value) return entry.name;
  }
  return std::nullopt;
}

// The value of the first entry named `name` exactly; nothing when no entry has that name.
template <typename Value, std::size_t N>
constexpr std::optional<Value> valueNamed(const Named<Value> (&table)[N], std::string_view name) {
  for (const Named<Value>& entry : table) {
    if (entry.name == name) return entry.value;
  }
  return std::nullopt;
}

}  // namespace orvex
