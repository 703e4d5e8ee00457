// Calls that open, close, send to and capture on many ports at once.
#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "api/common.hpp"
#include "api/fan_out.hpp"
#include "device/identify.hpp"
#include "device/lines.hpp"
#include "frame/errors.hpp"
#include "frame/registry.hpp"
#include "frame/utils.hpp"
#include "zeltocom.h"

using namespace zeltocom;

namespace {

// A device path room enough for any path a port record holds.
constexpr std::size_t kPathBuffer = 255;

// The caller's texts, copied before any worker starts.
std::vector<std::string> Texts(const char* const* texts, int n) {
  std::vector<std::string> copies;
  copies.reserve(static_cast<std::size_t>(n));
  for (int i = 0; i < n; ++i) copies.emplace_back(Arg(texts[i]));
  return copies;
}

// Threads register their ports in the order they finish. The caller's ports
// take back the caller's order among the places they hold in the registry;
// ports opened before keep theirs.
void RestoreCallerOrder(const std::vector<std::string>& paths) {
  const std::vector<PortRef> registered = PortsList_All(&OpenedPorts);
  std::vector<int> places;
  for (int i = 0; i < static_cast<int>(registered.size()); ++i) {
    if (std::ranges::find(paths, registered[static_cast<std::size_t>(i)]->devicePath.view()) !=
        paths.end()) {
      places.push_back(i);
    }
  }
  for (std::size_t j = 0; j < paths.size() && j < places.size(); ++j) {
    const PortRef there = PortsList_GetByIndex(&OpenedPorts, places[j]);
    const PortRef wanted = PortsList_GetByDevPath(paths[j]);
    if (there && wanted && there != wanted) PortsList_Swap(&OpenedPorts, there.get(), wanted.get());
  }
}

// Closes, at once, the ports of `paths` whose open in `results` succeeded.
void CloseOpened(const std::vector<std::string>& paths, std::span<const int> results) {
  std::vector<std::string> opened;
  for (std::size_t i = 0; i < paths.size(); ++i) {
    if (results[i] == 1) opened.push_back(paths[i]);
  }
  FanOut(opened.size(), [&](std::size_t i) { ZeltoCom_Close(opened[i].c_str()); });
}

// Opens `paths` at once, one worker per path; with `missing` given, an empty
// path gets no worker but -1 and that text in its slot. On any failure every
// port this call opened is closed again and the first failure returned,
// with the failing port's error text.
int OpenAll(int* results, const std::vector<std::string>& paths, int baudrate,
            const char* missing) {
  const std::size_t n = paths.size();
  const auto needed = [&](std::size_t i) { return missing == nullptr || !paths[i].empty(); };
  for (std::size_t i = 0; i < n; ++i) {
    if (!needed(i)) results[i] = -1;
  }
  const std::vector<std::string> texts = FanOutWhere(
      n, needed,
      [&](std::size_t i) { ZeltoCom_Open_Multi_Thread(&results[i], paths[i].c_str(), baudrate); },
      missing != nullptr ? missing : "");
  const std::span<const int> slots(results, n);
  const int failing = FirstFailing(slots);
  if (failing >= 0) {
    CloseOpened(paths, slots);
    KeepTextOf(texts, failing);
    return results[failing];
  }
  RestoreCallerOrder(paths);
  return 1;
}

int CloseListed(int* results, const std::vector<std::string>& names,
                int (*close)(int*, const char*)) {
  FanOut(names.size(), [&](std::size_t i) { close(&results[i], names[i].c_str()); });
  return WorstResult(std::span<const int>(results, names.size())) == 1 ? 1 : 0;
}

// The check of the calls that address every open port: false, with the
// error text, when none is open.
bool AnyPortOpen() {
  if (PortsList_Count(&OpenedPorts) > 0) return true;
  SetError(nullptr, "No ports have been opened");
  return false;
}

// The checks of the calls that send to listed ports.
bool EnoughPortsOpen(int nPorts) {
  if (!AnyPortOpen()) return false;
  if (PortsList_Count(&OpenedPorts) < nPorts) {
    SetError(nullptr, "Not all ports have been opened");
    return false;
  }
  return true;
}

// One send of a parallel send: to `path`, or, when it is empty, to nobody
// (the slot keeps -1).
struct PortCommand {
  std::string path;
  std::string command;
  char* response = nullptr;
};

// Runs the exchanges at once and sums their results up; a failed call
// reports the text of its first port with the call's result.
int SendAll(int* results, const std::vector<PortCommand>& exchanges) {
  const std::size_t n = exchanges.size();
  for (std::size_t i = 0; i < n; ++i) results[i] = -1;
  const std::vector<std::string> texts = FanOutWhere(
      n, [&](std::size_t i) { return !exchanges[i].path.empty(); },
      [&](std::size_t i) {
        const PortCommand& e = exchanges[i];
        ZeltoCom_Send_Multi_Thread(&results[i], e.path.c_str(), e.command.c_str(), e.response);
      },
      "The device path is not in use");
  return WorstResultKeepingText(std::span<const int>(results, n), texts);
}

std::vector<PortCommand> ToAllOpen(const char* command, char* const* responses) {
  std::vector<PortCommand> exchanges;
  for (const PortRef& port : PortsList_All(&OpenedPorts)) {
    char* response = responses != nullptr ? responses[exchanges.size()] : nullptr;
    exchanges.push_back(
        {std::string(port->devicePath.view()), std::string(Arg(command)), response});
  }
  return exchanges;
}

int SendToAllOpen(int* results, const char* command, char* const* responses) {
  if (!AnyPortOpen() || !ArraysGiven(1, {results})) return -1;
  return SendAll(results, ToAllOpen(command, responses));
}

// Runs `capture(slot, path)` on every port at once and sums the results up.
template <typename Capture>
int CaptureAll(int* results, const std::vector<std::string>& paths, Capture capture) {
  const std::vector<std::string> texts =
      FanOut(paths.size(), [&](std::size_t i) { capture(&results[i], paths[i].c_str()); });
  return WorstResultKeepingText(std::span<const int>(results, paths.size()), texts);
}

std::vector<std::string> OpenPaths() {
  std::vector<std::string> paths;
  for (const PortRef& port : PortsList_All(&OpenedPorts)) {
    paths.emplace_back(port->devicePath.view());
  }
  return paths;
}

// Whether the instrument holding the line of `port` is a spectrometer,
// asking its model when not yet known. A port that fails to answer is none.
bool IsSpectrometer(const PortRef& port) {
  Call call;
  const std::optional<HeldPort> held = call.Hold(port, nullptr);
  if (!held) return false;
  try {
    CMD_LoadSettings_HardwareType(held->owner());
  } catch (const LineError& e) {
    SetError(held->owner(), e.what());
    return false;
  }
  return held->owner()->deviceType == DEVTYPE_SPECTROMETER;
}

}  // namespace

