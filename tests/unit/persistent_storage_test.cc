#include "orvexd/feedback/persistent_storage.h"

#include <gtest/gtest.h>

#include "orvexd/base/orvex_names.h"
#include "orvexd/platform/diagnostic_data_reporter.h"
#include "tests/support/log_capture.h"
#include "tests/support/test_assembly.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

using testing::counterValue;
using testing::readBytes;
using testing::writeBytes;

void appendRecord(std::vector<uint8_t>& file, std::span<const uint8_t> archive) {
  const uint64_t length = archive.size();
  const auto* lengthBytes = reinterpret_cast<const uint8_t*>(&length);
  file.insert(file.end(), lengthBytes, lengthBytes + sizeof length);
  file.insert(file.end(), archive.begin(), archive.end());
}

PlistDictionary clientSession() {
  return {{"$class", "ClientSession"}, {"agent", "news/1.0"}, {"first_use", true}};
}

OrvexFeedback envelope(int64_t queryId) {
  auto start = std::make_shared<NBStartSearchFeedback>();
  start->input = "weather in paris";
  start->queryId = static_cast<uint64_t>(queryId);
  return OrvexFeedback::initWithFeedback(start, queryId, "6F1A3C2E-0000-4000-8000-000000000001",
                                         "news/1.0");
}

std::vector<int64_t> queryIds(const StoredSession& session) {
  std::vector<int64_t> ids;
  for (const auto& feedback : session.feedbacks) ids.push_back(feedback.queryId());
  return ids;
}

struct StorageTest : ::testing::Test {
  StorageTest() { (void)test.assembly->fileManager->ensureDirectory(cacheDirectory); }
  std::shared_ptr<OrvexPersistentStorage> makeStorage() {
    return std::make_shared<OrvexPersistentStorage>(*test.assembly, kORVOrvexdNameVersion);
  }
  // A session file with the header and the given records, written through the storage and
  // closed; its container is listed.
  std::shared_ptr<FileContainer> writeSession(OrvexPersistentStorage& storage,
                                              std::initializer_list<int64_t> ids) {
    auto container = storage.createFileContainerForWriting();
    if (!container) return nullptr;
    container->writeSessionHeader(clientSession());
    for (int64_t id : ids) container->writeFeedback(envelope(id));
    storage.closeSessionWithFileContainer(container);
    (void)storage.getAvailableSessionHandles();  // waits for the queue
    return container;
  }
  std::shared_ptr<FileContainer> reader(const fs::path& file, uint64_t maxFileSize) {
    return FileContainer::initWithUrl(file, kORVOrvexdNameVersion, queue, maxFileSize);
  }

  testing::TestAssembly test;
  const fs::path cacheDirectory = test.assembly->fileManager->cacheDirectory();
  std::shared_ptr<SerialQueue> queue = std::make_shared<SerialQueue>(
      "com.zelmor.orvexd.test", *test.platform.pool, *test.platform.clock);
  testing::LogCapture logs;
};

// (How the records of a file read back, whole or cut: the session crash test, over the daemon's
// own files.)
TEST_F(StorageTest, WritesPrivateFilesThatAClosedContainerNoLongerChanges) {
  auto storage = makeStorage();
  EXPECT_EQ(storage->nextHandleId(), 1);  // an empty directory
  auto container = writeSession(*storage, {11, 12, 13});
  ASSERT_TRUE(container);
  EXPECT_EQ(container->fileUrl(), cacheDirectory / "session.1");
  EXPECT_EQ(test.assembly->fileManager->attributesOfItem(container->fileUrl())->mode & 07777,
            0600u);

  const auto bytes = readBytes(container->fileUrl());
  container->writeFeedback(envelope(14));
  (void)storage->getAvailableSessionHandles();
  EXPECT_EQ(readBytes(container->fileUrl()), bytes);

  storage->deleteSessionWithFileContainer(container);
  EXPECT_TRUE(storage->getAvailableSessionHandles().empty());
  EXPECT_FALSE(fs::exists(container->fileUrl()));
  EXPECT_TRUE(logs.contains("delete file url " + container->fileUrl().string()));
}

