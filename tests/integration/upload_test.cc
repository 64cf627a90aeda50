// Feedback uploads end to end: the real daemon on a private bus records what a client reports
// into session files, a diagnostic tool on the flusher control channel dumps them, and the
// reference back-end inflates each upload, checks its digest and keeps it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <random>

#include "tests/support/collector.h"
#include "tests/support/session_files.h"
#include "tests/support/upload_body.h"
#include "tools/orvex-backend/query_items.h"

namespace orvex {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using ::testing::Contains, ::testing::Key, ::testing::Not, ::testing::Pair;
using testing::searchStart, testing::sessionDirectory, testing::sessionFiles;

constexpr const char* kBag = R"({"version": "1", "enabled": true, "feedback_enabled": true,
  "feedback_url": "${BASE_URL}/feedback?from=bag",
  "crowdsourcing_url": "${BASE_URL}/crowdsourcing"})";
const ORVSessionConfiguration kGlance{"com.zelmor.glance", "Glance/1"};

// A diagnostic tool: a connection of its own, which asks the daemon for its flusher object as
// such a tool does (and so is one of the daemon's client connections), and the flusher signals
// the daemon sends to it alone.
struct FlusherTool {
  explicit FlusherTool(const testing::DaemonHarness& harness) : client(harness.client()) {
    EXPECT_TRUE(client->listenToFlusher());
    OrvexClient::FlusherHandlers handlers;
    handlers.flushedData = [this](const std::vector<std::vector<uint8_t>>& sent) {
      for (const auto& body : sent) bodies.add(std::string(body.begin(), body.end()));
    };
    handlers.workDone = [this] { workDone.add(true); };
    client->onFlusherSignals(std::move(handlers));
  }
  void intent(uint64_t intent) { ASSERT_TRUE(client->initiateFlusherIntent(intent)); }

  testing::Collector<std::string> bodies;  // FlushedData, one entry a body
  testing::Collector<bool> workDone;
  std::unique_ptr<OrvexClient> client;  // last: gone before the handlers' collectors
};

class UploadTest : public ::testing::Test {
 protected:
  // Reports one search start per input and waits until the open session file holds them all.
  void report(OrvexClient& client, const std::vector<std::string>& inputs) {
    for (const auto& input : inputs) {
      ASSERT_TRUE(client.reportEvent("searchStarted", 0, searchStart(input)));
    }
    ASSERT_TRUE(client.feedback());  // a round trip: every record has reached the daemon
    ASSERT_TRUE(testing::eventually(
        [&] {
          for (const auto& file : sessionFiles(sessionDirectory(harness))) {
            if (reader.inputs(file, inputs.front()) == std::vector{inputs.front()} &&
                reader.inputs(file, inputs.back()) == std::vector{inputs.back()}) {
              return true;
            }
          }
          return false;
        },
        10s))
        << "the records never reached a session file";
  }

  // The uploads the back-end stored, waited for until there are `count` of them.
  nlohmann::json uploads(size_t count) {
    nlohmann::json stored;
    EXPECT_TRUE(testing::eventually(
        [&] { return (stored = harness.backend().uploads()).size() >= count; }, 20s))
        << stored;
    return stored;
  }

  // The items that uploads of these bodies carry: the top-level keys of each body's JSON.
  static int64_t itemCount(const std::vector<std::string>& bodies) {
    int64_t items = 0;
    for (const auto& body : bodies)
      items += nlohmann::json::parse(testing::inflateRaw(body)).size();
    return items;
  }

  // One session for all clients, the daemon's default, spelt out: a dump then flushes the first
  // client connection only and answers one WorkDone.
  // Uploads give up after 2 s, so that a late answer is met in the test's time.
  testing::DaemonHarness harness{kBag, PlistDictionary{{"ORVSharedSession", PlistValue(true)},
                                                       {"ORVFeedbackUploadTimeout", int64_t{2}}}};
  testing::SessionReader reader;
};

