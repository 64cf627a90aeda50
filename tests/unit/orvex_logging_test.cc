#include "orvexd/base/orvex_logging.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <optional>
#include <regex>
#include <thread>
#include <vector>

namespace orvex {
namespace {

using ::testing::internal::CaptureStderr;  // sends file descriptor 2 to a file meanwhile
using ::testing::internal::GetCapturedStderr;

class OrvexLoggingTest : public ::testing::Test {
 protected:
  void SetUp() override { restoreDefaults(); }
  void TearDown() override { restoreDefaults(); }
  static void restoreDefaults() {
    ::unsetenv("JOURNAL_STREAM");
    ::unsetenv("ORVEXD_LOG_LEVEL");
    configureLoggingFromEnvironment();
  }
};

TEST(OrvexLoggingDeathTest, CategoryOutsideTableStopsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(OrvexLogForCategory(19),
               "Assertion failed: \\(category < OrvexLoggingCategoryCount\\), function "
               "OrvexLogForCategory, file OrvexLogging, line 15\\.");
}

TEST_F(OrvexLoggingTest, ThresholdAndDestinationComeFromTheEnvironment) {
  EXPECT_EQ(logThreshold(), LogLevel::kDefault);
  EXPECT_EQ(logLevelFromName("DEBUG"), std::nullopt);
  ::setenv("ORVEXD_LOG_LEVEL", "error", 1);
  configureLoggingFromEnvironment();
  EXPECT_FALSE(OrvexLogForCategory(kOrvexLogSearch).enabled(LogLevel::kDefault));
  EXPECT_TRUE(OrvexLogForCategory(kOrvexLogSearch).enabled(LogLevel::kError));

  // An unknown name falls back to "default" and is reported once, however often it is read.
  // (The name differs per run so that repeated runs in one process each see a new one.)
  static int run = 0;
  const std::string unknown = "verbose" + std::to_string(++run);
  CaptureStderr();
  ::setenv("ORVEXD_LOG_LEVEL", unknown.c_str(), 1);
  configureLoggingFromEnvironment();
  configureLoggingFromEnvironment();
  EXPECT_EQ(logThreshold(), LogLevel::kDefault);
  const std::string output = GetCapturedStderr();
  const size_t first = output.find("ORVEXD_LOG_LEVEL \"" + unknown + "\"");
  ASSERT_NE(first, std::string::npos) << output;
  EXPECT_EQ(output.find("ORVEXD_LOG_LEVEL", first + 1), std::string::npos) << output;

  // The journal is chosen when JOURNAL_STREAM names standard error, device and inode.
  struct stat status {};
  ASSERT_EQ(::fstat(STDERR_FILENO, &status), 0);
  const std::string device = std::to_string(status.st_dev);
  const std::string inode = std::to_string(status.st_ino);
  const std::vector<std::pair<std::string, LogDestination>> cases = {
      {device + ":" + inode, LogDestination::kJournal},
      {device + ":" + std::to_string(status.st_ino + 1), LogDestination::kStandardError},
      {device + ":" + inode + "x", LogDestination::kStandardError},
  };
  for (const auto& [value, destination] : cases) {
    ::setenv("JOURNAL_STREAM", value.c_str(), 1);
    configureLoggingFromEnvironment();
    EXPECT_EQ(currentLogDestination(), destination) << value;
  }
}

TEST_F(OrvexLoggingTest, StandardErrorLinesCarryTimePidLevelAndCategory) {
  ASSERT_EQ(currentLogDestination(), LogDestination::kStandardError);
  CaptureStderr();
  const OrvexLog& log = OrvexLogForCategory(kOrvexLogBag);
  log.log("bag from %@ (%d)", "https://example.invalid/bag", 200);
  log.error("100%% {not a format}");
  log.info("dropped below the threshold");
  flushLogs();
  const std::string output = GetCapturedStderr();
  const std::string prefix =
      "\\d{4}-\\d{2}-\\d{2}T\\d{2}:\\d{2}:\\d{2}\\.\\d{3}[+-]\\d{2}:\\d{2} orvexd\\[" +
      std::to_string(::getpid()) + "\\] ";
  const std::regex expected(
      prefix +
      "default \\[com\\.zelmor\\.orvexd:Orvex_Bag\\] bag from "
      "https://example\\.invalid/bag \\(200\\)\n" +
      prefix + "error \\[com\\.zelmor\\.orvexd:Orvex_Bag\\] 100% \\{not a format\\}\n");
  EXPECT_TRUE(std::regex_match(output, expected)) << output;
}

TEST_F(OrvexLoggingTest, ObserversSeeEveryWriteUntilTheirTokenGoes) {
  setLogThreshold(LogLevel::kFault);
  std::vector<std::string> seen;
  CaptureStderr();
  {
    LogObserverToken token = addLogObserver([&](const LogRecord& record) {
      seen.push_back(std::string(logLevelName(record.level)) + " " + std::string(record.category) +
                     " " + std::string(record.message));
      // Writes made by an observer are not shown to observers again.
      OrvexLogForCategory(kOrvexLogCard).debug("from inside the observer");
    });
    OrvexLogForCategory(kOrvexLogSession).debug("session %d started", 7);
    OrvexLogForCategory(kOrvexLogFlight).write(static_cast<LogLevel>(42), "odd level");
    LogObserverToken moved;
    moved = std::move(token);
    OrvexLogForCategory(kOrvexLogCaching).info("still observed");
  }
  OrvexLogForCategory(kOrvexLogSession).debug("after removal");
  EXPECT_EQ(GetCapturedStderr(), "") << "nothing reached the threshold";
  EXPECT_EQ(seen, (std::vector<std::string>{"debug Orvex_Session session 7 started",
                                            "default Orvex_Flight odd level",
                                            "info Orvex_Caching still observed"}));

  // An observer may drop its own token from inside its call.
  std::optional<LogObserverToken> self;
  int calls = 0;
  self = addLogObserver([&](const LogRecord&) {
    ++calls;
    self.reset();
  });
  OrvexLogForCategory(kOrvexLogCard).debug("one");
  OrvexLogForCategory(kOrvexLogCard).debug("two");
  EXPECT_EQ(calls, 1);
}

// Writers on several threads, observers coming and going, and reconfiguration all at once. A
// removed observer must never be running after its token is destroyed.
TEST_F(OrvexLoggingTest, LoggingObservingAndReconfiguringConcurrently) {
  constexpr int kWriters = 2;
  constexpr int kObserverRounds = 300;
  std::atomic<int> counted{0};
  LogObserverToken counter = addLogObserver([&](const LogRecord& record) {
    if (record.category == "Orvex_Connection") counted.fetch_add(1);
  });
  std::atomic<bool> done{false};
  std::atomic<int> written{0};
  std::vector<std::thread> writers;
  for (int w = 0; w < kWriters; ++w) {
    writers.emplace_back([&] {
      for (int i = 0; !done.load(); ++i) {
        OrvexLogForCategory(kOrvexLogConnection).debug("connection %d", i);
        written.fetch_add(1);
      }
    });
  }
  std::atomic<int> calls_after_removal{0};
  for (int round = 0; round < kObserverRounds; ++round) {
    std::atomic<bool> alive{true};
    {
      LogObserverToken token = addLogObserver([&](const LogRecord&) {
        if (!alive.load()) calls_after_removal.fetch_add(1);
        std::this_thread::yield();
        if (!alive.load()) calls_after_removal.fetch_add(1);
      });
      std::this_thread::yield();
    }
    alive.store(false);
    if (round % 50 == 0) configureLoggingFromEnvironment();
  }
  done.store(true);
  for (std::thread& writer : writers) writer.join();
  EXPECT_EQ(counted.load(), written.load());
  EXPECT_EQ(calls_after_removal.load(), 0);
}

}  // namespace
}  // namespace orvex
