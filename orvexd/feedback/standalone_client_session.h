// A ClientSession that no session manager holds: opened with its first record, written to its
// own session file, and closed by whoever opened it. The bag controller records each bag fetch
// in one (through Assembly::openStandaloneSession).
//
// Threading: as ClientSession, any thread.
#pragma once

#include <memory>

#include "orvexd/feedback/client_session.h"
#include "orvexd/model/interfaces/standalone_session.h"

namespace orvex {

class Assembly;

class StandaloneClientSession final : public StandaloneSession {
 public:
  // What start-up stores in Assembly::openStandaloneSession.
  static StandaloneSessionOpener opener(Assembly& assembly);

  explicit StandaloneClientSession(std::shared_ptr<ClientSession> session);
  void addFeedback(const OrvexFeedback& feedback) override;
  void sessionComplete() override;

 private:
  const std::shared_ptr<ClientSession> session_;
};

}  // namespace orvex
