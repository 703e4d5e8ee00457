#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zeltocom {

// Instrument replies carry units, signs and stray characters; the parsers
// gather the digits and ignore everything else, sign and point included.
int ParseInt(std::string_view text);
long ParseLong(std::string_view text);
// Like ParseInt, but the last '.' places the decimal point.
float ParseDecimal(std::string_view text);
bool isInteger(std::string_view text);

std::string strtoupper(std::string_view text);
std::string strtolower(std::string_view text);
int strcountchar(std::string_view text, char c);
bool Contains(std::string_view text, std::string_view what);

// Runs `action` when the scope ends, however it ends.
template <typename Action>
class OnScopeExit {
 public:
  explicit OnScopeExit(Action action) : action_(std::move(action)) {}
  ~OnScopeExit() { action_(); }
  OnScopeExit(const OnScopeExit&) = delete;
  OnScopeExit& operator=(const OnScopeExit&) = delete;
  OnScopeExit(OnScopeExit&&) = delete;
  OnScopeExit& operator=(OnScopeExit&&) = delete;

 private:
  Action action_;
};

// Drops an answer's trailing 0x04, LF and CR.
void TrimAnswerEnd(std::string& text);
// The pieces between separators; empty pieces are dropped.
std::vector<std::string> SplitNonEmpty(std::string_view text, char separator);

void str_replace(std::string& text, std::string_view what, std::string_view with);
// Drops control characters (codes 0 to 31).
void filterstring(std::string& text);
// Drops leading and trailing blanks (the space character only).
void trim(std::string& text);
// Splits "key = value": side 0 gives the key as written, any other side the
// trimmed value. Empty when the line holds no '='.
std::string GetParameter(std::string& line, int side);
// Turns the decimal separators of a reply into the one the C locale reads.
void FormatDecimal(std::string& text);
double RoundToDecimals(double value, int decimals);

// The lines of a text without their line breaks (LF or CR LF); empty lines
// are dropped.
std::vector<std::string> SplitLines(std::string_view text);
// The longest line, line break left out, that the library's text files may
// hold.
constexpr std::size_t kMaxFileLineLength = 1023;
// The whole content of the regular file at `path`; none when it cannot be
// read, is no regular file (a FIFO or a device would block or be disturbed)
// or is larger than 16 MiB.
std::optional<std::string> ReadTextFile(const std::string& path);

// `field` as a `Number` when the whole field is one: an optional sign, a
// point or a comma as the decimal mark, within the type's range and, for a
// floating type, finite. What instruments answer is read with this only.
template <typename Number>
std::optional<Number> WholeNumber(std::string_view field);

// Numbers read field by field from an instrument's answer. A field is the
// text between blanks (spaces, tabs, line breaks); it reads as a number only
// as WholeNumber takes it.
class Reading {
 public:
  explicit Reading(std::string_view answer) : rest_(answer) {}
  // The next field; none when there is none or it does not read whole.
  template <typename Number>
  std::optional<Number> Next();
  // Whether only blanks are left.
  bool Done() const;

 private:
  std::string_view rest_;
};

// An answer that is one number and nothing else.
template <typename Number>
std::optional<Number> SingleReading(std::string_view answer);

// printf-style formatting into a std::string.
std::string StringPrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace zeltocom
