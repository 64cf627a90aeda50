#include "orvexd/platform/diagnostic_data_reporter.h"

#include <array>
#include <limits>
#include <mutex>

#include "orvexd/base/log_format.h"
#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/text_util.h"

namespace orvex {
namespace {

struct Counters {
  std::mutex mutex;
  std::map<std::string, int64_t, std::less<>> values;
};

// Never destroyed, so that counting from threads still running at exit stays valid.
Counters& counters() {
  static Counters* const instance = new Counters();
  return *instance;
}

bool acceptKey(std::string_view key, std::string_view operation) {
  if (!key.empty()) return true;
  OrvexLogForCategory(kOrvexLogGeneral)
      .error("Diagnostic counter %@ ignored: the key is empty", operation);
  return false;
}

int64_t saturatingAdd(int64_t a, int64_t b) {
  int64_t sum = 0;
  if (!__builtin_add_overflow(a, b, &sum)) return sum;
  return b > 0 ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
}

}  // namespace

void OrvexDiagnosticDataReporter::setValueForScalarKey(int64_t value, std::string_view key) {
  if (!acceptKey(key, "set")) return;
  Counters& all = counters();
  std::lock_guard lock(all.mutex);
  if (auto found = all.values.find(key); found != all.values.end()) {
    found->second = value;
  } else {
    all.values.emplace(std::string(key), value);
  }
}

void OrvexDiagnosticDataReporter::addValueForScalarKey(int64_t value, std::string_view key) {
  if (!acceptKey(key, "add")) return;
  Counters& all = counters();
  std::lock_guard lock(all.mutex);
  if (auto found = all.values.find(key); found != all.values.end()) {
    found->second = saturatingAdd(found->second, value);
  } else {
    all.values.emplace(std::string(key), value);
  }
}

void OrvexDiagnosticDataReporter::clearScalarKey(std::string_view key) {
  Counters& all = counters();
  std::lock_guard lock(all.mutex);
  if (auto found = all.values.find(key); found != all.values.end()) all.values.erase(found);
}

std::map<std::string, int64_t> OrvexDiagnosticDataReporter::snapshot() {
  Counters& all = counters();
  std::lock_guard lock(all.mutex);
  return std::map<std::string, int64_t>(all.values.begin(), all.values.end());
}

void OrvexDiagnosticDataReporter::resetAllForTesting() {
  Counters& all = counters();
  std::lock_guard lock(all.mutex);
  all.values.clear();
}

std::optional<std::string> extractClientNameFromString(std::string_view text) {
  static constexpr std::array<std::string_view, 7> kNames = {
      "roamer", "glance", "voxa", "lookup", "messages", "news", "orvexd"};
  const std::string lower = asciiLowercase(text);
  for (const auto name : kNames) {
    if (lower.find(name) != std::string::npos) return std::string(name);
  }
  return std::nullopt;
}

std::optional<std::string> createCounterKey(std::optional<std::string_view> clientName,
                                            std::string_view suffix) {
  if (!clientName) return std::nullopt;
  return formatLog("com.zelmor.orvexd.%@.%@", *clientName, suffix);
}

std::string convertIdentifierToString(int64_t identifier) {
  switch (identifier) {
    case 0:
      return "crowdsourcing";
    case 1:
      return "Feedbacks";
    default:
      return "";
  }
}

}  // namespace orvex
