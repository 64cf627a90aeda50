#include "orvexd/platform/tracing_setup.h"

#include <gtest/gtest.h>

#include "orvexd/platform/defaults_store.h"
#include "orvexd/platform/file_manager.h"
#include "tests/support/test_environment.h"

namespace orvex {
namespace {

// The switch is read once per process: the second set-up, with the opposite value, changes
// nothing. (The line it logs: the daemon lifecycle test.)
TEST(TracingSetup, ReadsTraceEnabledOnceAndGatesTheProbes) {
  testing::TempDir dir;
  auto files = std::make_shared<FileManager>(DirectoryEnvironment{
      dir.path().string(), (dir / "cache").string(), (dir / "config").string(), "/tmp"});
  DefaultsStore enabled(files, dir / "on.plist");
  enabled.setObject("TraceEnabled", PlistValue(true));
  DefaultsStore disabled(files, dir / "off.plist");

  EXPECT_FALSE(ORVTraceEnabled());
  const auto before = ORVTraceFiredCount();
  ORVTrace(TraceCode::kSearchStart, 1);
  EXPECT_EQ(ORVTraceFiredCount(), before);

  ORVTracingSetup(enabled);
  ORVTracingSetup(disabled);
  EXPECT_TRUE(ORVTraceEnabled());
  {
    ORVTraceScope scope(TraceCode::kLookupStart, TraceCode::kLookupEnd, 42);
    EXPECT_EQ(ORVTraceFiredCount(), before + 1);
  }
  EXPECT_EQ(ORVTraceFiredCount(), before + 2);
}

}  // namespace
}  // namespace orvex
