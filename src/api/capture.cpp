// LED and spectrometer captures.
#include <algorithm>
#include <string>

#include "api/capture.hpp"
#include "device/capture_command.hpp"
#include "device/command.hpp"
#include "device/identify.hpp"
#include "device/settings.hpp"
#include "frame/errors.hpp"
#include "frame/registry.hpp"
#include "frame/utils.hpp"
#include "zeltocom.h"

using namespace zeltocom;

namespace {

bool ReportsCondition(const std::string& upper, std::initializer_list<const char*> words) {
  for (const char* word : words) {
    if (Contains(upper, word)) return true;
  }
  return false;
}

// 1 when the answer came in time and was no syntax error; else the text for
// the outcome is set and 0 returned.
int CheckAnswer(s_CommPort* device, const t_comresponse& answer, long timeoutMs,
                const std::string& lateText, const std::string& syntaxText) {
  switch (OutcomeOf(answer, timeoutMs)) {
    case WaitOutcome::Late:
      SetError(device, lateText);
      return 0;
    case WaitOutcome::SyntaxError:
      SetError(device, syntaxText);
      return 0;
    case WaitOutcome::Answered:
      break;
  }
  return 1;
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

  const FiberSettings& settings = *device->fiberSettingsCur;
  const uint64_t timeout =
      port->autoResponseTimeout
          ? CMD_GetCaptureTimeout(device->deviceType, pwm, range, pwmFrames, settings.factor,
                                  settings.averages)
          : static_cast<uint64_t>(LA_ResponseTimeout.load());

  if (CMD_Write(device, BuildCaptureCommand("C", pwm, range, pwmFrames)) != 1) {
    SetError(device, "Unable to send command");
    return -1;
  }
  // A plain capture overwrites what a sequence capture left in the instrument.
  device->captureState = 0;

  t_comresponse answer;
  const long timeoutMs = static_cast<long>(timeout);
  CMD_Wait(device, &answer, timeoutMs, device->eotFormat.view(), true);
  const std::string where = StringPrintf("in Device on %s with SN %s", device->devicePath.c_str(),
                                         device->serialNumber.c_str());
  const std::string late = StringPrintf("Timeout (%lu ms) ",
                                        static_cast<unsigned long>(answer.elapsedMs)) + where;
  if (CheckAnswer(device, answer, timeoutMs, late, "Syntax error " + where) != 1) return 0;
  if (answer.data.empty()) return 1;
  if (ReportsCondition(strtoupper(answer.data), {"OVERRANGE", "UNDERRANGE", "STABLE"})) {
    SetError(device, StringPrintf("%s condition detected", answer.data.c_str()));
    return 0;
  }
  return 1;
}

}  // namespace zeltocom

namespace {

// What a spectrometer call sends and how long it waits for the result.
struct SpectrometerPlan {
  std::string command;
  long timeoutMs = 0;
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

  const int cachedAverages = device->fiberSettingsCur->averages;
  const int averages = cachedAverages > 0 ? cachedAverages : 0;
  unsigned long t = 0;
  if (manualExposure == 1 && exposure > 0) {
    t = static_cast<unsigned long>(static_cast<float>(averages) * (300.0f + exposure));
    plan.command = manualCommand;
  }
  if (t == 0) {
    t = static_cast<unsigned long>(maxExposure) * static_cast<unsigned long>(averages);
    plan.command = automaticCommand;
  }
  plan.timeoutMs = static_cast<long>(!dark && pwm != 0 ? 3 * t + 150 : t + 150);
  return plan;
}

// 1 when the answer came in time and was no syntax error; else the
// spectrometer's error text is set and 0 returned.
int CheckAnswer(s_CommPort* device, const t_comresponse& answer, long timeoutMs) {
  return CheckAnswer(device, answer, timeoutMs, "Timeout", "Syntax error");
}

// Switches the PWM mode of a "-W2" instrument; 1, or the call's result.
int SwitchPwm(s_CommPort* device, int pwm) {
  if (CMD_Write(device, PwmCommand(pwm)) != 1) {
    SetError(device, "Unable to set PWM mode");
    return -1;
  }
  t_comresponse answer;
  CMD_Wait(device, &answer, 120, device->eotFormat.view(), true);
  return CheckAnswer(device, answer, 120);
}

int FinishSpectrum(s_CommPort* device, long timeoutMs) {
  t_comresponse answer;
  CMD_Wait(device, &answer, timeoutMs, device->eotFormat.view(), true);
  if (CheckAnswer(device, answer, timeoutMs) != 1) return 0;
  if (answer.data.empty()) return 1;
  const std::string upper = strtoupper(answer.data);
  if (ReportsCondition(upper, {"OVERRANGE", "UNDERRANGE"})) {
    SetError(device, StringPrintf("%s condition detected", answer.data.c_str()));
    return 0;
  }
  if (ReportsCondition(upper, {"STABLE", "DARK"})) {
    SetError(device, answer.data);
    return 0;
  }
  return 1;
}

// The instrument announces a dark acquisition before it reports its end;
// one that does not is stopped. A result that came with the announcement
// waits in the line's leftover for the second wait.
int FinishDark(s_CommPort* device, long timeoutMs) {
  t_comresponse answer;
  CMD_WaitForStraggler(device, &answer, 1000, "Acquiring...\r\n");
  TrimAnswerEnd(answer.data);
  if (CheckAnswer(device, answer, timeoutMs) != 1) return 0;
  if (!answer.data.empty() && !Contains(strtoupper(answer.data), "ACQUIRING...")) {
    CMD_Write(device, "I");
    t_comresponse ignored;
    CMD_Wait(device, &ignored, 3000, device->eotFormat.view(), true);
    SetError(device, "Dark Acquisition not detected");
    return 0;
  }
  CMD_Wait(device, &answer, timeoutMs, device->eotFormat.view(), true);
  return CheckAnswer(device, answer, timeoutMs);
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
  if (CMD_Write(device, plan.command) != 1) {
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

int ZeltoCom_SpectrometerDark(const char* devicePath, int pwm, int manualExposure,
                              float exposure) {
  return OnOpenPort(devicePath, [&](const HeldPort& port) {
    return AcquireSpectrometer(port, Acquisition::Dark, pwm, manualExposure, exposure);
  });
}

}  // extern "C"
