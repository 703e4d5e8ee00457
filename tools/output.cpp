#include "output.hpp"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace cli {

void Table::Print() const {
  std::vector<std::size_t> widths;
  for (const Column& column : columns_) widths.push_back(column.title.size());
  std::vector<std::vector<std::string>> cells;
  for (const Json& row : rows_) {
    std::vector<std::string>& line = cells.emplace_back();
    for (std::size_t c = 0; c < columns_.size(); ++c) {
      line.push_back(row.Get(columns_[c].key).Text());
      widths[c] = std::max(widths[c], line.back().size());
    }
  }
  auto print = [&](const std::vector<std::string>& line) {
    std::string text;
    for (std::size_t c = 0; c < line.size(); ++c) {
      std::string cell = line[c];
      if (c + 1 < line.size()) cell.resize(widths[c] + 2, ' ');
      text += cell;
    }
    std::printf("%s\n", text.c_str());
  };
  std::vector<std::string> titles;
  for (const Column& column : columns_) titles.push_back(column.title);
  print(titles);
  for (const auto& line : cells) print(line);
}

void PrintJson(const Json& document) { std::fputs(document.Dump().c_str(), stdout); }

void PrintResult(bool json, const Json& document, const Table& table) {
  if (json) {
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
