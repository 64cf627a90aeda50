#include "orvexd/feedback/standalone_client_session.h"

#include <utility>

namespace orvex {

StandaloneSessionOpener StandaloneClientSession::opener(Assembly& assembly) {
  return [&assembly](OrvexFeedback first) -> std::shared_ptr<StandaloneSession> {
    return std::make_shared<StandaloneClientSession>(
        ClientSession::initWithAssembly(assembly, std::move(first)));
  };
}

StandaloneClientSession::StandaloneClientSession(std::shared_ptr<ClientSession> session)
    : session_(std::move(session)) {}

void StandaloneClientSession::addFeedback(const OrvexFeedback& feedback) {
  session_->addFeedback(feedback);
}

void StandaloneClientSession::sessionComplete() { session_->sessionComplete(); }

}  // namespace orvex
