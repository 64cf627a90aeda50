// orvexd-probe: the daemon's helper for batch computations that need heavy libraries, run as a
// short-lived child so that those libraries never stay in the daemon.
//
//   orvexd-probe locale [FILE...]
//       The locale snapshot as one JSON object: the locale variables from the first FILE that
//       sets any, else from the environment; the time zone from TZ or the system.
//   orvexd-probe applications [--max-files N] [--max-file-bytes N] [--max-identifier-bytes N]
//                             [--max-version-bytes N] [--] DIRECTORY...
//       The applications described by the metainfo files in the directories, as JSON.
//
// The answer goes to standard output, log lines to standard error; the exit status is 0 on
// success, otherwise non-zero with a one-line reason on standard error.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "orvexd/platform/icu_locale_reader.h"
#include "orvexd/platform/metainfo_reader.h"
#include "orvexd/platform/probe_codec.h"

namespace {

constexpr char kUsage[] =
    "usage: orvexd-probe locale [FILE...] | orvexd-probe applications [--max-files N] "
    "[--max-file-bytes N] [--max-identifier-bytes N] [--max-version-bytes N] [--] DIRECTORY...";

int fail(const std::string& reason, int status = 1) {
  std::fprintf(stderr, "orvexd-probe: %s\n", reason.c_str());
  return status;
}

int print(const std::string& json) {
  if (std::fwrite(json.data(), 1, json.size(), stdout) != json.size() ||
      std::fputc('\n', stdout) == EOF || std::fflush(stdout) != 0) {
    return fail("cannot write the answer to standard output");
  }
  return 0;
}

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
    const std::vector<std::string_view> arguments(argv + std::min(argc, 2), argv + argc);
    const std::string_view command = argc >= 2 ? argv[1] : "";
    if (command == "locale") {
      return print(orvex::localeSnapshotJson(
          orvex::readLocaleSnapshot(std::vector<std::string>(arguments.begin(), arguments.end()))));
    }
    if (command == "applications") return applications(arguments);
    return fail(kUsage, 2);
  } catch (const std::exception& error) {
    return fail(error.what());
  } catch (...) {
    return fail("unknown error");
  }
}
