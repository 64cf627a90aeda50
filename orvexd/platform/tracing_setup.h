// Kernel trace points around client requests.
//
// ORVTracingSetup() reads the defaults key "TraceEnabled" once per process. When it is set, the
// connection layer fires the USDT probe orvexd:trace with a trace code at the start and end of
// each search, card, zero-keyword, feedback and lookup request, so that a tracer attached to
// the daemon (bpftrace -e 'usdt:/path/to/orvexd:orvexd:trace { ... }', perf probe, SystemTap)
// sees them. When it is not set, nothing fires.
#pragma once

#include <cstdint>

namespace orvex {

class DefaultsStore;

enum class TraceCode : uint32_t {
  kSearchStart = 0x2B000004,
  kSearchEnd = 0x2B000008,
  kCardStart = 0x2B00000C,
  kCardEnd = 0x2B000010,
  kZeroKeywordStart = 0x2B00001C,
  kZeroKeywordEnd = 0x2B000020,
  kFeedbackStart = 0x2B000024,
  kFeedbackEnd = 0x2B000028,
  kLookupStart = 0x2B00002C,
  kLookupEnd = 0x2B000030,
};

// Loads ORVTraceEnabled from "TraceEnabled" the first time it is called and logs
// "ORVTraceEnabled flag set to %d"; later calls do nothing.
void ORVTracingSetup(const DefaultsStore& defaults);
bool ORVTraceEnabled();

// Fires the probe with `code` and `argument` (a query id) when tracing is enabled.
void ORVTrace(TraceCode code, uint64_t argument = 0);

// Fires `start` now and `end` when the scope closes.
class ORVTraceScope {
 public:
  ORVTraceScope(TraceCode start, TraceCode end, uint64_t argument = 0);
  ~ORVTraceScope();
  ORVTraceScope(const ORVTraceScope&) = delete;
  ORVTraceScope& operator=(const ORVTraceScope&) = delete;

 private:
  TraceCode end_;
  uint64_t argument_;
};

// How many probes have fired in this process; for tests and diagnostics.
uint64_t ORVTraceFiredCount();

}  // namespace orvex
