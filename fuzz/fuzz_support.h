// What every fuzz target shares. Linked with fuzz_support.cc, which keeps the daemon's log quiet
// but for faults, so that a run's output is libFuzzer's own.
#pragma once

#include <cstdlib>

namespace orvex::fuzz {

// A broken invariant aborts, so that libFuzzer keeps the input that broke it.
inline void check(bool condition) {
  if (!condition) std::abort();
}

}  // namespace orvex::fuzz
