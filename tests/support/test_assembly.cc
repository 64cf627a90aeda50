#include "tests/support/test_assembly.h"

#include "orvexd/platform/defaults_store.h"
#include "orvexd/platform/file_manager.h"
#include "orvexd/platform/notification_center.h"

namespace orvex::testing {

TestAssembly::TestAssembly() {
  DirectoryEnvironment directories;
  directories.home = directory.path().string();
  directories.xdgCacheHome = (directory / "cache").string();
  directories.xdgConfigHome = (directory / "config").string();
  directories.tmpdir = (directory / "tmp").string();
  std::filesystem::create_directories(directories.tmpdir);

  assembly = std::make_shared<Assembly>(platform.pool, platform.clock);
  assembly->fileManager = std::make_shared<FileManager>(directories);
  assembly->userDefaults = std::make_shared<DefaultsStore>(
      assembly->fileManager, DefaultsStore::standardPath(*assembly->fileManager));
  assembly->notificationCenter = std::make_shared<NotificationCenter>();
}

TestAssembly::~TestAssembly() {
  // Components may have work in flight on the pool; let it finish before they go.
  platform.settle();
  assembly.reset();
}

}  // namespace orvex::testing
