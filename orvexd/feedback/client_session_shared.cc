#include "orvexd/feedback/client_session_shared.h"

#include <algorithm>
#include <vector>

namespace orvex {

ClientSessionShared::ClientSessionShared(Assembly& assembly, const OrvexFeedback& feedback,
                                         uint32_t previousSessionEndReason)
    : FeedbackSession(assembly, feedback, previousSessionEndReason) {
  (void)addFeedback(feedback);
}

FeedbackSession::AddResult ClientSessionShared::addFeedback(const OrvexFeedback& feedback) {
  std::shared_ptr<ClientSession> session;
  {
    std::lock_guard lock(mutex_);
    auto found = sessionMap_.find(feedback.userAgent());
    if (found == sessionMap_.end()) {
      // The new session's first record is this one.
      sessionMap_.emplace(
          feedback.userAgent(),
          ClientSession::initWithAssembly(assembly_, feedback, previousSessionEndReason_));
      return AddResult::kAdded;
    }
    session = found->second;
  }
  return session->addFeedback(feedback);
}

void ClientSessionShared::enumerateSessions(const SessionVisitor& visit) {
  std::vector<std::shared_ptr<ClientSession>> sessions;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [agent, session] : sessionMap_) sessions.push_back(session);
  }
  for (size_t i = 0; i < sessions.size(); ++i) visit(*sessions[i], i + 1 == sessions.size());
}

std::vector<OrvexFeedback> ClientSessionShared::feedbacksWithRelativeTimestamp(
    uint64_t budget) const {
  std::vector<OrvexFeedback> all;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [agent, session] : sessionMap_) {
      auto feedbacks = session->feedbacksWithRelativeTimestamp(budget);
      all.insert(all.end(), feedbacks.begin(), feedbacks.end());
    }
  }
  std::stable_sort(all.begin(), all.end(), [](const OrvexFeedback& a, const OrvexFeedback& b) {
    return OrvexFeedback::timeStampComparator(a, b) < 0;
  });
  return all;
}

}  // namespace orvex
