// The feedback records a client fills in its own terms: an error, and a custom record whose
// JSON object goes up as it is. See feedback_record.h for what every record is and does.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "orvexd/base/orvex_error.h"
#include "orvexd/model/feedback_record.h"

namespace orvex {

class NBErrorFeedback : public FeedbackRecord<NBErrorFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBErrorFeedback";
  static constexpr NBFeedbackType kType = NBFeedbackType::kError;

  std::optional<OrvexError> error;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v("error", self.error, upload::by(self, uploadError));
  }

 private:
  // "error" (null without one) and, when it has one, "underlying_error".
  static void uploadError(const NBErrorFeedback& record, FeedbackDictionary& d);
};

// {"reason", "code", "domain"} of `error`; an empty reason or domain is written as null.
FeedbackDictionary encodeErrorForJSON(const OrvexError& error);

// A record of the client's own making: its JSON object goes up as it is. The custom type picks
// the kind (0 custom_unknown, 1 custom_roamer_autofill, 2 custom_crowdsourcing, 3
// custom_glance_result_features); the connection routes each type its own way and ignores
// others, whose kind is custom_unknown.
class NBCustomFeedback : public FeedbackRecord<NBCustomFeedback, NBFeedback> {
 public:
  static constexpr std::string_view kClassName = "NBCustomFeedback";

  uint32_t customType = 0;
  nlohmann::json jsonFeedback = nlohmann::json::object();  // always an object

  NBFeedbackType type() const override;
  bool requiresQueryId() const override;
  std::optional<std::string> invalidReason() const override;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v("customType", self.customType, upload::skip);
    v("jsonFeedback", self.jsonFeedback, upload::by(self, uploadJsonFeedback));
  }

 private:
  // Every entry of the client's object, under its own key.
  static void uploadJsonFeedback(const NBCustomFeedback& record, FeedbackDictionary& d);
};

}  // namespace orvex