// A dump (a tool's intents 0 and 3) uploads every open session: one body an agent.
TEST_F(UploadTest, DumpUploadsEveryOpenSessionAndHandsTheToolTheBodiesSent) {
  harness.start();
  auto client = harness.clientWithBag(kGlance);
  // Enough records, and text random enough, that the compressor emits blocks larger than its
  // output buffer while it is written: some writes take two passes.
  std::vector<std::string> inputs;
  std::mt19937_64 random(17);
  for (int i = 1000; i < 1400; ++i) {
    std::string input = "dump-" + std::to_string(i) + " ";
    for (int j = 0; j < 100; ++j) input.push_back("0123456789abcdef"[random() % 16]);
    inputs.push_back(std::move(input));
  }
  report(*client, inputs);
  const auto openFiles = sessionFiles(sessionDirectory(harness));
  FlusherTool tool(harness);
  tool.intent(0);
  tool.intent(3);
  ASSERT_TRUE(tool.workDone.waitForCount(1)) << harness.daemonLog();
  ASSERT_GE(tool.bodies.size(), 1u);
  const auto stored = uploads(tool.bodies.size());
  ASSERT_EQ(stored.size(), tool.bodies.size());
  // Each body the tool got was stored, as sent: the back-end checked its digest.
  const auto bodies = tool.bodies.values();
  size_t replayedDigests = 0;
  for (const auto& body : bodies) {
    const std::string json = testing::inflateRaw(body);
    ASSERT_NE(json, "<corrupt>") << "FlushedData holds a body that is not raw deflate";
    const auto upload = std::find_if(stored.begin(), stored.end(), [&](const auto& entry) {
      return entry["body"] == nlohmann::json::parse(json);
    });
    ASSERT_NE(upload, stored.end()) << json;
    EXPECT_EQ((*upload)["endpoint"], "feedback");
    // The bag's query gives way to "v=2"; the items every upload carries join it.
    const auto items = backend::decodeQueryItems((*upload)["query"].get<std::string>());
    EXPECT_THAT(items, Contains(Pair("v", "2")));
    EXPECT_THAT(items, Not(Contains(Key("from"))));
    EXPECT_EQ((*upload)["content_encoding"], "deflate");
    if ((*upload)["digest"] != testing::sha512Hex(json)) ++replayedDigests;
  }
  // The large session's digest counts some writes twice; the back-end took it all the same.
  EXPECT_EQ(replayedDigests, 1u);
  const std::string sent = stored.dump();
  EXPECT_NE(sent.find("dump-1000"), std::string::npos) << sent;
  EXPECT_NE(sent.find("dump-1399"), std::string::npos) << sent;
  const int64_t items = itemCount(bodies);
  EXPECT_TRUE(testing::eventually(
      [&] { return harness.counter("com.zelmor.orvexd.feedbacksent") == items; }, 20s));
  for (const auto& file : openFiles) EXPECT_FALSE(fs::exists(file)) << file;
  for (const auto& entry : fs::directory_iterator(harness.tmpDirectory())) {
    EXPECT_FALSE(entry.path().filename().string().starts_with("flusher_")) << entry.path();
  }

  // The back-end refuses the next dump: its items are counted as not sent.
  harness.backend().setFault("feedback", {{"status", 500}});
  report(*client, {"refused-1", "refused-2"});
  tool.bodies.clear();
  tool.intent(3);
  ASSERT_TRUE(tool.workDone.waitForCount(2));
  ASSERT_GE(tool.bodies.size(), 1u);
  const int64_t refused = itemCount(tool.bodies.values());
  EXPECT_TRUE(testing::eventually(
      [&] { return harness.counter("com.zelmor.orvexd.feedbacknotsent") == refused; }, 20s))
      << harness.counter("com.zelmor.orvexd.feedbacknotsent") << " of " << refused;
  EXPECT_EQ(harness.counter("com.zelmor.orvexd.feedbacksent"), items);
  EXPECT_EQ(harness.backend().uploads().size(), stored.size());

  // A back-end that holds its answer past the upload's time-out: the upload counts as timed out.
  // (libcurl measures a stall over a window of some five seconds, so the wait must be longer.)
  harness.backend().setFault("feedback", {{"delay_ms", 10000}});
  report(*client, {"late-1"});
  tool.intent(3);
  ASSERT_TRUE(tool.workDone.waitForCount(3));
  EXPECT_TRUE(testing::eventually(
      [&] { return harness.counter("com.zelmor.orvexd.fbrequesttimedout") == 1; }, 20s))
      << harness.daemonLog();
}

// Files left by an earlier run wait for upload. While a tool has stopped flushing (intent 2) a
// scheduled run leaves them; the next dump reads each once, deletes the readable ones and an
// unreadable one alike, and uploads the readable ones alone.
TEST_F(UploadTest, StoppedRunsKeepSessionFilesAndADumpDropsAnUnreadableOne) {
  harness.start();
  report(*harness.clientWithBag(kGlance), {"left-1", "left-2"});
  ASSERT_EQ(harness.stop(), 0);
  auto files = sessionFiles(sessionDirectory(harness));
  // The client's session, and the one of the daemon's own records.
  const auto readable =
      static_cast<size_t>(std::count_if(files.begin(), files.end(), [&](const fs::path& file) {
        return reader.read(file).has_value();
      }));
  ASSERT_GE(readable, 1u);
  files.push_back(sessionDirectory(harness) / "session.90");
  std::ofstream(files.back()) << std::string("\x07\0\0\0\0\0\0\0garbage and more", 24);
  const auto present = [&] {
    return static_cast<size_t>(std::count_if(
        files.begin(), files.end(), [](const fs::path& file) { return fs::exists(file); }));
  };

  harness.start();
  FlusherTool tool(harness);
  tool.intent(2);
  ASSERT_TRUE(tool.workDone.waitForCount(1)) << harness.daemonLog();
  ASSERT_TRUE(harness.client()->runActivity("com.zelmor.orvexd.flusher.background"));
  ASSERT_TRUE(testing::eventually([&] {
    return harness.daemonLog().find(
               "flushing has been stopped, will start again with dump command") !=
           std::string::npos;
  })) << harness.daemonLog();
  EXPECT_EQ(present(), files.size());

  tool.intent(3);  // the tool's own connection is the one client connection to flush
  ASSERT_TRUE(tool.workDone.waitForCount(2)) << harness.daemonLog();
  EXPECT_EQ(present(), 0u);
  const auto stored = uploads(readable);
  const int64_t items = itemCount(tool.bodies.values());
  EXPECT_TRUE(testing::eventually(
      [&] { return harness.counter("com.zelmor.orvexd.feedbacksent") == items; }, 20s));
  ASSERT_EQ(harness.backend().uploads().size(), readable);
  EXPECT_NE(stored.dump().find("left-2"), std::string::npos) << stored;
}

}  // namespace
}  // namespace orvex
