#include "orvexd/platform/dp_string_recorder.h"

#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/diagnostic_data_reporter.h"
#include "orvexd/platform/file_manager.h"
#include "orvexd/platform/sha256_hex.h"

namespace orvex {

namespace {

constexpr char kMagic[] = "ORVCMS01";
constexpr size_t kMagicSize = 8;
constexpr size_t kHeaderSize = kMagicSize + 4 + 4 + 8;
constexpr char kReportFileExtension[] = ".cms";

const OrvexLog& log() { return OrvexLogForCategory(kOrvexLogFeedback); }

void putUint32(std::vector<uint8_t>& out, uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(value >> shift));
}

uint32_t getUint32(const uint8_t* in) {
  return (uint32_t{in[0]} << 24) | (uint32_t{in[1]} << 16) | (uint32_t{in[2]} << 8) | in[3];
}

std::array<uint8_t, 8> doubleBytes(double value) {
  const auto bits = std::bit_cast<uint64_t>(value);
  std::array<uint8_t, 8> out{};
  for (size_t i = 0; i < 8; ++i) out[i] = static_cast<uint8_t>(bits >> (56 - 8 * i));
  return out;
}

// Uniform 64-bit values from the system's cryptographic generator, drawn in blocks. Fails (and
// says so) when the generator does.
class SecureRandom {
 public:
  bool failed() const { return failed_; }
  uint64_t operator()() {
    if (next_ == block_.size()) refill();
    return block_[next_++];
  }

 private:
  void refill() {
    if (RAND_bytes(reinterpret_cast<unsigned char*>(block_.data()),
                   static_cast<int>(block_.size() * sizeof(uint64_t))) != 1) {
      failed_ = true;
    }
    next_ = 0;
  }
  std::array<uint64_t, 512> block_{};
  size_t next_ = block_.size();
  bool failed_ = false;
};

}  // namespace

DPStringRecorder::DPStringRecorder(std::shared_ptr<const FileManager> fileManager,
                                   const Clock& clock, CountMeanSketchParameters parameters)
    : fileManager_(std::move(fileManager)), clock_(clock), parameters_(parameters) {}

std::filesystem::path DPStringRecorder::directory() const {
  return fileManager_->cacheDirectory() / "dp";
}

std::string DPStringRecorder::keyDigest(std::string_view key) {
  // A fixed prefix keeps these digests apart from digests of the same text made elsewhere.
  std::string input = "orvexd dp key\n";
  input.append(key);
  return sha256Hex(input).substr(0, 32);
}

int64_t DPStringRecorder::today() const {
  const auto seconds =
      std::chrono::duration_cast<std::chrono::seconds>(clock_.wallNow().time_since_epoch()).count();
  return seconds >= 0 ? seconds / 86400 : (seconds - 86399) / 86400;
}

std::optional<std::vector<DPStringRecorder::StoredReport>> DPStringRecorder::decodeReportFile(
    std::span<const uint8_t> bytes, const CountMeanSketchParameters& parameters) {
  const size_t recordSize = 8 + parameters.vectorBytes();
  if (bytes.size() < kHeaderSize || std::memcmp(bytes.data(), kMagic, kMagicSize) != 0 ||
      getUint32(bytes.data() + 8) != parameters.width ||
      getUint32(bytes.data() + 12) != parameters.hashCount ||
      !std::equal(bytes.begin() + 16, bytes.begin() + 24,
                  doubleBytes(parameters.epsilon).begin()) ||
      (bytes.size() - kHeaderSize) % recordSize != 0) {
    return std::nullopt;
  }
  std::vector<StoredReport> reports;
  reports.reserve((bytes.size() - kHeaderSize) / recordSize);
  for (size_t at = kHeaderSize; at < bytes.size(); at += recordSize) {
    StoredReport stored;
    stored.day = getUint32(bytes.data() + at);
    stored.report.hashIndex = getUint32(bytes.data() + at + 4);
    if (stored.report.hashIndex >= parameters.hashCount) return std::nullopt;
    stored.report.bits.assign(bytes.begin() + static_cast<ptrdiff_t>(at + 8),
                              bytes.begin() + static_cast<ptrdiff_t>(at + recordSize));
    reports.push_back(std::move(stored));
  }
  return reports;
}

std::vector<uint8_t> DPStringRecorder::encodeReportFile(
    const std::vector<StoredReport>& reports, const CountMeanSketchParameters& parameters) {
  std::vector<uint8_t> out(kMagic, kMagic + kMagicSize);
  out.reserve(kHeaderSize + reports.size() * (8 + parameters.vectorBytes()));
  putUint32(out, parameters.width);
  putUint32(out, parameters.hashCount);
  const auto epsilon = doubleBytes(parameters.epsilon);
  out.insert(out.end(), epsilon.begin(), epsilon.end());
  for (const auto& stored : reports) {
    putUint32(out, static_cast<uint32_t>(stored.day));
    putUint32(out, stored.report.hashIndex);
    out.insert(out.end(), stored.report.bits.begin(), stored.report.bits.end());
  }
  return out;
}

