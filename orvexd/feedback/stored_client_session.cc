#include "orvexd/feedback/stored_client_session.h"

#include <utility>

#include "orvexd/base/orvex_logging.h"

namespace orvex {

namespace {

const OrvexLog& sessionLog() { return OrvexLogForCategory(kOrvexLogSession); }

// The value under `key` if it has the type `read` accepts; logged as missing otherwise.
template <typename Read>
auto decode(const PlistDictionary& archive, std::string_view key, Read read)
    -> decltype(read(std::declval<const PlistValue&>())) {
  auto found = archive.find(key);
  if (found != archive.end()) {
    if (auto value = read(found->second)) return value;
  }
  sessionLog().error("decoder returned nil for %@", key);
  return {};
}

}  // namespace

StoredClientSession::StoredClientSession(StoredSession stored)
    : feedbacks_(std::move(stored.feedbacks)) {
  const PlistDictionary& archive = stored.session;
  if (auto agent = decode(archive, "agent", [](const PlistValue& v) {
        return v.asString() ? std::optional(*v.asString()) : std::nullopt;
      })) {
    fields_.agent = std::move(*agent);
  }
  // A session of a client without a user GUID has none: not an error.
  if (auto found = archive.find("user_guid"); found != archive.end() && found->second.asString()) {
    fields_.userGuid = *found->second.asString();
  }
  if (auto versions = decode(archive, "resource_versions", [](const PlistValue& v) {
        return v.asDictionary() ? std::optional(*v.asDictionary()) : std::nullopt;
      })) {
    fields_.resourceVersions = std::move(*versions);
  }
  if (auto start = decode(archive, "base_time", [](const PlistValue& v) { return v.asDate(); })) {
    fields_.sessionStart = start->timePoint();
  }
  fields_.firstUseOfTheDay =
      decode(archive, "first_use", [](const PlistValue& v) { return v.asBool(); }).value_or(false);
  fields_.removeTimestamps = decode(archive, "remove_timestamps", [](const PlistValue& v) {
                               return v.asBool();
                             }).value_or(false);
  const int64_t reason = decode(archive, "previous_session_end_reason", [](const PlistValue& v) {
                           return v.asInteger();
                         }).value_or(0);
  fields_.previousSessionEndReason =
      reason >= 0 && reason <= int64_t{UINT32_MAX} ? static_cast<uint32_t>(reason) : 0;
  auto found = archive.find("start_timestamp");
  if (auto start = found != archive.end() ? found->second.asInteger() : std::nullopt;
      start && *start >= 0) {
    fields_.startTimestamp = static_cast<uint64_t>(*start);
  } else if (!feedbacks_.empty()) {
    // The session was opened by its first record.
    fields_.startTimestamp = feedbacks_.front().feedback()->timestamp;
  }
}

nlohmann::json StoredClientSession::getFeedbacksToSend() const {
  return ClientSession::uploadObject(fields_, feedbacks_);
}

}  // namespace orvex
