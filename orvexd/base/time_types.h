// The daemon's three kinds of time value. Wall time dates things (expiries, timestamps written to
// disk); monotonic time measures durations and drives timers.
#pragma once

#include <chrono>

namespace orvex {

using WallTime = std::chrono::system_clock::time_point;
using MonotonicTime = std::chrono::steady_clock::time_point;
using Duration = std::chrono::nanoseconds;

}  // namespace orvex
