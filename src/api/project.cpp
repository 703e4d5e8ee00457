// Project files: a set-up of instruments opened in one call and addressed by
// ID.
#include "api/project.hpp"

#include <climits>
#include <optional>
#include <unordered_set>

#include "api/common.hpp"
#include "frame/errors.hpp"
#include "frame/utils.hpp"
#include "zeltocom.h"

namespace zeltocom {

namespace {

bool IsChainRole(std::string_view role) {
  const std::string upper = strtoupper(role);
  return upper == "DAISY-CHAIN" || upper == "DAISYCHAIN" || upper == "DAISY_CHAIN";
}

// One "KEY=value" line of a section; keys are matched as written, so a blank
// before the '=' makes the line one of the ignored ones.
void ReadSetting(std::string line, s_IDPort& row) {
  const std::string key = GetParameter(line, 0);
  const std::string value = GetParameter(line, 1);
  if (key == "PORT" || key == "DEVPATH") {
    row.devicePath.assign(value, kMaxPathLength);
  } else if (key == "ID") {
    row.deviceID.assign(value);
  } else if (key == "BAUDRATE") {
    row.baudrate = ParseLong(value);
  } else if (key == "SERIALNUMBER") {
    row.serialNumber.assign(value, kMaxSerialLength);
  } else if (key == "ROLE") {
    row.chained = IsChainRole(value);
  }
}

// What the rows read so far claim, so that a section is checked against
// them in constant time whatever their number.
struct Claimed {
  std::unordered_set<std::string> ids;
  std::unordered_set<std::string> masterPaths;

  void Add(const s_IDPort& row) {
    ids.emplace(row.deviceID.view());
    if (!row.chained) masterPaths.emplace(row.devicePath.view());
  }
};

// Why a finished section cannot join the rows before it; empty when it can.
const char* SectionError(const s_IDPort& row, const Claimed& claimed) {
  if (row.devicePath.empty()) return "Syntax Error. Port not set.";
  if (row.deviceID.empty()) return "Syntax Error. ID not set.";
  if (row.serialNumber.empty()) return "Syntax Error. SN not set.";
  if (claimed.ids.contains(std::string(row.deviceID.view())))
    return "This ID has already been added";
  const bool hasMaster = claimed.masterPaths.contains(std::string(row.devicePath.view()));
  if (!row.chained && hasMaster) return "Master has been previously added for this port";
  if (row.chained && !hasMaster) return "No Bus Master has been previously added for this port";
  return "";
}

ProjectFile Failed(ProjectFile file, std::string error, int result) {
  file.error = std::move(error);
  file.result = result;
  return file;
}

}  // namespace

ProjectFile ReadProjectFile(std::string_view text) {
  ProjectFile file;
  Claimed claimed;
  std::optional<s_IDPort> section;
  for (std::string line : SplitLines(text)) {
    if (line.size() > kMaxFileLineLength) {
      return Failed(std::move(file), "Syntax Error. Line longer than 1023 characters.", -1);
    }
    filterstring(line);
    if (line.empty() || line.front() == '#') continue;
    if (!section) {
      if (line == "[DEVICE]") section.emplace();
    } else if (line != "[END]") {
      ReadSetting(std::move(line), *section);
    } else {
      const std::string error = SectionError(*section, claimed);
      if (!error.empty()) return Failed(std::move(file), error, -1);
      claimed.Add(*section);
      file.rows.push_back(*section);
      section.reset();
    }
  }
  if (section) return Failed(std::move(file), "Missing[END]", -1);
  if (file.rows.empty()) return Failed(std::move(file), "No devices found", 0);
  return file;
}

}  // namespace zeltocom

using namespace zeltocom;

namespace {

// Rates beyond an int are no rate at all, not another one after a wrap.
int RateOf(const s_IDPort& row) {
  return row.baudrate <= INT_MAX ? static_cast<int>(row.baudrate) : -1;
}

// Closes the masters opened so far; the failing open's text stays the error.
void RollBack(const std::vector<std::string>& openedPaths) {
  const std::string why = GetErrorDescription();
  for (const std::string& path : openedPaths) ZeltoCom_Close(path.c_str());
  SetError(nullptr, why);
}

// Opens the devices in table order: masters on their port, chained devices
// behind the master opened before them. All or none stay open.
int OpenRows(const std::vector<s_IDPort>& rows) {
  std::vector<std::string> openedPaths;
  for (const s_IDPort& row : rows) {
    const char* path = row.devicePath.c_str();
    const int opened = row.chained ? ZeltoCom_DaisyChain_Add(path, row.serialNumber.c_str())
                                   : ZeltoCom_Open(path, RateOf(row));
    if (opened != 1) {
      RollBack(openedPaths);
      return -1;
    }
    // A chained device goes with its master's record.
    if (!row.chained) openedPaths.emplace_back(path);
  }
  return 1;
}

}  // namespace

extern "C" {

int ZeltoCom_OpenProject(const char* path) {
  return Guarded(-1, [&] {
    IDtoPortList_Clear();
    const std::optional<std::string> text = ReadFileOrReport(std::string(Arg(path)));
    if (!text) return 0;
    const ProjectFile file = ReadProjectFile(*text);
    for (const s_IDPort& row : file.rows) IDtoPortList_Add(row);
    if (!file.error.empty()) {
      SetError(nullptr, file.error);
      return file.result;
    }
    return OpenRows(file.rows);
  });
}

int ZeltoCom_CloseProject(void) {
  return Guarded(0, [] {
    const std::vector<s_IDPort> rows = IDtoPortList_All();
    if (rows.empty()) {
      SetError(nullptr, "No devices found");
      return 0;
    }
    for (const s_IDPort& row : rows) {
      // Chained devices go with their master's record.
      if (row.chained) continue;
      const int closed = ZeltoCom_Close(row.devicePath.c_str());
      if (closed != 1) return closed;
    }
    return 1;
  });
}

}  // extern "C"
