// Sending commands, response time-outs and the room of answer buffers.
#include <string>

#include "api/send.hpp"
#include "device/bus.hpp"
#include "device/exchange.hpp"
#include "device/identify.hpp"
#include "device/lines.hpp"
#include "device/settings.hpp"
#include "frame/clock.hpp"
#include "frame/errors.hpp"
#include "frame/registry.hpp"
#include "frame/utils.hpp"
#include "zeltocom.h"

using namespace zeltocom;

namespace {

constexpr std::string_view kEot = "\x04";

bool IsGetAll(const std::string& upper) { return Contains(upper, "GET") && Contains(upper, "ALL"); }

// Answers of several lines that end only when the instrument falls silent.
bool IsPagedAnswer(const std::string& upper) {
  return upper == "GETSTATUS" || upper == "GETINFO" || upper == "HELP";
}

constexpr const char* kAnswerCut = "Answer longer than the response buffer";

int AnswerBusCommand(s_CommPort* owner, int result, const Reply& answer, char* response) {
  if (answer.text.empty() || CopyAnswer(response, answer.text)) return result;
  SetError(owner, kAnswerCut);
  return 0;
}

std::string MarkerFor(const s_CommPort* owner, const std::string& upper) {
  if (upper == "ENABLEEOT") return "\r\n\x04";
  if (upper == "DISABLEEOT") return "\r\n";
  return std::string(owner->eotFormat.view());
}

// Waits for the answer in the way this command needs. A late answer of
// several lines is still handed out; a late one-line answer is a time-out
// (`*timedOut`).
Reply WaitForAnswer(s_CommPort* owner, const std::string& upper, const std::string& marker,
                    TimeoutMs timeout, bool* timedOut) {
  const bool eotMarker = Contains(marker, kEot);
  *timedOut = false;
  if (IsGetAll(upper) && !eotMarker) {
    return Await(owner, End::Lines(owner->settings.numFibers, marker).Trimmed(), timeout);
  }
  if (IsPagedAnswer(upper) && !eotMarker) return Await(owner, End::Quiet(marker), timeout);
  if (Contains(upper, "BUSCE") && eotMarker && HasOldBusFirmware(owner)) {
    Reply answer = Await(owner, End::Marker("\r\n"), timeout);
    AwaitLateEot(owner, answer, 1);
    return answer;
  }
  const bool keepLineEnds = IsPagedAnswer(upper) || upper == "GETPORTINFO" ||
                            upper == "GETPORTDETAILS" || IsGetAll(upper);
  const End end = End::Marker(marker);
  Reply answer = Await(owner, keepLineEnds ? end : end.Trimmed(), timeout);
  *timedOut = answer.outcome == Outcome::Late;
  return answer;
}

// The settings entry of the owner's current adjustment set.
FiberSettings& CurrentEntry(s_CommPort* owner) {
  CMD_LoadSettings_AdjustmentSet(owner);
  return *owner->settings.current;
}

void SelectSetIfValid(s_CommPort* port, int set) {
  if (set >= 0 && set < kAdjustmentSets) port->settings.SelectAdjustmentSet(set);
}

void FollowQuery(s_CommPort* owner, const std::string& upper, const std::string& answer) {
  if (Contains(upper, "NFIB")) {
    owner->settings.numFibers = ParseInt(answer);
  } else if (Contains(upper, "VERSION")) {
    owner->SetFirmware(answer);
  } else if (Contains(upper, "HW")) {
    SetHardwareDescriptor(owner, answer, 24);
  } else if (Contains(upper, "FACTOR")) {
    CurrentEntry(owner).factor = ParseInt(answer);
  } else if (Contains(upper, "AVERAGE")) {
    CurrentEntry(owner).averages = ParseInt(answer);
  } else if (upper == "GETPWM") {
    CurrentEntry(owner).pwm = ParseInt(answer);
  }
}

void FollowCapture(s_CommPort* owner, const std::string& upper) {
  if (upper.empty() || upper[0] != 'C') return;
  if (upper == "CS" || upper == "CAPTURESEQUENCE") {
    owner->capture.sequence = true;
  } else if (upper.size() <= 2 || Contains(upper, "PWM") || Contains(upper, "CAPTURE")) {
    owner->capture.sequence = false;
  }
}

void FollowSetting(s_CommPort* addressed, s_CommPort* owner, const std::string& upper) {
  if (Contains(upper, "FACTOR")) {
    CurrentEntry(owner).factor = ParseInt(upper);
  } else if (Contains(upper, "AVERAGE")) {
    CurrentEntry(owner).averages = ParseInt(upper);
  } else if (Contains(upper, "BAUD")) {
    addressed->baudrate = static_cast<int>(ParseLong(upper));
  } else if (Contains(upper, "CUSTOMTIME")) {
    CMD_LoadSettings_HardwareType(owner);
    // "-W2" models take microseconds; the cache keeps milliseconds.
    const float divisor = IsW2Model(owner) ? 1000.0f : 1.0f;
    CurrentEntry(owner).customTime = static_cast<float>(ParseInt(upper)) / divisor;
  } else if (Contains(upper, "PWM")) {
    CurrentEntry(owner).pwm = ParseInt(upper);
  } else if (Contains(upper, "LOG")) {
    CurrentEntry(owner).intensityMode = IntensityMode::Logarithmic;
  } else if (Contains(upper, "LIN")) {
    CurrentEntry(owner).intensityMode = IntensityMode::Linear;
  } else if (Contains(upper, "RESETADJUSTMENT") || Contains(upper, "RESETUSERCAL")) {
    FiberSettings& entry = CurrentEntry(owner);
    entry.factor = 1;
    entry.averages = 1;
    entry.pwm = 0;
    entry.customTime = -1.0f;
    entry.intensityMode = IntensityMode::Logarithmic;
  } else if (Contains(upper, "CALIBRATION") || Contains(upper, "ADJUSTMENT")) {
    const int set = ParseInt(upper);
    SelectSetIfValid(owner, set);
    if (Contains(upper, "BUS")) {
      SelectSetIfValid(addressed, set);
      for (const PortRef& chained : PortsList_All(&addressed->chain)) {
        SelectSetIfValid(chained.get(), set);
      }
    }
  }
}

// Keeps the cache in step with what the command asked or changed.
void FollowCommand(s_CommPort* addressed, s_CommPort* owner, const std::string& upper,
                   const std::string& answer) {
  if (Contains(upper, "PUT") || Contains(upper, "SET")) {
    FollowSetting(addressed, owner, upper);
  } else if (Contains(upper, "GET")) {
    FollowQuery(owner, upper, answer);
  } else {
    FollowCapture(owner, upper);
  }
}

void CleanAnswer(std::string& answer) {
  std::size_t start = 0;
  while (start < answer.size() && static_cast<unsigned char>(answer[start]) < 0x20) ++start;
  answer.erase(0, start);
  TrimAnswerEnd(answer);
}

int SendTo(Call& call, PortRef port, const char* notOpenText, const char* command, char* response) {
  if (!CommandGiven(command)) return -1;
  const std::optional<HeldPort> held = call.Hold(std::move(port), notOpenText);
  if (!held) return -1;
  return Send(*held, std::string(command), response);
}

// Stores a library-wide setting: 1, or -1 for a negative value.
template <typename Setting>
int SetNonNegative(std::atomic<Setting>& setting, int value, const char* refusal) {
  if (value < 0) {
    SetError(nullptr, refusal);
    return -1;
  }
  setting = value;
  return 1;
}

}  // namespace

