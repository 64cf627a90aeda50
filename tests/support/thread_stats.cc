#include "tests/support/thread_stats.h"

#include <filesystem>
#include <fstream>
#include <map>

namespace orvex::testing {

namespace {

// The number after `key` on the lines that start with it, summed; -1 without such a line.
int64_t field(const std::filesystem::path& file, const std::string& key) {
  std::ifstream in(file);
  std::string line;
  int64_t total = -1;
  while (std::getline(in, line)) {
    if (line.rfind(key, 0) != 0) continue;
    total = (total < 0 ? 0 : total) + std::stoll(line.substr(key.size()));
  }
  return total;
}

std::map<pid_t, int64_t> byThread(const std::vector<ThreadSwitches>& threads) {
  std::map<pid_t, int64_t> counts;
  for (const auto& thread : threads) counts[thread.tid] = thread.switches;
  return counts;
}

}  // namespace

std::vector<ThreadSwitches> threadSwitches(pid_t pid) {
  std::vector<ThreadSwitches> threads;
  std::error_code error;
  const std::filesystem::path tasks = "/proc/" + std::to_string(pid) + "/task";
  for (const auto& entry : std::filesystem::directory_iterator(tasks, error)) {
    ThreadSwitches thread;
    thread.tid = static_cast<pid_t>(std::stol(entry.path().filename().string()));
    std::ifstream(entry.path() / "comm") >> thread.name;
    const int64_t voluntary = field(entry.path() / "status", "voluntary_ctxt_switches:");
    const int64_t forced = field(entry.path() / "status", "nonvoluntary_ctxt_switches:");
    if (voluntary < 0 || forced < 0) continue;  // ended while we looked
    thread.switches = voluntary + forced;
    threads.push_back(std::move(thread));
  }
  return threads;
}

int64_t switchesBetween(const std::vector<ThreadSwitches>& before,
                        const std::vector<ThreadSwitches>& after) {
  std::map<pid_t, int64_t> first = byThread(before);
  int64_t total = 0;
  for (const auto& thread : after) {
    auto found = first.find(thread.tid);
    total += thread.switches - (found == first.end() ? 0 : found->second);
  }
  return total;
}

std::string describeWakers(const std::vector<ThreadSwitches>& before,
                           const std::vector<ThreadSwitches>& after) {
  std::map<pid_t, int64_t> first = byThread(before);
  std::string text;
  for (const auto& thread : after) {
    auto found = first.find(thread.tid);
    const int64_t grown = thread.switches - (found == first.end() ? 0 : found->second);
    if (grown == 0) continue;
    text.append(thread.name).append("(").append(std::to_string(thread.tid)).append("): ");
    text.append(std::to_string(grown)).append(" ");
  }
  return text;
}

MemoryRollup memoryRollup(pid_t pid) {
  const std::filesystem::path file = "/proc/" + std::to_string(pid) + "/smaps_rollup";
  const int64_t dirtyKiB = field(file, "Private_Dirty:");
  const int64_t privateKiB = field(file, "Private_Clean:") + dirtyKiB;
  const int64_t pssKiB = field(file, "Pss:");
  MemoryRollup rollup;
  if (privateKiB >= 0 && pssKiB >= 0) rollup.ussMiB = static_cast<double>(privateKiB) / 1024;
  if (pssKiB >= 0) rollup.pssMiB = static_cast<double>(pssKiB) / 1024;
  if (dirtyKiB >= 0) rollup.dirtyMiB = static_cast<double>(dirtyKiB) / 1024;
  return rollup;
}

}  // namespace orvex::testing
