// Output shared by the subcommands: tables, JSON documents, progress.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "json.hpp"

namespace cli {

struct Column {
  std::string key;    // the member of a row object
  std::string title;  // the heading
};

// Rows are JSON objects; the table shows the members its columns name.
class Table {
 public:
  explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}
  void Add(const Json& row) { rows_.push_back(row); }
  // Aligned columns under their titles, or CSV with --csv.
  void Print() const;

 private:
  std::vector<std::vector<std::string>> Cells() const;

  std::vector<Column> columns_;
  std::vector<Json> rows_;
};

// Whether --json asked for JSON instead of tables.
bool JsonWanted();
// Writes the JSON to stdout.
void PrintJson(const Json& document);
// The JSON with --json, else the table (as CSV with --csv).
void PrintResult(const Json& document, const Table& table);

bool StdoutIsTerminal();

// A CSV field: quoted when it holds a separator, a quote or a line end.
std::string CsvField(const std::string& text);

// Tells on stderr what is being waited for, once the wait has lasted a
// second (and how long it lasts, on a terminal).
class Progress {
 public:
  explicit Progress(std::string what);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

 private:
  void Watch();

  const std::string what_;
  const std::chrono::steady_clock::time_point start_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool done_ = false;
  bool shown_ = false;
  std::thread watcher_;
};

}  // namespace cli
