// Tells a component when the system is short of memory, so that it can drop what it can rebuild.
//
// The Linux form reads pressure stall information: it registers a trigger on
// /proc/pressure/memory ("full" stall: every runnable task waiting for memory) and calls its
// handler each time the kernel reports that the stall passed the trigger's threshold within its
// window, which is the critical level. Without PSI (older kernels, kernels built without it, or
// a path that does not support the trigger) no source is made and nothing is ever reported.
#pragma once

#include <functional>
#include <memory>
#include <string>

namespace orvex {

class WorkerPool;

class MemoryPressureSource {
 public:
  // The handler is not called again once the source is destroyed; a call in progress on
  // another thread may still finish.
  virtual ~MemoryPressureSource() = default;
};

// Makes a source whose handler runs on a worker thread at critical pressure, or nothing when the
// platform cannot report it. The handler must only hand work on (post it to a queue).
using MemoryPressureSourceFactory =
    std::function<std::unique_ptr<MemoryPressureSource>(std::function<void()> onCriticalPressure)>;

struct PsiTrigger {
  std::string path = "/proc/pressure/memory";
  // 150 ms of full stall within a 2 s window. Windows of whole multiples of 2 s are allowed to
  // unprivileged processes too.
  std::string trigger = "full 150000 2000000";
};

// The PSI source; nothing when `trigger.path` is missing or refuses the trigger (logged at debug
// level, since that is the normal state of kernels without PSI).
std::unique_ptr<MemoryPressureSource> makePsiMemoryPressureSource(
    WorkerPool& pool, std::function<void()> onCriticalPressure, const PsiTrigger& trigger = {});

// The factory of PSI sources on `pool`, which must outlive every source it makes.
MemoryPressureSourceFactory psiMemoryPressureSourceFactory(WorkerPool& pool);

}  // namespace orvex
