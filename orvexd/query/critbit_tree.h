// An ordered map from string keys to shared object values with prefix enumeration, over the
// crit-bit core in critbit.h. The query cache keys its entries by completed query text and walks
// every entry that begins with what the user has typed so far.
//
// The tree holds one reference to each stored object and drops it when the key is replaced,
// removed or cleared, or when the tree goes away. Keys are byte strings (UTF-8 for text) without
// NUL bytes: a key containing one is never stored and never found.
//
// Not thread-safe: the owner serialises all calls (the query cache runs on its serial queue), and
// the tree must not be changed from inside an enumeration.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

#include "orvexd/query/critbit.h"

namespace orvex {

class CritbitTree {
 public:
  // Values are type-erased; callers store and read back their own type with
  // std::static_pointer_cast.
  using Object = std::shared_ptr<const void>;
  // Called once per key in a prefix enumeration; setting `stop` ends the enumeration after this
  // key. The view borrows the tree's storage and is valid only during the call.
  using KeyVisitor = std::function<void(std::string_view key, bool& stop)>;

  CritbitTree();
  ~CritbitTree();
  CritbitTree(const CritbitTree&) = delete;
  CritbitTree& operator=(const CritbitTree&) = delete;
  CritbitTree(CritbitTree&& other) noexcept;
  CritbitTree& operator=(CritbitTree&& other) noexcept;

  // Stores `object` under `key`, replacing (and dropping) any other object stored there; storing
  // the object already held under the key changes nothing. False when nothing could be stored:
  // the object is null, the key holds a NUL byte, or memory ran out.
  bool setObject(Object object, std::string_view key);
  // The object stored under `key`, or null.
  Object objectForKey(std::string_view key) const;
  bool containsKey(std::string_view key) const;
  // True when the key was stored and is now removed.
  bool removeObjectForKey(std::string_view key);
  void removeAllObjects();
  // Visits every stored key that begins with `prefix`, in ascending byte order (a key before the
  // keys it is a prefix of). An empty prefix visits all keys.
  void keysMatchingPrefix(std::string_view prefix, const KeyVisitor& visitor) const;

  uint64_t count() const { return _tree.size; }

 private:
  critbit_tree _tree;
};

}  // namespace orvex
