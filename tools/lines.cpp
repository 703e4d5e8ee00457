// The tool's one use of libedit.
#include "lines.hpp"

#include <editline/readline.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>

namespace cli {

LineSource::LineSource(std::string prompt)
    : prompt_(std::move(prompt)), terminal_(isatty(STDIN_FILENO) == 1) {
  if (!terminal_) return;
  const char* home = std::getenv("HOME");
  if (home != nullptr && *home != '\0') historyFile_ = std::string(home) + "/.zeltocom_history";
  stifle_history(1000);
  if (!historyFile_.empty()) read_history(historyFile_.c_str());
}

std::optional<std::string> LineSource::Next() {
  if (!terminal_) {
    std::string line;
    if (!std::getline(std::cin, line)) return std::nullopt;
    return line;
  }
  char* typed = readline(prompt_.c_str());
  if (typed == nullptr) return std::nullopt;
  std::string line = typed;
  std::free(typed);
  if (line.find_first_not_of(" \t\r\n") != std::string::npos) {
    add_history(line.c_str());
    // Saved at once: a session that ends by a signal keeps its lines too.
    if (!historyFile_.empty()) write_history(historyFile_.c_str());
  }
  return line;
}

}  // namespace cli