TEST_F(StorageTest, SizeLimitIsStrictOnWriteAndInclusiveOnRead) {
  // Measure one header and one record with a roomy limit.
  auto roomy = makeStorage();
  auto measured = writeSession(*roomy, {});
  const uint64_t headerSize = fs::file_size(measured->fileUrl());
  const uint64_t recordSize = 8 + envelope(1).archiveData().size();

  // A record that would end the file exactly at the limit is refused and counted.
  ASSERT_TRUE(test.assembly->userDefaults->setObject(
      kORVSessionSizeLimitKey, static_cast<int64_t>(headerSize + 2 * recordSize)));
  auto limited = makeStorage();
  const int64_t exceededBefore = counterValue(kORVCounterFileSizeExceeded);
  const int64_t droppedBefore = counterValue(kORVCounterRecordsDropped);
  auto container = writeSession(*limited, {1, 2});
  ASSERT_TRUE(container);
  EXPECT_EQ(counterValue(kORVCounterFileSizeExceeded), exceededBefore + 1);
  EXPECT_EQ(counterValue(kORVCounterRecordsDropped), droppedBefore + 1);
  const uint64_t written = headerSize + recordSize;
  EXPECT_EQ(fs::file_size(container->fileUrl()), written);
  EXPECT_TRUE(logs.contains("bytes written (" + std::to_string(written) + ") + feedback (" +
                            std::to_string(recordSize) + ") exceeds max session size (" +
                            std::to_string(headerSize + 2 * recordSize) + ")"));
  // What the file holds stays readable.
  auto session = container->read();
  ASSERT_TRUE(session);
  EXPECT_EQ(queryIds(*session), (std::vector<int64_t>{1}));

  // One byte more and the same record fits.
  ASSERT_TRUE(test.assembly->userDefaults->setObject(
      kORVSessionSizeLimitKey, static_cast<int64_t>(written + recordSize + 1)));
  auto fits = makeStorage()->createFileContainerForWriting();
  ASSERT_TRUE(fits);
  fits->writeSessionHeader(clientSession());
  fits->writeFeedback(envelope(1));
  fits->writeFeedback(envelope(2));
  EXPECT_EQ(fits->read()->feedbacks.size(), 2u);

  // Reading accepts a file of exactly the limit and refuses one byte more.
  EXPECT_TRUE(reader(container->fileUrl(), written)->read());
  const int64_t tooLargeBefore = counterValue(kORVCounterFileTooLarge);
  EXPECT_FALSE(reader(container->fileUrl(), written - 1)->read());
  EXPECT_EQ(counterValue(kORVCounterFileTooLarge), tooLargeBefore + 1);
  EXPECT_TRUE(logs.contains("Session too big to process"));
}

