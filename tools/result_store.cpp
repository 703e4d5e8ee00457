// Test plan runs appended to an SQLite database, one transaction each, so
// that stations sharing one file neither block each other for long nor
// leave half a run behind.
#include "plan_sinks.hpp"

#ifndef ZELTOCOM_SQLITE

bool StoreResult(const nlohmann::ordered_json& /*result*/, const std::string& /*path*/,
                 std::string* error) {
  *error = "built without SQLite";
  return false;
}

#else

#include <sys/stat.h>

#include <chrono>
#include <functional>
#include <thread>

#include "result_store.hpp"

namespace results {
namespace {

// PRAGMA user_version of the tables below; a change of them raises it.
constexpr int kSchemaVersion = 1;

constexpr const char* kSchema = R"sql(
CREATE TABLE runs (
  id INTEGER PRIMARY KEY,
  plan TEXT NOT NULL,
  unit TEXT,
  station TEXT NOT NULL,
  start_time TEXT NOT NULL,
  end_time TEXT,
  pass INTEGER NOT NULL
);
CREATE INDEX runs_by_start ON runs(start_time);
CREATE INDEX runs_by_unit ON runs(unit);
CREATE TABLE instruments (
  run_id INTEGER NOT NULL REFERENCES runs(id),
  serial TEXT,
  path TEXT,
  model TEXT,
  firmware TEXT,
  error TEXT
);
CREATE INDEX instruments_by_run ON instruments(run_id);
CREATE TABLE measurements (
  run_id INTEGER NOT NULL REFERENCES runs(id),
  serial TEXT,
  fiber INTEGER,
  x REAL,
  y REAL,
  intensity_linear REAL,
  intensity_raw REAL,
  intensity_scale TEXT,
  wavelength REAL,
  bin TEXT,
  pass INTEGER,
  failed TEXT
);
CREATE INDEX measurements_by_run ON measurements(run_id);
CREATE TABLE sequences (
  run_id INTEGER NOT NULL REFERENCES runs(id),
  serial TEXT,
  fiber INTEGER,
  frequency REAL,
  duty_cycle REAL,
  pass INTEGER,
  failed TEXT
);
CREATE INDEX sequences_by_run ON sequences(run_id);
)sql";

// Long enough for another station's run to be written: each is one short
// transaction.
constexpr int kBusyTimeoutMs = 10'000;

std::string ErrorOf(sqlite3* db) {
  const char* file = sqlite3_db_filename(db, "main");
  return std::string(file != nullptr && *file != '\0' ? file : "database") + ": " +
         sqlite3_errmsg(db);
}

void Execute(sqlite3* db, const char* sql) {
  if (sqlite3_exec(db, sql, nullptr, nullptr, nullptr) != SQLITE_OK) throw DbError(ErrorOf(db));
}

int SchemaVersion(sqlite3* db) {
  Statement version(db, "PRAGMA user_version");
  version.Step();
  return version.Column(0).get<int>();
}

// Readers and one writer at a time, without readers blocking the writer.
// The switch needs the file to itself and SQLite does not wait for that
// with the busy time-out: two stations creating the file at once would see
// "database is locked". So it is retried for as long.
void UseWriteAheadLog(sqlite3* db) {
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(kBusyTimeoutMs);
  for (;;) {
    const int result = sqlite3_exec(db, "PRAGMA journal_mode = WAL", nullptr, nullptr, nullptr);
    if (result == SQLITE_OK) return;
    if (result != SQLITE_BUSY || std::chrono::steady_clock::now() >= deadline) {
      throw DbError(ErrorOf(db));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

void RefuseNewerSchema(const std::string& path, int version) {
  if (version > kSchemaVersion) {
    throw DbError(path + ": its schema version " + std::to_string(version) +
                  " is newer than this zeltocom knows (" + std::to_string(kSchemaVersion) +
                  "); use a newer zeltocom");
  }
}

// IMMEDIATE: the write lock from the start, so that the busy time-out
// covers the wait for another writer instead of failing on a stale read.
void InTransaction(sqlite3* db, const std::function<void()>& work) {
  Execute(db, "BEGIN IMMEDIATE");
  try {
    work();
    Execute(db, "COMMIT");
  } catch (const DbError&) {
    sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
    throw;
  }
}

// In a transaction, so that two stations creating one file at once create
// the tables once.
void CreateSchemaWhenMissing(sqlite3* db, const std::string& path) {
  InTransaction(db, [&] {
    const int version = SchemaVersion(db);
    RefuseNewerSchema(path, version);
    if (version == 0) {
      Execute(db, kSchema);
      Execute(db, ("PRAGMA user_version = " + std::to_string(kSchemaVersion)).c_str());
    }
  });
}

bool FileExists(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0;
}

}  // namespace

Db OpenDb(const std::string& path, Access access) {
  if (access == Access::kRead && !FileExists(path)) throw DbError(path + ": no such file");
  const int flags =
      access == Access::kWrite ? SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE : SQLITE_OPEN_READWRITE;
  sqlite3* raw = nullptr;
  const int opened = sqlite3_open_v2(path.c_str(), &raw, flags, nullptr);
  Db db(raw);
  if (opened != SQLITE_OK) {
    throw DbError(path + ": " + (raw != nullptr ? sqlite3_errmsg(raw) : sqlite3_errstr(opened)));
  }
  sqlite3_busy_timeout(db.get(), kBusyTimeoutMs);
  if (access == Access::kRead) {
    const int version = SchemaVersion(db.get());
    RefuseNewerSchema(path, version);
    if (version == 0) throw DbError(path + ": holds no zeltocom results");
    return db;
  }
  UseWriteAheadLog(db.get());
  CreateSchemaWhenMissing(db.get(), path);
  return db;
}

Statement::Statement(sqlite3* db, const std::string& sql) : db_(db), statement_(nullptr, nullptr) {
  sqlite3_stmt* raw = nullptr;
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &raw, nullptr) != SQLITE_OK) {
    throw DbError(ErrorOf(db));
  }
  statement_ = {raw, sqlite3_finalize};
}

void Statement::Bind(int index, const Json& value) {
  sqlite3_stmt* s = statement_.get();
  int bound = SQLITE_OK;
  if (value.is_null()) {
    bound = sqlite3_bind_null(s, index);
  } else if (value.is_boolean()) {
    bound = sqlite3_bind_int(s, index, value.get<bool>() ? 1 : 0);
  } else if (value.is_number_integer()) {
    bound = sqlite3_bind_int64(s, index, value.get<sqlite3_int64>());
  } else if (value.is_number()) {
    bound = sqlite3_bind_double(s, index, value.get<double>());
  } else {
    const std::string text = value.is_string()
                                 ? value.get<std::string>()
                                 : value.dump(-1, ' ', false, Json::error_handler_t::replace);
    bound =
        sqlite3_bind_text(s, index, text.c_str(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
  }
  if (bound != SQLITE_OK) throw DbError(ErrorOf(db_));
}

bool Statement::Step() {
  const int stepped = sqlite3_step(statement_.get());
  if (stepped != SQLITE_ROW && stepped != SQLITE_DONE) throw DbError(ErrorOf(db_));
  return stepped == SQLITE_ROW;
}

Json Statement::Column(int index) const {
  sqlite3_stmt* s = statement_.get();
  switch (sqlite3_column_type(s, index)) {
    case SQLITE_INTEGER: return sqlite3_column_int64(s, index);
    case SQLITE_FLOAT: return sqlite3_column_double(s, index);
    case SQLITE_NULL: return nullptr;
    default:
      return std::string(reinterpret_cast<const char*>(sqlite3_column_text(s, index)),
                         static_cast<std::size_t>(sqlite3_column_bytes(s, index)));
  }
}

void Statement::Reset() {
  sqlite3_reset(statement_.get());
  sqlite3_clear_bindings(statement_.get());
}

namespace {

// A member of an object, null when either is missing.
Json Field(const Json& object, const char* key) {
  return object.is_object() ? object.value(key, Json()) : Json();
}

const Json& Items(const Json& object, const char* key) {
  static const Json none = Json::array();
  const auto found = object.find(key);
  return found != object.end() && found->is_array() ? *found : none;
}

void Require(const Json& result, const char* key, bool (Json::*isKind)() const noexcept,
             const char* kind) {
  if (!(Field(result, key).*isKind)()) {
    throw DbError(std::string("the result's '") + key + "' is missing or not " + kind);
  }
}

void Insert(Statement& insert, std::initializer_list<Json> values) {
  int index = 1;
  for (const Json& value : values) insert.Bind(index++, value);
  insert.Step();
  insert.Reset();
}

void InsertInstrument(sqlite3* db, sqlite3_int64 run, const Json& instrument) {
  Statement row(db, "INSERT INTO instruments VALUES (?, ?, ?, ?, ?, ?)");
  const Json serial = Field(instrument, "serial");
  Insert(row, {run, serial, Field(instrument, "path"), Field(instrument, "model"),
               Field(instrument, "firmware"), Field(instrument, "error")});
  Statement measurement(db, "INSERT INTO measurements VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
  for (const Json& fiber : Items(instrument, "fibers")) {
    const Json intensity = Field(fiber, "intensity");
    Insert(measurement, {run, serial, Field(fiber, "fiber"), Field(fiber, "x"), Field(fiber, "y"),
                         Field(intensity, "linear"), Field(intensity, "raw"),
                         Field(intensity, "scale"), Field(fiber, "wavelength"), Field(fiber, "bin"),
                         Field(fiber, "pass"), Field(fiber, "failed")});
  }
}

void InsertRun(sqlite3* db, const Json& result) {
  Statement run(db, "INSERT INTO runs VALUES (NULL, ?, ?, ?, ?, ?, ?)");
  Insert(run, {result["plan"], Field(result, "unit"), result["station"], result["start"],
               Field(result, "end"), result["pass"]});
  const sqlite3_int64 id = sqlite3_last_insert_rowid(db);
  for (const Json& instrument : Items(result, "instruments")) InsertInstrument(db, id, instrument);
  Statement sequence(db, "INSERT INTO sequences VALUES (?, ?, ?, ?, ?, ?, ?)");
  for (const Json& check : Items(result, "sequences")) {
    Insert(sequence,
           {id, Field(check, "instrument"), Field(check, "fiber"), Field(check, "frequency"),
            Field(check, "duty_cycle"), Field(check, "pass"), Field(check, "failed")});
  }
}

}  // namespace
}  // namespace results

bool StoreResult(const nlohmann::ordered_json& result, const std::string& path,
                 std::string* error) {
  using namespace results;
  try {
    Require(result, "plan", &Json::is_string, "text");
    Require(result, "station", &Json::is_string, "text");
    Require(result, "start", &Json::is_string, "text");
    Require(result, "pass", &Json::is_boolean, "true or false");
    const Db db = OpenDb(path, Access::kWrite);
    InTransaction(db.get(), [&] { InsertRun(db.get(), result); });
    return true;
  } catch (const DbError& failure) {
    *error = failure.what();
    return false;
  }
}

#endif
