// The flusher control channel against the real daemon: a tool watching the records clients
// report, the intents that answer (or not) with WorkDone, and peers of another user refused.
#include <gtest/gtest.h>
#include <unistd.h>

#include "orvexd/base/orvex_names.h"
#include "tests/support/collector.h"
#include "tests/support/daemon_harness.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;

constexpr const char* kBag = R"({"version": "3", "enabled": true, "feedback_enabled": true})";

TEST(FlusherIpcTest, AWatchingToolSeesReportedRecordsAndOnlyKnownIntentsAnswer) {
  testing::DaemonHarness harness(kBag);
  harness.start();
  auto tool = harness.client();
  auto descriptions = std::make_shared<testing::Collector<std::string>>();
  auto workDone = std::make_shared<testing::Collector<bool>>();
  OrvexClient::FlusherHandlers handlers;
  handlers.receivedFeedbackDescription = [descriptions](std::string d) { descriptions->add(d); };
  handlers.workDone = [workDone] { workDone->add(true); };
  tool->onFlusherSignals(handlers);
  // Another connection waiting for the signals hears none: they go to the watcher alone.
  auto bystander = harness.client();
  auto overheard = std::make_shared<testing::Collector<std::string>>();
  bystander->onFlusherSignals({{}, [overheard](std::string d) { overheard->add(d); }, {}});
  ASSERT_TRUE(tool->initiateFlusherIntent(kFlusherIntentReceivingStream));

  auto client = harness.configuredClient({"com.zelmor.glance", "Glance/1"});
  NBStartSearchFeedback record;
  record.timestamp = 7000000;
  record.input = "flusher-watched";
  ASSERT_TRUE(client->reportEvent("searchStarted", 42, record));
  ASSERT_TRUE(descriptions->waitForCount(1));
  const std::string description = descriptions->values()[0];
  EXPECT_NE(description.find("\"flusher-watched\""), std::string::npos) << description;
  EXPECT_NE(harness.daemonLog().find("id 42 agent Glance/1 event {"), std::string::npos);

  // Intent 7 is only logged; intent 2 answers. Signals keep their order, so the one WorkDone
  // that came is intent 2's.
  ASSERT_TRUE(tool->initiateFlusherIntent(7));
  ASSERT_TRUE(tool->initiateFlusherIntent(kFlusherIntentStopFlushing));
  ASSERT_TRUE(workDone->waitForCount(1));
  ASSERT_TRUE(bystander->ping());  // anything sent its way has arrived by now
  EXPECT_EQ(overheard->size(), 0u);
  EXPECT_EQ(workDone->size(), 1u);
  EXPECT_NE(harness.daemonLog().find("Unsupported command yet: 7"), std::string::npos);

  // The watcher leaving clears its slot.
  tool.reset();
  EXPECT_TRUE(testing::eventually([&] {
    return harness.daemonLog().find("Removed receiving stream listener") != std::string::npos;
  }));
}

TEST(FlusherIpcTest, PeersOfAnotherUserAreRefusedTheFlusherAndRunActivity) {
  testing::DaemonHarness harness(kBag);
  harness.start();
  // The daemon's own user is told which activity it named.
  auto owner = harness.client();
  auto unknown = owner->runActivity("com.zelmor.no.such.activity");
  ASSERT_FALSE(unknown);
  EXPECT_EQ(unknown.error().name, kOrvexErrorInvalidArgument);
  EXPECT_NE(unknown.error().message.find("com.zelmor.no.such.activity"), std::string::npos);
  if (geteuid() != 0) GTEST_SKIP() << "playing another user takes root";

  // orvexctl as "nobody", on the same private bus: its socket's directory must let it through.
  const std::string& address = harness.bus().address();
  const auto path = address.substr(10, address.find(',') - 10);  // after "unix:path="
  std::filesystem::permissions(std::filesystem::path(path).parent_path(),
                               std::filesystem::perms::others_exec,
                               std::filesystem::perm_options::add);
  for (const auto& command : std::vector<std::vector<std::string>>{
           {"flusher", "stop"}, {"activity", "run", "com.zelmor.orvexd.flusher.background"}}) {
    const auto output = harness.directory() / "nobody.out";
    std::vector<std::string> argv{"setpriv",        "--reuid=65534", "--regid=65534",
                                  "--clear-groups", ORVEXCTL_BINARY, "--address",
                                  address};
    argv.insert(argv.end(), command.begin(), command.end());
    testing::ChildProcess nobody(argv, {}, output);
    EXPECT_EQ(nobody.waitForExit(30s), 1);
    const std::string text = testing::readTextFile(output);
    EXPECT_NE(text.find("com.zelmor.orvexd.Error.AccessDenied"), std::string::npos) << text;
    std::filesystem::remove(output);
  }
  EXPECT_NE(harness.daemonLog().find("refused to"), std::string::npos);
}

}  // namespace
}  // namespace orvex
