#include "json.hpp"

#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "args.hpp"
#include "library.hpp"

namespace cli {

std::string CellText(const Json& value) {
  if (value.is_null()) return "-";
  if (value.is_string()) return value.get<std::string>();
  return value.dump();
}

std::string Dump(const Json& document) {
  const int indent = Global().json == "pretty" ? 2 : -1;
  return document.dump(indent, ' ', false, Json::error_handler_t::replace) + '\n';
}

Json NumberOrText(const std::string& text) {
  // strtod alone would take "inf", "nan" and hexadecimal numbers too.
  if (text.empty() || text.find_first_not_of("0123456789+-.eE") != std::string::npos) {
    return text;
  }
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (*end != '\0' || !std::isfinite(value)) return text;
  long long whole = 0;
  const auto [ptr, error] = std::from_chars(text.data(), text.data() + text.size(), whole);
  if (error == std::errc() && ptr == text.data() + text.size()) return whole;
  return value;
}

Json Number(float value) {
  if (!std::isfinite(value)) return nullptr;
  char text[32];
  const auto end = std::to_chars(text, text + sizeof text, value).ptr;
  return std::strtod(std::string(text, end).c_str(), nullptr);
}

Json AnswerJson(const std::string& text) {
  const std::vector<std::string> lines = Lines(text);
  if (lines.size() == 1) return lines.front();
  if (lines.empty()) return "";
  return lines;
}

std::string UtcNow() {
  using namespace std::chrono;
  const auto now = system_clock::now();
  const std::time_t seconds = system_clock::to_time_t(now);
  const auto millis = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[80];
  const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(text + length, sizeof text - length, ".%03dZ", static_cast<int>(millis));
  return text;
}

}  // namespace cli
