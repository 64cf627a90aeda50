// Tells when the system's locale or time zone changes under the running daemon: the files that
// hold them (/etc/localtime, /etc/timezone, /etc/locale.conf, /etc/default/locale and the user's
// ~/.config/locale.conf) are watched with inotify.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace orvex {

class WorkerPool;

enum class SystemChange { kLocale, kTimeZone };

class SystemChangeMonitor {
 public:
  using Handler = std::function<void(SystemChange)>;
  virtual ~SystemChangeMonitor() = default;
};

// Calls `handler` on the pool, at most once per burst of changes to one kind of file. Paths are
// given explicitly so that tests can watch files of their own; a path whose directory does not
// exist is ignored.
struct SystemChangePaths {
  std::vector<std::string> localeFiles;
  std::vector<std::string> timeZoneFiles;
  static SystemChangePaths standard(const std::string& xdgConfigHome);
};
std::unique_ptr<SystemChangeMonitor> makeSystemChangeMonitor(WorkerPool& pool,
                                                             SystemChangePaths paths,
                                                             SystemChangeMonitor::Handler handler);

}  // namespace orvex
