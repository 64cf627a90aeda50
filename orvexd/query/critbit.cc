#include "orvexd/query/critbit.h"

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <utility>

namespace orvex {
namespace {

bool is_internal(critbit_node node) { return (node.flag & 1) != 0; }

critbit_internal_node* internal_of(critbit_node node) {
  return reinterpret_cast<critbit_internal_node*>(static_cast<uintptr_t>(node.flag - 1));
}

critbit_external_node* external_of(critbit_node node) {
  return reinterpret_cast<critbit_external_node*>(static_cast<uintptr_t>(node.flag));
}

critbit_node internal_ref(critbit_internal_node* node) {
  critbit_node ref;
  ref.flag = reinterpret_cast<uintptr_t>(node) | 1;
  return ref;
}

critbit_node external_ref(critbit_external_node* node) {
  critbit_node ref;
  ref.flag = reinterpret_cast<uintptr_t>(node);
  return ref;
}

// 1 when the key's byte at the node's critical index has the critical bit set, else 0. A key that
// ends before that byte reads it as 0. `otherbits | c` is 255 exactly when the critical bit of c
// is set, so adding 1 carries into bit 8.
int direction(const critbit_internal_node* node, const uint8_t* key, size_t length) {
  const unsigned c = node->byte < length ? key[node->byte] : 0;
  return static_cast<int>((1 + (node->otherbits | c)) >> 8);
}

const uint8_t* bytes(const char* key) { return reinterpret_cast<const uint8_t*>(key); }

// Internal nodes all have the same 24 bytes, which malloc would place in 32-byte chunks. They come
// from 4 KiB slabs instead, 170 to a slab, shared by every tree of the process: a third less
// memory for the node that every key but the first brings. Freed nodes go back to a free list;
// when the last node of the process is freed, every slab goes back to malloc, so a process whose
// trees are all empty holds no slab.
class InternalNodePool {
 public:
  void* allocate() {
    std::lock_guard lock(mutex_);
    if (free_ == nullptr && !addSlab()) return nullptr;
    Slot* const slot = free_;
    free_ = slot->next;
    ++live_;
    return slot;
  }

  void release(void* node) {
    std::lock_guard lock(mutex_);
    Slot* const slot = static_cast<Slot*>(node);
    slot->next = free_;
    free_ = slot;
    if (--live_ == 0) releaseSlabs();
  }

 private:
  union Slot {
    Slot* next;
    alignas(8) unsigned char node[sizeof(critbit_internal_node)];
  };
  static constexpr size_t kSlabBytes = 4096;
  struct Slab {
    Slab* next;
    Slot slots[(kSlabBytes - sizeof(Slab*)) / sizeof(Slot)];
  };
  static_assert(sizeof(Slot) == 24 && sizeof(Slab) <= kSlabBytes);

  bool addSlab() {
    void* const block = malloc(sizeof(Slab));
    if (block == nullptr) return false;
    Slab* const slab = ::new (block) Slab;
    slab->next = slabs_;
    slabs_ = slab;
    for (Slot& slot : slab->slots) {
      slot.next = free_;
      free_ = &slot;
    }
    return true;
  }

  void releaseSlabs() {
    while (slabs_ != nullptr) free(std::exchange(slabs_, slabs_->next));
    free_ = nullptr;
  }

