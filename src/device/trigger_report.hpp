#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "frame/listener.hpp"

namespace zeltocom {

// The reports an instrument sends when its trigger fires with `outputType`
// ("NONE", "XYI", ...), one line per fibre; spectrometers and the type NONE
// only acknowledge with "OK".
UnaskedReports ReportsOf(std::string_view outputType, int fibers, bool spectrometer);

// Whether `line` (without its line end) reads as one line of such a report.
bool IsReportLine(const UnaskedReports& reports, std::string_view line);

// The last whole report among the lines of `text`, its lines joined by
// CR LF; none when `text` holds none.
std::optional<std::string> LastReportIn(const UnaskedReports& reports, std::string_view text);

// The lines of `text`, each without its line end and control characters;
// lines left empty are dropped.
std::vector<std::string> PlainLines(std::string_view text);

}  // namespace zeltocom
