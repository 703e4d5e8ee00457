// The one place that knows about libedit (ZELTOCOM_LIBEDIT, set by the build
// when it found it).
#include "line_input.hpp"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <utility>

#ifdef ZELTOCOM_LIBEDIT
#include <editline/readline.h>
#endif

namespace cli {
namespace {

std::optional<std::string> ReadPlain() {
  std::string line;
  if (!std::getline(std::cin, line)) return std::nullopt;
  return line;
}

}  // namespace

#ifdef ZELTOCOM_LIBEDIT

const char* const kTerminalInput =
    "Line editing and history (kept in\n~/.zeltocom_history) on a terminal";

LineSource::LineSource(std::string prompt)
    : prompt_(std::move(prompt)), terminal_(isatty(STDIN_FILENO) == 1) {
  if (!terminal_) return;
  const char* home = std::getenv("HOME");
  if (home != nullptr && *home != '\0') historyFile_ = std::string(home) + "/.zeltocom_history";
  stifle_history(1000);
  if (!historyFile_.empty()) read_history(historyFile_.c_str());
}

std::optional<std::string> LineSource::Next() {
  if (!terminal_) return ReadPlain();
  char* typed = readline(prompt_.c_str());
  if (typed == nullptr) return std::nullopt;
  std::string line = typed;
  std::free(typed);
  if (line.find_first_not_of(" \t\r\n") != std::string::npos) {
    add_history(line.c_str());
    // Written at once: a session ended by a signal keeps what was typed.
    if (!historyFile_.empty()) write_history(historyFile_.c_str());
  }
  return line;
}

#else

const char* const kTerminalInput = "Plain lines on a terminal (this zeltocom\n"
                                   "was built without libedit: no line editing, no history)";

LineSource::LineSource(std::string prompt)
    : prompt_(std::move(prompt)), terminal_(isatty(STDIN_FILENO) == 1) {}

std::optional<std::string> LineSource::Next() {
  if (terminal_) {
    std::fputs(prompt_.c_str(), stdout);
    std::fflush(stdout);
  }
  return ReadPlain();
}

#endif

}  // namespace cli
