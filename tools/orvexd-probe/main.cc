// orvexd-probe: the daemon's helper for batch computations that need heavy libraries, run as a
// short-lived child so that those libraries never stay in the daemon.
//
//   orvexd-probe locale [FILE...]
//       The locale snapshot as one JSON object: the locale variables from the first FILE that
//       sets any, else from the environment; the time zone from TZ or the system.
//   orvexd-probe applications [--max-files N] [--max-file-bytes N] [--max-identifier-bytes N]
//                             [--max-version-bytes N] [--] DIRECTORY...
//       The applications described by the metainfo files in the directories, as JSON. This one
//       is handed to orvexd-probe-applications, next to this executable, which alone loads
//       AppStream: the locale, read at every start-up, then costs only ICU's loading.
//
// The answer goes to standard output, log lines to standard error; the exit status is 0 on
// success, otherwise non-zero with a one-line reason on standard error.
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "orvexd/platform/icu_locale_reader.h"
#include "orvexd/platform/probe_codec.h"
#include "tools/orvexd-probe/probe_output.h"

namespace {

using orvex::probe::fail;
using orvex::probe::print;

constexpr char kUsage[] =
    "usage: orvexd-probe locale [FILE...] | orvexd-probe applications [--max-files N] "
    "[--max-file-bytes N] [--max-identifier-bytes N] [--max-version-bytes N] [--] DIRECTORY...";
constexpr char kApplicationsExecutable[] = "orvexd-probe-applications";

// Replaces this process with the application scan, same arguments after the command; returns
// only when that fails.
int handOverApplications(char** arguments) {
  std::error_code error;
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error) return fail("cannot find this executable: " + error.message());
  const std::string scanner = (self.parent_path() / kApplicationsExecutable).string();
  arguments[0] = const_cast<char*>(kApplicationsExecutable);
  ::execv(scanner.c_str(), arguments);
  return fail("cannot run " + scanner + ": " + std::strerror(errno));
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const std::string_view command = argc >= 2 ? argv[1] : "";
    if (command == "locale") {
      return print(orvex::localeSnapshotJson(
          orvex::readLocaleSnapshot(std::vector<std::string>(argv + 2, argv + argc))));
    }
    // argv[1..] with the command in the place of the program name.
    if (command == "applications") return handOverApplications(argv + 1);
    return fail(kUsage, 2);
  } catch (const std::exception& error) {
    return fail(error.what());
  } catch (...) {
    return fail("unknown error");
  }
}
