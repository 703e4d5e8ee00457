// The JSON the subcommands print: nlohmann's, with members in the order
// they were set.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace cli {

using Json = nlohmann::ordered_json;

// The value as a table cell shows it: strings as they stand, null as "-".
std::string CellText(const Json& value);

// The document on one line (indented with --json=pretty), with a final
// newline. Bytes that are not UTF-8 (an instrument may send any) become
// U+FFFD, so the JSON stays valid.
std::string Dump(const Json& document);

// A number where `text` is one (as instruments write them), else the text.
Json NumberOrText(const std::string& text);

// A single-precision result as the decimal it stands for ("4.9999995", not
// the digits of its double).
Json Number(float value);

// An instrument's answer: its one line as a string, several as an array of
// lines; without line ends either way.
Json AnswerJson(const std::string& text);

// Now, as UTC to the millisecond: "2024-05-17T09:41:07.123Z".
std::string UtcNow();

}  // namespace cli
