#include "output.hpp"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "args.hpp"

namespace cli {

std::string CsvField(const std::string& text) {
  if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
  std::string quoted = "\"";
  for (const char c : text) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
  return quoted + "\"";
}

namespace {

void PrintCsv(const std::vector<std::vector<std::string>>& lines) {
  for (const auto& line : lines) {
    std::string text;
    for (const std::string& cell : line) text += (text.empty() ? "" : ",") + CsvField(cell);
    std::printf("%s\r\n", text.c_str());
  }
}

void PrintAligned(const std::vector<std::vector<std::string>>& lines) {
  std::vector<std::size_t> widths(lines.front().size(), 0);
  for (const auto& line : lines) {
    for (std::size_t c = 0; c < line.size(); ++c) widths[c] = std::max(widths[c], line[c].size());
  }
  for (const auto& line : lines) {
    std::string text;
    for (std::size_t c = 0; c < line.size(); ++c) {
      std::string cell = line[c];
      if (c + 1 < line.size()) cell.resize(widths[c] + 2, ' ');
      text += cell;
    }
    std::printf("%s\n", text.c_str());
  }
}

}  // namespace

// The titles' line, then one line per row. CSV names the columns by their
// keys, which a program reading it knows from the JSON too.
std::vector<std::vector<std::string>> Table::Cells() const {
  std::vector<std::vector<std::string>> lines(1);
  for (const Column& column : columns_) {
    lines.front().push_back(Global().csv ? column.key : column.title);
  }
  for (const Json& row : rows_) {
    std::vector<std::string>& line = lines.emplace_back();
    for (const Column& column : columns_) line.push_back(CellText(row.value(column.key, Json())));
  }
  return lines;
}

void Table::Print() const {
  if (Global().csv) {
    PrintCsv(Cells());
  } else {
    PrintAligned(Cells());
  }
}

bool JsonWanted() { return !Global().json.empty(); }

void PrintJson(const Json& document) {
  std::fputs(Dump(document).c_str(), stdout);
  std::fflush(stdout);
}

void PrintResult(const Json& document, const Table& table) {
  if (JsonWanted()) {
    PrintJson(document);
  } else {
    table.Print();
  }
}

bool StdoutIsTerminal() { return isatty(STDOUT_FILENO) == 1; }

Progress::Progress(std::string what)
    : what_(std::move(what)),
      start_(std::chrono::steady_clock::now()),
      watcher_([this] { Watch(); }) {}

Progress::~Progress() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    done_ = true;
  }
  wake_.notify_all();
  watcher_.join();
  if (shown_) {
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start_;
    if (isatty(STDERR_FILENO) == 1) {
      std::fprintf(stderr, "\r%s... %.1f s\n", what_.c_str(), took.count());
    } else {
      std::fprintf(stderr, " %.1f s\n", took.count());
    }
  }
}

void Progress::Watch() {
  using namespace std::chrono_literals;
  const bool terminal = isatty(STDERR_FILENO) == 1;
  std::unique_lock<std::mutex> lock(mutex_);
  for (int seconds = 1;; ++seconds) {
    if (wake_.wait_until(lock, start_ + seconds * 1s, [this] { return done_; })) return;
    if (terminal) {
      std::fprintf(stderr, "\r%s... %d s", what_.c_str(), seconds);
    } else if (!shown_) {
      std::fprintf(stderr, "%s...", what_.c_str());
    }
    std::fflush(stderr);
    shown_ = true;
  }
}

}  // namespace cli
