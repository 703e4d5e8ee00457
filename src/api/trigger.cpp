// External trigger: the instrument captures when a pulse reaches its trigger
// input and reports unasked; a listener thread per port waits for the report.
#include <algorithm>
#include <array>
#include <string>
#include <string_view>

#include "api/common.hpp"
#include "device/exchange.hpp"
#include "device/identify.hpp"
#include "device/lines.hpp"
#include "device/settings.hpp"
#include "device/trigger_report.hpp"
#include "frame/clock.hpp"
#include "frame/errors.hpp"
#include "frame/listener.hpp"
#include "frame/registry.hpp"
#include "frame/utils.hpp"
#include "zeltocom.h"

using namespace zeltocom;

namespace {

constexpr const char* kNotInUse = "The port is not in use";
constexpr const char* kUnavailable =
    "External Trigger does not seem to be available in your device";
constexpr TimeoutMs kSetupTimeoutMs = 300;
constexpr TimeoutMs kQueryTimeoutMs = 150;

constexpr std::array<std::string_view, 7> kOutputTypes = {"NONE", "HSI",    "XYI", "RGBI",
                                                          "CCTI", "ABSINT", "WSI"};

const char* FormOf(int setMode) { return setMode == 1 ? "SET" : "PUT"; }

std::optional<HeldPort> HoldPort(Call& call, PortRef port) {
  return call.Hold(std::move(port), kNotInUse);
}

std::optional<HeldPort> HoldPort(Call& call, const char* devicePath) {
  return HoldPort(call, PortsList_GetByDevPath(Arg(devicePath)));
}

// One exchange; true when the instrument took the command.
bool Accepted(s_CommPort* device, const std::string& command, TimeoutMs timeoutMs,
              std::string* answer = nullptr) {
  return CMD_SendCommand(device, command, timeoutMs, answer) == 1;
}

int Fail(s_CommPort* port, const char* text, int result) {
  SetError(port, text);
  return result;
}

// Sends a delay as the instrument takes it (0 as 1); the value it accepted,
// or 0.
int SendDelay(s_CommPort* device, const char* form, const char* which, unsigned delay,
              bool spectrometer) {
  const unsigned sent = std::max(delay, 1U);
  const std::string command = spectrometer ? StringPrintf("%sTRIGGER%s%04u", form, which, sent)
                                           : StringPrintf("%sTRIGGER%s%03u", form, which, sent);
  return Accepted(device, command, kSetupTimeoutMs) ? static_cast<int>(sent) : 0;
}

struct TriggerSetup {
  int captureRange;
  int isPWM;
  const char* outputType;
  unsigned preDelay;
  unsigned postDelay;
  int setMode;
};

int Enable(const HeldPort& port, const TriggerSetup& setup) {
  s_CommPort* device = port.owner();
  std::string type = strtoupper(Arg(setup.outputType));
  trim(type);
  if (setup.captureRange < 0 || setup.captureRange > 5) {
    return Fail(port.get(), "Wrong capture range given", 0);
  }
  if (std::ranges::find(kOutputTypes, type) == kOutputTypes.end()) {
    return Fail(port.get(), "Wrong capture type given", 0);
  }
  // The delays' limits and widths depend on the model.
  CMD_LoadSettings_HardwareType(device);
  const bool spectrometer = device->deviceType == DEVTYPE_SPECTROMETER;
  const unsigned limit = spectrometer ? 65000 : 999;
  if (setup.preDelay > limit) return Fail(port.get(), "Wrong pre-delay given", 0);
  if (setup.postDelay > limit) return Fail(port.get(), "Wrong post-delay given", 0);

  const char* form = FormOf(setup.setMode);
  const int range = setup.captureRange == 0 ? 6 : setup.captureRange;
  if (!Accepted(device,
                StringPrintf("%sEXTERNALCAPTURE%d%d", form, setup.isPWM == 1 ? 1 : 0, range),
                kSetupTimeoutMs)) {
    return Fail(port.get(), kUnavailable, -1);
  }
  if (!Accepted(device, StringPrintf("%sEXTERNALOUTPUT%s", form, type.c_str()), kSetupTimeoutMs)) {
    return Fail(port.get(), "Unable to set External output type", -1);
  }
  // From now on its reports may come while the line is busy with something
  // else; they must not be taken for answers.
  TriggerListener& trigger = port->trigger;
  CMD_LoadSettings_NumFibers(device);
  trigger.reports = ReportsOf(type, device->settings.numFibers, spectrometer);
  // A refused delay is not an error: the instrument keeps its own.
  trigger.triggerPreDelay = SendDelay(device, form, "PREDELAY", setup.preDelay, spectrometer);
  trigger.triggerPostDelay = SendDelay(device, form, "POSTDELAY", setup.postDelay, spectrometer);
  return 1;
}

// What ends the instrument's message: one line per fibre when it reports
// readings, else an "OK". An instrument that ends its answers with 0x04 is
// not asked: its message ends with the 0x04, or when the line falls quiet.
void ChooseMessageEnd(s_CommPort* device, TriggerListener& trigger) {
  const std::string eot(device->eotFormat.view());
  trigger.terminator = "OK" + eot;
  trigger.dataExpected = false;
  trigger.lineCount = 0;
  if (Contains(eot, "\x04")) return;
  std::string output;
  if (!Accepted(device, "GETEXTERNALOUTPUT", kQueryTimeoutMs, &output) ||
      Contains(strtoupper(output), "NONE")) {
    return;
  }
  CMD_LoadSettings_NumFibers(device);
  trigger.terminator = eot;
  trigger.dataExpected = true;
  trigger.lineCount = std::max(device->settings.numFibers, 0);
}

int Listen(const HeldPort& port) {
  s_CommPort* device = port.owner();
  std::string capture;
  if (!Accepted(device, "GETEXTERNALCAPTURE", kQueryTimeoutMs, &capture)) {
    return Fail(port.get(), kUnavailable, -1);
  }
  if (capture == "00") return Fail(port.get(), "External Trigger is not enabled", 0);

  TriggerListener& trigger = port->trigger;
  ChooseMessageEnd(device, trigger);
  port->lastResponse.Store("");
  s_CommPort* record = port.get();
  trigger.Start([record] { ZeltoCom_ExternalTrigger_Listen_thread(record); });
  return 1;
}

// The listener's work: waits, then leaves the message in the port's last
// answer. The raw record is safe here: the record's destructor, and every
// call that takes its line, join this thread first.
int AwaitTrigger(s_CommPort* port) {
  TriggerListener& trigger = port->trigger;
  const End end = trigger.dataExpected ? End::Lines(trigger.lineCount, trigger.terminator)
                                       : End::Marker(trigger.terminator);
  Reply message;
  const bool ended = AwaitTriggerMessage(*port->line, port->serialNumber.view(), trigger.wakeFd(),
                                         trigger.triggerAbort, end, &message);
  // The instrument's last bytes may still be on their way.
  PauseMs(16);
  if (trigger.triggerAbort.exchange(false)) return TRIGGER_ABORTED;
  if (!ended && !message.syntaxError) {
    SetError(port, message.text);
    return TRIGGER_FAILED;
  }
  port->lastResponse.Store(message.text);
  return ended ? TRIGGER_FINISHED : TRIGGER_FAILED;
}

}  // namespace

