// Instruments daisy-chained behind an open port: the chain's registry,
// sends and captures through the master's line, and the last answer of a
// port.
#include <algorithm>
#include <string>
#include <vector>

#include "api/capture.hpp"
#include "api/common.hpp"
#include "api/send.hpp"
#include "device/bus.hpp"
#include "device/capture_command.hpp"
#include "device/exchange.hpp"
#include "device/identify.hpp"
#include "device/settings.hpp"
#include "frame/clock.hpp"
#include "frame/errors.hpp"
#include "frame/registry.hpp"
#include "frame/utils.hpp"
#include "zeltocom.h"

using namespace zeltocom;

namespace {

// The master at `devicePath`, held for the call, after the detection checks.
std::optional<HeldPort> HoldMaster(Call& call, const char* devicePath) {
  if (!PortsDetected()) return std::nullopt;
  return call.Hold(PortsList_GetByDevPath(Arg(devicePath)), "The port is not in use");
}

// One exchange of a bus command through `holder`, the instrument that answers
// it; the library's picture of the line follows when it is answered, so that
// the next hand-over starts from where the line really is.
int BusExchange(s_CommPort* holder, const std::string& command, TimeoutMs timeoutMs) {
  const int result = CMD_SendCommand(holder, command, timeoutMs);
  if (result != 1) return result;
  s_CommPort* master = holder->Master();
  if (command == "BUSFREE") {
    master->SetBusOwner(master);
  } else if (holder != master) {
    master->SetBusOwner(holder);
  }
  return 1;
}

// Gives the line back to the master; whoever holds it answers.
int FreeBus(s_CommPort* master, TimeoutMs timeoutMs) {
  return BusExchange(master->busOwner, "BUSFREE", timeoutMs);
}

int AddToChain(const HeldPort& port, const std::string& serial) {
  s_CommPort* master = port.get();
  if (serial == master->serialNumber.view()) return 1;
  if (PortsList_GetBySerialNumber(&master->chain, serial)) {
    SetError(nullptr, "Device has already been added");
    return 0;
  }
  const TimeoutMs freeTime = ChainFreeTimeMs(master->charTimeMs);
  FreeBus(master, freeTime);

  // Whatever the answer, the line goes back to the master afterwards.
  const auto giveBack = [&](const char* failure) {
    FreeBus(master, freeTime);
    if (failure != nullptr) SetError(master, failure);
    return failure == nullptr ? 1 : 0;
  };
  // Untrimmed: a 0x04 read with the line end tells the instrument's framing.
  Reply answer = AskForLine(master, serial, End::Marker("\r\n"), Rounding::Up);
  if (answer.outcome == Outcome::NotSent) {
    SetError(master, "Communication error");
    return 0;
  }
  const bool late = answer.outcome == Outcome::Late;
  if (answer.syntaxError || (late && answer.text.empty())) return giveBack("Unable to get the bus");

  const std::string eot = GetEOTformat(master, answer.text);
  TrimAnswerEnd(answer.text);
  if (answer.text != "OK") return giveBack("Communication error");
  const PortRef added =
      PortsList_Add(&master->chain, master, master->line, master->devicePath.view(), serial, "",
                    eot, master->baudrate, master->charTimeMs);
  if (!added) return giveBack("Communication error");
  // The chained instrument answered the hand-over, so it holds the line now.
  master->SetBusOwner(added.get());
  return giveBack(nullptr);
}

// Hands the master's line to the instrument with `serial`; 1, or the
// hand-over's failure.
int TakeBusFor(const HeldPort& port, const std::string& serial) {
  Reply answer;
  const int taken = CMD_BusGet(port.get(), serial, &answer);
  // A refusal comes without a text of its own; the host still learns why.
  if (taken == 0 && !answer.syntaxError && !answer.text.empty() && !Contains(answer.text, "OK")) {
    SetError(port.get(), "Device not found");
  }
  return taken;
}

// ---- Chain capture ----

struct ChainCapture {
  s_CommPort* master;
  int pwm;
  int range;
  int pwmFrames;
  TimeoutMs freeTime;
  TimeoutMs pollTime;
};

TimeoutMs CaptureTimeoutOf(const ChainCapture& c, s_CommPort* device) {
  const FiberSettings& settings = *device->settings.current;
  return CMD_GetCaptureTimeout(device->deviceType, c.pwm, c.range, c.pwmFrames, settings.factor,
                               settings.averages);
}

void LoadCaptureSettings(s_CommPort* device) {
  CMD_LoadSettings_FirmwareVersion(device);
  CMD_LoadSettings_AdjustmentSet(device);
  CMD_LoadSettings_Averages(device);
  CMD_LoadSettings_Exposure(device);
}

bool CaptureSettingsKnown(const s_CommPort* device) {
  const FiberSettings& settings = *device->settings.current;
  return !device->hardwareDescriptor.empty() && !device->firmwareText.empty() &&
         settings.averages != -1 && settings.factor != -1;
}

// Learns what a chained instrument needs for its time-out, through the line.
// 1 and `*used` whether it captures; else the call's failure result.
int LearnChained(const ChainCapture& c, s_CommPort* device, bool* used) {
  *used = false;
  if (device->deviceType == DEVTYPE_SPECTROMETER) return 1;
  if (!CaptureSettingsKnown(device)) {
    if (BusExchange(device, "BUSGET" + std::string(device->serialNumber.view()), c.freeTime) != 1) {
      FreeBus(c.master, c.freeTime);
      SetError(c.master, "Unable to get the bus");
      return 0;
    }
    CMD_LoadSettings_HardwareType(device);
    if (device->deviceType == DEVTYPE_SPECTROMETER) {
      if (FreeBus(c.master, c.freeTime) == 1) return 1;
      SetError(c.master, "Unable to free the bus");
      return 0;
    }
    LoadCaptureSettings(device);
    if (FreeBus(c.master, c.freeTime) != 1) {
      SetError(c.master, "Unable to get the bus");
      return 0;
    }
  }
  *used = true;
  return 1;
}

// The time the whole chain may take, with a margin that grows with the
// chain; -1 and the error set when an instrument could not be asked.
TimeoutMs GatherTimeout(const ChainCapture& c, int* failure) {
  s_CommPort* master = c.master;
  if (master->busOwner != master && FreeBus(master, c.freeTime) != 1) {
    SetError(master, "Unable to free the bus");
    *failure = 0;
    return -1;
  }
  TimeoutMs t = 0;
  CMD_LoadSettings_HardwareType(master);
  if (master->deviceType != DEVTYPE_SPECTROMETER) {
    LoadCaptureSettings(master);
    t = CaptureTimeoutOf(c, master);
  }
  for (const PortRef& device : PortsList_All(&master->chain)) {
    bool used = false;
    const int learnt = LearnChained(c, device.get(), &used);
    if (learnt != 1) {
      *failure = learnt;
      return -1;
    }
    if (used) t = std::max(CaptureTimeoutOf(c, device.get()), t) + 150;
  }
  return t;
}

// NoAnswer: the line could not be brought back in step, so the question was
// not even asked.
enum class Poll { Capturing, Ended, NotSent, NoAnswer };

// One completion query. A refusal counts as ended: the instrument is no
// longer capturing. An instrument that is still capturing does not answer
// at all, so silence owes nothing.
Poll AskCaptureEnded(const ChainCapture& c, s_CommPort* device) {
  if (!SendCommand(device, "BUSCE" + std::string(device->serialNumber.view()))) {
    return Poll::NotSent;
  }
  if (CommandHeldBack(device)) return Poll::NoAnswer;
  const bool lateEot = Contains(device->eotFormat.view(), "\x04") && HasOldBusFirmware(device);
  const Reply answer = AwaitStraggler(
      device, End::Marker(lateEot ? std::string_view("\r\n") : device->eotFormat.view()),
      c.pollTime);
  if (answer.outcome == Outcome::Late && !answer.syntaxError) return Poll::Capturing;
  if (lateEot) AwaitLateEot(device, answer, 20);
  return Poll::Ended;
}

// Asks every instrument in turn until all report the end of their capture,
// or `timeoutMs` pass without any of them finishing.
int AwaitChainCaptures(const ChainCapture& c, TimeoutMs timeoutMs) {
  std::vector<s_CommPort*> pending{c.master};
  for (const PortRef& device : PortsList_All(&c.master->chain)) pending.push_back(device.get());
  delayms(static_cast<int>(c.pollTime / 16));
  double lastProgress = ClockMs();
  double lastProgressWall = WallClockMs();
  while (!pending.empty()) {
    for (auto it = pending.begin(); it != pending.end();) {
      const Poll poll = AskCaptureEnded(c, *it);
      if (poll == Poll::NotSent) {
        SetError(c.master, "Communications problem");
        return -1;
      }
      if (poll == Poll::NoAnswer) {
        SetError(c.master, "Timeout");
        return 0;
      }
      if (poll == Poll::Ended) {
        it = pending.erase(it);
        lastProgress = ClockMs();
        lastProgressWall = WallClockMs();
      } else {
        ++it;
      }
    }
    const auto timeout = static_cast<double>(timeoutMs);
    if (ClockMs() - lastProgress > timeout ||
        WallClockMs() - lastProgressWall > BusyWaitWallLimitMs(timeout)) {
      SetError(c.master, "Timeout");
      return 0;
    }
  }
  return 1;
}

int CaptureChain(const HeldPort& port, int pwm, int range, int pwmFrames) {
  s_CommPort* master = port.get();
  if (!LedCaptureArgumentsAccepted(master, pwm, range, pwmFrames)) return -1;
  const ChainCapture c{master,
                       pwm,
                       range,
                       pwmFrames,
                       ChainFreeTimeMs(master->charTimeMs),
                       ChainPollTimeMs(master->charTimeMs)};
  TimeoutMs t = LA_ResponseTimeout;
  if (master->autoResponseTimeout) {
    int failure = 0;
    t = GatherTimeout(c, &failure);
    if (t < 0) return failure;
  }
  const TimeoutMs timeout = t + 150;

  if (!SendCommand(master, BuildCaptureCommand("BUSC", pwm, range, pwmFrames))) {
    FreeBus(master, c.freeTime);
    SetError(master, "Unable to send command");
    return -1;
  }
  master->capture.sequence = false;
  for (const PortRef& device : PortsList_All(&master->chain)) device->capture.sequence = false;

  const auto failed = [&](const char* text) {
    SetError(master, text);
    FreeBus(master, c.freeTime);
    return 0;
  };
  const Reply answer = Await(master, End::Marker(master->eotFormat.view()).Trimmed(), timeout);
  if (!answer.answered()) return failed(answer.syntaxError ? "Syntax error" : "Timeout");
  const int ended = AwaitChainCaptures(c, timeout);
  if (ended == 0) FreeBus(master, c.freeTime);
  return ended;
}

// The single-port spectrometer procedure against a chained instrument.
int AcquireChained(const char* devicePath, const char* serialNumber, Acquisition kind, int pwm,
                   int manualExposure, float exposure) {
  return Guarded(-1, [&](Call& call) {
    const std::string serial(Arg(serialNumber));
    if (!SerialNumberAcceptable(serial)) return -1;
    const std::optional<HeldPort> port = HoldMaster(call, devicePath);
    if (!port) return -1;
    const int taken = TakeBusFor(*port, serial);
    if (taken != 1) return taken;
    return AcquireSpectrometer(*port, kind, pwm, manualExposure, exposure);
  });
}

}  // namespace

