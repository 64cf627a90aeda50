#include "orvexd/base/json_property_list.h"

#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

#include "orvexd/base/plist_tree_builder.h"
#include "orvexd/base/property_list.h"

namespace orvex {

namespace {

using Json = nlohmann::ordered_json;

// Leaves go through PlistValue, which checks strings the way every writer of ours does.
PlistHandle leafNode(const Json& json, std::string& why) {
  switch (json.type()) {
    case Json::value_t::string:
      return PlistValue(json.get_ref<const std::string&>()).toPlist(&why);
    case Json::value_t::boolean:
      return PlistValue(json.get<bool>()).toPlist(&why);
    case Json::value_t::number_integer:
      return PlistValue(json.get<std::int64_t>()).toPlist(&why);
    case Json::value_t::number_unsigned:
      return PlistValue(json.get<std::uint64_t>()).toPlist(&why);
    case Json::value_t::number_float:
      return PlistValue(json.get<double>()).toPlist(&why);
    default:
      why = "the document holds a value without a property-list form";
      return nullptr;
  }
}

// The tree of `root`, built from a stack of the containers being filled: each child is put in
// its parent as soon as it is made, and the parent owns it from then on.
PlistHandle treeFromJson(const Json& root, std::string& why) {
  struct Frame {
    const Json* json;
    Json::const_iterator next;
    plist_t node;  // owned by its parent, or by the handle of the root
  };
  std::vector<Frame> frames;
  // A container or a leaf; containers go on the stack, to be filled.
  const auto make = [&](const Json& json) -> PlistHandle {
    if (!json.is_structured()) return leafNode(json, why);
    if (frames.size() + 1 > static_cast<std::size_t>(kPlistMaxDepth)) {
      why = "the document is nested too deeply";
      return nullptr;
    }
    PlistHandle node(json.is_object() ? plist_new_dict() : plist_new_array());
    if (node != nullptr) frames.push_back({&json, json.begin(), node.get()});
    return node;
  };
  PlistHandle tree = make(root);
  while (tree != nullptr && !frames.empty()) {
    Frame& top = frames.back();
    if (top.next == top.json->end()) {
      frames.pop_back();
      continue;
    }
    const auto member = top.next++;
    if (member->is_null()) continue;
    const bool inObject = top.json->is_object();
    const plist_t parent = top.node;
    if (inObject && !PlistValue(member.key()).isWritable(&why)) return nullptr;
    PlistHandle child = make(*member);  // may grow `frames`: `top` is not used after this
    if (child == nullptr) return nullptr;
    if (inObject) {
      plist_dict_set_item(parent, member.key().c_str(), child.release());
    } else {
      plist_array_append_item(parent, child.release());
    }
  }
  return tree;
}

// Reads a tree that parsePropertyListTree() has checked into JSON, keeping the order of keys.
struct JsonBuilder {
  static Json container(plist_type type, std::uint32_t) {
    return type == PLIST_DICT ? Json::object() : Json::array();
  }
  static std::optional<Json> leaf(plist_t node, std::string& why) {
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
  static bool add(Json& container, std::string key, Json child, std::string&) {
    if (container.is_object()) {
      container[key] = std::move(child);
    } else {
      container.push_back(std::move(child));
    }
    return true;
  }
};

}  // namespace

std::vector<std::uint8_t> binaryPropertyListFromJson(const Json& json, std::string* error) {
  std::string why;
  std::vector<std::uint8_t> document;
  if (const PlistHandle root = treeFromJson(json, why)) {
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
    JsonBuilder builder;
    json = buildFromPlistTree<Json>(root.get(), builder, why);
  }
  if (!json && error != nullptr) *error = why;
  return json;
}

}  // namespace orvex
