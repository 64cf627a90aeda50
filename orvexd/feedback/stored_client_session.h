// A finished client session read back from its session file, as the uploader sends it.
//
// FileContainer::read() gives the session's archive form and its records; this rebuilds the
// fields of the upload object from the archive and makes the same upload object the live
// ClientSession would (ClientSession::uploadObject()). A key missing from the archive, or of
// the wrong type, is logged and taken as empty; a file without the session's start on the
// records' clock takes its first record's time instead.
//
// Immutable once made: safe to read from any thread.
#pragma once

#include <nlohmann/json.hpp>
#include <vector>

#include "orvexd/feedback/client_session.h"
#include "orvexd/feedback/file_container.h"
#include "orvexd/model/interfaces/feedback_flusher.h"

namespace orvex {

class StoredClientSession final : public FlushableObject {
 public:
  explicit StoredClientSession(StoredSession stored);

  nlohmann::json getFeedbacksToSend() const override;
  const ClientSession::UploadFields& fields() const { return fields_; }
  const std::vector<OrvexFeedback>& feedbacks() const { return feedbacks_; }

 private:
  ClientSession::UploadFields fields_;
  std::vector<OrvexFeedback> feedbacks_;
};

}  // namespace orvex
