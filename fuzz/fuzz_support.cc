#include "fuzz/fuzz_support.h"

#include "orvexd/base/orvex_logging.h"

namespace {

// Before LLVMFuzzerInitialize: a target's own set-up logs nothing either.
const bool kQuietLogs = [] {
  orvex::setLogThreshold(orvex::LogLevel::kFault);
  return true;
}();

}  // namespace
