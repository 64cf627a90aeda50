#include "orvexd/base/orvex_logging.h"

#include <spdlog/details/log_msg.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/dist_sink.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <vector>

#include "orvexd/base/name_table.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/base/text_util.h"

// The sink's own source position says nothing about the record, so none is attached.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

namespace orvex {
namespace {

constexpr std::string_view kSyslogIdentifier = "orvexd";

// Read on every write, so they are plain atomics rather than members of a lazily built object.
std::atomic<int> g_threshold{static_cast<int>(LogLevel::kDefault)};
std::atomic<LogDestination> g_destination{LogDestination::kStandardError};
std::atomic<size_t> g_observer_count{0};

bool isValidLevel(LogLevel level) {
  const int value = static_cast<int>(level);
  return value >= static_cast<int>(LogLevel::kDebug) && value <= static_cast<int>(LogLevel::kFault);
}

// Our five levels travel through spdlog in its debug, info, warn, err and critical slots; the
// sinks translate them back so that the names printed are always ours.
spdlog::level::level_enum toSpdlogLevel(LogLevel level) {
  switch (level) {
    case LogLevel::kDebug:
      return spdlog::level::debug;
    case LogLevel::kInfo:
      return spdlog::level::info;
    case LogLevel::kDefault:
      return spdlog::level::warn;
    case LogLevel::kError:
      return spdlog::level::err;
    case LogLevel::kFault:
      return spdlog::level::critical;
  }
  return spdlog::level::warn;
}

LogLevel fromSpdlogLevel(spdlog::level::level_enum level) {
  switch (level) {
    case spdlog::level::trace:
    case spdlog::level::debug:
      return LogLevel::kDebug;
    case spdlog::level::info:
      return LogLevel::kInfo;
    case spdlog::level::warn:
      return LogLevel::kDefault;
    case spdlog::level::err:
      return LogLevel::kError;
    default:
      return LogLevel::kFault;
  }
}

int journalPriority(LogLevel level) {
  switch (level) {
    case LogLevel::kDebug:
      return 7;
    case LogLevel::kInfo:
      return 6;
    case LogLevel::kDefault:
      return 5;
    case LogLevel::kError:
      return 3;
    case LogLevel::kFault:
      return 2;
  }
  return 5;
}

// "2026-11-22T20:17:28.123+01:00": local time with milliseconds and the offset from UTC.
std::string localTimestamp(spdlog::log_clock::time_point when) {
  using namespace std::chrono;
  const auto since_epoch = when.time_since_epoch();
  auto whole_seconds = floor<seconds>(since_epoch);
  const auto millis = duration_cast<milliseconds>(since_epoch - whole_seconds).count();
  const time_t seconds_value = static_cast<time_t>(whole_seconds.count());
  struct tm local {};
  if (localtime_r(&seconds_value, &local) == nullptr) return "0000-00-00T00:00:00.000";
  char date[32];
  const size_t date_length = std::strftime(date, sizeof(date), "%Y-%m-%dT%H:%M:%S", &local);
  const long offset_minutes = local.tm_gmtoff / 60;
  const long magnitude = offset_minutes < 0 ? -offset_minutes : offset_minutes;
  char rest[64];
  std::snprintf(rest, sizeof(rest), ".%03lld%c%02ld:%02ld", static_cast<long long>(millis),
                offset_minutes < 0 ? '-' : '+', magnitude / 60, magnitude % 60);
  return std::string(date, date_length) + rest;
}

std::string_view payloadOf(const spdlog::details::log_msg& msg) {
  return std::string_view(msg.payload.data(), msg.payload.size());
}

std::string_view categoryOf(const spdlog::details::log_msg& msg) {
  return std::string_view(msg.logger_name.data(), msg.logger_name.size());
}

std::string standardErrorLine(const spdlog::details::log_msg& msg) {
  std::string line = localTimestamp(msg.time);
  line += " ";
  line += kSyslogIdentifier;
  line += "[" + std::to_string(::getpid()) + "] ";
  line += logLevelName(fromSpdlogLevel(msg.level));
  line += " [";
  line += kOrvexLogSubsystem;
  line += ":";
  line += categoryOf(msg);
  line += "] ";
  line += payloadOf(msg);
  line += "\n";
  return line;
}

// One line per record on file descriptor 2, written with a single write() so that lines from
// several threads or processes sharing the descriptor do not interleave.
class StandardErrorSink final : public spdlog::sinks::base_sink<std::mutex> {
 protected:
  void sink_it_(const spdlog::details::log_msg& msg) override {
    writeAll(STDERR_FILENO, standardErrorLine(msg));
  }
  void flush_() override {}
};

// "NAME=value", built by appending: GCC 12 warns wrongly (-Warray-bounds) about operator+ on
// short constant strings.
std::string journalField(std::string_view name, std::string_view value) {
  std::string field;
  field.reserve(name.size() + value.size());
  field.append(name).append(value);
  return field;
}

// Native journal entries carrying the subsystem and category as their own fields, so that
// `journalctl ORVEX_CATEGORY=Orvex_Bag` selects one category.
class JournalSink final : public spdlog::sinks::base_sink<std::mutex> {
 protected:
  void sink_it_(const spdlog::details::log_msg& msg) override {
    const LogLevel level = fromSpdlogLevel(msg.level);
    const std::string message = journalField("MESSAGE=", payloadOf(msg));
    const std::string priority = journalField("PRIORITY=", std::to_string(journalPriority(level)));
    const std::string identifier = journalField("SYSLOG_IDENTIFIER=", kSyslogIdentifier);
    const std::string subsystem = journalField("ORVEX_SUBSYSTEM=", kOrvexLogSubsystem);
    const std::string category = journalField("ORVEX_CATEGORY=", categoryOf(msg));
    constexpr size_t kFieldCount = 5;
    const std::array<const std::string*, kFieldCount> fields = {&message, &priority, &identifier,
                                                                &subsystem, &category};
    std::array<struct iovec, kFieldCount> vectors{};
    for (size_t i = 0; i < fields.size(); ++i) {
      vectors[i].iov_base = const_cast<char*>(fields[i]->data());
      vectors[i].iov_len = fields[i]->size();
    }
    // Passing lengths rather than a format keeps messages with '%' or NUL bytes intact. If the
    // journal refuses the entry, standard error (which systemd also collects) still gets it.
    if (sd_journal_sendv(vectors.data(), static_cast<int>(vectors.size())) < 0) {
      writeAll(STDERR_FILENO, standardErrorLine(msg));
    }
  }
  void flush_() override {}
};

struct LoggingState {
  LoggingState();

