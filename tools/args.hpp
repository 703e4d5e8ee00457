// The command line: the options every subcommand takes, the subcommands'
// own (through CLI11), and the way a subcommand ends.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <optional>
#include <string>
#include <utility>

namespace cli {

// 130 is what a shell reports for a command ended by Ctrl-C.
enum ExitStatus { kSuccess = 0, kFailure = 1, kUsage = 2, kInterrupted = 130 };

// Thrown to end a subcommand: `status` becomes the exit status, `text` the
// error printed (the library's own text where it has one).
struct Stop {
  int status;
  std::string text;
};
[[noreturn]] void UsageError(const std::string& text);
[[noreturn]] void Failure(const std::string& text);

// The options that stand before or after any subcommand's name.
struct GlobalOptions {
  std::string json;  // "" (tables); "pretty", or else compact
  bool csv = false;
  std::optional<std::string> trace;  // where the wire trace goes
  int timeoutMs = 0;                 // 0: the library's own
};
const GlobalOptions& Global();
// Declares them on the tool's root; the values land in Global().
void AddGlobalOptions(CLI::App& root);

// A subcommand as CLI11 parsed it, and what runs it then.
struct Subcommand {
  CLI::App* app;
  std::function<int()> run;
};

// A word of the command line that names something; words after "--" are
// words, whatever they look like.
CLI::Option* AddOperand(CLI::App& app, const std::string& name, std::string& into,
                        const std::string& help);
CLI::Option* AddOperands(CLI::App& app, const std::string& name, std::vector<std::string>& into,
                         const std::string& help);
// The command line with the words after the first "--" marked as such, for
// CLI11, which would hand them to the root otherwise.
std::vector<std::string> MarkWordsAfterDashes(int argc, char** argv);

// Options of every subcommand that opens a port.
void AddBaudOption(CLI::App& app, int& baud);
void AddRangeOption(CLI::App& app, int& range);
void AddPwmOption(CLI::App& app, bool& pwm);

// `text` as a number.
double ParseNumber(const std::string& text, const std::string& what);
// "A-B" or "A" as a span of whole numbers within [min, max].
std::pair<long, long> ParseSpan(const std::string& text, const std::string& what, long min,
                                long max);

// "1 port", "3 ports".
std::string Count(std::size_t count, const std::string& noun);

}  // namespace cli