extern "C" {

int ZeltoCom_ExternalTrigger_Enable(const char* devicePath, int captureRange, int isPWM,
                                    const char* outputType, unsigned preDelay, unsigned postDelay,
                                    int setMode) {
  return Guarded(-1, [&](Call& call) {
    const std::optional<HeldPort> port = HoldPort(call, devicePath);
    if (!port) return -1;
    return Enable(*port, {captureRange, isPWM, outputType, preDelay, postDelay, setMode});
  });
}

int ZeltoCom_ExternalTrigger_Disable(const char* devicePath, int setMode) {
  return Guarded(-1, [&](Call& call) {
    const std::optional<HeldPort> port = HoldPort(call, devicePath);
    if (!port) return -1;
    if (!Accepted(port->owner(), StringPrintf("%sEXTERNALCAPTURE00", FormOf(setMode)),
                  kSetupTimeoutMs)) {
      return Fail(port->get(), kUnavailable, -1);
    }
    (*port)->trigger.reports = UnaskedReports{};
    return 1;
  });
}

int ZeltoCom_ExternalTrigger_Listen(const char* devicePath) {
  return Guarded(-1, [&](Call& call) {
    PortRef found = PortsList_GetByDevPath(Arg(devicePath));
    // Asking the instrument would take the line, which ends the listener.
    if (found && found->trigger.triggerState == TRIGGER_LISTENING) return 1;
    const std::optional<HeldPort> port = HoldPort(call, std::move(found));
    return port ? Listen(*port) : -1;
  });
}

int ZeltoCom_ExternalTrigger_Abort(const char* devicePath) {
  return Guarded(-1, [&](Call& call) {
    // Taking the line ends the listener.
    const std::optional<HeldPort> port = HoldPort(call, devicePath);
    if (!port) return -1;
    if ((*port)->trigger.triggerState != TRIGGER_IDLE) DiscardInput(*(*port)->line);
    return 1;
  });
}

int ZeltoCom_ExternalTrigger_isFinished(const char* devicePath) {
  return Guarded(-1, [&](Call& call) {
    PortRef found = PortsList_GetByDevPath(Arg(devicePath));
    if (!found) return Fail(nullptr, kNotInUse, -1);
    switch (found->trigger.triggerState) {
      case TRIGGER_ABORTED: return -2;
      case TRIGGER_FAILED: {
        // Taking the line joins the ended thread.
        const std::optional<HeldPort> port = HoldPort(call, std::move(found));
        return -1;
      }
      case TRIGGER_FINISHED: {
        const std::optional<HeldPort> port = HoldPort(call, std::move(found));
        if (!port) return -1;
        DiscardInput(*(*port)->line);
        return 1;
      }
      default: return 0;
    }
  });
}

void ZeltoCom_ExternalTrigger_Listen_thread(s_CommPort* port) {
  Guarded(0, [&] {
    if (port == nullptr) return Fail(nullptr, "No port given", 0);
    // Whatever happens in it, the listener leaves a final state.
    port->trigger.triggerState =
        Guarded(static_cast<int>(TRIGGER_FAILED), [&] { return AwaitTrigger(port); });
    return 0;
  });
}

}  // extern "C"