  std::shared_ptr<StandardErrorSink> standard_error = std::make_shared<StandardErrorSink>();
  std::shared_ptr<JournalSink> journal = std::make_shared<JournalSink>();
  // Every category logger writes into this one sink, which forwards to whichever of the two
  // sinks is current. Swapping its target is serialised with writes by its own mutex.
  std::shared_ptr<spdlog::sinks::dist_sink_mt> router =
      std::make_shared<spdlog::sinks::dist_sink_mt>();
  std::mutex configure_mutex;
  // The last unknown ORVEXD_LOG_LEVEL reported; guarded by configure_mutex.
  std::string unknown_level_reported;
};

// True when JOURNAL_STREAM holds the device and inode of the file descriptor 2 is open on: the
// way systemd tells a service that its standard error is connected to the journal.
bool standardErrorIsJournal() {
  const char* value = std::getenv("JOURNAL_STREAM");
  if (value == nullptr) return false;
  const std::string_view text(value);
  const size_t colon = text.find(':');
  if (colon == std::string_view::npos) return false;
  uint64_t device = 0;
  uint64_t inode = 0;
  const char* const device_end = text.data() + colon;
  const char* const inode_end = text.data() + text.size();
  if (auto [ptr, ec] = std::from_chars(text.data(), device_end, device);
      ec != std::errc() || ptr != device_end || colon == 0) {
    return false;
  }
  if (auto [ptr, ec] = std::from_chars(device_end + 1, inode_end, inode);
      ec != std::errc() || ptr != inode_end || colon + 1 == text.size()) {
    return false;
  }
  struct stat status {};
  if (::fstat(STDERR_FILENO, &status) != 0) return false;
  return static_cast<uint64_t>(status.st_dev) == device &&
         static_cast<uint64_t>(status.st_ino) == inode;
}

void applyEnvironment(LoggingState& state) {
  std::lock_guard lock(state.configure_mutex);
  const LogDestination destination =
      standardErrorIsJournal() ? LogDestination::kJournal : LogDestination::kStandardError;
  if (destination == LogDestination::kJournal) {
    state.router->set_sinks({state.journal});
  } else {
    state.router->set_sinks({state.standard_error});
  }
  g_destination.store(destination);

  LogLevel threshold = LogLevel::kDefault;
  const char* requested = std::getenv("ORVEXD_LOG_LEVEL");
  if (requested != nullptr && *requested != '\0') {
    if (const std::optional<LogLevel> level = logLevelFromName(requested)) {
      threshold = *level;
    } else if (state.unknown_level_reported != requested) {
      // Said once, not at every reconfiguration; a different unknown name is said again.
      state.unknown_level_reported = requested;
      std::string warning(kSyslogIdentifier);
      warning.append(": ORVEXD_LOG_LEVEL \"").append(requested);
      warning.append("\" is not one of debug, info, default, error, fault; using \"default\"\n");
      writeAll(STDERR_FILENO, warning);
    }
  }
  g_threshold.store(static_cast<int>(threshold));
}

LoggingState::LoggingState() { applyEnvironment(*this); }

// Built on first use and never destroyed, so that logging from static destructors and from
// threads still running at exit stays valid.
LoggingState& loggingState() {
  static LoggingState* const state = new LoggingState();
  return *state;
}

std::once_flag g_categories_once;
// The handles live until the process ends: they are never destroyed, so that a thread still
// logging while the process exits never meets a destroyed handle.
std::array<std::unique_ptr<OrvexLog>, OrvexLoggingCategoryCount>* g_categories = nullptr;

// Observers. The list is copied on change so that a write only holds the lock long enough to
// take a reference to the current list. Each entry counts the calls in progress so that removal
// can wait for them: once a token is gone, its observer is neither running nor called again.
struct ObserverEntry {
  uint64_t id = 0;
  LogObserver observer;
  std::atomic<int> in_flight{0};
  std::atomic<bool> removed{false};
};

using ObserverList = std::vector<std::shared_ptr<ObserverEntry>>;

struct ObserverRegistry {
  std::mutex mutex;
  std::condition_variable call_finished;
  std::shared_ptr<const ObserverList> entries = std::make_shared<ObserverList>();
  uint64_t next_id = 1;
};

ObserverRegistry& observerRegistry() {
  static ObserverRegistry registry;
  return registry;
}

// The observer this thread is running, if any. Writes made from inside an observer are not
// shown to observers again, which would recurse without end.
thread_local const ObserverEntry* t_running_observer = nullptr;

void notifyObservers(const LogRecord& record) {
  if (t_running_observer != nullptr) return;
  ObserverRegistry& registry = observerRegistry();
  std::shared_ptr<const ObserverList> entries;
  {
    std::lock_guard lock(registry.mutex);
    entries = registry.entries;
  }
  for (const std::shared_ptr<ObserverEntry>& entry : *entries) {
    entry->in_flight.fetch_add(1);
    if (!entry->removed.load()) {
      t_running_observer = entry.get();
      try {
        entry->observer(record);
      } catch (...) {
        // An observer's failure must not turn a log write into an exception.
      }
      t_running_observer = nullptr;
    }
    if (entry->in_flight.fetch_sub(1) == 1 && entry->removed.load()) {
      std::lock_guard lock(registry.mutex);
      registry.call_finished.notify_all();
    }
  }
}

void removeObserver(uint64_t id) {
  ObserverRegistry& registry = observerRegistry();
  std::unique_lock lock(registry.mutex);
  std::shared_ptr<ObserverEntry> removed;
  auto remaining = std::make_shared<ObserverList>();
  for (const std::shared_ptr<ObserverEntry>& entry : *registry.entries) {
    if (entry->id == id) {
      removed = entry;
    } else {
      remaining->push_back(entry);
    }
  }
  if (!removed) return;
  registry.entries = std::move(remaining);
  g_observer_count.store(registry.entries->size());
  removed->removed.store(true);
  // An observer that drops its own token from inside its call waits only for the others.
  const int own_calls = t_running_observer == removed.get() ? 1 : 0;
  registry.call_finished.wait(lock, [&] { return removed->in_flight.load() <= own_calls; });
}

constexpr Named<LogLevel> kLogLevelNames[] = {{LogLevel::kDebug, "debug"},
                                              {LogLevel::kInfo, "info"},
                                              {LogLevel::kDefault, "default"},
                                              {LogLevel::kError, "error"},
                                              {LogLevel::kFault, "fault"}};

}  // namespace

std::string_view logLevelName(LogLevel level) {
  return nameOf(kLogLevelNames, level).value_or("unknown");
}

std::optional<LogLevel> logLevelFromName(std::string_view name) {
  return valueNamed(kLogLevelNames, name);
}

struct OrvexLog::Impl {
  std::shared_ptr<spdlog::logger> logger;
};

OrvexLog::OrvexLog(unsigned index, std::string category)
    : index_(index), category_(std::move(category)), impl_(std::make_unique<Impl>()) {
  impl_->logger = std::make_shared<spdlog::logger>(category_, loggingState().router);
  // The threshold is applied before a record reaches spdlog, so spdlog lets everything through.
  impl_->logger->set_level(spdlog::level::trace);
}

OrvexLog::~OrvexLog() = default;

bool OrvexLog::enabled(LogLevel level) const {
  return static_cast<int>(level) >= g_threshold.load(std::memory_order_relaxed);
}

bool OrvexLog::observed() { return g_observer_count.load(std::memory_order_relaxed) != 0; }

void OrvexLog::write(LogLevel level, std::string_view message) const {
  if (!isValidLevel(level)) level = LogLevel::kDefault;
  const bool to_sink = enabled(level);
  const bool to_observers = observed();
  if (!to_sink && !to_observers) return;
  const auto sanitized = sanitizedLogLine(message);
  if (sanitized) message = *sanitized;
  if (to_sink) {
    impl_->logger->log(spdlog::source_loc{}, toSpdlogLevel(level),
                       spdlog::string_view_t(message.data(), message.size()));
  }
  if (to_observers) notifyObservers(LogRecord{level, category_, message});
}

const OrvexLog& OrvexLogForCategory(unsigned category) {
  if (category >= OrvexLoggingCategoryCount) {
    std::fputs(
        "Assertion failed: (category < OrvexLoggingCategoryCount), function OrvexLogForCategory, "
        "file OrvexLogging, line 15.\n",
        stderr);
    std::fflush(stderr);
    std::abort();
  }
  std::call_once(g_categories_once, [] {
    auto handles =
        std::make_unique<std::array<std::unique_ptr<OrvexLog>, OrvexLoggingCategoryCount>>();
    for (unsigned i = 0; i < OrvexLoggingCategoryCount; ++i) {
      (*handles)[i] = std::make_unique<OrvexLog>(i, std::string(kOrvexLoggingCategoryNames[i]));
    }
    g_categories = handles.release();
  });
  return *(*g_categories)[category];
}

void configureLoggingFromEnvironment() { applyEnvironment(loggingState()); }

LogDestination currentLogDestination() {
  loggingState();
  return g_destination.load();
}

void setLogThreshold(LogLevel level) {
  loggingState();
  if (!isValidLevel(level)) level = LogLevel::kDefault;
  g_threshold.store(static_cast<int>(level));
}

LogLevel logThreshold() {
  loggingState();
  return static_cast<LogLevel>(g_threshold.load());
}

void flushLogs() {
  loggingState().router->flush();
  std::fflush(stderr);
}

LogObserverToken& LogObserverToken::operator=(LogObserverToken&& other) noexcept {
  if (this != &other) {
    if (id_ != 0) removeObserver(id_);
    id_ = std::exchange(other.id_, 0);
  }
  return *this;
}

LogObserverToken::~LogObserverToken() {
  if (id_ != 0) removeObserver(id_);
}

LogObserverToken addLogObserver(LogObserver observer) {
  // An empty function has nothing to call; it gets a token that removes nothing.
  if (!observer) return LogObserverToken();
  ObserverRegistry& registry = observerRegistry();
  auto entry = std::make_shared<ObserverEntry>();
  entry->observer = std::move(observer);
  std::lock_guard lock(registry.mutex);
  entry->id = registry.next_id++;
  auto entries = std::make_shared<ObserverList>(*registry.entries);
  entries->push_back(entry);
  registry.entries = std::move(entries);
  g_observer_count.store(registry.entries->size());
  return LogObserverToken(entry->id);
}

}  // namespace orvex