namespace zeltocom {

int Send(const HeldPort& port, const std::string& command, char* response) {
  const TimeoutMs timeout = LA_ResponseTimeout;
  s_CommPort* addressed = port.get();
  s_CommPort* owner = port.owner();
  const std::string upper = strtoupper(command);

  Reply answer;
  if (Contains(upper, "BUSFREE")) {
    return AnswerBusCommand(owner, CMD_BusFree(owner, &answer), answer, response);
  }
  if (Contains(upper, "BUSGET") && upper.size() > 6) {
    const int result = CMD_BusGet(owner, upper.substr(6, 14), &answer);
    return AnswerBusCommand(owner, result, answer, response);
  }

  if (Contains(upper, "BUSCE")) CMD_LoadSettings_FirmwareVersion(owner);
  if (IsGetAll(upper) && !Contains(owner->eotFormat.view(), kEot)) {
    CMD_LoadSettings_NumFibers(owner);
  }

  // An unasked message that comes during the exchange stays the last
  // response, rather than the answer.
  const uint64_t unaskedMark = addressed->lastResponse.mark();
  if (!SendCommand(owner, command)) {
    SetError(owner, "Unable to send command");
    return -1;
  }
  SetError(owner, "");
  CopyAnswer(response, "");

  const std::string marker = MarkerFor(owner, upper);
  bool timedOut = false;
  answer = WaitForAnswer(owner, upper, marker, timeout, &timedOut);
  if (timedOut) {
    // The instrument may have switched before it could answer.
    if (Contains(upper, "SETBAUD") && !CommandHeldBack(owner)) {
      ChangePortBaudrate(owner, upper);
    }
    SetError(owner, "Timeout");
    return 0;
  }
  if (answer.syntaxError) {
    SetError(owner, "Syntax error");
    return 0;
  }
  if (Contains(upper, "SETBAUD")) {
    ChangePortBaudrate(owner, upper);
    delayms(100);
    AwaitStraggler(owner, End::Marker(marker), 20);
  }

  // A late answer is still returned, but it may belong to an earlier
  // command, so it teaches the cache nothing.
  if (answer.answered()) FollowCommand(addressed, owner, upper, answer.text);
  if (Contains(upper, "ABLEEOT")) owner->eotFormat.assign(marker);
  CleanAnswer(answer.text);
  // The port's last answer, whichever instrument of its chain gave it.
  if (addressed != owner) owner->lastResponse.Store(answer.text);
  addressed->lastResponse.StoreAnswer(answer.text, unaskedMark);
  if (!CopyAnswer(response, answer.text)) {
    SetError(owner, kAnswerCut);
    return 0;
  }
  return 1;
}

bool CommandGiven(const char* command) {
  if (!Arg(command).empty()) return true;
  SetError(nullptr, "No command given");
  return false;
}

}  // namespace zeltocom

