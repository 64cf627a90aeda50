// The local differential-privacy string recorder: strings go in, only privatized reports are
// kept.
//
// Each recorded string becomes one count-mean-sketch report (count_mean_sketch.h, ε = 4, k =
// 65,536, m = 1,024) made with the system's cryptographic random source: the hash index and the
// 1,024 noised bits, 136 bytes with its day. Reports are kept under the daemon's cache
// directory in "dp/", one file per key, mode 0600. Neither the strings nor the keys are
// written anywhere: a key's file is named by a digest of the key, and the file holds only
// reports.
//
// Privacy budget: a report costs ε = 4. A key takes at most kMaxReportsPerKeyPerDay reports a
// day (ε ≤ 8 a day for one key) and all keys together at most kMaxReportsPerDay (ε ≤ 80 a day
// in all); strings past either bound are not recorded and are counted in
// "com.zelmor.orvexd.dp.overbudget". Days are UTC days of the injectable clock.
//
// Retention: reports older than 30 days are removed, and so are the oldest ones beyond 10,000
// in all; removed reports are counted in "com.zelmor.orvexd.dp.retired".
//
// A report file is: the 8 bytes "ORVCMS01", m and k as 32-bit big-endian numbers, ε as the
// 8 bytes of a big-endian IEEE double; then reports of 4 + 4 + m/8 bytes: the day (days since
// 1970, UTC), the hash index, the bits. A file of another shape is left alone, not read, and
// counted in "com.zelmor.orvexd.dp.unreadable".
//
// Thread safety: every member may be called from any thread; `mutex_` serialises the file
// work.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "orvexd/platform/count_mean_sketch.h"

namespace orvex {

class Clock;
class FileManager;

// What `orvexctl dp` shows of one key: sizes and counts, never contents.
struct DPKeySummary {
  std::string keyDigest;  // the file's name
  size_t reportCount = 0;
  size_t reportsToday = 0;
  uint64_t bytes = 0;
};

class DPStringRecorder {
 public:
  static constexpr size_t kMaxReportsPerKeyPerDay = 2;
  static constexpr size_t kMaxReportsPerDay = 20;
  static constexpr int64_t kRetentionDays = 30;
  static constexpr size_t kMaxReports = 10000;

  DPStringRecorder(std::shared_ptr<const FileManager> fileManager, const Clock& clock,
                   CountMeanSketchParameters parameters = {});

  // The directory the reports are kept in.
  std::filesystem::path directory() const;
  // The file name of `key`'s reports: 32 hexadecimal digits of a digest of the key.
  static std::string keyDigest(std::string_view key);

  // Privatizes each string and stores its report under `key`, within the day's budget. False
  // when the reports could not be stored (the directory or the file could not be written);
  // strings over budget are not a failure.
  bool recordStrings(std::string_view key, const std::vector<std::string>& strings);

  std::vector<DPKeySummary> summaries() const;
  // ε spent today: reports made today times ε.
  double budgetSpentToday() const;
  const CountMeanSketchParameters& parameters() const { return parameters_; }

  // The reports of one report file's bytes; nothing when the bytes are not a report file made
  // with `parameters` (the estimator reads devices' files with it).
  struct StoredReport {
    int64_t day = 0;
    PrivatizedReport report;
  };
  static std::optional<std::vector<StoredReport>> decodeReportFile(
      std::span<const uint8_t> bytes, const CountMeanSketchParameters& parameters);
  static std::vector<uint8_t> encodeReportFile(const std::vector<StoredReport>& reports,
                                               const CountMeanSketchParameters& parameters);

 private:
  struct KeyFile {
    std::filesystem::path path;
    std::vector<StoredReport> reports;
  };
  int64_t today() const;
  // Every readable report file of the directory, its old reports left out; with
  // `rewriteExpired` they are also removed from the files.
  std::vector<KeyFile> loadLocked(bool rewriteExpired) const;
  bool writeLocked(const KeyFile& file) const;

  std::shared_ptr<const FileManager> fileManager_;
  const Clock& clock_;
  const CountMeanSketchParameters parameters_;
  mutable std::mutex mutex_;
};

}  // namespace orvex
