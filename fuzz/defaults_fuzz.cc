// Feeds arbitrary bytes to the defaults store as its file: every stored key is read through every
// typed accessor, the daemon's own keys too, and a change is written and read back by a second
// store, which must see the same values as the first.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "fuzz/fuzz_support.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/base/property_list.h"
#include "orvexd/platform/defaults_store.h"
#include "orvexd/platform/file_manager.h"

namespace {

using orvex::fuzz::check;

std::filesystem::path g_directory;
std::shared_ptr<orvex::FileManager> g_files;

void readAll(const orvex::DefaultsStore& store, const std::string& key) {
  (void)store.objectForKey(key);
  (void)store.boolForKey(key);
  (void)store.integerForKey(key);
  (void)store.unsignedIntegerForKey(key);
  (void)store.doubleForKey(key);
  (void)store.stringForKey(key);
  (void)store.dateForKey(key);
  (void)store.arrayForKey(key);
  (void)store.dictionaryForKey(key);
}

std::vector<uint8_t> xml(const orvex::PlistDictionary& values) {
  return orvex::serializePropertyList(orvex::PlistValue(values), orvex::PlistFormat::kXml);
}

const char* const kDaemonKeys[] = {"ORVSharedSession",   "ORVSessionSizeLimit",
                                   "ORVSessionMaxAge",   "ORVNoParallax",
                                   "ORVPersistSessions", "ORVNoQueryCache",
                                   "ORVBagURL",          "ORVDebugParameters",
                                   "TraceEnabled",       orvex::kORVMaxUserAgentLengthKey};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // In memory when the machine has it: the store syncs every file it writes.
  const std::filesystem::path base = std::filesystem::is_directory("/dev/shm")
                                         ? "/dev/shm"
                                         : std::filesystem::temp_directory_path();
  g_directory = base / ("orvex-defaults-fuzz-" + std::to_string(::getpid()));
  std::filesystem::create_directories(g_directory);
  orvex::DirectoryEnvironment environment;
  environment.home = environment.tmpdir = g_directory.string();
  environment.xdgCacheHome = environment.xdgConfigHome = g_directory.string();
  g_files = std::make_shared<orvex::FileManager>(environment);
  std::atexit([] { std::filesystem::remove_all(g_directory); });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto file = g_directory / "defaults.plist";
  std::filesystem::remove(g_directory / "defaults.plist.corrupt");
  std::ofstream(file, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));

  orvex::DefaultsStore store(g_files, file);
  const auto values = store.dictionaryRepresentation();
  for (const auto& [key, value] : values) readAll(store, key);
  for (const char* key : kDaemonKeys) readAll(store, key);

  // A change is written (replacing a file that could not be read) and read back whole.
  check(store.setObject("ORVFuzzWritten", int64_t{1}));
  check(store.synchronize());
  const orvex::DefaultsStore reread(g_files, file);
  const auto written = reread.dictionaryRepresentation();
  check(written.size() == values.size() + (values.contains("ORVFuzzWritten") ? 0 : 1));
  check(xml(written) == xml(store.dictionaryRepresentation()));
  return 0;
}