  std::mutex mutex_;
  Slot* free_ = nullptr;  // guarded by mutex_, as are the fields below
  Slab* slabs_ = nullptr;
  size_t live_ = 0;
};

// Never destroyed: trees held in static storage may free their nodes during exit, after the
// pool's own destruction would have run.
InternalNodePool& internalNodes() {
  alignas(InternalNodePool) static unsigned char storage[sizeof(InternalNodePool)];
  static InternalNodePool* const pool = ::new (storage) InternalNodePool();
  return *pool;
}

}  // namespace

critbit_external_node* find_next_external_node(critbit_node top, const uint8_t* key,
                                               size_t length) {
  critbit_node node = top;
  while (is_internal(node)) {
    const critbit_internal_node* q = internal_of(node);
    node = q->child[direction(q, key, length)];
  }
  return external_of(node);
}

int critbit_contains(const critbit_tree* tree, const char* key, void** value) {
  if (tree->root.flag == 0) return 0;
  const critbit_external_node* p = find_next_external_node(tree->root, bytes(key), strlen(key));
  if (strcmp(key, p->key) != 0) return 0;
  if (value != nullptr) *value = p->value;
  return 1;
}

critbit_external_node* new_external_node(const uint8_t* key, size_t length, void* value) {
  auto* node =
      static_cast<critbit_external_node*>(malloc(sizeof(critbit_external_node) + length + 1));
  if (node == nullptr) return nullptr;
  node->value = value;
  memcpy(node->key, key, length);
  node->key[length] = '\0';
  return node;
}

int critbit_insert(critbit_tree* tree, const char* key, void* value, int replace) {
  const uint8_t* const u = bytes(key);
  const size_t length = strlen(key);
  // Critical byte indices are 32-bit; a longer key could not be told apart from its neighbours.
  if (length > UINT32_MAX) return 0;

  if (tree->root.flag == 0) {
    critbit_external_node* node = new_external_node(u, length, value);
    if (node == nullptr) return 0;
    tree->root = external_ref(node);
    ++tree->size;
    return 2;
  }

  critbit_external_node* const p = find_next_external_node(tree->root, u, length);
  const uint8_t* const pk = bytes(p->key);

  // The first differing byte. Keys hold no interior NUL, so a stored key that is shorter than
  // this one differs at its NUL and the loop never reads past it.
  size_t i = 0;
  unsigned differing = 0;
  for (; i < length; ++i) {
    differing = u[i] ^ pk[i];
    if (differing != 0) break;
  }
  if (i == length) differing = pk[length];

  if (differing == 0) {
    if (p->value == value) return 0;
    if ((replace & 1) == 0) return 1;
    if (tree->value_release != nullptr) tree->value_release(p->value);
    p->value = value;
    return 1;
  }

  void* const block = internalNodes().allocate();
  if (block == nullptr) return 0;
  auto* const node = ::new (block) critbit_internal_node;
  critbit_external_node* const external = new_external_node(u, length, value);
  if (external == nullptr) {
    internalNodes().release(node);
    return 0;
  }

  // Keep only the highest differing bit; otherbits is the mask of all the others.
  differing |= differing >> 1;
  differing |= differing >> 2;
  differing |= differing >> 4;
  const uint8_t otherbits = static_cast<uint8_t>((differing & ~(differing >> 1)) ^ 255);
  const int newDirection = static_cast<int>((1 + (otherbits | pk[i])) >> 8);

  node->byte = static_cast<uint32_t>(i);
  node->otherbits = otherbits;
  node->child[1 - newDirection] = external_ref(external);

  // Splice the node in above the first node that branches at a later bit, which keeps critical
  // positions increasing along every path.
  critbit_node* where = &tree->root;
  while (is_internal(*where)) {
    critbit_internal_node* const q = internal_of(*where);
    if (q->byte > i) break;
    if (q->byte == i && q->otherbits > otherbits) break;
    where = &q->child[direction(q, u, length)];
  }
  node->child[newDirection] = *where;
  *where = internal_ref(node);
  ++tree->size;
  return 2;
}

int critbit_delete(critbit_tree* tree, const char* key) {
  if (tree->root.flag == 0) return 0;
  const uint8_t* const u = bytes(key);
  const size_t length = strlen(key);

  critbit_node* wherep = &tree->root;
  critbit_node* whereq = nullptr;
  critbit_internal_node* q = nullptr;
  int dir = 0;
  while (is_internal(*wherep)) {
    whereq = wherep;
    q = internal_of(*wherep);
    dir = direction(q, u, length);
    wherep = &q->child[dir];
  }

  critbit_external_node* const p = external_of(*wherep);
  if (strcmp(key, p->key) != 0) return 0;
  if (tree->value_release != nullptr) tree->value_release(p->value);
  free(p);
  --tree->size;

  if (whereq == nullptr) {
    tree->root.flag = 0;
  } else {
    *whereq = q->child[1 - dir];
    internalNodes().release(q);
  }
  return 1;
}

void traverse(critbit_tree* tree, critbit_node node) {
  if (is_internal(node)) {
    critbit_internal_node* const q = internal_of(node);
    traverse(tree, q->child[0]);
    traverse(tree, q->child[1]);
    internalNodes().release(q);
  } else {
    critbit_external_node* const p = external_of(node);
    if (tree->value_release != nullptr) tree->value_release(p->value);
    free(p);
  }
}

void critbit_clear(critbit_tree* tree) {
  if (tree->root.flag != 0) traverse(tree, tree->root);
  tree->root.flag = 0;
  tree->size = 0;
}

int allprefixed_traverse(critbit_node top, critbit_prefix_handler handler, void* arg) {
  if (!is_internal(top)) return handler(external_of(top)->key, arg);
  const critbit_internal_node* const q = internal_of(top);
  for (int dir = 0; dir < 2; ++dir) {
    const int result = allprefixed_traverse(q->child[dir], handler, arg);
    if (result == 0) return 0;
    if (result != 1) return -1;
  }
  return 1;
}

int critbit_allprefixed(const critbit_tree* tree, const char* prefix,
                        critbit_prefix_handler handler, void* arg) {
  if (tree->root.flag == 0) return 1;
  const uint8_t* const u = bytes(prefix);
  const size_t length = strlen(prefix);

  // Every key with the prefix lies under the lowest node whose critical byte is inside it.
  critbit_node node = tree->root;
  critbit_node top = node;
  while (is_internal(node)) {
    const critbit_internal_node* const q = internal_of(node);
    node = q->child[direction(q, u, length)];
    if (q->byte < length) top = node;
  }

  // The best match decides for the whole subtree: all its keys share the bits tested on the way.
  // A shorter key differs at its NUL, so the comparison stops there.
  const char* const key = external_of(node)->key;
  for (size_t i = 0; i < length; ++i) {
    if (key[i] != prefix[i]) return 1;
  }

  const int result = allprefixed_traverse(top, handler, arg);
  return result == 0 || result == 1 ? result : -1;
}

}  // namespace orvex