TEST_F(StorageTest, DamagedFilesYieldTheWholeRecordsBeforeTheDamage) {
  auto storage = makeStorage();
  auto container = writeSession(*storage, {1, 2, 3});
  const auto whole = readBytes(container->fileUrl());
  const fs::path file = test.directory.path() / "damaged";
  const auto readIds = [&](std::span<const uint8_t> bytes) -> std::optional<std::vector<int64_t>> {
    writeBytes(file, bytes);
    auto session = reader(file, OrvexPersistentStorage::kDefaultMaxFileSize)->read();
    if (!session) return std::nullopt;
    return queryIds(*session);
  };
  const size_t recordSize = 8 + envelope(3).archiveData().size();

  // (Files cut inside a record: the session crash test, at every cut.) Bytes that are no archive,
  // and an object that is no feedback, each stop the reading with what came before.
  auto withTail = [&](std::span<const uint8_t> tail) {
    std::vector<uint8_t> bytes(whole.begin(), whole.end() - static_cast<long>(recordSize));
    bytes.insert(bytes.end(), tail.begin(), tail.end());
    bytes.insert(bytes.end(), whole.end() - static_cast<long>(recordSize), whole.end());
    return bytes;
  };
  std::vector<uint8_t> garbage;
  appendRecord(garbage, std::vector<uint8_t>{'n', 'o', 't', ' ', 'a', 'n', ' ', 'a', 'r', 'c'});
  const size_t garbageAt = whole.size() - recordSize;
  EXPECT_EQ(readIds(withTail(garbage)), (std::vector<int64_t>{1, 2}));
  EXPECT_TRUE(logs.contains("could not unarchive feedback range " + std::to_string(garbageAt) +
                            " size " + std::to_string(whole.size() + garbage.size())));
  std::vector<uint8_t> stranger;
  appendRecord(stranger, serializePropertyList(clientSession(), PlistFormat::kBinary));
  EXPECT_EQ(readIds(withTail(stranger)), (std::vector<int64_t>{1, 2}));
  EXPECT_TRUE(logs.contains("orvex feedback expected"));

  // Without the two leading records nothing is read. The version record is short, so its length is
  // its first byte.
  const long versionEnd = 8 + static_cast<long>(whole[0]);
  std::vector<uint8_t> otherVersion;
  appendRecord(otherVersion, serializePropertyList("orvexd/0.9", PlistFormat::kBinary));
  otherVersion.insert(otherVersion.end(), whole.begin() + versionEnd, whole.end());
  EXPECT_EQ(readIds(otherVersion), std::nullopt);
  EXPECT_TRUE(logs.contains("version not supported: orvexd/0.9"));
  std::vector<uint8_t> noSession(whole.begin(), whole.begin() + versionEnd);
  appendRecord(noSession, envelope(1).archiveData());
  EXPECT_EQ(readIds(noSession), std::nullopt);
  EXPECT_TRUE(logs.contains("client session not stored"));
  EXPECT_EQ(readIds(std::span(whole).subspan(static_cast<size_t>(versionEnd))), std::nullopt);
  EXPECT_TRUE(logs.contains("version string not stored"));
}

TEST_F(StorageTest, StartUpScanExpiresOldFilesAndNumbersAfterTheSurvivors) {
  const fs::path& directory = cacheDirectory;
  test.platform.clock->setWallTime(std::chrono::system_clock::now());
  // session.9 is made first, so it is older than session.3.
  for (const char* name : {"session.9", "session.3", ".session.40", "other.50"}) {
    auto storage = makeStorage();  // only to write a valid file under each name
    auto container = writeSession(*storage, {1});
    fs::rename(container->fileUrl(), directory / name);
  }
  const auto created = [&](const char* name) {
    return test.assembly->fileManager->attributesOfItem(directory / name)->creationDate;
  };
  ASSERT_LT(created("session.9"), created("session.3"));

  // session.3 is exactly the maximum age old and stays; session.9 is older and goes.
  test.platform.clock->setWallTime(created("session.3") + 172800s);
  const int64_t tooOldBefore = counterValue(kORVCounterFileTooOld);
  auto storage = makeStorage();
  EXPECT_EQ(counterValue(kORVCounterFileTooOld), tooOldBefore + 1);
  EXPECT_FALSE(fs::exists(directory / "session.9"));
  const auto listed = storage->getAvailableSessionHandles();
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(listed[0]->fileUrl(), directory / "session.3");
  EXPECT_EQ(queryIds(*listed[0]->read()), (std::vector<int64_t>{1}));
  EXPECT_EQ(storage->createFileContainerForWriting()->fileUrl(), directory / "session.4");

  // A restart numbers after the greatest survivor, never over it, and lists the files by number.
  fs::copy_file(directory / "session.3", directory / "session.9");
  fs::copy_file(directory / "session.3", directory / "session.10");
  auto restarted = makeStorage();
  std::vector<std::string> names;
  for (const auto& file : restarted->getAvailableSessionHandles()) {
    names.push_back(file->fileUrl().filename().string());
  }
  EXPECT_EQ(names, (std::vector<std::string>{"session.3", "session.9", "session.10"}));
  EXPECT_EQ(restarted->createFileContainerForWriting()->fileUrl(), directory / "session.11");
}

}  // namespace
}  // namespace orvex
