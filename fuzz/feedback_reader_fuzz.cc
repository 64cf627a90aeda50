// Feeds arbitrary bytes to the feedback readers: as the JSON text of a record's D-Bus form, and
// as a property list holding a record's or an envelope's archive form.
//
// Besides never crashing, whatever is read must survive being written again: a record read from
// D-Bus comes back the same from a session-file archive, an envelope read from an archive
// archives to the same form, and the upload text says what the upload dictionary says.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string_view>

#include "fuzz/fuzz_support.h"
#include "orvexd/model/orvex_feedback.h"

namespace {

using orvex::fuzz::check;

using orvex::OrvexFeedback;

void checkUpload(const OrvexFeedback& envelope) {
  const auto upload = envelope.dictionary();
  check(nlohmann::json::parse(upload.dump()) == upload.toJson());
  check(!envelope.description().empty());
}

void checkRecordFromClient(const orvex::FeedbackRecordPtr& record) {
  const auto envelope = OrvexFeedback::initWithFeedback(record, -3, "guid", "agent/1", 9);
  checkUpload(envelope);
  const auto bytes = envelope.archiveData();
  check(!bytes.empty());
  const auto stored = OrvexFeedback::fromArchiveData(bytes);
  check(stored.ok());
  check(stored.value().feedback()->dbusForm() == record->dbusForm());
  check(stored.value().dictionary().toJson() == envelope.dictionary().toJson());
  check(!orvex::dictionaryWithPropertiesOfObject(*record).empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::span<const uint8_t> bytes(data, size);
  const std::string_view text(reinterpret_cast<const char*>(data), size);

  if (auto record = orvex::NBFeedback::fromDBusText(text)) checkRecordFromClient(record.value());

  if (auto form = orvex::parsePropertyList(bytes)) {
    if (auto record = orvex::NBFeedback::fromArchiveForm(*form)) {
      checkUpload(OrvexFeedback::initWithFeedback(record.value(), 1, {}, ""));
    }
    if (auto envelope = OrvexFeedback::fromArchiveForm(*form)) {
      checkUpload(envelope.value());
      const auto again = OrvexFeedback::fromArchiveData(envelope.value().archiveData());
      check(again.ok());
      check(again.value().archiveForm() == envelope.value().archiveForm());
    }
  }
  return 0;
}
