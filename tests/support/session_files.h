// The session files a daemon under test leaves in its cache directory, listed by number and read
// back the way the daemon reads them.
#pragma once

#include <algorithm>
#include <charconv>

#include "orvexd/base/orvex_names.h"
#include "orvexd/feedback/file_container.h"
#include "orvexd/feedback/persistent_storage.h"
#include "orvexd/model/nb_search_feedback.h"
#include "tests/support/daemon_harness.h"

namespace orvex::testing {

inline std::filesystem::path sessionDirectory(const DaemonHarness& harness) {
  return harness.cacheDirectory() / "com.zelmor.orvexd";
}

// The number of a "session.<N>" file, or -1.
inline int sessionNumber(const std::filesystem::path& file) {
  const std::string name = file.filename().string();
  if (!name.starts_with(OrvexPersistentStorage::kFileNamePrefix)) return -1;
  const std::string_view digits =
      std::string_view(name).substr(OrvexPersistentStorage::kFileNamePrefix.size());
  int number = -1;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  return error == std::errc() && end == digits.data() + digits.size() ? number : -1;
}

// The session files in the directory, by number.
inline std::vector<std::filesystem::path> sessionFiles(const std::filesystem::path& directory) {
  std::vector<std::filesystem::path> files;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
    if (sessionNumber(entry.path()) >= 0) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end(),
            [](const auto& a, const auto& b) { return sessionNumber(a) < sessionNumber(b); });
  return files;
}

// Reads session files on a queue of its own.
class SessionReader {
 public:
  std::optional<StoredSession> read(const std::filesystem::path& file) {
    return FileContainer::initWithUrl(file, kORVOrvexdNameVersion, queue_,
                                      OrvexPersistentStorage::kDefaultMaxFileSize)
        ->read();
  }
  // The inputs of the search-start records whose input begins with `prefix`, in file order;
  // nothing when the file does not read back.
  std::optional<std::vector<std::string>> inputs(const std::filesystem::path& file,
                                                 std::string_view prefix) {
    auto stored = read(file);
    if (!stored) return std::nullopt;
    std::vector<std::string> found;
    for (const auto& feedback : stored->feedbacks) {
      const auto* start = dynamic_cast<const NBStartSearchFeedback*>(feedback.feedback().get());
      if (start != nullptr && start->input && start->input->starts_with(prefix)) {
        found.push_back(*start->input);
      }
    }
    return found;
  }

 private:
  VirtualPlatform platform_{1};
  std::shared_ptr<SerialQueue> queue_ =
      std::make_shared<SerialQueue>("session reader", *platform_.pool, *platform_.clock);
};

// A client's search-start record for `input`, stamped on the monotonic clock in nanoseconds as
// the daemon stamps its own.
inline NBStartSearchFeedback searchStart(const std::string& input) {
  NBStartSearchFeedback record;
  record.timestamp = static_cast<uint64_t>(
      std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count());
  record.input = input;
  return record;
}

}  // namespace orvex::testing
