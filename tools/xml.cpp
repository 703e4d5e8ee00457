#include "xml.hpp"

namespace cli {
namespace {

constexpr const char* kReplacement = "\xEF\xBF\xBD";  // U+FFFD

// The length of the well-formed UTF-8 character at `text[i]`; 0 when none
// starts there.
std::size_t Utf8Length(std::string_view text, std::size_t i) {
  const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  const unsigned char lead = byte(i);
  if (lead < 0x80) return 1;
  const std::size_t length = lead >= 0xF0 && lead <= 0xF4   ? 4
                             : lead >= 0xE0                 ? 3
                             : lead >= 0xC2 && lead <= 0xDF ? 2
                                                            : 0;
  if (length == 0 || i + length > text.size()) return 0;
  for (std::size_t k = 1; k < length; ++k) {
    if ((byte(i + k) & 0xC0) != 0x80) return 0;
  }
  // Overlong forms, surrogates and code points beyond U+10FFFF.
  const unsigned char second = byte(i + 1);
  if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second >= 0xA0) ||
      (lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second >= 0x90)) {
    return 0;
  }
  return length;
}

}  // namespace

std::string XmlEscaped(std::string_view text) {
  std::string escaped;
  for (std::size_t i = 0; i < text.size();) {
    const char c = text[i];
    const std::size_t length = Utf8Length(text, i);
    if (length == 0 ||
        (static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n' && c != '\r')) {
      escaped += kReplacement;
      ++i;
      continue;
    }
    switch (c) {
      case '&': escaped += "&amp;"; break;
      case '<': escaped += "&lt;"; break;
      case '>': escaped += "&gt;"; break;
      case '"': escaped += "&quot;"; break;
      case '\'': escaped += "&apos;"; break;
      case '\t': escaped += "&#9;"; break;
      case '\n': escaped += "&#10;"; break;
      case '\r': escaped += "&#13;"; break;
      default: escaped.append(text.substr(i, length));
    }
    i += length;
  }
  return escaped;
}

}  // namespace cli
