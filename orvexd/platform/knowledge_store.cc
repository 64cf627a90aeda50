#include "orvexd/platform/knowledge_store.h"

#include <sqlite3.h>

#include <chrono>
#include <cstdlib>
#include <memory>

#include "orvexd/base/c_handle.h"
#include "orvexd/base/orvex_logging.h"

namespace orvex {

namespace {

const OrvexLog& log() { return OrvexLogForCategory(kOrvexLogFeedback); }

using Database = std::unique_ptr<sqlite3, CFree<&sqlite3_close>>;
using Statement = std::unique_ptr<sqlite3_stmt, CFree<&sqlite3_finalize>>;

double unixSeconds(WallTime time) {
  return std::chrono::duration<double>(time.time_since_epoch()).count();
}

std::optional<std::string> textColumn(sqlite3_stmt* statement, int column) {
  if (sqlite3_column_type(statement, column) != SQLITE_TEXT) return std::nullopt;
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
  const int bytes = sqlite3_column_bytes(statement, column);
  if (text == nullptr || bytes < 0 || static_cast<size_t>(bytes) > KnowledgeStore::kMaxValueBytes) {
    return std::nullopt;
  }
  return std::string(text, static_cast<size_t>(bytes));
}

}  // namespace

std::string KnowledgeStore::defaultPath() {
  std::string base;
  if (const char* data = std::getenv("XDG_DATA_HOME"); data != nullptr && data[0] == '/') {
    base = data;
  } else if (const char* home = std::getenv("HOME"); home != nullptr && home[0] == '/') {
    base = std::string(home).append("/.local/share");
  } else {
    return {};
  }
  return base.append("/com.zelmor.knowledge/knowledge.db");
}

std::vector<AppActivityEvent> KnowledgeStore::appActivities(WallTime start, WallTime end,
                                                            size_t limit) const {
  std::vector<AppActivityEvent> events;
  if (path_.empty() || limit == 0) return events;
  sqlite3* raw = nullptr;
  const int opened = sqlite3_open_v2(path_.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr);
  Database database(raw);
  if (opened != SQLITE_OK) {
    log().error("cannot open the knowledge store %@: %@", path_,
                std::string(database ? sqlite3_errmsg(database.get()) : sqlite3_errstr(opened)));
    return events;
  }
  sqlite3_busy_timeout(database.get(), kBusyTimeoutMilliseconds);
  sqlite3_stmt* rawStatement = nullptr;
  const char* query =
      "SELECT bundle_id, start_time, unique_id, content_url, publicly_indexable "
      "FROM app_activity WHERE start_time >= ?1 AND start_time <= ?2 "
      "ORDER BY start_time LIMIT ?3";
  if (sqlite3_prepare_v2(database.get(), query, -1, &rawStatement, nullptr) != SQLITE_OK) {
    log().error("cannot read the knowledge store %@: %@", path_,
                std::string(sqlite3_errmsg(database.get())));
    return events;
  }
  Statement statement(rawStatement);
  sqlite3_bind_double(statement.get(), 1, unixSeconds(start));
  sqlite3_bind_double(statement.get(), 2, unixSeconds(end));
  sqlite3_bind_int64(statement.get(), 3, static_cast<sqlite3_int64>(limit));
  int step = SQLITE_ROW;
  while ((step = sqlite3_step(statement.get())) == SQLITE_ROW) {
    auto bundle = textColumn(statement.get(), 0);
    if (!bundle || bundle->empty()) continue;
    AppActivityEvent event;
    event.bundleIdentifier = std::move(*bundle);
    event.startTime = sqlite3_column_double(statement.get(), 1);
    event.uniqueIdentifier = textColumn(statement.get(), 2);
    event.contentURL = textColumn(statement.get(), 3);
    event.publiclyIndexable = sqlite3_column_type(statement.get(), 4) == SQLITE_INTEGER &&
                              sqlite3_column_int64(statement.get(), 4) != 0;
    events.push_back(std::move(event));
  }
  if (step != SQLITE_DONE) {
    // A store that cannot be read to the end (busy, damaged) gives nothing rather than a part.
    log().error("reading the knowledge store %@ stopped: %@", path_,
                std::string(sqlite3_errmsg(database.get())));
    events.clear();
  }
  return events;
}

}  // namespace orvex
