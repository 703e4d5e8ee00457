// The database of test plan runs: its handle, opened with its schema
// checked, and statements whose values are JSON values.
#pragma once

#include <sqlite3.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

namespace results {

using Json = nlohmann::ordered_json;

// What went wrong, with the file named.
struct DbError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct CloseDb {
  void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
using Db = std::unique_ptr<sqlite3, CloseDb>;

// Opens the database at `path`. Writing creates the file and its tables when
// missing; reading wants them there. A schema newer than this tool's is
// refused either way.
enum class Access { kRead, kWrite };
Db OpenDb(const std::string& path, Access access);

class Statement {
 public:
  Statement(sqlite3* db, const std::string& sql);
  // Null, booleans (as 0 and 1), numbers and strings as they are; arrays and
  // objects as their JSON text.
  void Bind(int index, const Json& value);
  // True while there is a row to read.
  bool Step();
  Json Column(int index) const;
  void Reset();

 private:
  sqlite3* db_;
  std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> statement_;
};

}  // namespace results
