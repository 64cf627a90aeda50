#include "orvexd/feedback/archived_data_iterator.h"

#include <cstring>

#include "orvexd/base/orvex_logging.h"

namespace orvex {

std::optional<PlistValue> ArchivedDataIterator::readNextObject() {
  const auto archive = nextArchive();
  if (!archive) return std::nullopt;
  return parsePropertyList(*archive);
}

std::optional<std::span<const uint8_t>> ArchivedDataIterator::nextArchive() {
  const OrvexLog& log = OrvexLogForCategory(kOrvexLogFeedbackStorage);
  const uint64_t size = data_.size();
  if (position_ + kLengthSize >= size) {
    log.error("out of range");
    return std::nullopt;
  }
  uint64_t length = 0;
  std::memcpy(&length, data_.data() + position_, kLengthSize);
  if (length == 0) {
    log.error("empty data file");
    return std::nullopt;
  }
  // Written so that a huge length cannot wrap around.
  if (length > size - position_ - kLengthSize) {
    log.error("broken version string in file");
    return std::nullopt;
  }
  const auto archive = data_.subspan(position_ + kLengthSize, length);
  position_ += kLengthSize + length;
  return archive;
}

}  // namespace orvex
