// orvexd-probe-applications: the installed-application scan of the probe helper, through
// AppStream. orvexd-probe hands its "applications" command here, so that the locale command,
// run at every start-up, does not load AppStream and the libraries it brings.
//
//   orvexd-probe-applications [--max-files N] [--max-file-bytes N] [--max-identifier-bytes N]
//                             [--max-version-bytes N] [--] DIRECTORY...
//       The applications described by the metainfo files in the directories, as JSON.
//
// The answer goes to standard output, log lines to standard error; the exit status is 0 on
// success, otherwise non-zero with a one-line reason on standard error.
#include <algorithm>
#include <cstddef>
#include <exception>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "orvexd/platform/metainfo_reader.h"
#include "orvexd/platform/probe_codec.h"
#include "tools/orvexd-probe/probe_output.h"

namespace {

using orvex::probe::fail;
using orvex::probe::print;

constexpr char kUsage[] =
    "usage: orvexd-probe applications [--max-files N] [--max-file-bytes N] "
    "[--max-identifier-bytes N] [--max-version-bytes N] [--] DIRECTORY...";

// A limit's value: a whole number from 1 to 2^32.
bool parseLimit(std::string_view text, std::size_t& out) {
  if (text.empty() || text.size() > 10) return false;
  std::size_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<std::size_t>(c - '0');
  }
  if (value == 0 || value > (std::size_t{1} << 32)) return false;
  out = value;
  return true;
}

int applications(const std::vector<std::string_view>& arguments) {
  orvex::InstalledApplicationLimits limits;
  const std::pair<std::string_view, std::size_t*> options[] = {
      {"--max-files", &limits.maxFiles},
      {"--max-file-bytes", &limits.maxFileBytes},
      {"--max-identifier-bytes", &limits.maxIdentifierBytes},
      {"--max-version-bytes", &limits.maxVersionBytes},
  };
  std::vector<std::filesystem::path> directories;
  bool optionsEnded = false;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string_view argument = arguments[i];
    if (!optionsEnded && argument == "--") {
      optionsEnded = true;
      continue;
    }
    if (!optionsEnded && argument.starts_with("--")) {
      std::size_t* target = nullptr;
      for (const auto& [name, field] : options) {
        if (argument == name) target = field;
      }
      if (target == nullptr || i + 1 == arguments.size() || !parseLimit(arguments[++i], *target)) {
        return fail(std::string("bad option ").append(argument).append("; ").append(kUsage), 2);
      }
      continue;
    }
    directories.emplace_back(argument);
  }
  return print(
      orvex::installedApplicationsJson(orvex::readInstalledApplications(directories, limits)));
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return applications(std::vector<std::string_view>(argv + std::min(argc, 1), argv + argc));
  } catch (const std::exception& error) {
    return fail(error.what());
  } catch (...) {
    return fail("unknown error");
  }
}
