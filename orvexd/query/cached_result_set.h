// One answer of the search back-end kept by the query cache: what the user had typed, the request
// that was sent, the decoded JSON answer, when the answer stops being valid and the identifier of
// the query that fetched it.
//
// Immutable once made, except that the cache attaches the reply text as it stores the entry. The
// request, the answer and the reply text are shared between copies, so a copy (what a cache
// lookup hands out) costs two short strings and three reference counts, never the answer.
#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "orvexd/base/http_types.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/uuid.h"

namespace orvex {

// `text` lower-cased by the Unicode root rules (not the user's locale, so that the same query
// always gives the same key). Text that is not UTF-8 is lower-cased in its ASCII letters only.
std::string lowercasedQueryText(std::string_view text);
// The length of `text` in UTF-16 code units, the unit the back-end and clients count queries in.
// Bytes that are not UTF-8 count one each.
std::size_t queryTextLength(std::string_view text);

class CachedResultSet {
 public:
  // `now` is the wall time on the cache's clock: the answer's "max_age" (seconds) counts from
  // it, so a negative one has already run out. No "max_age", 0, or one that is not a number:
  // the entry never expires.
  CachedResultSet(std::string_view input, HttpRequest request, nlohmann::json resultSet, Uuid uuid,
                  WallTime now);
  // The same, sharing an answer the caller parsed and keeps reading.
  CachedResultSet(std::string_view input, HttpRequest request,
                  std::shared_ptr<const nlohmann::json> resultSet, Uuid uuid, WallTime now);

  // What had been typed, lower-cased.
  const std::string& input() const { return input_; }
  const HttpRequest& request() const { return *request_; }
  const nlohmann::json& resultSet() const { return *resultSet_; }
  const std::optional<WallTime>& expireTime() const { return expireTime_; }
  const Uuid& uuid() const { return uuid_; }
  // The answer as a cache hit sends it: a JSON array holding the answer, ready for the bus.
  // Empty until the cache has stored the entry.
  const std::string& replyText() const { return replyText_ ? *replyText_ : kNoText; }
  void setReplyText(std::string text) {
    replyText_ = std::make_shared<const std::string>(std::move(text));
  }

  // The completed query: the answer's "query" string, lower-cased; nothing when the answer has
  // none (or it is not a string). The entry's key in the cache.
  std::optional<std::string> query() const;
  // The request's "X-Zelmor-UserGuid" header, when it holds a UUID.
  std::optional<Uuid> userGuid() const;
  // The request's "X-Zelmor-UI-Scale" header as a number; 0 when absent or not a number.
  float uiScale() const;
  // The answer's "completion_score" as a number; 0 when absent or not a number.
  float completionScore() const;

 private:
  std::string input_;
  std::shared_ptr<const HttpRequest> request_;
  std::shared_ptr<const nlohmann::json> resultSet_;
  std::optional<WallTime> expireTime_;
  Uuid uuid_;
  std::shared_ptr<const std::string> replyText_;
  static inline const std::string kNoText;
};

}  // namespace orvex
