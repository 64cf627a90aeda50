// The root of the feedback records, NBFeedback, and FeedbackRecord, which makes each record
// class's forms from its field list. The record classes themselves come in families (searches,
// what was shown, engagement, errors and custom records, sessions); nb_feedback.h gathers them.
//
// Records are plain values with public fields. Whoever makes one fills it in and hands it over
// as std::shared_ptr<const NBFeedback>; from then on it is never changed, so encoders may run on
// any thread. Every record answers
// - type(): its feedback kind (NBFeedbackType, the index of its "type" name);
// - requiresQueryId(): whether its envelope adds "query_id" and "client_query_id";
// - dictionary(): its own upload JSON object (the envelope, OrvexFeedback, adds the rest);
// - process(): a copy with identifiers rewritten by the session's privacy filtering.
//
// Each class lists its fields once, in visit(), and that list gives all three of its forms: the
// D-Bus form, a JSON object with "$class" (the class name) and the fields, and the archive form,
// a property-list dictionary with the same keys (see feedback_codec.h), and the upload form (see
// feedback_upload_writer.h), where each entry says how it is uploaded. Fields are keyed like the
// upload JSON keys they become; fields without one take their field name (queryId, customType,
// ...). Every record has "timestamp", its time in monotonic-clock nanoseconds, which only the
// envelope uploads. Reading either form (fromDBusText, fromDBusForm, fromArchiveForm) is total:
// anything malformed gives an OrvexError and an error log line in "Orvex_Feedback_Errors",
// never a partly read record.
//
// A class names itself in kClassName, its kind in kType and, when its envelope leaves the query
// identifiers out, sets kRequiresQueryId to false; a subclass inherits what it does not set.
#pragma once

#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "orvexd/base/property_list.h"
#include "orvexd/model/feedback_codec.h"
#include "orvexd/model/feedback_dictionary.h"
#include "orvexd/model/feedback_tables.h"
#include "orvexd/model/feedback_upload_writer.h"
#include "orvexd/model/session_processing_helper.h"

namespace orvex {

using DBusFieldWriter = feedback_codec::FieldWriter<feedback_codec::DBusForm>;
using ArchiveFieldWriter = feedback_codec::FieldWriter<feedback_codec::ArchiveForm>;
using ArchiveStreamWriter = feedback_codec::ArchiveStreamWriter;

class NBFeedback;
using FeedbackRecordPtr = std::shared_ptr<const NBFeedback>;

// The base record, of kind "unknown": it has nothing but its time.
class NBFeedback {
 public:
  static constexpr std::string_view kClassName = "NBFeedback";
  static constexpr NBFeedbackType kType = NBFeedbackType::kUnknown;
  static constexpr bool kRequiresQueryId = true;
  // The keys the envelope adds to a record's upload object.
  static constexpr std::size_t kEnvelopeKeys = 4;

  NBFeedback() = default;
  virtual ~NBFeedback() = default;

  uint64_t timestamp = 0;  // monotonic clock, nanoseconds

  virtual std::string_view className() const { return kClassName; }
  virtual NBFeedbackType type() const { return kType; }
  virtual bool requiresQueryId() const { return kRequiresQueryId; }
  virtual FeedbackDictionary dictionary() const {
    return FeedbackUploadWriter::dictionaryOf(*this, kEnvelopeKeys);
  }
  // The client's query identifier this record is about, 0 when it names none: its own for a
  // search start, else that of the (first) result it reports.
  virtual uint64_t referencedClientQueryId() const { return 0; }

  // A copy with the identifiers of its results and suggestions rewritten by `helper`, or null
  // when nothing changed. Either way the helper has seen every result and suggestion.
  FeedbackRecordPtr process(SessionProcessingHelper& helper) const;

  nlohmann::json dbusForm() const;
  // The D-Bus form as compact JSON text.
  std::string dbusText() const;
  PlistDictionary archiveForm() const;

  static DecodeResult<FeedbackRecordPtr> fromDBusText(std::string_view text);
  static DecodeResult<FeedbackRecordPtr> fromDBusForm(const nlohmann::json& form);
  static DecodeResult<FeedbackRecordPtr> fromArchiveForm(const PlistValue& form);
  // The class names the readers know.
  static std::vector<std::string_view> recordClassNames();

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    v("timestamp", self.timestamp, upload::skip);
  }

  // Entry points of the field visitors; FeedbackRecord generates them for every class.
  virtual void writeFields(DBusFieldWriter& writer) const { visit(writer, *this); }
  virtual void writeFields(ArchiveFieldWriter& writer) const { visit(writer, *this); }
  virtual void writeFields(ArchiveStreamWriter& writer) const { visit(writer, *this); }
  virtual std::unique_ptr<NBFeedback> clone() const { return std::make_unique<NBFeedback>(*this); }
  virtual void rewriteIdentifiers(IdentifierRewriter& rewriter) { visit(rewriter, *this); }
  // Why the fields read make no valid record of the class, checked after reading.
  virtual std::optional<std::string> invalidReason() const { return std::nullopt; }
  // Reports to the session what the record says was engaged.
  virtual void reportEngagement(SessionProcessingHelper&) const {}
};

// Generates the per-class entry points from Derived::visit, kClassName, kType and
// kRequiresQueryId.
template <class Derived, class Base>
class FeedbackRecord : public Base {
 public:
  std::string_view className() const override { return Derived::kClassName; }
  NBFeedbackType type() const override { return Derived::kType; }
  bool requiresQueryId() const override { return Derived::kRequiresQueryId; }
  FeedbackDictionary dictionary() const override {
    return FeedbackUploadWriter::dictionaryOf(self(), NBFeedback::kEnvelopeKeys);
  }
  void writeFields(DBusFieldWriter& writer) const override { Derived::visit(writer, self()); }
  void writeFields(ArchiveFieldWriter& writer) const override { Derived::visit(writer, self()); }
  void writeFields(ArchiveStreamWriter& writer) const override { Derived::visit(writer, self()); }
  std::unique_ptr<NBFeedback> clone() const override { return std::make_unique<Derived>(self()); }
  void rewriteIdentifiers(IdentifierRewriter& rewriter) override {
    Derived::visit(rewriter, static_cast<Derived&>(*this));
  }

 private:
  const Derived& self() const { return static_cast<const Derived&>(*this); }
};

// A record that says nothing but what triggered it, a value of the table `kTriggers`.
template <class Derived, const auto& kTriggers>
class TriggerFeedback : public FeedbackRecord<Derived, NBFeedback> {
 public:
  static constexpr FeedbackTable eventTypes() { return kTriggers; }

  uint32_t triggerEvent = 0;  // eventTypes()

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    NBFeedback::visit(v, self);
    v.enumeration("trigger_event", self.triggerEvent, eventTypes());
  }
};

}  // namespace orvex
