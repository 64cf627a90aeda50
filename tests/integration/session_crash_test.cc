// Session files through the real daemon: what survives a SIGKILL, files cut inside a record, a
// session that fills its file, a write that fails, and Feedback over a reply's size.
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <set>

#include "orvexd/base/orvex_names.h"
#include "orvexd/feedback/archived_data_iterator.h"
#include "tests/support/session_files.h"

namespace orvex {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::searchStart, testing::sessionDirectory, testing::sessionFiles,
    testing::sessionNumber, testing::SessionReader;

constexpr const char* kBag = R"({"version": "1", "enabled": true, "feedback_enabled": true})";
const ORVSessionConfiguration kGlance{"com.zelmor.glance", "Glance/1"};
constexpr std::string_view kInputPrefix = "crash-";

int greatestNumber(const fs::path& directory) {
  const auto files = sessionFiles(directory);
  return files.empty() ? 0 : sessionNumber(files.back());
}

// The inputs of the test's records in a Feedback answer, in its order.
std::vector<std::string> inputsIn(const std::string& answer) {
  std::vector<std::string> inputs;
  for (const auto& record : nlohmann::json::parse(answer)) {
    const auto input = record.find("input");
    if (input != record.end() && input->is_string() &&
        input->get<std::string>().starts_with(kInputPrefix)) {
      inputs.push_back(input->get<std::string>());
    }
  }
  return inputs;
}
std::vector<std::string> reportedInputs(OrvexClient& client) {
  auto answer = client.feedback();
  return answer ? inputsIn(answer.value()) : std::vector<std::string>();
}

// Streams records in batches, each batch followed by a Feedback round trip, and kills the
// daemon with SIGKILL once `killAfter` records are out: either at once, which may be in the
// middle of a batch with records still on their way, or right after the next answer. After each
// kill the files are read with the daemon stopped: every record read is one that was sent, none
// twice, in sending order within its file, and every record the daemon had reported back before the
// kill is there. Each restart opens its file after the greatest number that survived.
TEST(SessionCrashTest, RecordsReportedBackSurviveSigkillAtAnyMoment) {
  uint32_t seed = std::random_device{}();
  if (const char* fixed = std::getenv("ORVEX_CRASH_SEED")) {
    seed = static_cast<uint32_t>(std::strtoul(fixed, nullptr, 10));
  }
  SCOPED_TRACE("seed " + std::to_string(seed) +
               " (rerun with ORVEX_CRASH_SEED=" + std::to_string(seed) + ")");
  RecordProperty("seed", std::to_string(seed));
  std::mt19937 random(seed);

  testing::DaemonHarness harness(kBag);
  const fs::path directory = sessionDirectory(harness);
  SessionReader reader;
  // Every input sent, with its round and its place in the round's stream.
  std::map<std::string, std::pair<int, int>> sent;
  std::set<std::string> confirmed;  // reported back by the daemon before a kill
  size_t totalConfirmed = 0;

  constexpr int kRounds = 4;
  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const int survivingGreatest = greatestNumber(directory);
    harness.start();
    auto client = harness.client();
    ASSERT_TRUE(client->configure(kGlance));

    const int killAfter = std::uniform_int_distribution<int>(1, 240)(random);
    // Either with records on their way, or the moment the answer to the round trip is in.
    const bool killRightAfterAnswer = std::bernoulli_distribution(0.5)(random);
    std::vector<std::string> roundInputs;
    std::vector<std::string> roundConfirmed;
    while (static_cast<int>(roundInputs.size()) < killAfter) {
      const int batch = std::uniform_int_distribution<int>(1, 30)(random);
      for (int i = 0; i < batch && static_cast<int>(roundInputs.size()) < killAfter; ++i) {
        const std::string input = std::string(kInputPrefix) + std::to_string(round) + "-" +
                                  std::to_string(roundInputs.size());
        sent.emplace(input, std::make_pair(round, static_cast<int>(roundInputs.size())));
        roundInputs.push_back(input);
        ASSERT_TRUE(client->reportEvent("searchStarted", 0, searchStart(input)));
      }
      if (static_cast<int>(roundInputs.size()) == killAfter && !killRightAfterAnswer) break;
      roundConfirmed = reportedInputs(*client);
      // Calls of one client run in order: the answer holds exactly what was sent so far.
      ASSERT_EQ(roundConfirmed,
                std::vector<std::string>(roundInputs.begin(),
                                         roundInputs.begin() + roundConfirmed.size()));
      ASSERT_EQ(roundConfirmed.size(), roundInputs.size());
    }
    harness.kill();
    confirmed.insert(roundConfirmed.begin(), roundConfirmed.end());
    totalConfirmed += roundConfirmed.size();

    // The daemon is gone: read what it left.
    std::set<std::string> seen;
    bool roundFileChecked = false;
    for (const fs::path& file : sessionFiles(directory)) {
      SCOPED_TRACE(file.filename().string());
      const auto inputs = reader.inputs(file, kInputPrefix);
      // A file without its two leading records was cut off before its session's first record
      // was out; that nothing confirmed is lost with it is checked below.
      if (!inputs) continue;
      int lastIndex = -1, fileRound = -1;
      for (const std::string& input : *inputs) {
        const auto found = sent.find(input);
        ASSERT_NE(found, sent.end()) << "a record nobody sent: " << input;
        EXPECT_TRUE(seen.insert(input).second) << "read twice: " << input;
        if (fileRound == -1) fileRound = found->second.first;
        EXPECT_EQ(found->second.first, fileRound) << "records of two runs in one file";
        EXPECT_GT(found->second.second, lastIndex) << "out of order: " << input;
        lastIndex = found->second.second;
      }
      if (fileRound == round) {
        EXPECT_GT(sessionNumber(file), survivingGreatest)
            << "a new session file must be numbered after the surviving ones";
        roundFileChecked = true;
      }
    }
    for (const std::string& input : confirmed) {
      EXPECT_TRUE(seen.contains(input))
          << "reported back before the kill but not on disk: " << input;
    }
    if (!roundConfirmed.empty()) {
      EXPECT_TRUE(roundFileChecked);
    }
  }
  // The random kill points must have left something to check.
  RecordProperty("confirmed", std::to_string(totalConfirmed));
  EXPECT_GT(totalConfirmed, 0u);
}