extern "C" {

int ZeltoCom_Open_Multi_Thread(int* result, const char* devicePath, int baudrate) {
  return StoreResult(result, ZeltoCom_Open(devicePath, baudrate));
}

int ZeltoCom_Open_Multi(int* returnValues, const char* const* devicePaths, int nPorts,
                        int baudrate) {
  return Guarded(-1, [&] {
    if (!ArraysGiven(nPorts, {returnValues, devicePaths})) return -1;
    if (!DetectionCheck()) return -1;
    if (!BaudrateAccepted(baudrate)) return -1;
    return OpenAll(returnValues, Texts(devicePaths, nPorts), baudrate, nullptr);
  });
}

int ZeltoCom_OpenSN_Multi(int* returnValues, const char* const* serialNumbers, int nPorts,
                          int baudrate) {
  return Guarded(-1, [&] {
    if (!ArraysGiven(nPorts, {returnValues, serialNumbers})) return -1;
    if (!DetectionCheck()) return -1;
    if (!BaudrateAccepted(baudrate)) return -1;
    if (nPorts == 0) return 1;
    std::vector<std::vector<char>> buffers(static_cast<std::size_t>(nPorts),
                                           std::vector<char>(kPathBuffer, '\0'));
    std::vector<char*> found;
    found.reserve(buffers.size());
    for (std::vector<char>& buffer : buffers) found.push_back(buffer.data());
    ZeltoCom_AreConnected(found.data(), serialNumbers, nPorts, baudrate);
    const std::vector<std::string> paths(found.begin(), found.end());
    return OpenAll(returnValues, paths, baudrate, "Unable to find device");
  });
}

int ZeltoCom_Close_Multi(int* returnValues, const char* const* devicePaths, int nPorts) {
  return Guarded(0, [&] {
    if (!ArraysGiven(nPorts, {returnValues, devicePaths})) return -1;
    return CloseListed(returnValues, Texts(devicePaths, nPorts), ZeltoCom_Close_Multi_Thread);
  });
}

int ZeltoCom_CloseSN_Multi(int* returnValues, const char* const* serialNumbers, int nPorts) {
  return Guarded(0, [&] {
    if (!ArraysGiven(nPorts, {returnValues, serialNumbers})) return -1;
    return CloseListed(returnValues, Texts(serialNumbers, nPorts), ZeltoCom_CloseSN_Multi_Thread);
  });
}

int ZeltoCom_Send_Multi(int* returnValues, const char* const* devicePaths, int nPorts,
                        const char* const* commands, char* const* responses) {
  return Guarded(-1, [&] {
    if (!ArraysGiven(nPorts, {returnValues, devicePaths, commands, responses})) return -1;
    if (!EnoughPortsOpen(nPorts)) return -1;
    std::vector<PortCommand> exchanges;
    exchanges.reserve(static_cast<std::size_t>(nPorts));
    for (int i = 0; i < nPorts; ++i) {
      exchanges.push_back(
          {std::string(Arg(devicePaths[i])), std::string(Arg(commands[i])), responses[i]});
    }
    return SendAll(returnValues, exchanges);
  });
}

int ZeltoCom_SendSN_Multi(int* returnValues, const char* const* serialNumbers, int nPorts,
                          const char* const* commands, char* const* responses) {
  return Guarded(-1, [&] {
    if (!ArraysGiven(nPorts, {returnValues, serialNumbers, commands, responses})) return -1;
    if (!EnoughPortsOpen(nPorts)) return -1;
    std::vector<PortCommand> exchanges;
    exchanges.reserve(static_cast<std::size_t>(nPorts));
    for (int i = 0; i < nPorts; ++i) {
      const PortRef port = PortsList_GetBySerialNumber(&OpenedPorts, Arg(serialNumbers[i]));
      const std::string path = port ? std::string(port->devicePath.view()) : std::string();
      exchanges.push_back({path, std::string(Arg(commands[i])), responses[i]});
    }
    return SendAll(returnValues, exchanges);
  });
}

int ZeltoCom_Send_Multi_NR(int* returnValues, const char* devicePathList, int nPorts,
                           const char* commandList, char commandSeparator) {
  return Guarded(-1, [&] {
    if (!ArraysGiven(nPorts, {returnValues})) return -1;
    const std::vector<std::string> paths = SplitNonEmpty(Arg(devicePathList), ';');
    const std::vector<std::string> commands = SplitNonEmpty(Arg(commandList), commandSeparator);
    const auto wanted = static_cast<std::size_t>(nPorts);
    if (paths.size() < wanted || commands.size() < wanted || commands.size() < paths.size()) {
      SetError(nullptr, "Not enough commands given");
      return -1;
    }
    if (!EnoughPortsOpen(nPorts)) return -1;
    std::vector<PortCommand> exchanges;
    for (std::size_t i = 0; i < wanted; ++i) exchanges.push_back({paths[i], commands[i], nullptr});
    return SendAll(returnValues, exchanges);
  });
}

int ZeltoCom_SendToAll_Thread(int* result, const char* devicePath, const char* command,
                              char* response) {
  return ZeltoCom_Send_Multi_Thread(result, devicePath, command, response);
}

int ZeltoCom_SendToAll(int* returnValues, const char* command, char* const* responses) {
  return Guarded(-1, [&] {
    if (!AnyPortOpen() || !ArraysGiven(1, {responses})) return -1;
    return SendToAllOpen(returnValues, command, responses);
  });
}

int ZeltoCom_SendToAll_NR(int* returnValues, const char* command) {
  return Guarded(-1, [&] { return SendToAllOpen(returnValues, command, nullptr); });
}

int ZeltoCom_CaptureFromAll_Thread(int* result, const char* devicePath, int pwm, int range,
                                   int pwmFrames) {
  return StoreResult(result, ZeltoCom_Capture(devicePath, pwm, range, pwmFrames));
}

int ZeltoCom_CaptureFromAllSpectrometers_Thread(int* result, const char* devicePath, int pwm,
                                                int manualExposure, float exposure) {
  return StoreResult(result,
                     ZeltoCom_SpectrometerCapture(devicePath, pwm, manualExposure, exposure));
}

int ZeltoCom_CaptureFromAll(int* returnValues, int pwm, int range, int pwmFrames) {
  return Guarded(-1, [&] {
    if (!AnyPortOpen()) return 0;
    if (!ArraysGiven(1, {returnValues})) return -1;
    return CaptureAll(returnValues, OpenPaths(), [&](int* slot, const char* path) {
      ZeltoCom_CaptureFromAll_Thread(slot, path, pwm, range, pwmFrames);
    });
  });
}

int ZeltoCom_CaptureFromAllSpectrometers(int* returnValues, int pwm, int manualExposure,
                                         float exposure) {
  return Guarded(-1, [&] {
    if (!AnyPortOpen()) return 0;
    if (!ArraysGiven(1, {returnValues})) return -1;
    std::vector<std::string> spectrometers;
    for (const PortRef& port : PortsList_All(&OpenedPorts)) {
      if (IsSpectrometer(port)) spectrometers.emplace_back(port->devicePath.view());
    }
    if (spectrometers.empty()) {
      SetError(nullptr, "No Spectrometers have been found");
      return 0;
    }
    return CaptureAll(returnValues, spectrometers, [&](int* slot, const char* path) {
      ZeltoCom_CaptureFromAllSpectrometers_Thread(slot, path, pwm, manualExposure, exposure);
    });
  });
}

}  // extern "C"
