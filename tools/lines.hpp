// The lines a person types: line editing and history on a terminal, the
// lines as they stand from a pipe.
#pragma once

#include <optional>
#include <string>

namespace cli {

class LineSource {
 public:
  explicit LineSource(std::string prompt);
  LineSource(const LineSource&) = delete;
  LineSource& operator=(const LineSource&) = delete;

  bool terminal() const { return terminal_; }
  // The next line; none at the end of the input (or Ctrl-C at the prompt).
  std::optional<std::string> Next();

 private:
  const std::string prompt_;
  const bool terminal_;
  std::string historyFile_;
};

}  // namespace cli
