// Reading a libplist tree into another form of value, without recursion on its depth.
//
// The walk keeps a stack of the containers being read, each with its value so far: a child is
// read when its container is on top, and a finished container is put into its parent. The
// builder says what the values are:
//
//   Value container(plist_type type, std::uint32_t size)
//       an empty array (of `size` elements to come) or dictionary;
//   std::optional<Value> leaf(plist_t node, std::string& why)
//       any other node; nothing, with the reason in `why`, refuses it;
//   bool add(Value& container, std::string key, Value child, std::string& why)
//       puts a finished child into its container (the key is empty in arrays); false, with the
//       reason in `why`, refuses it.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "orvexd/base/c_handle.h"
#include "orvexd/base/property_list.h"
#include "orvexd/base/text_util.h"

namespace orvex {

namespace plist_tree_detail {
// libplist 2.2 allocates dictionary iterators and keys with malloc and has no function to free
// them.
inline void freeMemory(void* pointer) { std::free(pointer); }
}  // namespace plist_tree_detail

// The value of the tree under `root`; nothing, with the reason in `why`, when the builder
// refuses a node, an array element or a dictionary key is missing, a key is not valid UTF-8, or
// the containers are nested deeper than kPlistMaxDepth.
template <typename Value, typename Builder>
std::optional<Value> buildFromPlistTree(plist_t root, Builder& builder, std::string& why) {
  using Malloced = CFree<&plist_tree_detail::freeMemory>;
  struct Frame {
    plist_t node = nullptr;
    Value value;
    std::uint32_t next = 0;                    // arrays: the index of the next element
    std::uint32_t size = 0;                    // arrays: the element count
    std::unique_ptr<void, Malloced> iterator;  // dictionaries
    std::string keyInParent;                   // when the parent is a dictionary
  };
  std::vector<Frame> frames;
  std::optional<Value> result;
  const auto place = [&](Value value, std::string key) {
    if (!frames.empty())
      return builder.add(frames.back().value, std::move(key), std::move(value), why);
    result = std::move(value);
    return true;
  };
  // Starts reading a node: containers go on the stack, leaves into their place.
  const auto enter = [&](plist_t node, std::string key) {
    const plist_type type = plist_get_node_type(node);
    if (type != PLIST_ARRAY && type != PLIST_DICT) {
      auto leaf = builder.leaf(node, why);
      return leaf && place(std::move(*leaf), std::move(key));
    }
    if (frames.size() + 1 > static_cast<std::size_t>(kPlistMaxDepth)) {
      why = "the containers are nested too deeply";
      return false;
    }
    const std::uint32_t size = type == PLIST_ARRAY ? plist_array_get_size(node) : 0;
    Frame frame{node, builder.container(type, size), 0, size, nullptr, std::move(key)};
    if (type == PLIST_DICT) {
      plist_dict_iter iterator = nullptr;
      plist_dict_new_iter(node, &iterator);
      frame.iterator.reset(iterator);
      if (frame.iterator == nullptr) {
        why = "out of memory";
        return false;
      }
    }
    frames.push_back(std::move(frame));
    return true;
  };

  if (!enter(root, {})) return std::nullopt;
  while (!frames.empty()) {
    Frame& top = frames.back();
    plist_t item = nullptr;
    std::string key;
    if (top.iterator == nullptr) {
      if (top.next < top.size) {
        item = plist_array_get_item(top.node, top.next++);
        if (item == nullptr) {
          why = "an array element is missing";
          return std::nullopt;
        }
      }
    } else {
      char* rawKey = nullptr;
      plist_dict_next_item(top.node, top.iterator.get(), &rawKey, &item);
      const std::unique_ptr<char, Malloced> keyOwner(rawKey);
      if (item != nullptr && keyOwner == nullptr) {
        why = "a dictionary entry has no key";
        return std::nullopt;
      }
      if (item != nullptr) key = keyOwner.get();
      if (!isValidUtf8(key)) {
        why = "a dictionary key is not valid UTF-8";
        return std::nullopt;
      }
    }
    if (item != nullptr) {
      if (!enter(item, std::move(key))) return std::nullopt;
      continue;
    }
    Frame finished = std::move(top);
    frames.pop_back();
    if (!place(std::move(finished.value), std::move(finished.keyInParent))) return std::nullopt;
  }
  return result;
}

}  // namespace orvex
