#include "orvexd/platform/defaults_store.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <limits>
#include <mutex>
#include <utility>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/text_util.h"

namespace orvex {
namespace {

constexpr const char* kFileName = "defaults.plist";
constexpr const char* kCorruptSuffix = ".corrupt";

template <typename T>
std::optional<T> parseWhole(std::string_view text) {
  T value{};
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || result.ec != std::errc{} || result.ptr != text.data() + text.size()) {
    return std::nullopt;
  }
  return value;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
    return std::tolower(static_cast<unsigned char>(x)) ==
           std::tolower(static_cast<unsigned char>(y));
  });
}

}  // namespace

DefaultsStore::DefaultsStore(std::shared_ptr<FileManager> fileManager, std::filesystem::path file)
    : fileManager_(std::move(fileManager)), file_(std::move(file)) {
  adoptLocked(load());
}

std::filesystem::path DefaultsStore::standardPath(const FileManager& fileManager) {
  return fileManager.configDirectory() / kFileName;
}

DefaultsStore::Loaded DefaultsStore::load() const {
  Loaded loaded;
  std::error_code error;
  auto bytes = fileManager_->readFile(file_, error);
  if (!bytes) {
    if (error != std::errc::no_such_file_or_directory) {
      loaded.unusable = true;
      loaded.problem = "cannot read it: " + error.message();
    }
    return loaded;
  }
  std::string why;
  auto value = parsePropertyList(*bytes, &why);
  loaded.bytes = std::move(bytes);
  if (value && value->asDictionary() != nullptr) {
    loaded.values = std::move(*value->asDictionary());
    return loaded;
  }
  loaded.unusable = true;
  loaded.problem = value ? "the top-level value is not a dictionary" : why;
  return loaded;
}

void DefaultsStore::adoptLocked(Loaded loaded) {
  if (loaded.unusable) {
    OrvexLogForCategory(kOrvexLogGeneral)
        .error(
            "defaults file %@ is not a readable dictionary property list, using no stored "
            "values: %@",
            file_.string(), loaded.problem);
  }
  values_ = std::move(loaded.values);
  fileBytes_ = std::move(loaded.bytes);
  fileUnusable_ = loaded.unusable;
  dirty_ = false;
}

const PlistValue* DefaultsStore::findLocked(std::string_view key) const {
  if (const auto found = values_.find(key); found != values_.end()) return &found->second;
  if (const auto found = registered_.find(key); found != registered_.end()) {
    return &found->second;
  }
  return nullptr;
}

void DefaultsStore::registerDefaults(const PlistDictionary& defaults) {
  std::unique_lock lock(mutex_);
  for (const auto& [key, value] : defaults) registered_.insert_or_assign(key, value);
}

std::optional<PlistValue> DefaultsStore::objectForKey(std::string_view key) const {
  std::shared_lock lock(mutex_);
  if (const PlistValue* value = findLocked(key)) return *value;
  return std::nullopt;
}

bool DefaultsStore::boolForKey(std::string_view key) const {
  std::shared_lock lock(mutex_);
  const PlistValue* value = findLocked(key);
  if (value == nullptr) return false;
  if (const auto flag = value->asBool()) return *flag;
  if (value->isUnsignedInteger()) return true;
  if (const auto number = value->asDouble()) return *number != 0;
  if (const std::string* text = value->asString()) {
    const std::string_view word = trimWhitespace(*text);
    return equalsIgnoringCase(word, "YES") || equalsIgnoringCase(word, "true") || word == "1";
  }
  return false;
}

std::int64_t DefaultsStore::integerForKey(std::string_view key) const {
  std::shared_lock lock(mutex_);
  const PlistValue* value = findLocked(key);
  if (value == nullptr) return 0;
  if (const auto integer = value->asInteger()) return *integer;
  if (value->isUnsignedInteger()) return std::numeric_limits<std::int64_t>::max();
  if (const auto flag = value->asBool()) return *flag ? 1 : 0;
  if (const auto real = value->asDouble()) return saturatingInt64(*real);
  if (const std::string* text = value->asString()) {
    const std::string_view number = trimWhitespace(*text);
    if (const auto integer = parseWhole<std::int64_t>(number)) return *integer;
    if (const auto real = parseWhole<double>(number)) return saturatingInt64(*real);
  }
  return 0;
}

std::uint64_t DefaultsStore::unsignedIntegerForKey(std::string_view key) const {
  std::shared_lock lock(mutex_);
  const PlistValue* value = findLocked(key);
  if (value == nullptr) return 0;
  if (const auto integer = value->asUnsignedInteger()) return *integer;
  if (value->asInteger()) return 0;  // negative
  if (const auto flag = value->asBool()) return *flag ? 1 : 0;
  if (const auto real = value->asDouble()) return saturatingUint64(*real);
  if (const std::string* text = value->asString()) {
    const std::string_view number = trimWhitespace(*text);
    if (const auto integer = parseWhole<std::uint64_t>(number)) return *integer;
    if (parseWhole<std::int64_t>(number)) return 0;  // negative
    if (const auto real = parseWhole<double>(number)) return saturatingUint64(*real);
  }
  return 0;
}

