// A crit-bit tree: an ordered map from NUL-terminated byte strings to opaque value pointers,
// branching two ways on the bits at which stored keys first differ, with prefix enumeration.
//
// This is a small C-level core: plain structs and functions, no exceptions and no knowledge of
// what a value is. External nodes (value and key in one block) come from malloc; internal nodes
// from a process-wide pool of slabs, which is safe to use from several threads (each tree itself
// is not). The tree calls `value_release` (when set)
// whenever it gives a value up: on replace, delete and clear. CritbitTree is the owning C++ layer
// on top.
//
// Keys are byte strings without interior NUL bytes; bytes compare as unsigned 8-bit values, so
// enumeration yields keys in ascending byte order, a key before every key it is a prefix of.
// A tree has no locking; it must not be modified while an enumeration runs.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orvex {

struct critbit_internal_node;
struct critbit_external_node;

// A tagged reference to a node: lowest bit 1 designates an internal node at the address with the
// bit cleared, lowest bit 0 an external node at that very address. All zero is an empty
// reference. Nodes are allocated with 8-byte alignment, so the bit is always free.
union critbit_node {
  uint64_t flag;
  critbit_internal_node* internal;
  critbit_external_node* external;
};
static_assert(sizeof(critbit_node) == sizeof(uint64_t));

struct critbit_internal_node {
  // child[0] holds the keys whose critical bit is 0, including keys that end before the critical
  // byte; child[1] those whose critical bit is 1.
  critbit_node child[2];
  uint32_t byte;      // index of the critical byte
  uint8_t otherbits;  // every bit set except the critical bit
};

struct critbit_external_node {
  void* value;
  char key[];  // the key's bytes and a NUL, allocated together with the value in one block
};

struct critbit_tree {
  critbit_node root;  // empty, or the single top node
  uint64_t size;      // number of keys stored
  void (*value_release)(void* value);
};

// Called once per enumerated key with the opaque argument; returns 1 to go on, 0 to stop.
// Any other result aborts the enumeration with -1.
using critbit_prefix_handler = int (*)(const char* key, void* arg);

// 1 if `key` is stored (its value written through `value` when that is non-null), else 0.
int critbit_contains(const critbit_tree* tree, const char* key, void** value);

// The external node at which the walk by the key's bits from the non-empty `top` ends: the best
// match, not necessarily equal to the key.
critbit_external_node* find_next_external_node(critbit_node top, const uint8_t* key, size_t length);

// 2: a new key was added. 1: the key was stored with another value, which is replaced (and
// released) when the lowest bit of `replace` is set and kept otherwise. 0: the key is stored with
// this very value, or allocation failed; the tree is then unchanged.
int critbit_insert(critbit_tree* tree, const char* key, void* value, int replace);

// A new external node holding `value` and a NUL-terminated copy of the key, or null.
critbit_external_node* new_external_node(const uint8_t* key, size_t length, void* value);

// 1 if the key was stored and is now removed (its value released), else 0.
int critbit_delete(critbit_tree* tree, const char* key);

// Frees every node, releasing every value; the tree is then empty.
void critbit_clear(critbit_tree* tree);

// Post-order free of the subtree at `node`, releasing the values of its external nodes.
void traverse(critbit_tree* tree, critbit_node node);

// Calls `handler` on every stored key that begins with `prefix`, in ascending order. 1 if the
// enumeration ran to its end (or there was nothing to enumerate), 0 if the handler stopped it,
// -1 if the handler returned anything but 0 or 1.
int critbit_allprefixed(const critbit_tree* tree, const char* prefix,
                        critbit_prefix_handler handler, void* arg);

// Depth-first enumeration of the subtree at `top`, child 0 before child 1; results as above.
int allprefixed_traverse(critbit_node top, critbit_prefix_handler handler, void* arg);

}  // namespace orvex
