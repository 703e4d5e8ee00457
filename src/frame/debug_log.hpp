#pragma once

#include <string_view>

namespace zeltocom {

// Appends "<seconds> [<tag>] -> <message>" to ./debug.txt; the file is opened
// and closed on every call so that the log survives a crashing host.
void Logging(std::string_view tag, std::string_view message);

}  // namespace zeltocom
