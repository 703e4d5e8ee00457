#include "json.hpp"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace cli {
namespace {

// Length of the valid UTF-8 sequence at text[i], or 0.
std::size_t Utf8Length(const std::string& text, std::size_t i) {
  const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
  const unsigned char lead = byte(i);
  std::size_t length = 0;
  unsigned min = 0;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
    min = 0x80;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    min = 0x800;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    min = 0x10000;
  } else {
    return 0;
  }
  if (i + length > text.size()) return 0;
  unsigned code = lead & (0x7F >> length);
  for (std::size_t k = 1; k < length; ++k) {
    if ((byte(i + k) & 0xC0) != 0x80) return 0;
    code = (code << 6) | (byte(i + k) & 0x3F);
  }
  const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
  return code < min || code > 0x10FFFF || surrogate ? 0 : length;
}

std::string NumberText(double value) {
  if (!std::isfinite(value)) return "null";
  char text[32];
  const auto end = std::to_chars(text, text + sizeof text, value).ptr;
  return std::string(text, end);
}

void Indent(std::string& out, int depth) {
  out += '\n';
  out.append(static_cast<std::size_t>(depth) * 2, ' ');
}

}  // namespace

std::string Quote(const std::string& text) {
  std::string out = "\"";
  for (std::size_t i = 0; i < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c < 0x20 || c == 0x7F) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
      out += escaped;
    } else if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (const std::size_t length = Utf8Length(text, i); length > 0) {
      out.append(text, i, length);
      i += length;
      continue;
    } else {
      out += "\\ufffd";
    }
    ++i;
  }
  return out + '"';
}

Json NumberOrText(const std::string& text) {
  // strtod alone would take "inf", "nan" and hexadecimal numbers too.
  if (text.empty() || text.find_first_not_of("0123456789+-.eE") != std::string::npos) {
    return Json(text);
  }
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (*end != '\0' || !std::isfinite(value)) return Json(text);
  long long whole = 0;
  const auto [ptr, error] = std::from_chars(text.data(), text.data() + text.size(), whole);
  if (error == std::errc() && ptr == text.data() + text.size()) return Json(whole);
  return Json(value);
}

Json& Json::Push(Json item) {
  std::get<Array>(value_).push_back(std::move(item));
  return *this;
}

Json& Json::Set(const std::string& key, Json item) {
  Object& members = std::get<Object>(value_);
  for (auto& [name, value] : members) {
    if (name == key) {
      value = std::move(item);
      return *this;
    }
  }
  members.emplace_back(key, std::move(item));
  return *this;
}

const Json& Json::Get(const std::string& key) const {
  static const Json null;
  if (const Object* members = std::get_if<Object>(&value_)) {
    for (const auto& [name, value] : *members) {
      if (name == key) return value;
    }
  }
  return null;
}

std::string Json::Text() const {
  if (IsNull()) return "-";
  if (const std::string* text = std::get_if<std::string>(&value_)) return *text;
  std::string out;
  Write(out, -1);
  return out;
}

std::string Json::Dump() const {
  std::string out;
  Write(out, 0);
  return out + '\n';
}

bool Json::IsContainer() const {
  return std::holds_alternative<Array>(value_) || std::holds_alternative<Object>(value_);
}

// depth < 0 writes on one line. Arrays of plain values (a sequence's
// thousands of samples) stay on one line too.
void Json::Write(std::string& out, int depth) const {
  if (IsNull()) {
    out += "null";
  } else if (const bool* flag = std::get_if<bool>(&value_)) {
    out += *flag ? "true" : "false";
  } else if (const long long* whole = std::get_if<long long>(&value_)) {
    out += std::to_string(*whole);
  } else if (const double* number = std::get_if<double>(&value_)) {
    out += NumberText(*number);
  } else if (const std::string* text = std::get_if<std::string>(&value_)) {
    out += Quote(*text);
  } else if (const Array* items = std::get_if<Array>(&value_)) {
    bool nested = false;
    for (const Json& item : *items) nested = nested || item.IsContainer();
    const int inner = depth >= 0 && nested ? depth + 1 : -1;
    out += '[';
    for (std::size_t i = 0; i < items->size(); ++i) {
      if (i > 0) out += inner >= 0 ? "," : ", ";
      if (inner >= 0) Indent(out, inner);
      (*items)[i].Write(out, inner);
    }
    if (inner >= 0) Indent(out, depth);
    out += ']';
  } else {
    const Object& members = std::get<Object>(value_);
    const int inner = depth >= 0 ? depth + 1 : -1;
    out += '{';
    for (std::size_t i = 0; i < members.size(); ++i) {
      if (i > 0) out += inner >= 0 ? "," : ", ";
      if (inner >= 0) Indent(out, inner);
      out += Quote(members[i].first) + ": ";
      members[i].second.Write(out, inner);
    }
    if (inner >= 0 && !members.empty()) Indent(out, depth);
    out += '}';
  }
}

}  // namespace cli