double DefaultsStore::doubleForKey(std::string_view key) const {
  std::shared_lock lock(mutex_);
  const PlistValue* value = findLocked(key);
  if (value == nullptr) return 0;
  if (const auto real = value->asDouble()) return *real;
  if (const auto flag = value->asBool()) return *flag ? 1 : 0;
  if (const std::string* text = value->asString()) {
    if (const auto real = parseWhole<double>(trimWhitespace(*text))) return *real;
  }
  return 0;
}

std::optional<std::string> DefaultsStore::stringForKey(std::string_view key) const {
  std::shared_lock lock(mutex_);
  const PlistValue* value = findLocked(key);
  if (value == nullptr) return std::nullopt;
  if (const std::string* text = value->asString()) return *text;
  if (value->type() == PlistType::kInteger || value->type() == PlistType::kReal) {
    return value->describe();
  }
  return std::nullopt;
}

std::optional<std::chrono::system_clock::time_point> DefaultsStore::dateForKey(
    std::string_view key) const {
  std::shared_lock lock(mutex_);
  const PlistValue* value = findLocked(key);
  if (value == nullptr) return std::nullopt;
  if (const auto date = value->asDate()) return date->timePoint();
  return std::nullopt;
}

std::optional<PlistArray> DefaultsStore::arrayForKey(std::string_view key) const {
  std::shared_lock lock(mutex_);
  const PlistValue* value = findLocked(key);
  if (value == nullptr || value->asArray() == nullptr) return std::nullopt;
  return *value->asArray();
}

std::optional<PlistDictionary> DefaultsStore::dictionaryForKey(std::string_view key) const {
  std::shared_lock lock(mutex_);
  const PlistValue* value = findLocked(key);
  if (value == nullptr || value->asDictionary() == nullptr) return std::nullopt;
  return *value->asDictionary();
}

PlistDictionary DefaultsStore::dictionaryRepresentation() const {
  std::shared_lock lock(mutex_);
  PlistDictionary merged = values_;
  merged.insert(registered_.begin(), registered_.end());  // keeps the stored values
  return merged;
}

bool DefaultsStore::setObject(std::string_view key, PlistValue value) {
  std::string why;
  // Keys follow the rules of strings.
  if (!PlistValue(key).isWritable(&why) || !value.isWritable(&why)) {
    OrvexLogForCategory(kOrvexLogGeneral)
        .error("refusing defaults value for key %@: %@", std::string(key), why);
    return false;
  }
  std::unique_lock lock(mutex_);
  values_.insert_or_assign(std::string(key), std::move(value));
  dirty_ = true;
  return true;
}

void DefaultsStore::removeObjectForKey(std::string_view key) {
  std::unique_lock lock(mutex_);
  if (const auto found = values_.find(key); found != values_.end()) {
    values_.erase(found);
    dirty_ = true;
  }
}

bool DefaultsStore::synchronize() {
  std::unique_lock lock(mutex_);
  if (dirty_) return writeLocked();
  Loaded loaded = load();
  const bool usable = !loaded.unusable;
  if (loaded.bytes != fileBytes_ || loaded.unusable != fileUnusable_) {
    OrvexLogForCategory(kOrvexLogGeneral)
        .info("defaults file %@ changed on disk, reading it again", file_.string());
    adoptLocked(std::move(loaded));
  }
  return usable;
}

bool DefaultsStore::writeLocked() {
  const auto log = [] { return &OrvexLogForCategory(kOrvexLogGeneral); };
  if (file_.has_parent_path()) {
    if (const auto error = fileManager_->ensureDirectory(file_.parent_path(), 0700)) {
      log()->error("cannot write defaults file %@: %@", file_.string(), error.message());
      return false;
    }
  }
  if (fileUnusable_) {
    // The unreadable file is the operator's to inspect: it goes aside, not away.
    auto keptAs = file_;
    keptAs += kCorruptSuffix;
    std::error_code error;
    std::filesystem::rename(file_, keptAs, error);
    if (error && error != std::errc::no_such_file_or_directory) {
      log()->error("cannot keep unreadable defaults file %@ as %@, not writing it: %@",
                   file_.string(), keptAs.string(), error.message());
      return false;
    }
    if (!error) {
      log()->error("kept unreadable defaults file %@ as %@", file_.string(), keptAs.string());
    }
    fileUnusable_ = false;
  }
  auto bytes = serializePropertyList(PlistValue(values_), PlistFormat::kXml);
  if (bytes.empty()) return false;  // serializePropertyList logged why
  if (const auto error = fileManager_->writeFileAtomically(file_, bytes, 0600)) return false;
  fileBytes_ = std::move(bytes);
  dirty_ = false;
  return true;
}

}  // namespace orvex
