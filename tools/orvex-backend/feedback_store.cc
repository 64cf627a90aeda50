#include "tools/orvex-backend/feedback_store.h"

#include <chrono>
#include <ctime>
#include <stdexcept>

#include "orvexd/base/json_limits.h"

namespace orvex::backend {

namespace {

constexpr const char* kSchema = R"(CREATE TABLE IF NOT EXISTS uploads (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  endpoint TEXT NOT NULL,
  path TEXT NOT NULL,
  query TEXT NOT NULL,
  received TEXT NOT NULL,
  digest TEXT NOT NULL,
  content_encoding TEXT NOT NULL,
  body TEXT NOT NULL))";

// A body read back is shown as text rather than parsed when a hand-edited file holds one out of
// bounds; the intake stores none that is.
constexpr JsonLimits kBodyLimits{.maxBytes = size_t{64} << 20};

std::string utcNow() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto millis =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[40];
  const size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
  std::string result(text, length);
  const std::string fraction = std::to_string(1000 + millis);  // "1007" for 7 ms
  result.append(".").append(fraction.substr(1)).append("Z");
  return result;
}

std::string column(sqlite3_stmt* statement, int index) {
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, index));
  return text == nullptr
             ? std::string()
             : std::string(text, static_cast<size_t>(sqlite3_column_bytes(statement, index)));
}

}  // namespace

FeedbackStore::FeedbackStore(const std::string& path) {
  sqlite3* db = nullptr;
  const int opened =
      sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  db_.reset(db);  // a handle comes back even when the open fails, to say why
  if (opened != SQLITE_OK) fail("cannot open the feedback database " + path);
  if (sqlite3_exec(db_.get(), kSchema, nullptr, nullptr, nullptr) != SQLITE_OK) {
    fail("cannot use " + path + " as the feedback database");
  }
}

int64_t FeedbackStore::add(const Upload& upload) {
  std::lock_guard lock(mutex_);
  auto statement = prepare(
      "INSERT INTO uploads (endpoint, path, query, received, digest, content_encoding, body) "
      "VALUES (?, ?, ?, ?, ?, ?, ?)");
  const std::string received = utcNow();
  int index = 0;
  for (const std::string* value : {&upload.endpoint, &upload.path, &upload.query, &received,
                                   &upload.digest, &upload.contentEncoding, &upload.body}) {
    sqlite3_bind_text64(statement.get(), ++index, value->data(), value->size(), SQLITE_STATIC,
                        SQLITE_UTF8);
  }
  if (sqlite3_step(statement.get()) != SQLITE_DONE) fail("cannot store an upload");
  return sqlite3_last_insert_rowid(db_.get());
}

nlohmann::ordered_json FeedbackStore::list(int64_t since) const {
  std::lock_guard lock(mutex_);
  auto statement = prepare(
      "SELECT id, endpoint, path, query, received, digest, content_encoding, body FROM uploads "
      "WHERE id > ? ORDER BY id");
  sqlite3_bind_int64(statement.get(), 1, since);
  nlohmann::ordered_json uploads = nlohmann::ordered_json::array();
  int result = SQLITE_ROW;
  while ((result = sqlite3_step(statement.get())) == SQLITE_ROW) {
    const std::string text = column(statement.get(), 7);
    auto body = parseJsonWithinLimits<nlohmann::ordered_json>(text, kBodyLimits);
    if (body.is_discarded()) body = text;
    uploads.push_back({{"id", sqlite3_column_int64(statement.get(), 0)},
                       {"endpoint", column(statement.get(), 1)},
                       {"path", column(statement.get(), 2)},
                       {"query", column(statement.get(), 3)},
                       {"received", column(statement.get(), 4)},
                       {"digest", column(statement.get(), 5)},
                       {"content_encoding", column(statement.get(), 6)},
                       {"body", std::move(body)}});
  }
  if (result != SQLITE_DONE) fail("cannot list the uploads");
  return uploads;
}

void FeedbackStore::clear() {
  std::lock_guard lock(mutex_);
  if (sqlite3_exec(db_.get(), "DELETE FROM uploads", nullptr, nullptr, nullptr) != SQLITE_OK) {
    fail("cannot clear the uploads");
  }
}

FeedbackStore::Statement FeedbackStore::prepare(const char* sql) const {
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(db_.get(), sql, -1, &statement, nullptr) != SQLITE_OK) {
    sqlite3_finalize(statement);
    fail("cannot prepare a statement");
  }
  return Statement(statement);
}

void FeedbackStore::fail(const std::string& what) const {
  throw std::runtime_error(what + ": " +
                           (db_ ? sqlite3_errmsg(db_.get()) : "out of memory for SQLite"));
}

}  // namespace orvex::backend
