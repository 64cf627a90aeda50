// Feeds arbitrary bytes to the session file reader as a finished session file: the container
// reads it from disk (mapping it), and every record it gives back is made into what the flusher
// uploads. The record walk must agree with a plain walk over the
// same bytes: the records read are whole records, in file order, the first ones of the file.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <span>
#include <string>

#include "fuzz/fuzz_support.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/feedback/archived_data_iterator.h"
#include "orvexd/feedback/file_container.h"
#include "orvexd/platform/serial_queue.h"
#include "orvexd/platform/virtual_clock.h"
#include "orvexd/platform/worker_pool.h"

namespace {

using orvex::fuzz::check;

constexpr uint64_t kMaxFileSize = 1 << 20;

struct Platform {
  std::shared_ptr<orvex::WorkerPool> pool = std::make_shared<orvex::WorkerPool>(1);
  orvex::VirtualClock clock;
  std::shared_ptr<orvex::SerialQueue> queue =
      std::make_shared<orvex::SerialQueue>("fuzz.sessionFile", *pool, clock);
  std::filesystem::path file;
};

Platform* g_platform = nullptr;

// How many records a plain walk reads before the first it cannot.
size_t recordsReadable(std::span<const uint8_t> bytes) {
  orvex::ArchivedDataIterator iterator(bytes);
  size_t count = 0;
  while (iterator.hasMore()) {
    const uint64_t before = iterator.position();
    if (!iterator.readNextObject()) break;
    check(iterator.position() > before && iterator.position() <= bytes.size());
    ++count;
  }
  return count;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  static Platform platform;
  const std::filesystem::path base = std::filesystem::is_directory("/dev/shm")
                                         ? "/dev/shm"
                                         : std::filesystem::temp_directory_path();
  platform.file = base / ("orvex-session-fuzz-" + std::to_string(::getpid()));
  std::atexit([] { std::filesystem::remove(g_platform->file); });
  g_platform = &platform;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::ofstream(g_platform->file, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  const auto container = orvex::FileContainer::initWithUrl(
      g_platform->file, orvex::kORVOrvexdNameVersion, g_platform->queue, kMaxFileSize);
  const auto stored = container->read();
  if (!stored) return 0;

  check(stored->session.contains("$class"));
  check(recordsReadable({data, size}) >= 2 + stored->feedbacks.size());
  // What the flusher uploads of each record (feedback_reader_fuzz checks the records' forms).
  for (const auto& feedback : stored->feedbacks) check(!feedback.dictionary().dump().empty());
  return 0;
}
