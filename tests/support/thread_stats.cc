#include "tests/support/thread_stats.h"

#include <filesystem>
#include <fstream>

namespace orvex::testing {

int64_t procField(const std::string& file, const std::string& key) {
  std::ifstream in(file);
  std::string line;
  int64_t total = -1;
  while (std::getline(in, line)) {
    if (line.rfind(key, 0) == 0)
      total = std::max<int64_t>(total, 0) + std::stoll(line.substr(key.size()));
  }
  return total;
}

ThreadSnapshot threadSwitches(pid_t pid) {
  ThreadSnapshot threads;
  std::error_code error;
  for (const auto& entry :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", error)) {
    const std::string status = (entry.path() / "status").string();
    const int64_t voluntary = procField(status, "voluntary_ctxt_switches:");
    const int64_t forced = procField(status, "nonvoluntary_ctxt_switches:");
    if (voluntary < 0 || forced < 0) continue;  // ended while we looked
    ThreadSwitches& thread = threads[static_cast<pid_t>(std::stol(entry.path().filename()))];
    std::ifstream(entry.path() / "comm") >> thread.name;
    thread.switches = voluntary + forced;
  }
  return threads;
}

int64_t switchesBetween(const ThreadSnapshot& before, const ThreadSnapshot& after,
                        std::string* wakers) {
  int64_t total = 0;
  for (const auto& [tid, thread] : after) {
    const auto found = before.find(tid);
    const int64_t grown = thread.switches - (found == before.end() ? 0 : found->second.switches);
    total += grown;
    if (wakers != nullptr && grown != 0) {
      wakers->append(thread.name).append("(").append(std::to_string(tid)).append("): ");
      wakers->append(std::to_string(grown)).append(" ");
    }
  }
  return total;
}

}  // namespace orvex::testing