std::vector<DPStringRecorder::KeyFile> DPStringRecorder::loadLocked(bool rewriteExpired) const {
  std::vector<KeyFile> files;
  std::error_code error;
  const auto entries = fileManager_->contentsOfDirectory(directory(), error);
  if (!entries) return files;
  const size_t maxFileSize = kHeaderSize + kMaxReports * (8 + parameters_.vectorBytes());
  const int64_t oldestKept = today() - kRetentionDays + 1;
  for (const auto& path : *entries) {
    if (path.extension() != kReportFileExtension || files.size() >= kMaxReports) continue;
    const auto bytes = fileManager_->readFile(path, error, maxFileSize);
    auto reports = bytes ? decodeReportFile(*bytes, parameters_) : std::nullopt;
    if (!reports) {
      log().error("unreadable report file %@: %@", path.filename().string(),
                  bytes ? std::string("not a report file") : error.message());
      OrvexDiagnosticDataReporter::addValueForScalarKey(1, kORVCounterDPUnreadable);
      continue;
    }
    KeyFile file{path, std::move(*reports)};
    const auto expired = std::erase_if(
        file.reports, [oldestKept](const StoredReport& r) { return r.day < oldestKept; });
    if (expired > 0 && rewriteExpired) {
      OrvexDiagnosticDataReporter::addValueForScalarKey(static_cast<int64_t>(expired),
                                                        kORVCounterDPRetired);
      (void)writeLocked(file);
    }
    files.push_back(std::move(file));
  }
  return files;
}

bool DPStringRecorder::writeLocked(const KeyFile& file) const {
  if (file.reports.empty()) return !fileManager_->removeItem(file.path);
  const auto bytes = encodeReportFile(file.reports, parameters_);
  if (const auto error = fileManager_->writeFileAtomically(file.path, bytes, 0600)) {
    log().error("cannot write report file %@: %@", file.path.filename().string(), error.message());
    return false;
  }
  return true;
}

bool DPStringRecorder::recordStrings(std::string_view key,
                                     const std::vector<std::string>& strings) {
  std::lock_guard lock(mutex_);
  if (const auto error = fileManager_->ensurePrivateDirectory(directory())) {
    log().error("cannot make the report directory: %@", error.message());
    return false;
  }
  auto files = loadLocked(true);
  const auto path = directory() / (keyDigest(key) + kReportFileExtension);
  auto it =
      std::find_if(files.begin(), files.end(), [&](const KeyFile& f) { return f.path == path; });
  if (it == files.end()) it = files.insert(files.end(), KeyFile{path, {}});
  const size_t keyIndex = static_cast<size_t>(it - files.begin());

  const int64_t day = today();
  const auto madeToday = [day](const KeyFile& f) {
    return static_cast<size_t>(std::count_if(
        f.reports.begin(), f.reports.end(), [day](const StoredReport& r) { return r.day == day; }));
  };
  size_t allToday = 0;
  for (const auto& f : files) allToday += madeToday(f);
  size_t keyToday = madeToday(files[keyIndex]);

  SecureRandom random;
  size_t overBudget = 0;
  for (const auto& text : strings) {
    if (keyToday >= kMaxReportsPerKeyPerDay || allToday >= kMaxReportsPerDay) {
      ++overBudget;
      continue;
    }
    auto report = privatizeWithCountMeanSketch(text, parameters_, random);
    if (random.failed()) {
      log().error("the random source failed; nothing recorded for this key");
      return false;
    }
    files[keyIndex].reports.push_back({day, std::move(report)});
    ++keyToday;
    ++allToday;
  }
  if (overBudget > 0) {
    OrvexDiagnosticDataReporter::addValueForScalarKey(static_cast<int64_t>(overBudget),
                                                      kORVCounterDPOverBudget);
  }

  // Past the total bound the oldest reports go first, whichever key they belong to. Reports
  // are appended in day order, so each file's first report is its oldest.
  size_t total = 0;
  for (const auto& f : files) total += f.reports.size();
  std::vector<bool> changed(files.size(), false);
  changed[keyIndex] = true;
  size_t retired = 0;
  for (; total > kMaxReports; --total, ++retired) {
    size_t oldest = files.size();
    for (size_t i = 0; i < files.size(); ++i) {
      if (!files[i].reports.empty() &&
          (oldest == files.size() ||
           files[i].reports.front().day < files[oldest].reports.front().day)) {
        oldest = i;
      }
    }
    files[oldest].reports.erase(files[oldest].reports.begin());
    changed[oldest] = true;
  }
  if (retired > 0) {
    OrvexDiagnosticDataReporter::addValueForScalarKey(static_cast<int64_t>(retired),
                                                      kORVCounterDPRetired);
  }
  bool written = true;
  for (size_t i = 0; i < files.size(); ++i) {
    if (changed[i] && !writeLocked(files[i]) && i == keyIndex) written = false;
  }
  return written;
}

std::vector<DPKeySummary> DPStringRecorder::summaries() const {
  std::lock_guard lock(mutex_);
  const int64_t day = today();
  std::vector<DPKeySummary> out;
  for (const auto& file : loadLocked(false)) {
    DPKeySummary summary;
    summary.keyDigest = file.path.stem().string();
    summary.reportCount = file.reports.size();
    summary.reportsToday =
        static_cast<size_t>(std::count_if(file.reports.begin(), file.reports.end(),
                                          [day](const StoredReport& r) { return r.day == day; }));
    summary.bytes = kHeaderSize + file.reports.size() * (8 + parameters_.vectorBytes());
    out.push_back(std::move(summary));
  }
  return out;
}

double DPStringRecorder::budgetSpentToday() const {
  size_t today = 0;
  for (const auto& summary : summaries()) today += summary.reportsToday;
  return static_cast<double>(today) * parameters_.epsilon;
}

}  // namespace orvex
