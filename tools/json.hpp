// A JSON value built by the subcommands and written as one document.
#pragma once

#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace cli {

class Json {
 public:
  using Array = std::vector<Json>;
  using Object = std::vector<std::pair<std::string, Json>>;  // keys in insertion order

  Json() = default;  // null
  Json(bool value) : value_(value) {}
  Json(int value) : value_(static_cast<long long>(value)) {}
  Json(long value) : value_(static_cast<long long>(value)) {}
  Json(long long value) : value_(value) {}
  Json(unsigned value) : value_(static_cast<long long>(value)) {}
  Json(unsigned long value) : value_(static_cast<long long>(value)) {}
  Json(double value) : value_(value) {}
  Json(float value) : value_(static_cast<double>(value)) {}
  Json(const char* text) : value_(std::string(text)) {}
  Json(std::string text) : value_(std::move(text)) {}

  static Json MakeArray() { return Json(Array{}); }
  static Json MakeObject() { return Json(Object{}); }

  // Appends to an array.
  Json& Push(Json item);
  // Sets a member of an object (replacing one of the same key).
  Json& Set(const std::string& key, Json item);
  // A member of an object; null when absent.
  const Json& Get(const std::string& key) const;

  bool IsNull() const { return std::holds_alternative<std::monostate>(value_); }
  // The value as a table cell shows it: strings as they stand, null as "-".
  std::string Text() const;
  // The whole document, indented, with a final newline.
  std::string Dump() const;

 private:
  explicit Json(Array items) : value_(std::move(items)) {}
  explicit Json(Object members) : value_(std::move(members)) {}
  void Write(std::string& out, int depth) const;
  bool IsContainer() const;

  std::variant<std::monostate, bool, long long, double, std::string, Array, Object> value_;
};

// `text` as a JSON string literal, quotes included. Bytes that are not UTF-8
// (an instrument may send any) become U+FFFD, so the JSON stays valid.
std::string Quote(const std::string& text);

// A number where `text` is one (as instruments write them), else the text.
Json NumberOrText(const std::string& text);

}  // namespace cli
