#include "orvexd/feedback/client_session_manager.h"

#include <gtest/gtest.h>

#include <atomic>

#include "orvexd/base/orvex_names.h"
#include "orvexd/feedback/client_session.h"
#include "orvexd/feedback/persistent_storage.h"
#include "orvexd/model/orvex_session_feedback.h"
#include "orvexd/network/user_guid_controller.h"
#include "tests/support/log_capture.h"
#include "tests/support/test_assembly.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;

constexpr auto kOpen = ClientSessionManager::State::kOpen;
constexpr auto kPastSoftLimit = ClientSessionManager::State::kPastSoftLimit;
constexpr auto kNoSession = ClientSessionManager::State::kNoSession;

// A session file read back: its previous end reason, its GUID and its records' kinds, with the
// end reason of its closing record (or -1 when it has none).
struct Stored {
  int64_t previousReason = -1;
  std::string guid;
  std::vector<NBFeedbackType> types;
  int64_t endReason = -1;
};

struct ManagerTest : ::testing::Test {
  ManagerTest() { start(); }

  void start() {
    test.assembly->persistentStorage = storage;
    test.assembly->guidController = guid;
    manager = std::make_shared<ClientSessionManager>(*test.assembly, guid, "orvex");
    test.assembly->clientSessionManager = manager;
  }

  uint64_t now() const {
    return static_cast<uint64_t>(test.platform.clock->monotonicNow().time_since_epoch().count());
  }
  void add(NBFeedbackType type = NBFeedbackType::kSearchStart, std::string agent = "news/1.0") {
    FeedbackRecordPtr record;
    if (type == NBFeedbackType::kResultEngagement) {
      auto engagement = std::make_shared<NBResultEngagementFeedback>();
      engagement->timestamp = now();
      record = engagement;
    } else {
      auto start = std::make_shared<NBStartSearchFeedback>();
      start->timestamp = now();
      start->input = "weather";
      record = start;
    }
    manager->addOrvexFeedback(OrvexFeedback::initWithFeedback(record, 7, std::nullopt, agent));
    test.settle();
  }
  void flush() {
    manager->flushSession(nullptr);
    test.settle();
  }
  // Every finished session file, oldest first.
  std::vector<Stored> stored() {
    std::vector<Stored> sessions;
    for (const auto& container : storage->getAvailableSessionHandles()) {
      auto session = container->read();
      if (!session) continue;
      Stored entry;
      const PlistValue root(session->session);
      if (auto* reason = root.find("previous_session_end_reason")) {
        entry.previousReason = reason->asInteger().value_or(-1);
      }
      if (auto* guid = root.find("user_guid"); guid && guid->asString()) {
        entry.guid = *guid->asString();
      }
      for (const auto& feedback : session->feedbacks) {
        entry.types.push_back(feedback.type());
        if (auto* end = dynamic_cast<const OrvexSessionEndFeedback*>(feedback.feedback().get())) {
          entry.endReason = end->reason;
        }
      }
      sessions.push_back(std::move(entry));
    }
    return sessions;
  }

  testing::TestAssembly test;
  std::shared_ptr<OrvexPersistentStorage> storage =
      std::make_shared<OrvexPersistentStorage>(*test.assembly, kORVOrvexdNameVersion);
  std::shared_ptr<OrvexUserGUIDController> guid =
      std::make_shared<OrvexUserGUIDController>(*test.assembly);
  std::shared_ptr<ClientSessionManager> manager;
  testing::LogCapture logs;
};

TEST_F(ManagerTest, PastTheSoftLimitAnEngagementEndsTheSessionAndRotatesTheGuid) {
  EXPECT_EQ(manager->currentState(), kNoSession);
  add();
  EXPECT_EQ(manager->currentState(), kOpen);
  const auto firstGuid = guid->currentUserGUID();
  // Before the soft limit an engagement is only a record.
  test.advance(9min);
  add(NBFeedbackType::kResultEngagement);
  test.advance(59s);
  EXPECT_EQ(manager->currentState(), kOpen);
  test.advance(1s);
  EXPECT_EQ(manager->currentState(), kPastSoftLimit);
  EXPECT_TRUE(logs.contains("soft limit reached expected 1 current 1 orvex"));

  add(NBFeedbackType::kResultEngagement);
  EXPECT_EQ(manager->currentState(), kNoSession);
  EXPECT_EQ(manager->session(), nullptr);
  EXPECT_NE(guid->currentUserGUID(), firstGuid);
  EXPECT_TRUE(
      logs.contains("session flushed because soft limit reached and sentinel feedback received"));

  add();  // the next session remembers why the previous one ended
  flush();
  const auto sessions = stored();
  ASSERT_EQ(sessions.size(), 2u);
  EXPECT_EQ(sessions[0].previousReason, kOrvexSessionEndNoPreviousSession);
  EXPECT_EQ(sessions[0].guid, firstGuid.upperString());
  EXPECT_EQ(sessions[0].types,
            (std::vector{NBFeedbackType::kSearchStart, NBFeedbackType::kResultEngagement,
                         NBFeedbackType::kResultEngagement, NBFeedbackType::kSessionEnd}));
  EXPECT_EQ(sessions[0].endReason, kOrvexSessionEndEngagementReceived);
  EXPECT_EQ(sessions[1].previousReason, kOrvexSessionEndEngagementReceived);
  EXPECT_EQ(sessions[1].endReason, kOrvexSessionEndExternalRequest);
  EXPECT_EQ(sessions[1].guid, guid->currentUserGUID().upperString());
}

