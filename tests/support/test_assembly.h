// An Assembly for tests: a worker pool and virtual clock the test drives, and the platform
// facilities over a fresh temporary directory (cache, config and temporary directories inside
// it). Components are added by each test as it needs them.
#pragma once

#include <memory>

#include "orvexd/model/assembly.h"
#include "orvexd/platform/clock.h"
#include "orvexd/platform/defaults_store.h"
#include "orvexd/platform/file_manager.h"
#include "orvexd/platform/notification_center.h"
#include "orvexd/platform/system_notifier.h"
#include "orvexd/platform/worker_pool.h"
#include "tests/support/test_environment.h"

namespace orvex::testing {

struct TestAssembly {
  TestAssembly();
  ~TestAssembly();

  void advance(Duration step) { platform.advance(step); }
  void settle() { platform.settle(); }

  TempDir directory;
  VirtualPlatform platform;
  std::shared_ptr<Assembly> assembly;
};

}  // namespace orvex::testing
