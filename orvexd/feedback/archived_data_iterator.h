// Walks the records of a session file held in memory (usually a mapping of the file).
//
// A record is an 8-byte length N in the machine's own (little-endian) order followed by N bytes
// of one binary property list. The iterator never copies the data: it reads each record in
// place and keeps only the offset of the next one. A record it cannot use (a length of 0, a
// length running past the end, bytes that are no property list) gives nothing and a log line in
// "Orvex_Feedback_Storage"; the caller decides whether to go on.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "orvexd/base/property_list.h"

namespace orvex {

class ArchivedDataIterator {
 public:
  static constexpr uint64_t kLengthSize = sizeof(uint64_t);

  // `data` must outlive the iterator.
  explicit ArchivedDataIterator(std::span<const uint8_t> data) : data_(data) {}

  // Whether another record's length fits in what is left.
  bool hasMore() const { return position_ + kLengthSize <= data_.size(); }
  // The next record's object. A length that cannot be read ("out of range"), a length of 0
  // ("empty data file") or one beyond the end ("broken version string in file") gives nothing
  // and leaves the position; an archive that does not parse gives nothing after the position
  // has moved past it.
  std::optional<PlistValue> readNextObject();
  // The same without parsing: the next record's archive bytes, in place.
  std::optional<std::span<const uint8_t>> nextArchive();

  uint64_t position() const { return position_; }
  std::span<const uint8_t> data() const { return data_; }

 private:
  std::span<const uint8_t> data_;
  uint64_t position_ = 0;
};

}  // namespace orvex