// A file cut inside its last record reads back to the record before the cut, at every cut. (The
// numbering after files that survive: the SIGKILL test above and the storage's unit test.)
TEST(SessionCrashTest, FileCutInsideARecordReadsBackItsWholeRecords) {
  testing::DaemonHarness harness(kBag);
  const fs::path directory = sessionDirectory(harness);
  SessionReader reader;

  // A real session file of a few records, finished by a clean stop.
  harness.start();
  {
    auto client = harness.client();
    ASSERT_TRUE(client->configure(kGlance));
    for (int i = 0; i < 5; ++i) {
      ASSERT_TRUE(client->reportEvent("searchStarted", 0,
                                      searchStart(std::string(kInputPrefix) + std::to_string(i))));
    }
    ASSERT_EQ(reportedInputs(*client).size(), 5u);
  }
  ASSERT_EQ(harness.stop(), 0);
  const auto files = sessionFiles(directory);
  ASSERT_FALSE(files.empty());
  fs::path original;
  for (const auto& file : files) {
    if (auto inputs = reader.inputs(file, kInputPrefix); inputs && inputs->size() == 5)
      original = file;
  }
  ASSERT_FALSE(original.empty()) << "no file holds the five records";
  const std::vector<uint8_t> bytes = testing::readBytes(original);
  const auto whole = reader.read(original);
  ASSERT_TRUE(whole);

  // Where the last record starts.
  ArchivedDataIterator iterator(bytes);
  uint64_t lastStart = 0;
  while (iterator.hasMore()) {
    lastStart = iterator.position();
    ASSERT_TRUE(iterator.readNextObject());
  }
  ASSERT_EQ(iterator.position(), bytes.size());
  const uint64_t lastEnd = bytes.size();
  ASSERT_GT(lastEnd - lastStart, ArchivedDataIterator::kLengthSize + 2);

  // Cuts: at the record's start, inside its length, right after the length, inside the archive
  // and one byte short of the end.
  const std::vector<uint64_t> cuts = {lastStart,
                                      lastStart + 1,
                                      lastStart + ArchivedDataIterator::kLengthSize - 1,
                                      lastStart + ArchivedDataIterator::kLengthSize,
                                      lastStart + ArchivedDataIterator::kLengthSize + 1,
                                      (lastStart + lastEnd) / 2,
                                      lastEnd - 1};
  // Whole records before the last: what every cut must give back exactly.
  const std::vector<OrvexFeedback> expected(whole->feedbacks.begin(), whole->feedbacks.end() - 1);
  int number = greatestNumber(directory);
  for (const uint64_t cut : cuts) {
    SCOPED_TRACE("cut at " + std::to_string(cut) + " of " + std::to_string(lastEnd));
    const fs::path copy = directory / ("session." + std::to_string(++number));
    testing::writeBytes(copy, std::span<const uint8_t>(bytes.data(), cut));
    const auto stored = reader.read(copy);
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->session, whole->session);
    ASSERT_EQ(stored->feedbacks.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
      EXPECT_EQ(stored->feedbacks[i].archiveData(), expected[i].archiveData()) << "record " << i;
    }
  }
}

