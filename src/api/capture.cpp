// LED and spectrometer captures.
#include <algorithm>
#include <string>

#include "api/capture.hpp"
#include "device/capture_command.hpp"
#include "device/exchange.hpp"
#include "device/identify.hpp"
#include "device/settings.hpp"
#include "frame/errors.hpp"
#include "frame/registry.hpp"
#include "frame/utils.hpp"
#include "zeltocom.h"

using namespace zeltocom;

namespace {

bool ReportsCondition(const std::string& upper, std::initializer_list<const char*> words) {
  return std::ranges::any_of(words, [&](const char* word) { return Contains(upper, word); });
}

// 1 when the answer came in time and was no syntax error; else the text for
// the outcome is set and 0 returned.
int CheckAnswer(s_CommPort* device, const Reply& answer, const std::string& lateText,
                const std::string& syntaxText) {
  if (answer.outcome == Outcome::Late) SetError(device, lateText);
  if (answer.outcome == Outcome::SyntaxError) SetError(device, syntaxText);
  return answer.answered() ? 1 : 0;
}

}  // namespace

namespace zeltocom {

int CaptureLed(const HeldPort& port, int pwm, int range, int pwmFrames) {
  s_CommPort* device = port.owner();
  if (!LedCaptureArgumentsAccepted(device, pwm, range, pwmFrames)) return -1;
  CMD_LoadSettings_HardwareType(device);
  if (device->deviceType == DEVTYPE_SPECTROMETER) {
    SetError(device, "Device is a Spectrometer");
    return -1;
  }
  CMD_LoadSettings_AdjustmentSet(device);
  CMD_LoadSettings_Averages(device);
  CMD_LoadSettings_Exposure(device);

  const FiberSettings& settings = *device->settings.current;
  const TimeoutMs timeout = port->autoResponseTimeout
                                ? CMD_GetCaptureTimeout(device->deviceType, pwm, range, pwmFrames,
                                                        settings.factor, settings.averages)
                                : LA_ResponseTimeout.load();

  if (!SendCommand(device, BuildCaptureCommand("C", pwm, range, pwmFrames))) {
    SetError(device, "Unable to send command");
    return -1;
  }
  // A plain capture overwrites what a sequence capture left in the instrument.
  device->capture.sequence = false;

  const Reply answer = Await(device, End::Marker(device->eotFormat.view()).Trimmed(), timeout);
  const std::string where = StringPrintf("in Device on %s with SN %s", device->devicePath.c_str(),
                                         device->serialNumber.c_str());
  const std::string late =
      StringPrintf("Timeout (%lld ms) ", static_cast<long long>(answer.quietMs)) + where;
  if (CheckAnswer(device, answer, late, "Syntax error " + where) != 1) return 0;
  if (answer.text.empty()) return 1;
  if (ReportsCondition(strtoupper(answer.text), {"OVERRANGE", "UNDERRANGE", "STABLE"})) {
    SetError(device, StringPrintf("%s condition detected", answer.text.c_str()));
    return 0;
  }
  return 1;
}

}  // namespace zeltocom

