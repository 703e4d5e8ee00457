#pragma once

#include <string_view>

namespace zeltocom {

// Appends "<seconds> [<tag>] -> <message>" to ./debug.txt; the file is opened
// and closed on every call so that the log survives a crashing host.
void Logging(std::string_view tag, std::string_view message);

// Logs through Logging only when the environment asked for it
// (ZELTOCOM_DEBUG set and not "0" when the library was loaded): what the
// library does to a line on its own, such as bringing it back in step.
void Trace(std::string_view tag, std::string_view message);

}  // namespace zeltocom
