#include "orvexd/platform/application_identity.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string_view>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/text_util.h"

namespace orvex {

namespace {

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// "name=" of the [Application] group of a Flatpak instance's .flatpak-info.
std::optional<std::string> flatpakApplicationId(const std::filesystem::path& procDir) {
  std::ifstream in(procDir / "root" / ".flatpak-info");
  std::string line;
  bool inApplication = false;
  while (std::getline(in, line)) {
    const auto trimmed = trimWhitespace(line);
    if (trimmed.starts_with('[')) {
      inApplication = trimmed == "[Application]";
    } else if (inApplication && trimmed.starts_with("name=")) {
      auto name = std::string(trimWhitespace(trimmed.substr(5)));
      if (!name.empty()) return name;
    }
  }
  return std::nullopt;
}

// Undoes systemd's unit-name escaping ("\x2d" for '-').
std::string unescapeUnitName(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 3 < text.size() && text[i + 1] == 'x') {
      const std::string hex(text.substr(i + 2, 2));
      char* end = nullptr;
      const long value = std::strtol(hex.c_str(), &end, 16);
      if (end == hex.c_str() + 2) {
        out += static_cast<char>(value);
        i += 3;
        continue;
      }
    }
    out += text[i];
  }
  return out;
}

// The application id of a desktop application's unit, "app[-<launcher>]-<id>[@<n>].service" or
// "app[-<launcher>]-<id>-<n>.scope", from the innermost such unit in the process's cgroup.
std::optional<std::string> systemdApplicationId(const std::filesystem::path& procDir) {
  const std::string cgroup = readFile(procDir / "cgroup");
  std::optional<std::string> found;
  size_t start = 0;
  while (start < cgroup.size()) {
    size_t end = cgroup.find_first_of("/\n", start);
    if (end == std::string::npos) end = cgroup.size();
    std::string_view unit(cgroup.data() + start, end - start);
    start = end + 1;
    if (!unit.starts_with("app-")) continue;
    std::string_view name = unit.substr(4);
    if (name.ends_with(".service")) {
      name.remove_suffix(8);
      name = name.substr(0, name.find('@'));
    } else if (name.ends_with(".scope")) {
      name.remove_suffix(6);
      const size_t dash = name.rfind('-');
      if (dash != std::string_view::npos) name = name.substr(0, dash);
    } else {
      continue;
    }
    // A launcher prefix has no dots; application ids do.
    if (const size_t dash = name.find('-');
        dash != std::string_view::npos &&
        name.substr(0, dash).find('.') == std::string_view::npos &&
        name.substr(dash + 1).find('.') != std::string_view::npos) {
      name = name.substr(dash + 1);
    }
    if (!name.empty()) found = unescapeUnitName(name);
  }
  return found;
}

}  // namespace

std::optional<std::string> applicationIdForProcess(pid_t pid,
                                                   const std::filesystem::path& procRoot) {
  const auto procDir = procRoot / std::to_string(pid);
  if (auto id = flatpakApplicationId(procDir)) return id;
  if (auto id = systemdApplicationId(procDir)) return id;
  std::error_code error;
  const auto executable = std::filesystem::read_symlink(procDir / "exe", error);
  if (error || executable.empty()) {
    OrvexLogForCategory(kOrvexLogConnection)
        .error("error getting path for pid [%d] %s", static_cast<int>(pid),
               error ? error.message() : std::string("empty path"));
    return std::nullopt;
  }
  std::string name = executable.filename().string();
  // A replaced executable reads as "<path> (deleted)".
  if (name.ends_with(" (deleted)")) name.resize(name.size() - 10);
  return name;
}

}  // namespace orvex