extern "C" {

int ZeltoCom_DaisyChain_Add(const char* devicePath, const char* serialNumber) {
  return Guarded(0, [&](Call& call) {
    const std::string serial(Arg(serialNumber));
    if (!SerialNumberAcceptable(serial)) return 0;
    const std::optional<HeldPort> port = HoldMaster(call, devicePath);
    return port ? AddToChain(*port, serial) : 0;
  });
}

int ZeltoCom_DaisyChain_Del(const char* devicePath, const char* serialNumber) {
  return Guarded(0, [&](Call& call) {
    const std::optional<HeldPort> port =
        call.Hold(PortsList_GetByDevPath(Arg(devicePath)), "The port is not being used");
    if (!port) return 0;
    const std::string_view serial = Arg(serialNumber);
    if (serial == (*port)->serialNumber.view()) return 1;
    if (serial.empty() || !PortsList_GetBySerialNumber(&(*port)->chain, serial)) {
      SetError(port->get(), "Device not found");
      return 0;
    }
    PortsList_DelBySerialNumber(&(*port)->chain, serial);
    return 1;
  });
}

int ZeltoCom_DaisyChain_Clear(const char* devicePath) {
  return Guarded(0, [&](Call& call) {
    const std::optional<HeldPort> port =
        call.Hold(PortsList_GetByDevPath(Arg(devicePath)), "The port is not in use");
    if (!port) return 0;
    const int count = PortsList_Count(&(*port)->chain);
    for (int i = 0; i < count; ++i) PortsList_DelByIndex(&(*port)->chain, 0);
    return 1;
  });
}

int ZeltoCom_DaisyChain_Send(const char* devicePath, const char* serialNumber, const char* command,
                             char* response) {
  return Guarded(-1, [&](Call& call) {
    if (!CommandGiven(command)) return -1;
    const std::string serial(Arg(serialNumber));
    if (!SerialNumberAcceptable(serial)) return -1;
    const std::optional<HeldPort> port = HoldMaster(call, devicePath);
    if (!port) return 0;
    const int taken = TakeBusFor(*port, serial);
    if (taken != 1) return taken;
    return Send(*port, command, response);
  });
}

int ZeltoCom_DaisyChain_Capture(const char* devicePath, int pwm, int range, int pwmFrames) {
  return Guarded(-1, [&](Call& call) {
    const std::optional<HeldPort> port =
        call.Hold(PortsList_GetByDevPath(Arg(devicePath)), "The port is not in use");
    return port ? CaptureChain(*port, pwm, range, pwmFrames) : -1;
  });
}

int ZeltoCom_DaisyChain_SpectrometerCapture(const char* devicePath, const char* serialNumber,
                                            int pwm, int manualExposure, float exposure) {
  return AcquireChained(devicePath, serialNumber, Acquisition::Spectrum, pwm, manualExposure,
                        exposure);
}

int ZeltoCom_DaisyChain_SpectrometerDark(const char* devicePath, const char* serialNumber, int pwm,
                                         int manualExposure, float exposure) {
  return AcquireChained(devicePath, serialNumber, Acquisition::Dark, pwm, manualExposure, exposure);
}

// Reads the last response without taking the line: a trigger listener on
// the port goes on waiting.
int ZeltoCom_GetResponseByPort(const char* devicePath, char* buffer) {
  return Guarded(0, [&] {
    if (PortsList_Count(&OpenedPorts) == 0) {
      SetError(nullptr, "No ports have been opened");
      return 0;
    }
    const PortRef port = PortsList_GetByDevPath(Arg(devicePath));
    if (!port) {
      SetError(nullptr, "The device path is not in use");
      return 0;
    }
    if (buffer == nullptr) {
      SetError(port.get(), kNoBuffer);
      return 0;
    }
    if (!CopyAnswer(buffer, port->lastResponse.Get())) {
      SetError(port.get(), "Answer longer than the response buffer");
      return 0;
    }
    return 1;
  });
}

}  // extern "C"
