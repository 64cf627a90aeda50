// The usage-knowledge store: a SQLite database that the device's front-ends write and the daemon
// only reads. Its application-activity stream is the table
//
//   app_activity(bundle_id TEXT NOT NULL, start_time REAL NOT NULL,  -- Unix seconds
//                end_time REAL, unique_id TEXT, content_url TEXT, publicly_indexable INTEGER)
//
// one row per page an application showed: the application's bundle identifier, when the page was
// shown, the application's own identifier of the page and its web URL when it has them, and
// whether the application marked the page as publicly indexable (1) or not (0 or NULL).
//
// The database is opened read-only for each query and closed after it; the daemon never creates,
// changes or locks it for writing. A missing or busy database, or one without that table, is
// logged and reads as no events.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "orvexd/base/time_types.h"

namespace orvex {

struct AppActivityEvent {
  std::string bundleIdentifier;
  double startTime = 0;  // Unix seconds
  std::optional<std::string> uniqueIdentifier;
  std::optional<std::string> contentURL;
  bool publiclyIndexable = false;
};

class KnowledgeStore {
 public:
  // Longest text value read; longer ones read as absent, and an event whose bundle identifier is
  // longer is skipped.
  static constexpr size_t kMaxValueBytes = 2048;
  // How long a query waits for a front-end's write to finish before giving up.
  static constexpr int kBusyTimeoutMilliseconds = 200;

  explicit KnowledgeStore(std::string path) : path_(std::move(path)) {}

  // $XDG_DATA_HOME/com.zelmor.knowledge/knowledge.db ($XDG_DATA_HOME defaulting to
  // ~/.local/share), or an empty string when neither it nor HOME is set.
  static std::string defaultPath();

  const std::string& path() const { return path_; }

  // Events whose start lies in [start, end], oldest first, at most `limit`.
  std::vector<AppActivityEvent> appActivities(WallTime start, WallTime end, size_t limit) const;

 private:
  std::string path_;
};

}  // namespace orvex
