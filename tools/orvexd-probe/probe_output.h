// How the probe helpers answer: the JSON answer on standard output, a one-line reason on
// standard error when they fail.
#pragma once

#include <errno.h>  // program_invocation_short_name

#include <cstdio>
#include <string>

namespace orvex::probe {

inline int fail(const std::string& reason, int status = 1) {
  std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, reason.c_str());
  return status;
}

inline int print(const std::string& json) {
  if (std::fwrite(json.data(), 1, json.size(), stdout) != json.size() ||
      std::fputc('\n', stdout) == EOF || std::fflush(stdout) != 0) {
    return fail("cannot write the answer to standard output");
  }
  return 0;
}

}  // namespace orvex::probe