TEST_F(ManagerTest, PastTheSoftLimitARecordAfterIdleTimeOpensTheNextSessionUnderANewGuid) {
  add();
  test.advance(9min);
  add();
  test.advance(1min + 1s);
  EXPECT_EQ(manager->currentState(), kPastSoftLimit);
  add();  // 61 s after the previous one: still the same session
  EXPECT_EQ(manager->currentState(), kPastSoftLimit);
  EXPECT_TRUE(stored().empty());

  const auto firstGuid = guid->currentUserGUID();
  test.advance(181s);
  add();
  EXPECT_EQ(manager->currentState(), kOpen);
  EXPECT_TRUE(logs.contains(
      "session flushed because soft limit reached and idle time was beyond 180 orvex"));
  const auto newGuid = guid->currentUserGUID();
  EXPECT_NE(newGuid, firstGuid);

  // The new session runs its own timers: the old session's max timer (at 15 min) does nothing.
  test.advance(3min);
  EXPECT_EQ(manager->currentState(), kOpen);
  flush();
  const auto sessions = stored();
  ASSERT_EQ(sessions.size(), 2u);
  EXPECT_EQ(sessions[0].types.size(), 4u);  // three records and the end
  EXPECT_EQ(sessions[0].endReason, kOrvexSessionEndSessionIdle);
  EXPECT_EQ(sessions[1].previousReason, kOrvexSessionEndSessionIdle);
  EXPECT_EQ(sessions[1].guid, newGuid.upperString());
  EXPECT_EQ(sessions[1].types,
            (std::vector{NBFeedbackType::kSearchStart, NBFeedbackType::kSessionEnd}));
}

TEST_F(ManagerTest, ARecordUnderAnotherGuidEndsTheSession) {
  add();
  add();
  guid->reset();
  add();
  EXPECT_EQ(manager->currentState(), kOpen);
  EXPECT_TRUE(logs.contains("session flushed because guid changed orvex"));
  flush();
  const auto sessions = stored();
  ASSERT_EQ(sessions.size(), 2u);
  EXPECT_EQ(sessions[0].types.size(), 3u);
  EXPECT_EQ(sessions[0].endReason, kOrvexSessionEndGuidChanged);
  EXPECT_EQ(sessions[1].previousReason, kOrvexSessionEndGuidChanged);
  EXPECT_NE(sessions[0].guid, sessions[1].guid);
}

TEST_F(ManagerTest, ASessionEndsFifteenMinutesAfterItBeganAndFlushWithoutSessionAnswersAtOnce) {
  std::atomic<bool> flushed{false};
  manager->flushSession([&] { flushed = true; });
  test.settle();
  EXPECT_TRUE(flushed);
  EXPECT_TRUE(stored().empty());

  add();
  test.advance(5min);
  add();
  test.advance(9min + 59s);
  EXPECT_EQ(manager->currentState(), kPastSoftLimit);
  EXPECT_TRUE(stored().empty());
  test.advance(1s);
  EXPECT_EQ(manager->currentState(), kNoSession);
  EXPECT_TRUE(logs.contains("session flushed because max timer expired orvex"));
  const auto sessions = stored();
  ASSERT_EQ(sessions.size(), 1u);
  EXPECT_EQ(sessions[0].endReason, kOrvexSessionEndMaxSessionTime);
  EXPECT_EQ(sessions[0].types.size(), 3u);
  // The records carry their time relative to the session start.
  add();
  const auto records = manager->currentFeedbacksWithRelativeTimestamp();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].relTimestamp(), 0u);
}

TEST_F(ManagerTest, ASharedSessionKeepsOneSessionPerClientAndEndsThemTogether) {
  test.assembly->sharedSession = true;
  start();
  EXPECT_TRUE(logs.contains("Orvex is using shared session for all clients orvex"));
  add(NBFeedbackType::kSearchStart, "news/1.0");
  add(NBFeedbackType::kSearchStart, "Glance/1");
  std::atomic<int> answer{-1};
  manager->flushSessionInvalidationWithAgent("Glance/1", [&](bool flushed) { answer = flushed; });
  test.settle();
  EXPECT_EQ(answer, 0);
  EXPECT_EQ(manager->currentState(), kOpen);
  EXPECT_EQ(manager->currentFeedbacksWithRelativeTimestamp().size(), 3u);

  flush();
  const auto sessions = stored();
  ASSERT_EQ(sessions.size(), 2u);
  for (const auto& session : sessions)
    EXPECT_EQ(session.endReason, kOrvexSessionEndExternalRequest);
  EXPECT_EQ(sessions[0].guid, sessions[1].guid);
  // Glance's session also holds the record of its lost connection.
  EXPECT_EQ(sessions[0].types.size() + sessions[1].types.size(), 5u);
}

TEST_F(ManagerTest, AnInvalidatedPrivateSessionIsFlushedAndErrorsGoToTheDaemonsSession) {
  ClientSessionManager::reportErrorAsOrvexdFeedback(OrvexError(kORVErrorDomain, 500, "image"),
                                                    *test.assembly);
  test.settle();
  auto session = std::dynamic_pointer_cast<ClientSession>(manager->session());
  ASSERT_TRUE(session);
  EXPECT_EQ(session->agent(), "orvexd/1.0");

  std::atomic<int> answer{-1};
  manager->flushSessionInvalidationWithAgent("news/1.0", [&](bool flushed) { answer = flushed; });
  test.settle();
  EXPECT_EQ(answer, 1);
  const auto sessions = stored();
  ASSERT_EQ(sessions.size(), 1u);
  EXPECT_EQ(sessions[0].types, (std::vector{NBFeedbackType::kError, NBFeedbackType::kSessionEnd}));
}

}  // namespace
}  // namespace orvex
