// The feedback and crowdsourcing upload endpoints: a POST whose body is one JSON document
// compressed as raw deflate (no zlib header or trailer), whatever its Content-Encoding says, with
// the SHA-512 of the uncompressed JSON as 128 lower-case hexadecimal characters in the header
// "X-Zelmor-Digest" (or, for a large body, the digest the daemon's compressed stream makes of its
// pieces: uploadDigestOfJson()). An upload that inflates, matches its digest and is JSON is stored
// and answered 200 {"status": "OK", "id": N}; any other gets 400 with the reason as text.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "tools/orvex-backend/endpoint_registry.h"
#include "tools/orvex-backend/feedback_store.h"

namespace orvex::backend {

class FeedbackIntake {
 public:
  // A session's JSON is a few hundred kilobytes at most; more than this is a bad upload.
  static constexpr size_t kMaxInflatedBytes = size_t{16} << 20;

  explicit FeedbackIntake(std::shared_ptr<FeedbackStore> store) : store_(std::move(store)) {}

  // Answers one upload to the endpoint named `endpoint`; safe to call from several threads.
  EndpointReply accept(const std::string& endpoint, const EndpointRequest& request) const;

 private:
  std::shared_ptr<FeedbackStore> store_;
};

}  // namespace orvex::backend
