#include "orvexd/platform/diagnostic_data_reporter.h"

#include <gtest/gtest.h>

#include <limits>
#include <vector>

#include "orvexd/base/orvex_logging.h"

namespace orvex {
namespace {

using Counters = std::map<std::string, int64_t>;

class DiagnosticDataReporterTest : public testing::Test {
 protected:
  void SetUp() override { OrvexDiagnosticDataReporter::resetAllForTesting(); }
  void TearDown() override { OrvexDiagnosticDataReporter::resetAllForTesting(); }
};

TEST_F(DiagnosticDataReporterTest, SetAddAndClearCounters) {
  using R = OrvexDiagnosticDataReporter;
  R::addValueForScalarKey(2, kORVCounterSearch);
  R::addValueForScalarKey(3, kORVCounterSearch);
  R::setValueForScalarKey(10, kORVCounterLaunch);
  R::addValueForScalarKey(-4, kORVCounterLaunch);
  R::setValueForScalarKey(0, kORVCounterBagExpired);
  EXPECT_EQ(R::snapshot(), (Counters{{std::string(kORVCounterSearch), 5},
                                     {std::string(kORVCounterLaunch), 6},
                                     {std::string(kORVCounterBagExpired), 0}}));

  // Clearing removes the key; adding again starts from zero.
  R::clearScalarKey(kORVCounterSearch);
  R::clearScalarKey("com.zelmor.orvexd.never.set");
  EXPECT_EQ(R::snapshot().count(std::string(kORVCounterSearch)), 0u);
  R::addValueForScalarKey(1, kORVCounterSearch);
  EXPECT_EQ(R::snapshot().at(std::string(kORVCounterSearch)), 1);

  // Sums saturate instead of wrapping.
  R::setValueForScalarKey(std::numeric_limits<int64_t>::max() - 1, "up");
  R::addValueForScalarKey(5, "up");
  R::setValueForScalarKey(std::numeric_limits<int64_t>::min() + 1, "down");
  R::addValueForScalarKey(-5, "down");
  EXPECT_EQ(R::snapshot().at("up"), std::numeric_limits<int64_t>::max());
  EXPECT_EQ(R::snapshot().at("down"), std::numeric_limits<int64_t>::min());

  // An empty key is refused with an error in the log.
  int errors = 0;
  LogObserverToken token = addLogObserver(
      [&](const LogRecord& record) { errors += record.level == LogLevel::kError ? 1 : 0; });
  const size_t before = R::snapshot().size();
  R::addValueForScalarKey(1, "");
  R::setValueForScalarKey(1, "");
  EXPECT_EQ(R::snapshot().size(), before);
  EXPECT_EQ(errors, 2);
}

// A client's key as the daemon makes it: the client connection test's xcpinvalidation counter.
TEST(DiagnosticCounterKeyTest, ClientKeys) {
  EXPECT_EQ(createCounterKey(std::nullopt, kORVCounterSuffixSessions), std::nullopt);
  // The client name is an argument, never part of the format.
  EXPECT_EQ(createCounterKey("odd%d%@", "sessions"), "com.zelmor.orvexd.odd%d%@.sessions");
}

}  // namespace
}  // namespace orvex
