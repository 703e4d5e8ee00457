#include "device/trigger_report.hpp"

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

#include "frame/utils.hpp"

namespace zeltocom {

namespace {

// The numbers on one fibre's line of each report type.
constexpr std::array<std::pair<std::string_view, int>, 6> kFields = {{
    {"XYI", 3},
    {"HSI", 3},
    {"RGBI", 4},
    {"CCTI", 2},
    {"ABSINT", 1},
    {"WSI", 3},
}};

}  // namespace

UnaskedReports ReportsOf(std::string_view outputType, int fibers, bool spectrometer) {
  UnaskedReports reports;
  reports.expected = true;
  if (spectrometer) return reports;
  for (const auto& [type, fields] : kFields) {
    if (type != outputType) continue;
    reports.fields = fields;
    reports.lines = fibers > 0 ? fibers : 1;
  }
  return reports;
}

bool IsReportLine(const UnaskedReports& reports, std::string_view line) {
  if (reports.fields == 0) return line == "OK";
  const std::vector<std::string> tokens = SplitNonEmpty(line, ' ');
  if (static_cast<int>(tokens.size()) != reports.fields) return false;
  return std::ranges::all_of(
      tokens, [](const std::string& token) { return WholeNumber<double>(token).has_value(); });
}

std::vector<std::string> PlainLines(std::string_view text) {
  std::vector<std::string> lines = SplitNonEmpty(text, '\n');
  for (std::string& line : lines) filterstring(line);
  std::erase_if(lines, [](const std::string& line) { return line.empty(); });
  return lines;
}

std::optional<std::string> LastReportIn(const UnaskedReports& reports, std::string_view text) {
  std::optional<std::string> last;
  std::string report;
  int run = 0;
  for (const std::string& line : PlainLines(text)) {
    if (!IsReportLine(reports, line)) {
      run = 0;
      report.clear();
      continue;
    }
    if (run > 0) report += "\r\n";
    report += line;
    if (++run == reports.lines) {
      last = std::move(report);
      report.clear();
      run = 0;
    }
  }
  return last;
}

}  // namespace zeltocom
