// A test plan's result, as people and other programs read it: the table
// (or the JSON document) on stdout, CSV and JUnit XML files.
#pragma once

#include <string>

#include "json.hpp"

namespace cli {

// "intensity 1200 not in [100, 1000]": one entry of a fiber's "failed".
std::string FailureText(const Json& failed);

// The table, PASS and FAIL coloured on a terminal, or the document with --json.
void PrintReport(const Json& result);

// Each false with *error set when the file could not be written.
bool WriteCsv(const Json& result, const std::string& path, std::string* error);
bool WriteJUnit(const Json& result, const std::string& path, std::string* error);

}  // namespace cli
