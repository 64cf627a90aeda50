#include "orvexd/model/feedback_record.h"

#include <array>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/model/nb_feedback.h"

namespace orvex {
namespace {

using feedback_codec::DecodeContext;
using feedback_codec::FieldReader;

// ---- Reading ------------------------------------------------------------------------------

template <class T, class Node>
FeedbackRecordPtr readRecord(const Node& form, DecodeContext& context) {
  auto record = std::make_shared<T>();
  FieldReader<Node> reader(form, context);
  T::visit(reader, *record);
  if (context.failed()) return nullptr;
  if (auto reason = record->invalidReason()) {
    context.fail(T::kClassName, *reason);
    return nullptr;
  }
  return record;
}

struct RecordClass {
  std::string_view name;
  FeedbackRecordPtr (*fromDBus)(const nlohmann::json&, DecodeContext&);
  FeedbackRecordPtr (*fromArchive)(const PlistValue&, DecodeContext&);
};

template <class... T>
constexpr std::array<RecordClass, sizeof...(T)> recordClasses(FeedbackRecordClasses<T...>) {
  return {
      RecordClass{T::kClassName, &readRecord<T, nlohmann::json>, &readRecord<T, PlistValue>}...};
}

constexpr auto kRecordClasses = recordClasses(AllFeedbackRecordClasses());

DecodeResult<FeedbackRecordPtr> readFailure(std::string_view form, std::string_view reason) {
  OrvexLogForCategory(kOrvexLogFeedbackErrors)
      .error("could not read a feedback record from its %@: %@", form, reason);
  return OrvexError(kORVErrorDomain, 500, "invalid feedback record: " + std::string(reason));
}

template <class Form>
DecodeResult<FeedbackRecordPtr> readForm(const typename Form::Node& form) {
  DecodeContext context;
  if (!feedback_codec::isObjectNode(form)) return readFailure(Form::kName, "not an object");
  const auto* name = feedback_codec::findField(form, "$class");
  std::string className;
  if (name == nullptr || feedback_codec::isNullNode(*name)) {
    return readFailure(Form::kName, "$class: missing");
  }
  if (!feedback_codec::decodeScalar(*name, className, context, "$class")) {
    return readFailure(Form::kName, context.error());
  }
  for (const RecordClass& recordClass : kRecordClasses) {
    if (recordClass.name != className) continue;
    FeedbackRecordPtr record;
    if constexpr (std::is_same_v<Form, feedback_codec::DBusForm>) {
      record = recordClass.fromDBus(form, context);
    } else {
      record = recordClass.fromArchive(form, context);
    }
    if (!record) return readFailure(Form::kName, context.error());
    return record;
  }
  return readFailure(Form::kName, "$class: \"" + className + "\" is no feedback record class");
}

}  // namespace

FeedbackRecordPtr NBFeedback::process(SessionProcessingHelper& helper) const {
  reportEngagement(helper);
  std::unique_ptr<NBFeedback> copy = clone();
  IdentifierRewriter rewriter(helper);
  copy->rewriteIdentifiers(rewriter);
  if (!rewriter.changed()) return nullptr;
  return copy;
}

nlohmann::json NBFeedback::dbusForm() const {
  DBusFieldWriter writer;
  writer("$class", std::string(className()));
  writeFields(writer);
  return writer.take();
}

std::string NBFeedback::dbusText() const {
  return dbusForm().dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

PlistDictionary NBFeedback::archiveForm() const {
  ArchiveFieldWriter writer;
  writer("$class", std::string(className()));
  writeFields(writer);
  return writer.takeObject();
}

DecodeResult<FeedbackRecordPtr> NBFeedback::fromDBusText(std::string_view text) {
  auto form = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (form.is_discarded()) return readFailure(feedback_codec::DBusForm::kName, "not JSON text");
  return fromDBusForm(form);
}

DecodeResult<FeedbackRecordPtr> NBFeedback::fromDBusForm(const nlohmann::json& form) {
  if (auto problem = feedback_codec::freeJsonProblem(form, feedback_codec::kMaxJsonDepth)) {
    return readFailure(feedback_codec::DBusForm::kName, *problem);
  }
  return readForm<feedback_codec::DBusForm>(form);
}

DecodeResult<FeedbackRecordPtr> NBFeedback::fromArchiveForm(const PlistValue& form) {
  return readForm<feedback_codec::ArchiveForm>(form);
}

std::vector<std::string_view> NBFeedback::recordClassNames() {
  std::vector<std::string_view> names;
  for (const RecordClass& recordClass : kRecordClasses) names.push_back(recordClass.name);
  return names;
}

}  // namespace orvex
