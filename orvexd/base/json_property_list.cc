#include "orvexd/base/json_property_list.h"

#include <cstdlib>
#include <memory>
#include <type_traits>

#include "orvexd/base/property_list.h"

namespace orvex {

namespace {

using Json = nlohmann::ordered_json;

// Leaves go through PlistValue, which checks strings the way every writer of ours does.
PlistHandle leafNode(PlistValue value, std::string& why) { return value.toPlist(&why); }

PlistHandle nodeFromJson(const Json& json, int depth, std::string& why) {
  if (depth > kPlistMaxDepth) {
    why = "the document is nested too deeply";
    return nullptr;
  }
  switch (json.type()) {
    case Json::value_t::object: {
      PlistHandle dictionary(plist_new_dict());
      for (const auto& [key, member] : json.items()) {
        if (member.is_null()) continue;
        if (!PlistValue(key).isWritable(&why)) return nullptr;
        PlistHandle child = nodeFromJson(member, depth + 1, why);
        if (child == nullptr) return nullptr;
        plist_dict_set_item(dictionary.get(), key.c_str(), child.release());
      }
      return dictionary;
    }
    case Json::value_t::array: {
      PlistHandle array(plist_new_array());
      for (const Json& element : json) {
        if (element.is_null()) continue;
        PlistHandle child = nodeFromJson(element, depth + 1, why);
        if (child == nullptr) return nullptr;
        plist_array_append_item(array.get(), child.release());
      }
      return array;
    }
    case Json::value_t::string:
      return leafNode(json.get_ref<const std::string&>(), why);
    case Json::value_t::boolean:
      return leafNode(json.get<bool>(), why);
    case Json::value_t::number_integer:
      return leafNode(json.get<std::int64_t>(), why);
    case Json::value_t::number_unsigned:
      return leafNode(json.get<std::uint64_t>(), why);
    case Json::value_t::number_float:
      return leafNode(json.get<double>(), why);
    default:
      why = "the document holds a value without a property-list form";
      return nullptr;
  }
}

std::optional<Json> jsonFromNode(plist_t node, std::string& why) {
  switch (plist_get_node_type(node)) {
    case PLIST_DICT: {
      Json object = Json::object();
      plist_dict_iter iterator = nullptr;
      plist_dict_new_iter(node, &iterator);
      // libplist 2.2 allocates the iterator with malloc and has no function to free it.
      const std::unique_ptr<void, CFree<&std::free>> iteratorOwner(iterator);
      for (;;) {
        char* rawKey = nullptr;
        plist_t child = nullptr;
        plist_dict_next_item(node, iterator, &rawKey, &child);
        const std::unique_ptr<char, CFree<&std::free>> key(rawKey);
        if (key == nullptr || child == nullptr) break;
        auto member = jsonFromNode(child, why);
        if (!member) return std::nullopt;
        object[key.get()] = std::move(*member);
      }
      return object;
    }
    case PLIST_ARRAY: {
      Json array = Json::array();
      const std::uint32_t count = plist_array_get_size(node);
      for (std::uint32_t i = 0; i < count; ++i) {
        auto element = jsonFromNode(plist_array_get_item(node, i), why);
        if (!element) return std::nullopt;
        array.push_back(std::move(*element));
      }
      return array;
    }
    default:
      break;
  }
  const auto value = PlistValue::fromPlist(node, &why);
  if (!value) return std::nullopt;
  return value->visit([&why](const auto& leaf) -> std::optional<Json> {
    using T = std::decay_t<decltype(leaf)>;
    if constexpr (std::is_same_v<T, bool> || std::is_same_v<T, std::int64_t> ||
                  std::is_same_v<T, std::uint64_t> || std::is_same_v<T, double> ||
                  std::is_same_v<T, std::string>) {
      return Json(leaf);
    } else {
      why = "the property list holds a date or data, which JSON cannot";
      return std::nullopt;
    }
  });
}

}  // namespace

std::vector<std::uint8_t> binaryPropertyListFromJson(const Json& json, std::string* error) {
  std::string why;
  std::vector<std::uint8_t> document;
  if (const PlistHandle root = nodeFromJson(json, 0, why)) {
    char* raw = nullptr;
    std::uint32_t length = 0;
    plist_to_bin(root.get(), &raw, &length);
    const std::unique_ptr<char, CFree<&plist_to_bin_free>> buffer(raw);
    if (buffer != nullptr && length > 0) {
      document.assign(reinterpret_cast<const std::uint8_t*>(raw),
                      reinterpret_cast<const std::uint8_t*>(raw) + length);
    } else {
      why = "libplist could not write the binary property list";
    }
  }
  if (document.empty() && error != nullptr) *error = why;
  return document;
}

std::optional<Json> jsonFromPropertyList(std::span<const std::uint8_t> bytes, std::string* error) {
  std::string why;
  std::optional<Json> json;
  if (const PlistHandle root = parsePropertyListTree(bytes, &why)) {
    json = jsonFromNode(root.get(), why);
  }
  if (!json && error != nullptr) *error = why;
  return json;
}

}  // namespace orvex
