// The subcommands' table entries, their command lines and the way they end.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace cli {

enum ExitStatus { kSuccess = 0, kFailure = 1, kUsage = 2 };

// Thrown to end a subcommand: `status` becomes the exit status, `text` the
// error printed (the library's own text where it has one).
struct Stop {
  int status;
  std::string text;
};
[[noreturn]] void UsageError(const std::string& text);
[[noreturn]] void Failure(const std::string& text);

struct Option {
  std::string name;   // "--range"
  std::string value;  // "N"; empty for a switch
  std::string help;
  bool repeatable = false;
};

class Args;
using Handler = int (*)(const Args&);

struct Command {
  std::string name;
  std::string operands;  // "PORT COMMAND..."
  int minOperands;
  int maxOperands;              // -1: any number
  std::string brief;            // one line, for the list of commands
  std::string summary;          // for the command's --help
  std::vector<Option> options;  // --json and --help come with every command
  Handler run;
};

// Options every subcommand that opens a port takes.
Option BaudOption();
Option RangeOption();
Option PwmOption();

class Args {
 public:
  // Throws Stop (bad usage) for unknown options, missing values and a wrong
  // number of operands; --help skips the operand check.
  Args(const Command& command, const std::vector<std::string>& words);

  const std::vector<std::string>& operands() const { return operands_; }
  bool Has(const std::string& name) const { return values_.count(name) > 0; }
  bool json() const { return Has("--json"); }
  // The last value given for an option, or `fallback`.
  std::string Value(const std::string& name, const std::string& fallback = "") const;
  std::vector<std::string> Values(const std::string& name) const;
  // A whole-number option within [min, max], or `fallback` when absent.
  long Whole(const std::string& name, long fallback, long min, long max) const;
  // --baud: 0 (search the rate) unless given; the library judges the rate.
  int Baud() const;

 private:
  const Option* Find(const std::string& name) const;

  const Command& command_;
  std::vector<std::string> operands_;
  std::map<std::string, std::vector<std::string>> values_;
};

// `text` as a whole number within [min, max]; `what` names it in the error.
long ParseWhole(const std::string& text, const std::string& what, long min, long max);
// `text` as a number.
double ParseNumber(const std::string& text, const std::string& what);
// "A-B" or "A" as a span of whole numbers within [min, max].
std::pair<long, long> ParseSpan(const std::string& text, const std::string& what, long min,
                                long max);

std::string HelpText(const Command& command);

}  // namespace cli