// The records sent, once each and in order, across every file in the directory, and the end
// reasons of those files' sessions.
struct Collected {
  std::vector<std::string> inputs;
  std::vector<std::string> endReasons;
};
Collected collect(SessionReader& reader, const fs::path& directory) {
  Collected collected;
  for (const fs::path& file : sessionFiles(directory)) {
    auto stored = reader.read(file);
    if (!stored) continue;
    for (const auto& feedback : stored->feedbacks) {
      const auto* start = dynamic_cast<const NBStartSearchFeedback*>(feedback.feedback().get());
      if (start != nullptr && start->input && start->input->starts_with(kInputPrefix)) {
        collected.inputs.push_back(*start->input);
      }
      if (feedback.type() == NBFeedbackType::kSessionEnd) {
        collected.endReasons.push_back(feedback.dictionary().toJson().value("reason", ""));
      }
    }
  }
  return collected;
}

std::vector<std::string> numbered(std::string_view stem, int from, int to) {
  std::vector<std::string> inputs;
  for (int i = from; i < to; ++i) inputs.push_back(std::string(stem) + std::to_string(i));
  return inputs;
}

// 30 000 records are more than one 4 MiB file holds: each full file ends its session with
// "file size limit", the next session goes on, and every record is in a file once, in order.
TEST(SessionCrashTest, EveryRecordOfABusyClientReachesAFile) {
  testing::DaemonHarness harness(kBag);
  harness.logLevel = "error";
  harness.start();
  auto client = harness.client();
  ASSERT_TRUE(client->configure(kGlance));
  const auto sent = numbered("crash-", 0, 30000);
  for (const auto& input : sent)
    ASSERT_TRUE(client->reportEvent("searchStarted", 0, searchStart(input)));
  // A crowdsourcing record is no session's: it waits on disk for its own upload.
  NBCustomFeedback crowdsourced;
  crowdsourced.customType = 2;
  crowdsourced.jsonFeedback = {{"app", "com.zelmor.maps"}};
  ASSERT_TRUE(client->reportEvent("custom", 7, crowdsourced));
  // Feedback comes after all 30 000 records, which take a while under the sanitizers.
  client->setTimeout(std::chrono::minutes(3));
  const auto reported = reportedInputs(*client);  // the open session's records only
  ASSERT_FALSE(reported.empty());
  EXPECT_EQ(reported.back(), sent.back());
  EXPECT_GT(harness.counter(kORVCounterFileSizeExceeded), 0);
  ASSERT_EQ(harness.stop(), 0);

  SessionReader reader;
  const auto collected = collect(reader, sessionDirectory(harness));
  EXPECT_EQ(collected.inputs, sent);
  ASSERT_GE(collected.endReasons.size(), 2u);
  EXPECT_EQ(collected.endReasons[0], "file size limit");
  EXPECT_EQ(testing::readTextFile(sessionDirectory(harness) / "crowdsourcing.pending"),
            "{\"app\":\"com.zelmor.maps\"}\n");
}

