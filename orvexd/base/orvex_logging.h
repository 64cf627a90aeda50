// The daemon's log: one handle per category, all under the subsystem "com.zelmor.orvexd".
//
// Handles are created together on first use and live for the whole process. Every write goes
// to journald (with the subsystem and category as fields) when systemd started the daemon with
// its standard error on the journal, and to standard error otherwise. Levels below the
// threshold are dropped; the threshold is "default" unless ORVEXD_LOG_LEVEL names another
// level (debug, info, default, error, fault).
#pragma once

#include <array>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "orvexd/base/log_format.h"
#include "orvexd/base/orvex_names.h"

namespace orvex {

enum class LogLevel { kDebug, kInfo, kDefault, kError, kFault };

std::string_view logLevelName(LogLevel level);
std::optional<LogLevel> logLevelFromName(std::string_view name);

// The categories, numbered as their names are listed in kOrvexLoggingCategoryNames.
enum OrvexLoggingCategory : unsigned {
  kOrvexLogGeneral,
  kOrvexLogFeedback,
  kOrvexLogSession,
  kOrvexLogRequest,
  kOrvexLogFlusher,
  kOrvexLogSearch,
  kOrvexLogZeroKeyword,
  kOrvexLogMoreResults,
  kOrvexLogCard,
  kOrvexLogLookUp,
  kOrvexLogFlight,
  kOrvexLogImages,
  kOrvexLogConnection,
  kOrvexLogDownloadManager,
  kOrvexLogBag,
  kOrvexLogSubscription,
  kOrvexLogCaching,
  kOrvexLogFeedbackErrors,
  kOrvexLogFeedbackStorage,
};
inline constexpr unsigned OrvexLoggingCategoryCount = kOrvexLogFeedbackStorage + 1;

// The category names as they appear in the journal (ORVEX_CATEGORY) and on standard error.
inline constexpr std::array<std::string_view, OrvexLoggingCategoryCount>
    kOrvexLoggingCategoryNames = {
        "Orvex",
        "Orvex_Feedback",
        "Orvex_Session",
        "Orvex_Request",
        "Orvex_Flusher",
        "Orvex_Search",
        "Orvex_ZeroKeyword",
        "Orvex_MoreResults",
        "Orvex_Card",
        "Orvex_LookUp",
        "Orvex_Flight",
        "Orvex_Images",
        "Orvex_Connection",
        "Orvex_DownloadManager",
        "Orvex_Bag",
        "Orvex_Subscription",
        "Orvex_Caching",
        "Orvex_Feedback_Errors",
        "Orvex_Feedback_Storage",
};

// What one write carries; handed to log observers.
struct LogRecord {
  LogLevel level;
  std::string_view category;
  std::string_view message;
};

class OrvexLog {
 public:
  OrvexLog(unsigned index, std::string category);
  ~OrvexLog();
  OrvexLog(const OrvexLog&) = delete;
  OrvexLog& operator=(const OrvexLog&) = delete;

  unsigned index() const { return index_; }
  const std::string& category() const { return category_; }
  std::string_view subsystem() const { return kOrvexLogSubsystem; }
  bool enabled(LogLevel level) const;

  void debug(std::string_view format, const auto&... args) const {
    emit(LogLevel::kDebug, format, args...);
  }
  void info(std::string_view format, const auto&... args) const {
    emit(LogLevel::kInfo, format, args...);
  }
  // The "default" level.
  void log(std::string_view format, const auto&... args) const {
    emit(LogLevel::kDefault, format, args...);
  }
  void error(std::string_view format, const auto&... args) const {
    emit(LogLevel::kError, format, args...);
  }
  void fault(std::string_view format, const auto&... args) const {
    emit(LogLevel::kFault, format, args...);
  }

  // Writes an already formatted message.
  void write(LogLevel level, std::string_view message) const;

 private:
  void emit(LogLevel level, std::string_view format, const auto&... args) const {
    if (!enabled(level) && !observed()) return;
    write(level, formatLog(format, args...));
  }
  static bool observed();

  unsigned index_;
  std::string category_;
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// The handle of a category. A category outside the table stops the process with the assertion
// "category < OrvexLoggingCategoryCount".
const OrvexLog& OrvexLogForCategory(unsigned category);

// Runs `call`; an exception it throws is logged at fault level as "<what> failed: <reason>"
// ("<what> failed" when it is no std::exception) instead of leaving. For handlers that callers
// hand in and that must not end the thread that runs them.
template <typename F>
void runLoggingFailure(const OrvexLog& log, std::string_view what, F&& call) {
  try {
    call();
  } catch (const std::exception& e) {
    log.fault("%@ failed: %s", what, e.what());
  } catch (...) {
    log.fault("%@ failed", what);
  }
}

// Reconfigures the destination and threshold from the environment (JOURNAL_STREAM,
// ORVEXD_LOG_LEVEL). Called once at start-up; handles created before keep working.
void configureLoggingFromEnvironment();

// Where writes currently go. kJournal is chosen when JOURNAL_STREAM ("<device>:<inode>") names
// the file that standard error is open on; a record the journal refuses is written to standard
// error instead.
enum class LogDestination { kStandardError, kJournal };
LogDestination currentLogDestination();
void setLogThreshold(LogLevel level);
LogLevel logThreshold();
// Flushes every sink; used before the process exits on a signal.
void flushLogs();

// Observers see every write, whatever the threshold, on the writing thread. Tests use them to
// find log lines by their text. The observer is removed when the returned token is destroyed.
using LogObserver = std::function<void(const LogRecord&)>;
class LogObserverToken {
 public:
  LogObserverToken() = default;
  explicit LogObserverToken(uint64_t id) : id_(id) {}
  LogObserverToken(LogObserverToken&& other) noexcept : id_(std::exchange(other.id_, 0)) {}
  LogObserverToken& operator=(LogObserverToken&& other) noexcept;
  ~LogObserverToken();

 private:
  uint64_t id_ = 0;
};
[[nodiscard]] LogObserverToken addLogObserver(LogObserver observer);

}  // namespace orvex
