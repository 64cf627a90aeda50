// An ordered map from string keys to owned object values with prefix enumeration, over the
// crit-bit core in critbit.h. The query cache keys its entries by completed query text and walks
// every entry that begins with what the user has typed so far.
//
// The tree stores plain value pointers, one machine word per key, next to the key bytes in the
// core's external node: there is no per-key holder object. The owner supplies the function that
// gives a value up; the tree calls it when the key is replaced, removed or cleared, or when the
// tree goes away. CritbitMap<T> is the typed form that owns heap objects of one type.
//
// Keys are byte strings (UTF-8 for text) without NUL bytes: a key containing one is never stored
// and never found.
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
  // Gives up one stored value; none means values are not owned by the tree.
  using ReleaseFunction = void (*)(void* value);
  // Called once per key in a prefix enumeration; setting `stop` ends the enumeration after this
  // key. The view borrows the tree's storage and is valid only during the call.
  using KeyVisitor = std::function<void(std::string_view key, bool& stop)>;

  explicit CritbitTree(ReleaseFunction release = nullptr);
  ~CritbitTree();
  CritbitTree(const CritbitTree&) = delete;
  CritbitTree& operator=(const CritbitTree&) = delete;
  CritbitTree(CritbitTree&& other) noexcept;
  CritbitTree& operator=(CritbitTree&& other) noexcept;

  // Stores `value` under `key`, replacing (and releasing) any other value stored there. True
  // when the tree holds `value` afterwards: it took it, or held this very pointer already (then
  // nothing changes). False when nothing was stored and the caller keeps the value: it is null,
  // the key holds a NUL byte, or memory ran out.
  bool setObject(void* value, std::string_view key);
  // The value stored under `key`, or null.
  void* objectForKey(std::string_view key) const;
  bool containsKey(std::string_view key) const;
  // True when the key was stored and is now removed (its value released).
  bool removeObjectForKey(std::string_view key);
  void removeAllObjects();
  // Visits every stored key that begins with `prefix`, in ascending byte order (a key before the
  // keys it is a prefix of). An empty prefix visits all keys.
  void keysMatchingPrefix(std::string_view prefix, const KeyVisitor& visitor) const;

  uint64_t count() const { return tree_.size; }

 private:
  critbit_tree tree_;
};

// A crit-bit tree that owns heap objects of type T: each value is destroyed when its key is
// replaced or removed, or when the map is cleared or destroyed. Pointers handed out stay valid
// until then.
template <typename T>
class CritbitMap {
 public:
  using KeyVisitor = CritbitTree::KeyVisitor;

  CritbitMap() : tree_(&destroy) {}

  // Takes `value` unless it is null, the key holds a NUL byte or memory ran out; then the value
  // is destroyed here and false returned.
  bool set(std::unique_ptr<T> value, std::string_view key) {
    if (!tree_.setObject(value.get(), key)) return false;
    (void)value.release();  // the tree owns it now
    return true;
  }
  T* find(std::string_view key) const { return static_cast<T*>(tree_.objectForKey(key)); }
  bool contains(std::string_view key) const { return tree_.containsKey(key); }
  bool remove(std::string_view key) { return tree_.removeObjectForKey(key); }
  void clear() { tree_.removeAllObjects(); }
  void keysMatchingPrefix(std::string_view prefix, const KeyVisitor& visitor) const {
    tree_.keysMatchingPrefix(prefix, visitor);
  }
  uint64_t count() const { return tree_.count(); }

 private:
  static void destroy(void* value) { std::unique_ptr<T> drop(static_cast<T*>(value)); }

  CritbitTree tree_;
};

}  // namespace orvex
