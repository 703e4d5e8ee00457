// Detection of instruments on the enumerated ports, detection filters, and
// connection checks that find an instrument's port by its serial number.
#include <cstdio>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "api/common.hpp"
#include "api/fan_out.hpp"
#include "device/exchange.hpp"
#include "device/handshake.hpp"
#include "device/lines.hpp"
#include "frame/errors.hpp"
#include "frame/registry.hpp"
#include "frame/utils.hpp"
#include "zeltocom.h"

using namespace zeltocom;

namespace {

// The room of a serial-number buffer of a detection.
constexpr std::size_t kSerialBuffer = 25;
// How long an instrument may take to tell its model during a detection.
constexpr TimeoutMs kModelTimeoutMs = 180;

std::mutex filterMutex;
std::vector<std::string> DetectionFilter;

std::vector<std::string> Filters() {
  std::lock_guard lock(filterMutex);
  return DetectionFilter;
}

// The models a category word of a filter stands for: `patterns` formatted
// with n from 1 to `last`, or taken as they stand when `last` is 0.
struct FilterCategory {
  const char* word;
  int last;
  std::vector<const char*> patterns;
};

// Tried in this order; the first word the filter contains decides. "CLR" is
// tried before "CLRSTD", which it is part of, so the colour-standard row is
// never reached; hosts rely on the word "CLRSTD" selecting the colour models.
const std::vector<FilterCategory>& FilterCategories() {
  static const std::vector<FilterCategory> categories = {
      {"ANALYSER", 20, {"ZELTO %02d-T", "ZELTO %02d-P", "ZELTO %02d-TN", "ZELTO %02d-PN"}},
      {"FUNCTIONAL", 20, {"ZELTO %02d-T", "ZELTO %02d-TN"}},
      {"ICT", 20, {"ZELTO %02d-P", "ZELTO %02d-PN"}},
      {"LOWLIGHT", 20, {"ZELTO %02d-M"}},
      {"IR", 20, {"ZELTO %02d-PX"}},
      {"SPECTROMETER", 0, {"ZELTO 01-W", "ZELTO 01-W1", "ZELTO 01-W2"}},
      {"DISPLAY", 10, {"ZELTO %02d-V"}},
      {"CLR", 10, {"ZELTO %02d-CLR"}},
      {"CLRSTD", 0, {"ZELTO CLR_STD1", "ZELTO STD_CLR_1"}},
      {"ATLAS", 0, {"ZELTO NODE", "ZELTO ATLAS"}},
  };
  return categories;
}

std::vector<std::string> EntriesFor(const std::string& filter) {
  for (const FilterCategory& category : FilterCategories()) {
    if (!Contains(filter, category.word)) continue;
    std::vector<std::string> entries;
    if (category.last == 0) return {category.patterns.begin(), category.patterns.end()};
    for (int n = 1; n <= category.last; ++n) {
      for (const char* pattern : category.patterns) {
        char entry[20];
        std::snprintf(entry, sizeof entry, pattern, n);
        entries.emplace_back(entry);
      }
    }
    return entries;
  }
  return {filter};
}

// The model of the instrument on the held port, as filters spell it; none
// when it did not answer within the detection's time.
std::optional<std::string> ModelOf(const HeldPort& port) {
  std::string answer;
  if (CMD_SendCommand(port.owner(), "GETHW", kModelTimeoutMs, &answer) != 1) return std::nullopt;
  trim(answer);
  return strtoupper(answer);
}

// Whether the instrument just opened at `path` is one the filters take; its
// serial number goes to `serial`.
bool PassesFilters(const std::string& path, std::string& serial) {
  Call call;
  const std::optional<HeldPort> port = call.Hold(PortsList_GetByDevPath(path), nullptr);
  if (!port) return false;
  serial = std::string(port->get()->serialNumber.view());
  const std::vector<std::string> filters = Filters();
  if (filters.empty()) return true;
  const std::optional<std::string> model = ModelOf(*port);
  return model && std::ranges::find(filters, *model) != filters.end();
}

// Opens `path`, checks the instrument against the filters and closes the
// port again, whatever happens on the way.
int DetectOne(const std::string& path, int baudrate, std::string& serial) {
  if (ZeltoCom_Open(path.c_str(), baudrate) != 1) return 0;
  const OnScopeExit closeAgain([&] { ZeltoCom_Close(path.c_str()); });
  return PassesFilters(path, serial) ? 1 : 0;
}

// What a detection found on one port.
struct Detected {
  int result = 0;
  std::string serial;
};

// Detects on every enumerated port at once; none after a failed check (the
// call's result then in `refused`).
std::optional<std::vector<std::pair<std::string, Detected>>> DetectAll(int baudrate, int& refused) {
  refused = 0;
  if (!DetectionCheck()) return std::nullopt;
  if (!BaudrateAccepted(baudrate)) {
    refused = -1;
    return std::nullopt;
  }
  const std::vector<std::string> paths = DetectedPorts();
  std::vector<Detected> found(paths.size());
  FanOut(paths.size(), [&](std::size_t i) {
    char serial[kSerialBuffer] = "";
    ZeltoCom_Detect_Thread(&found[i].result, paths[i].c_str(), baudrate, serial);
    found[i].serial = serial;
  });
  std::vector<std::pair<std::string, Detected>> detected;
  for (std::size_t i = 0; i < paths.size(); ++i) {
    if (found[i].result == 1) detected.emplace_back(paths[i], found[i]);
  }
  return detected;
}

bool BufferGiven(const void* buffer) {
  if (buffer != nullptr) return true;
  SetError(nullptr, kNoBuffer);
  return false;
}

// Detects and copies `text(path, found)` of each port detected into the
// next of the caller's buffers; the number copied.
template <typename Text>
int DetectInto(char** buffers, int baudrate, Text text) {
  return Guarded(-1, [&] {
    int refused = 0;
    const auto detected = DetectAll(baudrate, refused);
    if (!detected) return refused;
    if (!detected->empty() && !BufferGiven(buffers)) return -1;
    int n = 0;
    for (const auto& [path, found] : *detected) CopyOut(buffers[n++], text(path, found));
    return n;
  });
}

// The enumerated ports for a listing; empty, with the error text, when none.
std::vector<std::string> ListedPorts() {
  if (!DetectionCheck()) return {};
  return DetectedPorts();
}

// ---- Connection checks ----

// Probes the port at `path` for one of `sought`, without registering it: the
// serial number it answered with, or "" when nothing answered (or the port
// is open, being opened or another process's).
std::string ProbeForSerialNumbers(const std::string& path, const std::vector<std::string>& sought) {
  const PathClaim claim(path);
  if (!claim.held() || PortsList_GetByDevPath(path)) return "";
  std::string answered;
  const auto isSought = [&](const Identity& id) {
    if (!HasSerialNumber(id)) return false;
    const std::string upper = strtoupper(id.serialNumber);
    return std::ranges::any_of(sought, [&](const std::string& s) { return Contains(upper, s); });
  };
  const auto remember = [&](ProbedLine&, const Identity& id, int baud) {
    UpdateBaudrateForPort(path, id.serialNumber, baud);
    answered = strtoupper(id.serialNumber);
    return true;
  };
  try {
    ProbeRates(path, RateSearchOrder(GetBaudrateForPort(path)), isSought, remember);
  } catch (const LineError&) {
    // A line that is gone or babbling holds no instrument to find.
  }
  return answered;
}

// Probes every enumerated port at once for the `sought` serial numbers and
// fills the places of `found` still empty whose serial number answered.
void ProbeForSought(const std::vector<std::string>& serials, const std::vector<std::string>& sought,
                    std::vector<std::string>& found) {
  const std::vector<std::string> paths = DetectedPorts();
  std::vector<std::string> answers(paths.size());
  FanOut(paths.size(),
         [&](std::size_t p) { answers[p] = ProbeForSerialNumbers(paths[p], sought); });
  for (std::size_t i = 0; i < serials.size(); ++i) {
    if (!found[i].empty() || serials[i].empty()) continue;
    const std::string wanted = strtoupper(serials[i]);
    for (std::size_t p = 0; p < paths.size() && found[i].empty(); ++p) {
      if (!answers[p].empty() && Contains(answers[p], wanted)) found[i] = paths[p];
    }
  }
}

// Finds the port of each serial number: from the open ports without any
// traffic, else by probing every other enumerated port at once. `found[i]`
// is the path of serials[i], or empty. The number found, or -1.
int FindConnected(const std::vector<std::string>& serials, std::vector<std::string>& found,
                  int baudrate) {
  if (!DetectionCheck()) return -1;
  if (!BaudrateAccepted(baudrate)) return -1;
  found.assign(serials.size(), "");
  std::vector<std::string> sought;
  bool anyGiven = false;
  for (std::size_t i = 0; i < serials.size(); ++i) {
    if (serials[i].empty()) continue;
    anyGiven = true;
    const PortRef open = PortsList_GetBySerialNumber(&OpenedPorts, serials[i]);
    if (open) {
      found[i] = std::string(open->devicePath.view());
    } else {
      sought.push_back(strtoupper(serials[i]));
    }
  }
  if (!anyGiven) {
    SetError(nullptr, "No serial numbers given");
    return -1;
  }
  if (!sought.empty()) ProbeForSought(serials, sought, found);
  const auto n = std::ranges::count_if(found, [](const std::string& f) { return !f.empty(); });
  if (n == 0) SetError(nullptr, "Unable to find device");
  return static_cast<int>(n);
}

// The fields of `text` between separators, empty ones kept.
std::vector<std::string> Fields(std::string_view text, char separator) {
  std::vector<std::string> fields(1);
  for (char c : text) {
    if (c == separator) {
      fields.emplace_back();
    } else {
      fields.back() += c;
    }
  }
  return fields;
}

}  // namespace

