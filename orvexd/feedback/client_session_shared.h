// A session shared by every client: one ClientSession per user agent, opened by the first
// record of that agent, all under the user GUID of the record that opened the shared session.
//
// Used instead of a ClientSession when "ORVSharedSession" is set, so that one manager keeps the
// records of every client and ends all their sessions together.
//
// Threading: mutex_ guards the map; the sessions guard themselves.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "orvexd/feedback/client_session.h"

namespace orvex {

class Assembly;

class ClientSessionShared final : public FeedbackSession {
 public:
  // A shared session opened with `feedback`; every ClientSession it opens takes
  // `previousSessionEndReason`.
  ClientSessionShared(Assembly& assembly, const OrvexFeedback& feedback,
                      uint32_t previousSessionEndReason);

  // Adds the record to the session of its user agent, opening that session if needed. When
  // that session's file is full, the whole shared session is (kFull).
  AddResult addFeedback(const OrvexFeedback& feedback) override;
  // In the order of the agents' names.
  void enumerateSessions(const SessionVisitor& visit) override;
  // Every agent's records, ordered by their own timestamps.
  std::vector<OrvexFeedback> feedbacksWithRelativeTimestamp(uint64_t budget) const override;

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::shared_ptr<ClientSession>> sessionMap_;  // guarded by mutex_
};

}  // namespace orvex
