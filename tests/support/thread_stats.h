// What a process's threads are and how often they have run, from /proc: each thread's name and
// its context switches (voluntary and not), and the process's private and proportional memory.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace orvex::testing {

struct ThreadSwitches {
  pid_t tid = 0;
  std::string name;
  int64_t switches = 0;  // voluntary_ctxt_switches + nonvoluntary_ctxt_switches
};

// The threads of `pid` now.
std::vector<ThreadSwitches> threadSwitches(pid_t pid);

// The context switches of all threads of `pid` between two snapshots; threads that ended in
// between count what they had at the first.
int64_t switchesBetween(const std::vector<ThreadSwitches>& before,
                        const std::vector<ThreadSwitches>& after);

// "name(tid): n" for every thread whose count grew, to say who woke.
std::string describeWakers(const std::vector<ThreadSwitches>& before,
                           const std::vector<ThreadSwitches>& after);

struct MemoryRollup {
  double ussMiB = -1;  // Private_Clean + Private_Dirty
  double pssMiB = -1;  // Pss
  // The written part of the USS; the rest are file pages (code, read-only data) that no other
  // process maps at the moment, and that count as shared as soon as one does.
  double dirtyMiB = -1;  // Private_Dirty
};
MemoryRollup memoryRollup(pid_t pid);

}  // namespace orvex::testing