extern "C" {

int ZeltoCom_Detect_Thread(int* result, const char* devicePath, int baudrate, char* serialNumber) {
  CopyOut(serialNumber, "");
  return StoreResult(result, Guarded(0, [&] {
                       std::string serial;
                       const int detected =
                           DetectOne(std::string(Arg(devicePath)), baudrate, serial);
                       if (detected == 1)
                         CopyOut(serialNumber, serial.substr(0, kSerialBuffer - 1));
                       return detected;
                     }));
}

int ZeltoCom_Detect(char** detectedPorts, int baudrate) {
  return DetectInto(detectedPorts, baudrate,
                    [](const std::string& path, const Detected&) { return path; });
}

int ZeltoCom_DetectS(char* detectedPortsText, char separator, int baudrate) {
  return Guarded(-1, [&] {
    if (!BufferGiven(detectedPortsText)) return -1;
    CopyOut(detectedPortsText, "");
    int refused = 0;
    const auto detected = DetectAll(baudrate, refused);
    if (!detected) return refused;
    std::string text;
    for (const auto& [path, found] : *detected) {
      if (!text.empty()) text += separator;
      text += path;
    }
    CopyOut(detectedPortsText, text);
    return static_cast<int>(detected->size());
  });
}

int ZeltoCom_DetectSN(char** detectedSerialNumbers, int baudrate) {
  return DetectInto(detectedSerialNumbers, baudrate,
                    [](const std::string&, const Detected& found) { return found.serial; });
}

void ZeltoCom_AddDetectionFilter(const char* filter) {
  Guarded(0, [&] {
    const std::string upper = strtoupper(Arg(filter));
    if (upper.empty()) return 0;
    const std::vector<std::string> entries = EntriesFor(upper);
    std::lock_guard lock(filterMutex);
    DetectionFilter.insert(DetectionFilter.end(), entries.begin(), entries.end());
    return 0;
  });
}

void ZeltoCom_ClearDetectionFilters(void) {
  Guarded(0, [] {
    std::lock_guard lock(filterMutex);
    DetectionFilter.clear();
    return 0;
  });
}

int ZeltoCom_ListPortsDetected(char** portsList) {
  return Guarded(0, [&] {
    const std::vector<std::string> ports = ListedPorts();
    if (ports.empty() || !BufferGiven(portsList)) return 0;
    for (int i = 0; i < 8; ++i) CopyOut(portsList[i], "");
    int n = 0;
    for (const std::string& path : ports) CopyOut(portsList[n++], path);
    return n;
  });
}

int ZeltoCom_ListPortsDetectedTxt(char* portsText, const char* separator) {
  return Guarded(0, [&] {
    const std::vector<std::string> ports = ListedPorts();
    if (ports.empty() || !BufferGiven(portsText)) return 0;
    std::string text;
    for (const std::string& path : ports) {
      if (!text.empty()) text += Arg(separator);
      text += path;
    }
    CopyOut(portsText, text);
    return static_cast<int>(ports.size());
  });
}

int ZeltoCom_AreConnected(char** portsOut, const char* const* serialNumbers, int nSerials,
                          int baudrate) {
  return Guarded(-1, [&] {
    if (!ArraysGiven(nSerials, {portsOut, serialNumbers})) return -1;
    std::vector<std::string> serials;
    serials.reserve(static_cast<std::size_t>(nSerials));
    for (int i = 0; i < nSerials; ++i) serials.emplace_back(Arg(serialNumbers[i]));
    for (int i = 0; i < nSerials; ++i) CopyOut(portsOut[i], "");
    std::vector<std::string> found;
    const int n = FindConnected(serials, found, baudrate);
    for (int i = 0; i < nSerials && n > 0; ++i) {
      CopyOut(portsOut[i], found[static_cast<std::size_t>(i)]);
    }
    return n;
  });
}

int ZeltoCom_Isconnected_thread(char** portsOut, const char* devicePath,
                                const char* const* serialNumbers, int nSerials, int baudrate) {
  return Guarded(-1, [&] {
    if (!ArraysGiven(nSerials, {portsOut, serialNumbers})) return -1;
    if (!BaudrateAccepted(baudrate)) return -1;
    const std::string path(Arg(devicePath));
    std::vector<std::string> sought;
    sought.reserve(static_cast<std::size_t>(nSerials));
    for (int i = 0; i < nSerials; ++i) sought.push_back(strtoupper(Arg(serialNumbers[i])));
    // An open port's instrument is known already; probing it would disturb it.
    const PortRef open = PortsList_GetByDevPath(path);
    const std::string answered =
        open ? strtoupper(open->serialNumber.view()) : ProbeForSerialNumbers(path, sought);
    for (int i = 0; i < nSerials && !answered.empty(); ++i) {
      const std::string& wanted = sought[static_cast<std::size_t>(i)];
      if (wanted.empty() || !(open ? answered == wanted : Contains(answered, wanted))) continue;
      CopyOut(portsOut[i], path);
      return 1;
    }
    SetError(nullptr, "Unable to find device");
    return 0;
  });
}

int ZeltoCom_IsConnected(char* portOut, const char* serialNumber, int baudrate) {
  return Guarded(-1, [&] {
    if (!BufferGiven(portOut)) return -1;
    CopyOut(portOut, "");
    std::vector<std::string> found;
    const int n = FindConnected({std::string(Arg(serialNumber))}, found, baudrate);
    if (n > 0) CopyOut(portOut, found.front());
    return n;
  });
}

int ZeltoCom_AreConnectedS(char* portsOut, const char* serialNumbers, int separator, int baudrate) {
  return Guarded(-1, [&] {
    if (!BufferGiven(portsOut)) return -1;
    CopyOut(portsOut, "");
    const char sep = static_cast<char>(separator);
    std::vector<std::string> found;
    const int n = FindConnected(Fields(Arg(serialNumbers), sep), found, baudrate);
    if (n < 0) return n;
    std::string text;
    for (std::size_t i = 0; i < found.size(); ++i) {
      if (i > 0) text += sep;
      text += found[i];
    }
    CopyOut(portsOut, text);
    return n;
  });
}

}  // extern "C"
