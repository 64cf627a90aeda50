// Reads bytes as a sequence of crit-bit tree operations and checks every result against
// std::map: the core's return codes, the values it holds and gives up, and the keys a prefix
// enumeration yields, through the core and through CritbitMap.
//
// Each operation is an opcode byte, a length byte and up to 15 key bytes; a NUL byte ends the
// key early, since keys never hold one. Values are small integers, so "the very value" and
// "another value" both come up.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "orvexd/query/critbit.h"
#include "orvexd/query/critbit_tree.h"

namespace {

using orvex::fuzz::check;

using orvex::critbit_tree;

std::map<uintptr_t, int> g_live;  // values held by the tree, with their count

void release(void* value) {
  auto it = g_live.find(reinterpret_cast<uintptr_t>(value));
  check(it != g_live.end());
  if (--it->second == 0) g_live.erase(it);
}

void* valueOf(uint8_t byte) { return reinterpret_cast<void*>(uintptr_t{byte % 4u} * 8 + 8); }

int collect(const char* key, void* arg) {
  auto* keys = static_cast<std::vector<std::string>*>(arg);
  keys->emplace_back(key);
  return keys->size() < 64 ? 1 : 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  critbit_tree tree{};
  tree.value_release = release;
  g_live.clear();
  std::map<std::string, void*> oracle;
  orvex::CritbitMap<int> wrapper;

  size_t at = 0;
  while (at + 2 <= size) {
    const uint8_t op = data[at];
    const size_t length = std::min<size_t>(data[at + 1] % 16, size - at - 2);
    std::string key(reinterpret_cast<const char*>(data + at + 2), length);
    at += 2 + length;
    key = key.substr(0, key.find('\0'));

    switch (op % 4) {
      case 0: {
        void* value = valueOf(op >> 2);
        const int replace = (op >> 4) & 1;
        const auto it = oracle.find(key);
        const int expected = it == oracle.end() ? 2 : it->second == value ? 0 : 1;
        check(orvex::critbit_insert(&tree, key.c_str(), value, replace) == expected);
        if (expected == 2 || (expected == 1 && replace)) {
          oracle[key] = value;
          ++g_live[reinterpret_cast<uintptr_t>(value)];
        }
        check(wrapper.set(std::make_unique<int>(op), key));
        break;
      }
      case 1: {
        const bool present = oracle.erase(key) == 1;
        check(orvex::critbit_delete(&tree, key.c_str()) == (present ? 1 : 0));
        check(wrapper.remove(key) == present);
        break;
      }
      case 2: {
        void* value = nullptr;
        const auto it = oracle.find(key);
        check(orvex::critbit_contains(&tree, key.c_str(), &value) == (it != oracle.end()));
        check(it == oracle.end() || value == it->second);
        check(wrapper.contains(key) == (it != oracle.end()));
        break;
      }
      default: {
        std::vector<std::string> expected;
        for (auto it = oracle.lower_bound(key);
             it != oracle.end() && it->first.starts_with(key) && expected.size() < 64; ++it) {
          expected.push_back(it->first);
        }
        std::vector<std::string> found;
        const int result = orvex::critbit_allprefixed(&tree, key.c_str(), collect, &found);
        check(found == expected);
        check(result == (found.size() == 64 ? 0 : 1));
        std::vector<std::string> fromWrapper;
        wrapper.keysMatchingPrefix(key, [&](std::string_view k, bool& stop) {
          fromWrapper.emplace_back(k);
          stop = fromWrapper.size() == 64;
        });
        check(fromWrapper == expected);
      }
    }
    check(tree.size == oracle.size());
    check(wrapper.count() == oracle.size());
  }

  size_t held = 0;
  for (const auto& [value, count] : g_live) held += static_cast<size_t>(count);
  check(held == oracle.size());
  orvex::critbit_clear(&tree);
  check(g_live.empty() && tree.size == 0 && tree.root.flag == 0);
  return 0;
}
