#include "orvexd/platform/tracing_setup.h"

#include <sys/sdt.h>

#include <atomic>
#include <mutex>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/platform/defaults_store.h"

namespace orvex {

namespace {
std::once_flag gTraceOnce;
std::atomic<bool> gTraceEnabled{false};
std::atomic<uint64_t> gTraceFired{0};
}  // namespace

void ORVTracingSetup(const DefaultsStore& defaults) {
  std::call_once(gTraceOnce, [&defaults] {
    const bool enabled = defaults.boolForKey(kTraceEnabledKey);
    gTraceEnabled.store(enabled);
    OrvexLogForCategory(kOrvexLogGeneral).info("ORVTraceEnabled flag set to %d", enabled);
  });
}

bool ORVTraceEnabled() { return gTraceEnabled.load(std::memory_order_relaxed); }

void ORVTrace(TraceCode code, uint64_t argument) {
  if (!ORVTraceEnabled()) return;
  const auto value = static_cast<uint32_t>(code);
  DTRACE_PROBE2(orvexd, trace, value, argument);
  gTraceFired.fetch_add(1, std::memory_order_relaxed);
}

ORVTraceScope::ORVTraceScope(TraceCode start, TraceCode end, uint64_t argument)
    : end_(end), argument_(argument) {
  ORVTrace(start, argument_);
}

ORVTraceScope::~ORVTraceScope() { ORVTrace(end_, argument_); }

uint64_t ORVTraceFiredCount() { return gTraceFired.load(); }

}  // namespace orvex