extern "C" {

int ZeltoCom_Send(const char* devicePath, const char* command, char* response) {
  return Guarded(-1, [&](Call& call) {
    return SendTo(call, PortsList_GetByDevPath(Arg(devicePath)), "The device path is not in use",
                  command, response);
  });
}

int ZeltoCom_SendSN(const char* serialNumber, const char* command, char* response) {
  return Guarded(-1, [&](Call& call) {
    return SendTo(call, PortsList_GetBySerialNumber(&OpenedPorts, Arg(serialNumber)),
                  "The device path is not in use", command, response);
  });
}

int ZeltoCom_SendByID(const char* deviceID, const char* command, char* response) {
  return Guarded(-1, [&](Call& call) {
    const std::optional<s_IDPort> row = IDtoPortList_GetPortByDeviceID(Arg(deviceID));
    if (!row) {
      SetError(nullptr, "ID not found");
      return -1;
    }
    return SendTo(call, PortsList_GetByDevPath(row->devicePath.view()),
                  "The device path is not in use", command, response);
  });
}

int ZeltoCom_SetResponseTimeout(int milliseconds) {
  return Guarded(-1, [&] {
    return SetNonNegative(LA_ResponseTimeout, milliseconds,
                          "The response time-out must not be negative");
  });
}

int ZeltoCom_SetResponseTimeoutAuto(const char* devicePath, int mode) {
  return Guarded(-1, [&] {
    const PortRef port = PortsList_GetByDevPath(Arg(devicePath));
    if (!port) {
      SetError(nullptr, "The port is not in use");
      return -1;
    }
    port->autoResponseTimeout = mode == 1;
    return 1;
  });
}

int ZeltoCom_SetResponseBufferSize(int bytes) {
  return Guarded(-1, [&] {
    return SetNonNegative(ResponseBufferSize, bytes,
                          "The response buffer size must not be negative");
  });
}

int ZeltoCom_Send_Multi_Thread(int* result, const char* devicePath, const char* command,
                               char* response) {
  return StoreResult(result, ZeltoCom_Send(devicePath, command, response));
}

}  // extern "C"
