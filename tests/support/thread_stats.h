// How often a process's threads have run, from /proc: each thread's name and its context
// switches (voluntary and not).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>

namespace orvex::testing {

struct ThreadSwitches {
  std::string name;
  int64_t switches = 0;  // voluntary_ctxt_switches + nonvoluntary_ctxt_switches
};
// By thread id.
using ThreadSnapshot = std::map<pid_t, ThreadSwitches>;

// The threads of `pid` now.
ThreadSnapshot threadSwitches(pid_t pid);

// The switches of the threads in `after` since `before` (all of them for a thread made in
// between; a thread that ended in between is not counted). `wakers` gets "name(tid): n " for
// every thread that switched, to say who woke.
int64_t switchesBetween(const ThreadSnapshot& before, const ThreadSnapshot& after,
                        std::string* wakers = nullptr);

// The number after `key` on the lines of `file` that start with it, summed; -1 without one.
int64_t procField(const std::string& file, const std::string& key);

}  // namespace orvex::testing