// The session directory is removed and a plain file put in its place: the open session's file
// is gone and cannot be made again, so writes fail and are counted while Feedback still has
// every record. Once the directory is back, the next record brings the file back with all of
// them, without a restart.
TEST(SessionCrashTest, AFailedWriteIsMadeOnceTheDirectoryIsBack) {
  testing::DaemonHarness harness(kBag);
  const fs::path directory = sessionDirectory(harness);
  harness.start();
  // With the bag in, no bag fetch writes its own session file while the directory goes away.
  auto client = harness.clientWithBag(kGlance);
  const auto send = [&](const std::vector<std::string>& inputs) {
    for (const auto& input : inputs) {
      ASSERT_TRUE(client->reportEvent("searchStarted", 0, searchStart(input)));
    }
  };
  auto expected = numbered("crash-before-", 0, 5);
  send(expected);
  ASSERT_EQ(reportedInputs(*client), expected);

  ASSERT_TRUE(testing::eventually([&] {
    std::error_code error;
    fs::remove_all(directory, error);
    return !error;
  }));
  testing::writeBytes(directory, std::vector<uint8_t>{1});
  const auto failing = numbered("crash-failing-", 0, 5);
  send(failing);
  expected.insert(expected.end(), failing.begin(), failing.end());
  EXPECT_EQ(reportedInputs(*client), expected);
  EXPECT_GE(harness.counter(kORVCounterSessionWriteFailures), 5);

  fs::remove(directory);
  fs::create_directory(directory);
  send({"crash-after"});
  expected.push_back("crash-after");
  EXPECT_EQ(reportedInputs(*client), expected);
  ASSERT_EQ(harness.stop(), 0);
  SessionReader reader;
  EXPECT_EQ(collect(reader, directory).inputs, expected);
  EXPECT_TRUE(harness.daemonLog().find("was removed, making it again") != std::string::npos);
}

// A session larger than the bus carries in one reply: Feedback answers with the newest records
// that fit in 16 MiB, in their order.
TEST(SessionCrashTest, FeedbackAnswersWithTheNewestRecordsThatFit) {
  testing::DaemonHarness harness(
      kBag, {{"ORVMaxRecordBytes", int64_t{8} << 20}, {"ORVSessionSizeLimit", int64_t{64} << 20}});
  harness.logLevel = "error";
  harness.start();
  auto client = harness.client();
  ASSERT_TRUE(client->configure(kGlance));
  // Writing, reading back and encoding 35 MiB of records takes a while under the sanitizers,
  // the more so on a busy machine.
  client->setTimeout(std::chrono::minutes(3));
  // Five records of 7 MiB: 35 MiB, more than a 32 MiB reply.
  for (int i = 0; i < 5; ++i) {
    const std::string input = "crash-" + std::to_string(i) + std::string(size_t{7} << 20, 'x');
    ASSERT_TRUE(client->reportEvent("searchStarted", 0, searchStart(input)));
  }
  auto answer = client->feedback();
  ASSERT_TRUE(answer);
  EXPECT_LE(answer.value().size(), size_t{16} << 20);
  const auto inputs = inputsIn(answer.value());
  ASSERT_EQ(inputs.size(), 2u);
  EXPECT_TRUE(inputs[0].starts_with("crash-3") && inputs[1].starts_with("crash-4"));
}

}  // namespace
}  // namespace orvex
