// Constant switches of the daemon.
#pragma once

namespace orvex {

struct Flags {
  // The bag is kept on disk between launches.
  static constexpr bool diskBagCacheEnabled() { return true; }
};

}  // namespace orvex
