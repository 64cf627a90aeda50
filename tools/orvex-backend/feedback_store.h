// The feedback uploads the back-end accepted, kept in an SQLite database: in memory by default,
// or in a file that outlives the server. One table, "uploads":
//   id INTEGER PRIMARY KEY AUTOINCREMENT, endpoint TEXT, path TEXT, query TEXT,
//   received TEXT (UTC, "2026-01-31T12:00:00.123Z"), digest TEXT, content_encoding TEXT,
//   body TEXT (the inflated JSON)
// Ids keep counting across clear(). Safe to use from any thread.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>

#include "orvexd/base/c_handle.h"

namespace orvex::backend {

class FeedbackStore {
 public:
  struct Upload {
    std::string endpoint;  // the endpoint's name: "feedback" or "crowdsourcing"
    std::string path;
    std::string query;  // as sent
    std::string digest;
    std::string contentEncoding;  // as sent, empty when none was
    std::string body;             // the inflated JSON text
  };

  static constexpr const char* kInMemory = ":memory:";

  // Opens (creating when missing) the database at `path`. Throws std::runtime_error saying why
  // when it cannot be opened or is not a database of this shape.
  explicit FeedbackStore(const std::string& path = kInMemory);

  // Stores `upload`, received now; returns its id. Throws std::runtime_error on a database error.
  int64_t add(const Upload& upload);
  // The uploads with ids above `since`, oldest first: [{"id", "endpoint", "path", "query",
  // "received", "digest", "content_encoding", "body"}], the body parsed.
  nlohmann::ordered_json list(int64_t since) const;
  void clear();

 private:
  using Statement = CHandle<sqlite3_stmt, &sqlite3_finalize>;
  Statement prepare(const char* sql) const;
  [[noreturn]] void fail(const std::string& what) const;

  mutable std::mutex mutex_;
  CHandle<sqlite3, &sqlite3_close> db_;
};

}  // namespace orvex::backend
