#include "args.hpp"

#include <cerrno>
#include <cmath>
#include <cstdlib>

namespace cli {
namespace {

GlobalOptions& MutableGlobal() {
  static GlobalOptions options;
  return options;
}

// Marks a word that followed "--"; no option or subcommand starts so.
constexpr char kWordMark = '\x01';

std::string Unmarked(std::string word) {
  if (!word.empty() && word.front() == kWordMark) word.erase(0, 1);
  return word;
}

long ParseWhole(const std::string& text, const std::string& what, long min, long max) {
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || errno != 0 || value < min || value > max) {
    UsageError(what + ": expected a whole number from " + std::to_string(min) + " to " +
               std::to_string(max) + ", got '" + text + "'");
  }
  return value;
}

}  // namespace

void UsageError(const std::string& text) { throw Stop{kUsage, text}; }
void Failure(const std::string& text) { throw Stop{kFailure, text}; }

const GlobalOptions& Global() { return MutableGlobal(); }

void AddGlobalOptions(CLI::App& root) {
  GlobalOptions& options = MutableGlobal();
  // A flag, so that the word after it stays a word; "=pretty" is its value.
  root.add_flag("-j,--json", options.json,
                "print JSON, one compact document a line (--json=pretty: indented)")
      ->check([](const std::string& style) {
        return style == "true" || style == "compact" || style == "pretty"
                   ? std::string()
                   : "--json=" + style + ": expected --json, --json=compact or --json=pretty";
      });
  root.add_flag("--csv", options.csv, "print tables as CSV");
  root.add_option("--trace", options.trace,
                  "write the library's wire trace to DESTINATION, a file or stderr (the default); "
                  "--trace=DESTINATION after the command's words")
      ->expected(0, 1)
      ->type_name("[DESTINATION]");
  root.add_option("-t,--timeout", options.timeoutMs,
                  "wait up to MS ms for each answer (default 2500)")
      ->check(CLI::Range(1, 3'600'000))
      ->type_name("MS");
}

CLI::Option* AddOperand(CLI::App& app, const std::string& name, std::string& into,
                        const std::string& help) {
  return app.add_option(name, into, help)->transform(Unmarked)->type_name("");
}

CLI::Option* AddOperands(CLI::App& app, const std::string& name, std::vector<std::string>& into,
                         const std::string& help) {
  return app.add_option(name, into, help)->transform(Unmarked)->type_name("");
}

std::vector<std::string> MarkWordsAfterDashes(int argc, char** argv) {
  std::vector<std::string> words;
  bool afterDashes = false;
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (afterDashes) {
      words.push_back(kWordMark + word);
    } else if (word == "--") {
      afterDashes = true;
    } else {
      words.push_back(word);
    }
  }
  return words;
}

void AddBaudOption(CLI::App& app, int& baud) {
  app.add_option("-b,--baud", baud, "open at RATE (9600 ... 921600) instead of searching the rate")
      ->check(CLI::Range(1, 100'000'000))
      ->type_name("RATE");
}

void AddRangeOption(CLI::App& app, int& range) {
  app.add_option("-r,--range", range, "capture range 1 to 6 (default 0: automatic)")
      ->check(CLI::Range(0, 6))
      ->type_name("N");
}

void AddPwmOption(CLI::App& app, bool& pwm) {
  app.add_flag("-p,--pwm", pwm, "capture in PWM mode (for pulsed lights)");
}

double ParseNumber(const std::string& text, const std::string& what) {
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !std::isfinite(value)) {
    UsageError(what + ": expected a number, got '" + text + "'");
  }
  return value;
}

std::pair<long, long> ParseSpan(const std::string& text, const std::string& what, long min,
                                long max) {
  const std::size_t dash = text.find('-');
  if (dash == std::string::npos) {
    const long only = ParseWhole(text, what, min, max);
    return {only, only};
  }
  const long first = ParseWhole(text.substr(0, dash), what, min, max);
  const long last = ParseWhole(text.substr(dash + 1), what, min, max);
  if (first > last) UsageError(what + ": " + text + " runs backwards");
  return {first, last};
}

std::string Count(std::size_t count, const std::string& noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

}  // namespace cli
