#include "orvexd/model/nb_error_custom_feedback.h"

namespace orvex {

void NBErrorFeedback::uploadError(const NBErrorFeedback& record, FeedbackDictionary& d) {
  if (!record.error) {
    d.set("error", nullptr);
    return;
  }
  d.set("error", encodeErrorForJSON(*record.error));
  if (record.error->underlying) {
    d.set("underlying_error", encodeErrorForJSON(*record.error->underlying));
  }
}

FeedbackDictionary encodeErrorForJSON(const OrvexError& error) {
  FeedbackDictionary d(3);
  d.set("reason", error.reason.empty() ? FeedbackValue() : FeedbackValue(error.reason));
  d.set("code", error.code);
  d.set("domain", error.domain.empty() ? FeedbackValue() : FeedbackValue(error.domain));
  return d;
}

NBFeedbackType NBCustomFeedback::type() const {
  if (customType < feedback_tables::kCustomFeedbackTypes.size()) {
    return feedback_tables::kCustomFeedbackTypes[customType];
  }
  return NBFeedbackType::kCustomUnknown;
}

bool NBCustomFeedback::requiresQueryId() const {
  return type() != NBFeedbackType::kCustomGlanceResultFeatures;
}

void NBCustomFeedback::uploadJsonFeedback(const NBCustomFeedback& record, FeedbackDictionary& d) {
  if (!record.jsonFeedback.is_object()) return;
  for (const auto& [name, value] : record.jsonFeedback.items()) d.setAnyKey(name, value);
}

std::optional<std::string> NBCustomFeedback::invalidReason() const {
  if (!jsonFeedback.is_object()) return "jsonFeedback: not an object";
  return std::nullopt;
}

}  // namespace orvex
