#include "orvexd/platform/defaults_store.h"

#include <gtest/gtest.h>

#include <limits>
#include <mutex>
#include <thread>

#include "orvexd/base/orvex_logging.h"
#include "tests/support/test_environment.h"

namespace orvex {
namespace {

namespace fs = std::filesystem;

using testing::readTextFile;
using testing::writeTextFile;

class DefaultsStoreTest : public ::testing::Test {
 protected:
  testing::TempDir dir;
  std::shared_ptr<FileManager> files = std::make_shared<FileManager>(DirectoryEnvironment{
      dir.path().string(), (dir / "cache").string(), (dir / "config").string(), ""});
  fs::path file = DefaultsStore::standardPath(*files);
};

TEST_F(DefaultsStoreTest, ReadsValuesWithTheirConversions) {
  EXPECT_EQ(file, dir / "config/com.zelmor.orvexd/defaults.plist");
  DefaultsStore store(files, file);
  const auto when =
      std::chrono::system_clock::time_point(std::chrono::microseconds(1700000000123456));
  const PlistDictionary values{{"yes", "yes"},
                               {"one", "1"},
                               {"two", 2},
                               {"no", "no"},
                               {"real", 3.9},
                               {"negReal", -3.9},
                               {"text", " -7 "},
                               {"decimal", "2.5"},
                               {"flag", true},
                               {"word", "abc"},
                               {"neg", -4},
                               {"when", PlistDate(when)},
                               {"list", PlistArray{1, "a"}},
                               {"map", PlistDictionary{{"k", 1}}},
                               {"huge", std::numeric_limits<std::uint64_t>::max()}};
  for (const auto& [key, value] : values) ASSERT_TRUE(store.setObject(key, value));

  for (const char* key : {"yes", "one", "two", "flag", "huge"}) EXPECT_TRUE(store.boolForKey(key));
  for (const char* key : {"no", "word", "absent", "list"}) EXPECT_FALSE(store.boolForKey(key));

  EXPECT_EQ(store.integerForKey("real"), 3);
  EXPECT_EQ(store.integerForKey("negReal"), -3);
  EXPECT_EQ(store.integerForKey("text"), -7);
  EXPECT_EQ(store.integerForKey("decimal"), 2);
  EXPECT_EQ(store.integerForKey("word"), 0);
  EXPECT_EQ(store.integerForKey("huge"), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(store.unsignedIntegerForKey("huge"), std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(store.unsignedIntegerForKey("neg"), 0u);
  EXPECT_EQ(store.doubleForKey("decimal"), 2.5);

  EXPECT_EQ(store.stringForKey("word"), "abc");
  EXPECT_EQ(store.stringForKey("two"), "2");
  EXPECT_EQ(store.stringForKey("flag"), std::nullopt);
  EXPECT_EQ(store.dateForKey("when"), when);
  EXPECT_EQ(store.arrayForKey("list"), (PlistArray{1, "a"}));
  EXPECT_EQ(store.arrayForKey("map"), std::nullopt);
  EXPECT_EQ(store.dictionaryForKey("map"), (PlistDictionary{{"k", 1}}));

  // What no file could hold is refused.
  EXPECT_FALSE(store.setObject("bad", std::string("a\0b", 3)));
  EXPECT_FALSE(store.setObject(std::string("k\0", 2), 1));
  EXPECT_EQ(store.objectForKey("bad"), std::nullopt);
}

TEST_F(DefaultsStoreTest, WritesXmlWithMode0600ThatAFreshStoreReadsBack) {
  DefaultsStore store(files, file);
  store.registerDefaults({{"registered", 1}, {"stored", 1}});
  ASSERT_TRUE(store.setObject("stored", 2));
  ASSERT_TRUE(store.setObject("date", PlistDate(std::chrono::system_clock::time_point{})));
  ASSERT_TRUE(store.setObject("gone", "soon"));
  store.removeObjectForKey("gone");
  EXPECT_EQ(store.integerForKey("stored"), 2);  // the stored value wins
  EXPECT_EQ(store.integerForKey("registered"), 1);
  EXPECT_FALSE(fs::exists(file));  // nothing is written before synchronize()

  ASSERT_TRUE(store.synchronize());
  EXPECT_EQ(files->attributesOfItem(file)->mode & 07777, 0600u);
  const auto text = readTextFile(file);
  EXPECT_TRUE(text.starts_with("<?xml")) << text;
  EXPECT_EQ(text.find("registered"), std::string::npos) << text;

  DefaultsStore fresh(files, file);
  EXPECT_EQ(fresh.dictionaryRepresentation(),
            (PlistDictionary{{"stored", 2},
                             {"date", PlistDate(std::chrono::system_clock::time_point{})}}));
  fresh.registerDefaults({{"registered", 1}});
  fresh.removeObjectForKey("stored");
  EXPECT_EQ(fresh.objectForKey("registered"), PlistValue(1));
  ASSERT_TRUE(fresh.synchronize());
  EXPECT_EQ(readTextFile(file).find("registered"), std::string::npos);

  // A binary file is read as well.
  testing::writeBytes(
      file, serializePropertyList(PlistDictionary{{"binary", -12}}, PlistFormat::kBinary));
  EXPECT_EQ(DefaultsStore(files, file).integerForKey("binary"), -12);
}

TEST_F(DefaultsStoreTest, PicksUpEditsMadeOnDiskWhenThereIsNothingToWrite) {
  DefaultsStore store(files, file);
  EXPECT_TRUE(store.synchronize());  // no file yet: nothing to do
  ASSERT_TRUE(store.setObject("value", 1));
  ASSERT_TRUE(store.synchronize());

  writeTextFile(file, "<plist><dict><key>value</key><integer>2</integer></dict></plist>");
  EXPECT_EQ(store.integerForKey("value"), 1);
  EXPECT_TRUE(store.synchronize());
  EXPECT_EQ(store.integerForKey("value"), 2);

  fs::remove(file);
  EXPECT_TRUE(store.synchronize());
  EXPECT_EQ(store.objectForKey("value"), std::nullopt);
}

// (A file that reads but holds no dictionary: the defaults fuzz target's seeds.)
TEST_F(DefaultsStoreTest, KeepsAnUnreadableFileAsideInsteadOfDestroyingIt) {
  const std::string content = "<plist><dict><key>Trace";
  ASSERT_FALSE(files->ensureDirectory(file.parent_path()));
  writeTextFile(file, content);
  std::mutex mutex;
  std::vector<std::string> errors;
  const auto observer = addLogObserver([&](const LogRecord& record) {
    std::lock_guard lock(mutex);
    if (record.level == LogLevel::kError) errors.emplace_back(record.message);
  });

  DefaultsStore store(files, file);
  EXPECT_TRUE(store.dictionaryRepresentation().empty());
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_NE(errors[0].find(file.string()), std::string::npos) << errors[0];
  EXPECT_NE(errors[0].find("is not closed"), std::string::npos) << errors[0];

  EXPECT_FALSE(store.synchronize());  // nothing to write: the file stays as it is
  EXPECT_EQ(readTextFile(file), content);
  EXPECT_EQ(errors.size(), 1u);  // and is not reported again while unchanged

  ASSERT_TRUE(store.setObject("fresh", true));
  ASSERT_TRUE(store.synchronize());
  EXPECT_EQ(readTextFile(file.string() + ".corrupt"), content);
  EXPECT_TRUE(DefaultsStore(files, file).boolForKey("fresh"));
  ASSERT_EQ(errors.size(), 2u);
  EXPECT_NE(errors[1].find("kept unreadable defaults file"), std::string::npos) << errors[1];
}

TEST_F(DefaultsStoreTest, ServesReadersWhileWritersChangeValues) {
  DefaultsStore store(files, file);
  store.registerDefaults({{"counter", 0}});
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&store, t] {
      for (int i = 0; i < 200; ++i) {
        if (t == 0) {
          store.setObject("counter", i);
          if (i % 50 == 0) store.synchronize();
        } else {
          const auto value = store.integerForKey("counter");
          EXPECT_TRUE(value >= 0 && value < 200);
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(store.integerForKey("counter"), 199);
  ASSERT_TRUE(store.synchronize());
  EXPECT_EQ(DefaultsStore(files, file).integerForKey("counter"), 199);
}

}  // namespace
}  // namespace orvex
