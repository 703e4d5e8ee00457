#include "frame/utils.hpp"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <type_traits>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zeltocom {

namespace {

// Digits of `text` as one number; saturates instead of overflowing.
long long GatherDigits(std::string_view text) {
  long long value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') continue;
    if (value > (LLONG_MAX - 9) / 10) return LLONG_MAX;
    value = value * 10 + (c - '0');
  }
  return value;
}

}  // namespace

int ParseInt(std::string_view text) {
  const long long value = GatherDigits(text);
  return value > INT_MAX ? INT_MAX : static_cast<int>(value);
}

long ParseLong(std::string_view text) {
  const long long value = GatherDigits(text);
  return value > LONG_MAX ? LONG_MAX : static_cast<long>(value);
}

float ParseDecimal(std::string_view text) {
  std::string digits;
  std::optional<std::size_t> pointAt;
  for (char c : text) {
    if (c >= '0' && c <= '9') {
      digits += c;
    } else if (c == '.') {
      pointAt = digits.size();
    }
  }
  const double wholeDigits = static_cast<double>(pointAt.value_or(digits.size()));
  float value = 0.0f;
  for (std::size_t i = 0; i < digits.size(); ++i) {
    // A zero adds nothing, and past 308 places its power is infinite and
    // the product not a number.
    if (digits[i] == '0') continue;
    const double place = wholeDigits - 1 - static_cast<double>(i);
    value += static_cast<float>((digits[i] - '0') * std::pow(10.0, place));
  }
  return value;
}

bool isInteger(std::string_view text) {
  return std::ranges::all_of(text, [](char c) { return c >= '0' && c <= '9'; });
}

std::string strtoupper(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return out;
}

std::string strtolower(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

int strcountchar(std::string_view text, char c) {
  int n = 0;
  for (char x : text) n += (x == c);
  return n;
}

void TrimAnswerEnd(std::string& text) {
  while (!text.empty() && (text.back() == '\x04' || text.back() == '\n' || text.back() == '\r')) {
    text.pop_back();
  }
}

bool Contains(std::string_view text, std::string_view what) {
  return text.find(what) != std::string_view::npos;
}

std::vector<std::string> SplitNonEmpty(std::string_view text, char separator) {
  std::vector<std::string> pieces;
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t end = text.find(separator, start);
    if (end == std::string_view::npos) end = text.size();
    if (end > start) pieces.emplace_back(text.substr(start, end - start));
    start = end + 1;
  }
  return pieces;
}

std::vector<std::string> SplitLines(std::string_view text) {
  std::vector<std::string> lines = SplitNonEmpty(text, '\n');
  for (std::string& line : lines) {
    if (line.ends_with('\r')) line.pop_back();
  }
  std::erase_if(lines, [](const std::string& line) { return line.empty(); });
  return lines;
}

std::optional<std::string> ReadTextFile(const std::string& path) {
  constexpr std::size_t kMaxBytes = std::size_t{16} << 20;
  struct stat info {};
  if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode) ||
      static_cast<std::size_t>(info.st_size) > kMaxBytes) {
    return std::nullopt;
  }
  const int fd = open(path.c_str(), O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::string text;
  char chunk[65536];
  ssize_t n = 0;
  while ((n = read(fd, chunk, sizeof chunk)) > 0 && text.size() <= kMaxBytes) {
    text.append(chunk, static_cast<std::size_t>(n));
  }
  close(fd);
  if (n < 0 || text.size() > kMaxBytes) return std::nullopt;
  return text;
}

void str_replace(std::string& text, std::string_view what, std::string_view with) {
  if (what.empty() || text.empty()) return;
  std::string out;
  out.reserve(text.size() * 2 + 1);
  for (std::size_t i = 0; i < text.size();) {
    if (text.compare(i, what.size(), what) == 0) {
      out += with;
      i += what.size();
    } else {
      out += text[i++];
    }
  }
  text = std::move(out);
}

void filterstring(std::string& text) {
  std::erase_if(text, [](char c) { return static_cast<unsigned char>(c) <= 31; });
}

void trim(std::string& text) {
  const std::size_t first = text.find_first_not_of(' ');
  if (first == std::string::npos) {
    text.clear();
    return;
  }
  text = text.substr(first, text.find_last_not_of(' ') - first + 1);
}

std::string GetParameter(std::string& line, int side) {
  trim(line);
  const std::size_t eq = line.find('=');
  if (eq == std::string::npos) return {};
  if (side != 0) {
    std::string value = line.substr(eq + 1);
    trim(value);
    return value;
  }
  return line.substr(0, eq);
}

void FormatDecimal(std::string& text) {
  float probe = 0.0f;
  const bool pointLocale = std::sscanf("0.253", "%f", &probe) == 1 && probe == 0.253f;
  for (char& c : text) {
    if (pointLocale && c == ',') c = '.';
    if (!pointLocale && c == '.') c = ',';
  }
}

double RoundToDecimals(double value, int decimals) {
  const double f = std::pow(10.0, decimals);
  return std::floor(value * f + 0.5) / f;
}

template <typename Number>
std::optional<Number> WholeNumber(std::string_view field) {
  std::string text(field);
  std::ranges::replace(text, ',', '.');
  std::string_view digits = text;
  // from_chars takes a minus but no plus.
  if (digits.starts_with('+') && !digits.substr(1).starts_with('-')) digits.remove_prefix(1);
  Number value{};
  const char* end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, value);
  if (digits.empty() || error != std::errc() || stop != end) return std::nullopt;
  if constexpr (std::is_floating_point_v<Number>) {
    if (!std::isfinite(value)) return std::nullopt;
  }
  return value;
}

namespace {
constexpr std::string_view kFieldBlanks = " \t\r\n";
}  // namespace

template <typename Number>
std::optional<Number> Reading::Next() {
  const std::size_t start = std::min(rest_.find_first_not_of(kFieldBlanks), rest_.size());
  const std::size_t end = std::min(rest_.find_first_of(kFieldBlanks, start), rest_.size());
  const std::string_view field = rest_.substr(start, end - start);
  rest_.remove_prefix(end);
  if (field.empty()) return std::nullopt;
  return WholeNumber<Number>(field);
}

bool Reading::Done() const {
  return rest_.find_first_not_of(kFieldBlanks) == std::string_view::npos;
}

template <typename Number>
std::optional<Number> SingleReading(std::string_view answer) {
  Reading reading(answer);
  const std::optional<Number> value = reading.Next<Number>();
  if (!reading.Done()) return std::nullopt;
  return value;
}

template std::optional<int> WholeNumber<int>(std::string_view);
template std::optional<unsigned char> WholeNumber<unsigned char>(std::string_view);
template std::optional<float> WholeNumber<float>(std::string_view);
template std::optional<double> WholeNumber<double>(std::string_view);
template std::optional<int> Reading::Next<int>();
template std::optional<unsigned> Reading::Next<unsigned>();
template std::optional<float> Reading::Next<float>();
template std::optional<double> Reading::Next<double>();
template std::optional<int> SingleReading<int>(std::string_view);
template std::optional<unsigned> SingleReading<unsigned>(std::string_view);
template std::optional<float> SingleReading<float>(std::string_view);
template std::optional<double> SingleReading<double>(std::string_view);

std::string StringPrintf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  const int n = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string out(n > 0 ? static_cast<std::size_t>(n) : 0, '\0');
  if (n > 0) std::vsnprintf(out.data(), out.size() + 1, format, args);
  va_end(args);
  return out;
}

}  // namespace zeltocom
