// The shell's typed lines: with editing and history where the tool was built
// with libedit, plain lines otherwise; from a pipe, lines as they stand.
#pragma once

#include <optional>
#include <string>

namespace cli {

// How a terminal's lines are read, for the shell's help.
extern const char* const kTerminalInput;

class LineSource {
 public:
  explicit LineSource(std::string prompt);
  LineSource(const LineSource&) = delete;
  LineSource& operator=(const LineSource&) = delete;

  bool terminal() const { return terminal_; }
  // The next line without its end; nothing at the end of input.
  std::optional<std::string> Next();

 private:
  const std::string prompt_;
  const bool terminal_;
  [[maybe_unused]] std::string historyFile_;  // empty: no history kept
};

}  // namespace cli
