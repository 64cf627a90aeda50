// The daemon's defaults: settings kept in a property list file (by default
// configDirectory()/defaults.plist), which an operator may also edit.
//
// The file holds a dictionary, as XML or binary; it is written back as XML. Values registered
// with registerDefaults() live in memory only: they answer a read when the file's values lack
// the key, and are never written. Changes made with setObject() and removeObjectForKey() are
// kept in memory until synchronize() writes the whole dictionary, atomically and with mode
// 0600. When there is nothing to write, synchronize() reads the file again if its content
// changed, so an operator's edit is picked up.
//
// A file that is not a dictionary property list (garbage, truncated, an array at the top) is
// logged with the parser's reason and read as empty. It is not destroyed: before the first
// write replaces it, it is renamed to "<name>.corrupt" beside it.
//
// Thread-safe: reads share the lock; changes, registrations and synchronize() take it alone.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <vector>

#include "orvexd/base/property_list.h"
#include "orvexd/platform/file_manager.h"

namespace orvex {

class DefaultsStore {
 public:
  // Loads `file` (a missing file reads as empty).
  DefaultsStore(std::shared_ptr<FileManager> fileManager, std::filesystem::path file);

  DefaultsStore(const DefaultsStore&) = delete;
  DefaultsStore& operator=(const DefaultsStore&) = delete;

  // configDirectory()/defaults.plist
  static std::filesystem::path standardPath(const FileManager& fileManager);

  const std::filesystem::path& path() const { return file_; }

  // Adds to the registered values (a key registered again takes the new value).
  void registerDefaults(const PlistDictionary& defaults);

  // The stored value, else the registered one.
  std::optional<PlistValue> objectForKey(std::string_view key) const;
  // true for a true boolean, a non-zero number, or the strings "YES", "true" and "1" in any
  // case; false otherwise and when absent.
  bool boolForKey(std::string_view key) const;
  // From integers (clamped to the int64_t range), reals (truncated, clamped; NaN is 0),
  // booleans (0 or 1) and strings holding a number; 0 otherwise and when absent.
  std::int64_t integerForKey(std::string_view key) const;
  // As integerForKey(), clamped to the uint64_t range (negative numbers give 0).
  std::uint64_t unsignedIntegerForKey(std::string_view key) const;
  // From reals, integers, booleans and strings holding a number; 0 otherwise and when absent.
  double doubleForKey(std::string_view key) const;
  // Strings, and numbers in their decimal form.
  std::optional<std::string> stringForKey(std::string_view key) const;
  std::optional<std::chrono::system_clock::time_point> dateForKey(std::string_view key) const;
  std::optional<PlistArray> arrayForKey(std::string_view key) const;
  std::optional<PlistDictionary> dictionaryForKey(std::string_view key) const;
  // The registered values overlaid with the stored ones.
  PlistDictionary dictionaryRepresentation() const;

  // Stores `value` under `key` until the next synchronize() writes it. A value that cannot be
  // written to a property list (see property_list.h) is refused with a log line and false.
  bool setObject(std::string_view key, PlistValue value);
  void removeObjectForKey(std::string_view key);

  // Writes the stored values when they changed since the last write or read (replacing any
  // edit made on disk in the meantime); otherwise reads the file again when its content
  // changed. False when writing failed (the changes stay
  // pending) or the file could not be read.
  bool synchronize();

 private:
  // The outcome of reading the file: its values, the content they were read from (nullopt:
  // no file), and whether the file exists but cannot be used, and why.
  struct Loaded {
    PlistDictionary values;
    std::optional<std::vector<std::uint8_t>> bytes;
    bool unusable = false;
    std::string problem;
  };
  Loaded load() const;
  // Makes `loaded` the current state, logging an unusable file.
  void adoptLocked(Loaded loaded);
  const PlistValue* findLocked(std::string_view key) const;
  bool writeLocked();

  // Set at construction, never changed.
  const std::shared_ptr<FileManager> fileManager_;
  const std::filesystem::path file_;

  mutable std::shared_mutex mutex_;
  // Guarded by mutex_: the values of the file with the changes made since.
  PlistDictionary values_;
  // Guarded by mutex_: the registered values.
  PlistDictionary registered_;
  // Guarded by mutex_: whether values_ holds changes not yet written.
  bool dirty_ = false;
  // Guarded by mutex_: the content last read from or written to the file (nullopt: no file).
  std::optional<std::vector<std::uint8_t>> fileBytes_;
  // Guarded by mutex_: the file on disk could not be used and must be kept aside before the
  // next write replaces it.
  bool fileUnusable_ = false;
};

}  // namespace orvex
