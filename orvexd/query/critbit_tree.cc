#include "orvexd/query/critbit_tree.h"

#include <array>
#include <cstring>
#include <string>
#include <utility>

namespace orvex {
namespace {

int prefix_callback(const char* key, void* arg) {
  const auto& visitor = *static_cast<const CritbitTree::KeyVisitor*>(arg);
  bool stop = false;
  visitor(std::string_view(key), stop);
  return stop ? 0 : 1;
}

// The core takes NUL-terminated keys; a view is copied into a stack buffer when it fits (query
// text nearly always does) and into a string otherwise. Keys holding a NUL byte are not valid.
class CKey {
 public:
  explicit CKey(std::string_view key) {
    valid_ = key.find('\0') == std::string_view::npos;
    if (!valid_) return;
    if (key.size() < buffer_.size()) {
      memcpy(buffer_.data(), key.data(), key.size());
      buffer_[key.size()] = '\0';
      text_ = buffer_.data();
    } else {
      long_.assign(key);
      text_ = long_.c_str();
    }
  }
  CKey(const CKey&) = delete;
  CKey& operator=(const CKey&) = delete;

  bool valid() const { return valid_; }
  const char* c_str() const { return text_; }

 private:
  std::array<char, 256> buffer_;
  std::string long_;
  const char* text_ = nullptr;
  bool valid_ = false;
};

}  // namespace

CritbitTree::CritbitTree(ReleaseFunction release) : tree_{} { tree_.value_release = release; }

CritbitTree::~CritbitTree() { critbit_clear(&tree_); }

CritbitTree::CritbitTree(CritbitTree&& other) noexcept : tree_(other.tree_) {
  other.tree_.root.flag = 0;
  other.tree_.size = 0;
}

CritbitTree& CritbitTree::operator=(CritbitTree&& other) noexcept {
  if (this != &other) {
    critbit_clear(&tree_);
    tree_ = other.tree_;
    other.tree_.root.flag = 0;
    other.tree_.size = 0;
  }
  return *this;
}

bool CritbitTree::setObject(void* value, std::string_view key) {
  const CKey ckey(key);
  if (value == nullptr || !ckey.valid()) return false;
  if (critbit_insert(&tree_, ckey.c_str(), value, 1) != 0) return true;
  // 0 is either this very value already stored under the key, or a failed allocation.
  void* stored = nullptr;
  return critbit_contains(&tree_, ckey.c_str(), &stored) == 1 && stored == value;
}

void* CritbitTree::objectForKey(std::string_view key) const {
  const CKey ckey(key);
  void* stored = nullptr;
  if (!ckey.valid() || critbit_contains(&tree_, ckey.c_str(), &stored) == 0) return nullptr;
  return stored;
}

bool CritbitTree::containsKey(std::string_view key) const {
  const CKey ckey(key);
  return ckey.valid() && critbit_contains(&tree_, ckey.c_str(), nullptr) == 1;
}

bool CritbitTree::removeObjectForKey(std::string_view key) {
  const CKey ckey(key);
  return ckey.valid() && critbit_delete(&tree_, ckey.c_str()) == 1;
}

void CritbitTree::removeAllObjects() { critbit_clear(&tree_); }

void CritbitTree::keysMatchingPrefix(std::string_view prefix, const KeyVisitor& visitor) const {
  const CKey cprefix(prefix);
  if (!cprefix.valid()) return;
  critbit_allprefixed(&tree_, cprefix.c_str(), prefix_callback, const_cast<KeyVisitor*>(&visitor));
}

}  // namespace orvex