namespace {

// What a spectrometer call sends and how long it waits for the result.
struct SpectrometerPlan {
  std::string command;
  TimeoutMs timeoutMs = 0;
};

SpectrometerPlan PlanSpectrometer(const s_CommPort* port, const s_CommPort* device,
                                  Acquisition kind, int pwm, int manualExposure, float exposure,
                                  int maxExposure) {
  const bool w2 = IsW2Model(device);
  const bool dark = kind == Acquisition::Dark;
  const std::string automaticCommand = dark ? "CAPTUREDARK" : "C";
  std::string manualCommand = automaticCommand;
  if (manualExposure == 1) {
    // "-W2" models take microseconds, the others milliseconds.
    const int sent = w2 ? static_cast<int>(exposure * 1000) : static_cast<int>(exposure);
    manualCommand = dark ? StringPrintf("CAPTUREDARK%3d", sent) : StringPrintf("C%d", sent);
  }

  SpectrometerPlan plan;
  if (!port->autoResponseTimeout) {
    plan.timeoutMs = LA_ResponseTimeout;
    plan.command = manualExposure == 1 ? manualCommand : automaticCommand;
    return plan;
  }

  const int cachedAverages = device->settings.current->averages;
  const int averages = cachedAverages > 0 ? cachedAverages : 0;
  TimeoutMs t = 0;
  if (manualExposure == 1 && exposure > 0) {
    t = static_cast<TimeoutMs>(static_cast<float>(averages) * (300.0f + exposure));
    plan.command = manualCommand;
  }
  if (t == 0) {
    t = static_cast<TimeoutMs>(maxExposure) * averages;
    plan.command = automaticCommand;
  }
  plan.timeoutMs = !dark && pwm != 0 ? 3 * t + 150 : t + 150;
  return plan;
}

// 1 when the answer came in time and was no syntax error; else the
// spectrometer's error text is set and 0 returned.
int CheckAnswer(s_CommPort* device, const Reply& answer) {
  return CheckAnswer(device, answer, "Timeout", "Syntax error");
}

// Switches the PWM mode of a "-W2" instrument; 1, or the call's result.
int SwitchPwm(s_CommPort* device, int pwm) {
  const Reply answer =
      Exchange(device, PwmCommand(pwm), End::Marker(device->eotFormat.view()).Trimmed(), 120);
  if (answer.outcome == Outcome::NotSent) {
    SetError(device, "Unable to set PWM mode");
    return -1;
  }
  return CheckAnswer(device, answer);
}

int FinishSpectrum(s_CommPort* device, TimeoutMs timeoutMs) {
  const Reply answer = Await(device, End::Marker(device->eotFormat.view()).Trimmed(), timeoutMs);
  if (CheckAnswer(device, answer) != 1) return 0;
  if (answer.text.empty()) return 1;
  const std::string upper = strtoupper(answer.text);
  if (ReportsCondition(upper, {"OVERRANGE", "UNDERRANGE"})) {
    SetError(device, StringPrintf("%s condition detected", answer.text.c_str()));
    return 0;
  }
  if (ReportsCondition(upper, {"STABLE", "DARK"})) {
    SetError(device, answer.text);
    return 0;
  }
  return 1;
}

// The instrument announces a dark acquisition before it reports its end;
// one that does not is stopped. A result that came with the announcement
// waits in the line's leftover for the second wait.
int FinishDark(s_CommPort* device, TimeoutMs timeoutMs) {
  // The announcement is late only once the acquisition's own time is up.
  const Reply announced =
      AwaitStraggler(device, End::Marker("Acquiring...\r\n").Trimmed(), 1000, timeoutMs);
  if (CheckAnswer(device, announced) != 1) return 0;
  if (!announced.text.empty() && !Contains(strtoupper(announced.text), "ACQUIRING...")) {
    Exchange(device, "I", End::Marker(device->eotFormat.view()).Trimmed(), 3000);
    SetError(device, "Dark Acquisition not detected");
    return 0;
  }
  return CheckAnswer(device,
                     Await(device, End::Marker(device->eotFormat.view()).Trimmed(), timeoutMs));
}

bool ExposureAcceptable(float exposure, int maxExposure) {
  return exposure >= 0 && exposure <= static_cast<float>(maxExposure);
}

bool CheckSpectrometer(s_CommPort* device) {
  if (device->deviceType == DEVTYPE_SPECTROMETER) return true;
  SetError(device, "Device is not a Spectrometer");
  return false;
}

// Runs a capture on the open port at `devicePath`, holding its line.
template <typename Body>
int OnOpenPort(const char* devicePath, Body body) {
  return Guarded(-1, [&](Call& call) {
    const std::optional<HeldPort> port =
        call.Hold(PortsList_GetByDevPath(Arg(devicePath)), "The port is not in use");
    return port ? body(*port) : -1;
  });
}

}  // namespace

namespace zeltocom {

bool LedCaptureArgumentsAccepted(s_CommPort* blamed, int pwm, int range, int pwmFrames) {
  if (static_cast<unsigned>(range) > 6) {
    SetError(blamed, "Range value out of limits");
    return false;
  }
  if (pwm == 1 && static_cast<unsigned>(pwmFrames) > 15) {
    SetError(blamed, "Frames value out of limits");
    return false;
  }
  return true;
}

int AcquireSpectrometer(const HeldPort& port, Acquisition kind, int pwm, int manualExposure,
                        float exposure) {
  s_CommPort* device = port.owner();
  const int maxExposure = IsW2Model(device) ? 4000 : 15000;
  if (manualExposure == 1 && !ExposureAcceptable(exposure, maxExposure)) {
    SetError(device, "Exposure value out of limits");
    return -1;
  }
  CMD_LoadSettings_HardwareType(device);
  if (kind == Acquisition::Spectrum && !CheckSpectrometer(device)) return -1;
  CMD_LoadSettings_AdjustmentSet(device);
  CMD_LoadSettings_Averages(device);
  if (kind == Acquisition::Dark && !CheckSpectrometer(device)) return -1;

  if (IsW2Model(device)) {
    const int switched = SwitchPwm(device, pwm);
    if (switched != 1) return switched;
  }
  const SpectrometerPlan plan =
      PlanSpectrometer(port.get(), device, kind, pwm, manualExposure, exposure, maxExposure);
  if (!SendCommand(device, plan.command)) {
    SetError(device, "Unable to send command");
    return -1;
  }
  return kind == Acquisition::Dark ? FinishDark(device, plan.timeoutMs)
                                   : FinishSpectrum(device, plan.timeoutMs);
}

}  // namespace zeltocom

extern "C" {

int ZeltoCom_Capture(const char* devicePath, int pwm, int range, int pwmFrames) {
  return OnOpenPort(devicePath,
                    [&](const HeldPort& port) { return CaptureLed(port, pwm, range, pwmFrames); });
}

int ZeltoCom_SpectrometerCapture(const char* devicePath, int pwm, int manualExposure,
                                 float exposure) {
  return OnOpenPort(devicePath, [&](const HeldPort& port) {
    return AcquireSpectrometer(port, Acquisition::Spectrum, pwm, manualExposure, exposure);
  });
}

int ZeltoCom_SpectrometerDark(const char* devicePath, int pwm, int manualExposure, float exposure) {
  return OnOpenPort(devicePath, [&](const HeldPort& port) {
    return AcquireSpectrometer(port, Acquisition::Dark, pwm, manualExposure, exposure);
  });
}

}  // extern "C"
