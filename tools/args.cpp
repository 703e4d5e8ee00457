#include "args.hpp"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>

namespace cli {
namespace {

const std::vector<Option>& CommonOptions() {
  static const std::vector<Option> options = {
      {"--json", "", "print one JSON document instead of the table"},
      {"--help", "", "this text"},
  };
  return options;
}

std::string OptionLabel(const Option& option) {
  return option.value.empty() ? option.name : option.name + " " + option.value;
}

}  // namespace

void UsageError(const std::string& text) { throw Stop{kUsage, text}; }
void Failure(const std::string& text) { throw Stop{kFailure, text}; }

Option BaudOption() {
  return {"--baud", "RATE", "open at RATE (9600 ... 921600) instead of searching the rate"};
}
Option RangeOption() { return {"--range", "N", "capture range 1 to 6 (default 0: automatic)"}; }
Option PwmOption() { return {"--pwm", "", "capture in PWM mode (for pulsed lights)"}; }

Args::Args(const Command& command, const std::vector<std::string>& words) : command_(command) {
  bool optionsEnded = false;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    if (optionsEnded || word.size() < 2 || word.compare(0, 2, "--") != 0) {
      operands_.push_back(word);
      continue;
    }
    if (word == "--") {
      optionsEnded = true;
      continue;
    }
    const std::size_t equals = word.find('=');
    const std::string name = word.substr(0, equals);
    const Option* option = Find(name);
    if (name == "--trace") {
      UsageError("--trace goes before the command: zeltocom --trace " + command.name + " ...");
    }
    if (option == nullptr) UsageError("unknown option " + name);
    std::string value;
    if (option->value.empty()) {
      if (equals != std::string::npos) UsageError(name + " takes no value");
    } else if (equals != std::string::npos) {
      value = word.substr(equals + 1);
    } else if (i + 1 < words.size()) {
      value = words[++i];
    } else {
      UsageError(name + " needs a value " + option->value);
    }
    if (Has(name) && !option->repeatable && !option->value.empty()) {
      UsageError(name + " given twice");
    }
    values_[name].push_back(value);
  }
  if (Has("--help")) return;
  const int count = static_cast<int>(operands_.size());
  if (count < command.minOperands) UsageError("missing " + command.operands);
  if (command.maxOperands >= 0 && count > command.maxOperands) {
    UsageError("unexpected " + operands_[static_cast<std::size_t>(command.maxOperands)]);
  }
}

const Option* Args::Find(const std::string& name) const {
  for (const Option& option : command_.options) {
    if (option.name == name) return &option;
  }
  for (const Option& option : CommonOptions()) {
    if (option.name == name) return &option;
  }
  return nullptr;
}

std::string Args::Value(const std::string& name, const std::string& fallback) const {
  const auto found = values_.find(name);
  return found == values_.end() ? fallback : found->second.back();
}

std::vector<std::string> Args::Values(const std::string& name) const {
  const auto found = values_.find(name);
  return found == values_.end() ? std::vector<std::string>{} : found->second;
}

long Args::Whole(const std::string& name, long fallback, long min, long max) const {
  return Has(name) ? ParseWhole(Value(name), name, min, max) : fallback;
}

int Args::Baud() const { return static_cast<int>(Whole("--baud", 0, 0, 100'000'000)); }

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

std::string HelpText(const Command& command) {
  std::string text = "Usage: zeltocom " + command.name;
  if (!command.operands.empty()) text += " " + command.operands;
  for (const Option& option : command.options) text += " [" + OptionLabel(option) + "]";
  text += " [--json]\n\n" + command.summary + "\n\nOptions:\n";
  std::vector<Option> all = command.options;
  all.insert(all.end(), CommonOptions().begin(), CommonOptions().end());
  for (const Option& option : all) {
    std::string label = "  " + OptionLabel(option);
    label.resize(std::max<std::size_t>(label.size() + 2, 18), ' ');
    text += label + option.help + (option.repeatable ? " (repeatable)" : "") + "\n";
  }
  return text;
}

}  // namespace cli
