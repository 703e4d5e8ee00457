#pragma once

#include <string>
#include <string_view>

namespace cli {

// `text` for XML, in an element or an attribute: &, <, > and the quotes as
// entities, tab and line breaks as character references (an attribute
// keeps them so), and what XML 1.0 does not admit (the other control
// characters, bytes that are no UTF-8) as U+FFFD.
std::string XmlEscaped(std::string_view text);

}  // namespace cli
