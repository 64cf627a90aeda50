#include "orvexd/model/orvex_feedback.h"

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"

namespace orvex {
namespace {

constexpr uint64_t kNanosecondsPerMillisecond = 1'000'000;
constexpr std::string_view kArchiveForm = "archive form";

DecodeResult<OrvexFeedback> envelopeFailure(std::string_view reason) {
  OrvexLogForCategory(kOrvexLogFeedbackErrors)
      .error("could not read a feedback envelope from its %@: %@", kArchiveForm, reason);
  return OrvexError(kORVErrorDomain, 500, "invalid feedback envelope: " + std::string(reason));
}

FeedbackRecordPtr nonNull(FeedbackRecordPtr feedback) {
  if (feedback) return feedback;
  OrvexLogForCategory(kOrvexLogFeedback).error("attempted to wrap a nil feedback");
  return std::make_shared<const NBFeedback>();
}

std::string propertyText(const nlohmann::json& value) {
  if (value.is_string()) return value.get<std::string>();
  if (value.is_null() || (value.is_structured() && value.empty())) return "";
  return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

OrvexFeedback::OrvexFeedback(FeedbackRecordPtr feedback, int64_t queryId,
                             std::optional<std::string> userGuid, std::string userAgent,
                             uint64_t clientQueryId)
    : feedback_(nonNull(std::move(feedback))),
      queryId_(queryId),
      clientQueryId_(clientQueryId),
      userGuid_(std::move(userGuid)),
      userAgent_(std::move(userAgent)) {}

OrvexFeedback OrvexFeedback::initWithFeedback(FeedbackRecordPtr feedback, int64_t queryId,
                                              std::optional<std::string> userGuid,
                                              std::string userAgent) {
  return OrvexFeedback(std::move(feedback), queryId, std::move(userGuid), std::move(userAgent), 0);
}

OrvexFeedback OrvexFeedback::initWithFeedback(FeedbackRecordPtr feedback, int64_t queryId,
                                              std::optional<std::string> userGuid,
                                              std::string userAgent, uint64_t clientQueryId) {
  OrvexFeedback envelope =
      initWithFeedback(std::move(feedback), queryId, std::move(userGuid), std::move(userAgent));
  envelope.clientQueryId_ = clientQueryId;
  return envelope;
}

OrvexFeedback OrvexFeedback::process(SessionProcessingHelper& helper) const {
  OrvexFeedback processed = *this;
  if (auto rewritten = feedback_->process(helper)) processed.feedback_ = std::move(rewritten);
  return processed;
}

FeedbackDictionary OrvexFeedback::dictionaryWithTimestamp(uint64_t timestamp) const {
  FeedbackDictionary d = feedback_->dictionary();
  if (feedback_->requiresQueryId()) {
    d.set("query_id", queryId_);
    if (clientQueryId_ != 0) d.set("client_query_id", clientQueryId_);
  }
  d.set("type", FeedbackValue::name(eventTypeToString(static_cast<uint32_t>(type()))));
  d.set("timestamp", timestamp);
  return d;
}

FeedbackDictionary OrvexFeedback::dictionary() const {
  return dictionaryWithTimestamp(relTimestamp_);
}

std::string OrvexFeedback::description() const {
  return dictionaryWithTimestamp(feedback_->timestamp / kNanosecondsPerMillisecond).dump();
}

PlistDictionary OrvexFeedback::archiveForm() const {
  ArchiveFieldWriter writer;
  writer("$class", std::string(kClassName));
  writer("feedback", feedback_->archiveForm());
  writer("query_id", queryId_);
  writer("user_guid", userGuid_);
  writer("user_agent", userAgent_);
  writer("_clientQueryId", clientQueryId_);
  return writer.takeObject();
}

std::vector<uint8_t> OrvexFeedback::archiveData() const {
  // The archive form, field by field into the document: the same bytes as archiveForm()
  // written as a binary property list, without building the dictionary first.
  BinaryPlistWriter& out = binaryPlistWriterForThread();
  ArchiveStreamWriter writer(out);
  out.begin();
  out.beginDictionary();
  writer("$class", std::string(kClassName));
  out.key("feedback");
  out.beginDictionary();
  writer("$class", std::string(feedback_->className()));
  feedback_->writeFields(writer);
  out.end();
  writer("query_id", queryId_);
  writer("user_guid", userGuid_);
  writer("user_agent", userAgent_);
  writer("_clientQueryId", clientQueryId_);
  out.end();
  std::vector<uint8_t> bytes;
  if (writer.problem()) {
    OrvexLogForCategory(kOrvexLogFeedbackErrors)
        .error("could not archive feedback %@: %@", description(), *writer.problem());
    return bytes;
  }
  out.finish(bytes);
  return bytes;
}

DecodeResult<OrvexFeedback> OrvexFeedback::fromArchiveForm(const PlistValue& form) {
  if (form.asDictionary() == nullptr) return envelopeFailure("not a dictionary");
  const std::string* className = form.find("$class") ? form.find("$class")->asString() : nullptr;
  if (className == nullptr || *className != kClassName) {
    return envelopeFailure("$class: not \"OrvexFeedback\"");
  }
  const PlistValue* archivedRecord = form.find("feedback");
  if (archivedRecord == nullptr) return envelopeFailure("feedback: missing");
  auto record = NBFeedback::fromArchiveForm(*archivedRecord);
  if (!record) return envelopeFailure("feedback: " + record.error().reason);

  feedback_codec::DecodeContext context;
  feedback_codec::FieldReader<PlistValue> reader(form, context);
  int64_t queryId = 0;
  uint64_t clientQueryId = 0;
  std::optional<std::string> userGuid;
  std::string userAgent;
  reader("query_id", queryId);
  reader("user_guid", userGuid);
  reader("user_agent", userAgent);
  reader("_clientQueryId", clientQueryId);
  if (context.failed()) return envelopeFailure(context.error());
  return OrvexFeedback(std::move(record).value(), queryId, std::move(userGuid),
                       std::move(userAgent), clientQueryId);
}

DecodeResult<OrvexFeedback> OrvexFeedback::fromArchiveData(std::span<const uint8_t> bytes) {
  std::string error;
  auto form = parsePropertyList(bytes, &error);
  if (!form) return envelopeFailure("not a property list (" + error + ")");
  return fromArchiveForm(*form);
}

std::weak_ordering OrvexFeedback::timeStampComparator(const OrvexFeedback& a,
                                                      const OrvexFeedback& b) {
  return a.feedback_->timestamp <=> b.feedback_->timestamp;
}

std::map<std::string, std::string> dictionaryWithPropertiesOfObject(const NBFeedback& record) {
  std::map<std::string, std::string> properties;
  const nlohmann::json form = record.dbusForm();
  for (const auto& [key, value] : form.items()) {
    if (key != "$class") properties.emplace(key, propertyText(value));
  }
  return properties;
}

std::map<std::string, std::string> dictionaryWithPropertiesOfObject(const OrvexFeedback& envelope) {
  return {
      {"feedback", envelope.feedback()->dbusText()},
      {"queryId", std::to_string(envelope.queryId())},
      {"clientQueryId", std::to_string(envelope.clientQueryId())},
      {"relTimestamp", std::to_string(envelope.relTimestamp())},
      {"userGuid", envelope.userGuid().value_or("")},
      {"userAgent", envelope.userAgent()},
  };
}

}  // namespace orvex
