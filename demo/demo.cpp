// A host's first session with ZeltoCom, against simulated instruments.
//
// The simulator starts three instruments on pseudo-terminals; from then on
// the demo talks to them only through the library's C interface, as a test
// station would talk to real ones.
#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "zeltocom.h"
#include "zeltosim/zeltosim.hpp"

namespace {

std::string LastError() {
  char text[512];
  return ZeltoCom_GetError_Description(text);
}

bool Check(int result, const char* what) {
  const std::string why = result == 1 ? "" : "  " + LastError();
  std::printf("  %-46s -> %d%s\n", what, result, why.c_str());
  return result == 1;
}

std::string Ask(const std::string& path, const std::string& command) {
  char answer[4096] = "";
  if (ZeltoCom_Send(path.c_str(), command.c_str(), answer) != 1) return "(" + LastError() + ")";
  return answer;
}

void ListOpenPorts() {
  std::vector<std::vector<char>> buffers(8, std::vector<char>(256));
  std::vector<char*> paths;
  for (auto& buffer : buffers) paths.push_back(buffer.data());
  const int n = ZeltoCom_GetOpenedPorts(paths.data());
  std::printf("\n%d ports open:\n", n);
  std::printf("  %-14s %-10s %-8s %s\n", "path", "serial", "baud", "type");
  for (int i = 0; i < n; ++i) {
    char serial[32] = "";
    char type[16] = "";
    ZeltoCom_GetSNByPort(serial, paths[i]);
    ZeltoCom_GetDeviceType(paths[i], type);
    std::printf("  %-14s %-10s %-8d %s\n", paths[i], serial, ZeltoCom_GetBaudrate(paths[i]), type);
  }
}

void ShowAnalyserReadings(const std::string& path) {
  std::printf("\nLED capture on %s:\n", path.c_str());
  if (!Check(ZeltoCom_Capture(path.c_str(), 0, 0, 0), "ZeltoCom_Capture(auto range)")) return;
  const int fibres = std::atoi(Ask(path, "GETNFIB").c_str());
  std::printf("  %-5s %-16s %-15s %-10s %-6s %s\n", "fibre", "R G B I", "x y", "intensity", "CCT",
              "nm");
  for (int fibre = 1; fibre <= fibres; ++fibre) {
    const std::string n = (fibre < 10 ? "0" : "") + std::to_string(fibre);
    std::printf("  %-5d %-16s %-15s %-10s %-6s %s\n", fibre, Ask(path, "GETRGBI" + n).c_str(),
                Ask(path, "GETxy" + n).c_str(), Ask(path, "GETINTENSITY" + n).c_str(),
                Ask(path, "GETCCT" + n).c_str(), Ask(path, "GETWAVELENGTH" + n).c_str());
  }
}

void ShowSpectrometer(const std::string& path) {
  std::printf("\nSpectrometer %s:\n", path.c_str());
  Check(ZeltoCom_SpectrometerDark(path.c_str(), 0, 1, 20.0f), "ZeltoCom_SpectrometerDark(20 ms)");
  Check(ZeltoCom_SpectrometerCapture(path.c_str(), 0, 1, 20.0f),
        "ZeltoCom_SpectrometerCapture(20 ms)");
  Check(ZeltoCom_Capture(path.c_str(), 0, 0, 0), "ZeltoCom_Capture (an LED capture)");
}

std::string AskChained(const std::string& path, const std::string& serial,
                       const std::string& command) {
  char answer[4096] = "";
  if (ZeltoCom_DaisyChain_Send(path.c_str(), serial.c_str(), command.c_str(), answer) != 1) {
    return "(" + LastError() + ")";
  }
  return answer;
}

void ShowDaisyChain(const std::string& path, const std::vector<std::string>& serials) {
  std::printf("\nDaisy chain on %s:\n", path.c_str());
  for (std::size_t i = 1; i < serials.size(); ++i) {
    const std::string what = "ZeltoCom_DaisyChain_Add(" + serials[i] + ")";
    if (!Check(ZeltoCom_DaisyChain_Add(path.c_str(), serials[i].c_str()), what.c_str())) return;
  }
  std::printf("  GETSERIAL through the master -> %s\n",
              AskChained(path, serials.back(), "GETSERIAL").c_str());
  if (!Check(ZeltoCom_DaisyChain_Capture(path.c_str(), 0, 0, 0), "ZeltoCom_DaisyChain_Capture")) {
    return;
  }
  std::printf("  %-10s %-5s %-15s %s\n", "serial", "fibre", "x y", "intensity");
  for (const std::string& serial : serials) {
    const int fibres = std::atoi(AskChained(path, serial, "GETNFIB").c_str());
    for (int fibre = 1; fibre <= fibres; ++fibre) {
      const std::string n = (fibre < 10 ? "0" : "") + std::to_string(fibre);
      std::printf("  %-10s %-5d %-15s %s\n", serial.c_str(), fibre,
                  AskChained(path, serial, "GETxy" + n).c_str(),
                  AskChained(path, serial, "GETINTENSITY" + n).c_str());
    }
  }
}

// A station of eight analysers captures at once, one worker per port.
void ShowStation() {
  zeltosim::Config base;
  base.serial = "ZS0000";
  base.captureMs = 200;
  zeltosim::Station station(8, base, {115200});
  setenv("ZELTOCOM_PORTS", station.portsVariable().c_str(), 1);
  std::printf("\nA station of %d analysers, each capture taking 200 ms:\n", station.size());
  std::printf("  ZeltoCom_EnumPorts() -> %d ports\n", ZeltoCom_EnumPorts());

  std::vector<std::string> paths;
  std::vector<const char*> names;
  for (int i = 0; i < station.size(); ++i) paths.push_back(station.port(i).path());
  for (const std::string& path : paths) names.push_back(path.c_str());
  std::vector<int> results(paths.size());
  const int n = static_cast<int>(paths.size());
  if (!Check(ZeltoCom_Open_Multi(results.data(), names.data(), n, 115200), "ZeltoCom_Open_Multi")) {
    return;
  }
  if (Check(ZeltoCom_CaptureFromAll(results.data(), 0, 3, 0), "ZeltoCom_CaptureFromAll")) {
    std::printf("  %-12s %-12s %-7s %-15s %s\n", "path", "serial", "result", "x y", "intensity");
    for (int i = 0; i < n; ++i) {
      char serial[32] = "";
      ZeltoCom_GetSNByPort(serial, names[i]);
      std::printf("  %-12s %-12s %-7d %-15s %s\n", names[i], serial, results[i],
                  Ask(paths[i], "GETxy01").c_str(), Ask(paths[i], "GETINTENSITY01").c_str());
    }
  }
  Check(ZeltoCom_Close_Multi(results.data(), names.data(), n), "ZeltoCom_Close_Multi");
}

// Arms the trigger input, fires it as a pulse on the instrument's connector
// would, and shows what the instrument sent unasked.
void ShowExternalTrigger(zeltosim::SimPort& port) {
  const char* path = port.path().c_str();
  std::printf("\nExternal trigger on %s:\n", path);
  if (!Check(ZeltoCom_ExternalTrigger_Enable(path, 0, 0, "xyi", 10, 10, 0),
             "ZeltoCom_ExternalTrigger_Enable(auto, XYI, 10 ms, 10 ms)") ||
      !Check(ZeltoCom_ExternalTrigger_Listen(path), "ZeltoCom_ExternalTrigger_Listen")) {
    return;
  }
  std::printf("  isFinished before the pulse -> %d\n", ZeltoCom_ExternalTrigger_isFinished(path));
  port.fireTrigger();
  int state = 0;
  for (int polls = 0; polls < 500 && state == 0; ++polls) {
    usleep(10000);
    state = ZeltoCom_ExternalTrigger_isFinished(path);
  }
  std::printf("  isFinished after the pulse  -> %d\n", state);
  char readings[4096] = "";
  if (state == 1 && ZeltoCom_GetResponseByPort(path, readings) == 1) {
    std::printf("  the instrument reported (x y I per fibre):\n");
    for (const char* line = std::strtok(readings, "\r\n"); line != nullptr;
         line = std::strtok(nullptr, "\r\n")) {
      std::printf("    %s\n", line);
    }
  }
  Check(ZeltoCom_ExternalTrigger_Disable(path, 0), "ZeltoCom_ExternalTrigger_Disable");
}

// Lets the instrument find sequence settings for a light blinking somewhere
// between 4 and 10 Hz, runs that sequence and measures the light.
void ShowSequence(zeltosim::SimPort& port) {
  const char* path = port.path().c_str();
  port.master().setLight(0, zeltosim::Light::Blinking(5.0, 30.0));
  std::printf("\nSequence on fibre 1 of %s (a light blinking at 5 Hz, 30 %% lit):\n", path);
  unsigned captureTime = 0;
  unsigned pause = 0;
  int samples = 0;
  if (!Check(
          ZeltoCom_Sequence_FindTestSettings(path, 1, 4.0f, 10.0f, &captureTime, &pause, &samples),
          "ZeltoCom_Sequence_FindTestSettings(4-10 Hz)")) {
    return;
  }
  std::printf("  settings found: %d captures of %u ms, %u ms apart\n", samples, captureTime, pause);
  if (!Check(ZeltoCom_Sequence_Setup(path, 0, captureTime, pause, samples, 0),
             "ZeltoCom_Sequence_Setup") ||
      !Check(ZeltoCom_Sequence_Capture(path, 1), "ZeltoCom_Sequence_Capture(fibre 1)")) {
    return;
  }
  std::vector<int> intensities(static_cast<size_t>(samples), 0);
  if (!Check(ZeltoCom_Sequence_ReadIntensity(path, 1, intensities.data()),
             "ZeltoCom_Sequence_ReadIntensity")) {
    return;
  }
  float frequency = 0;
  float dutyCycle = 0;
  int cycles = 0;
  Check(ZeltoCom_Sequence_GetFrequency(path, intensities.data(), &frequency, &dutyCycle, &cycles),
        "ZeltoCom_Sequence_GetFrequency");
  std::printf("  %.2f Hz, %.2f %% lit, over %d whole cycles\n", frequency, dutyCycle, cycles);
  port.master().setLight(0, zeltosim::Light::Steady(800.0));  // the lamp for what follows
}

// Corrects a fibre's intensity gain so that it reads a reference lamp's value.
void ShowGainAdjustment(const std::string& path, int fibre, int reference) {
  std::printf("\nIntensity gain of fibre %d on %s, against a reference of %d:\n", fibre,
              path.c_str(), reference);
  // Linear intensities, so that the readings compare with the reference as they stand.
  Ask(path, "PUTLIN");
  ZeltoCom_Capture(path.c_str(), 0, 0, 0);
  int gain = 0;
  if (ZeltoCom_UserCal_GetIntensityGain(path.c_str(), fibre, &gain) == 1) {
    std::printf("  gain before: %d, reading: %s\n", gain, Ask(path, "GETINTENSITY01").c_str());
  }
  Check(ZeltoCom_UserCal_AdjustIntensityGain(path.c_str(), fibre, reference),
        "ZeltoCom_UserCal_AdjustIntensityGain");
  ZeltoCom_Capture(path.c_str(), 0, 0, 0);
  if (ZeltoCom_UserCal_GetIntensityGain(path.c_str(), fibre, &gain) == 1) {
    std::printf("  gain after: %d, reading: %s\n", gain, Ask(path, "GETINTENSITY01").c_str());
  }
  Check(ZeltoCom_UserCal_ResetIntensityGain(path.c_str(), fibre),
        "ZeltoCom_UserCal_ResetIntensityGain");
}

zeltosim::Config Instrument(const char* serial, const char* hardware, bool eot, int fibres) {
  zeltosim::Config config;
  config.serial = serial;
  config.hardware = hardware;
  config.eot = eot;
  config.fibers.resize(static_cast<std::size_t>(fibres));
  for (int i = 0; i < fibres; ++i) {
    zeltosim::Fiber& fibre = config.fibers[static_cast<std::size_t>(i)];
    fibre.red = 0.2 + 0.2 * i;
    fibre.green = 0.6 - 0.15 * i;
    fibre.blue = 0.2;
    fibre.intensity = 800.0 + 400.0 * i;
  }
  return config;
}

}  // namespace

int main() {
  zeltosim::SimPort analyser(Instrument("ZA100001", "Zelto 05-P", true, 3), {921600});
  zeltosim::SimPort second(Instrument("ZA100002", "Zelto 08-T", false, 2), {9600});
  zeltosim::SimPort spectrometer(Instrument("ZW200001", "Zelto 01-W2", false, 0), {115200});
  analyser.chain(Instrument("ZA100003", "Zelto 05-P", true, 2));
  const std::string ports = zeltosim::PortsVariable({&analyser, &second, &spectrometer});
  // The library lists exactly these ports; the machine's own are never touched.
  setenv("ZELTOCOM_PORTS", ports.c_str(), 1);

  char version[16];
  ZeltoCom_GetLibraryVersion(version);
  std::printf("ZeltoCom %s, simulated instruments on %s\n\n", version, ports.c_str());
  std::printf("ZeltoCom_EnumPorts() -> %d ports\n", ZeltoCom_EnumPorts());
  std::printf("  %s: analyser ZA100001, 921600 baud, answers end with 0x04,\n"
              "      with analyser ZA100003 daisy-chained behind it\n",
              analyser.path().c_str());
  std::printf("  %s: analyser ZA100002, 9600 baud\n", second.path().c_str());
  std::printf("  %s: spectrometer ZW200001, 115200 baud\n\n", spectrometer.path().c_str());

  std::printf("Opening:\n");
  const std::string byPath = "ZeltoCom_Open(" + analyser.path() + ", 0)";
  Check(ZeltoCom_Open(analyser.path().c_str(), 0), byPath.c_str());
  Check(ZeltoCom_OpenSN("ZA100002", 0), "ZeltoCom_OpenSN(ZA100002, 0)");
  Check(ZeltoCom_Open(spectrometer.path().c_str(), 115200), "ZeltoCom_Open(spectrometer, 115200)");
  Check(ZeltoCom_Open(analyser.path().c_str(), 0), "ZeltoCom_Open(the first one again)");
  ListOpenPorts();

  ShowAnalyserReadings(analyser.path());
  ShowSpectrometer(spectrometer.path());
  ShowDaisyChain(analyser.path(), {"ZA100001", "ZA100003"});
  ShowExternalTrigger(second);
  ShowSequence(second);
  ShowGainAdjustment(second.path(), 1, 1000);

  std::printf("\nClosing:\n");
  Check(ZeltoCom_CloseAll(), "ZeltoCom_CloseAll()");
  char open[1024] = "";
  const int stillOpen = ZeltoCom_GetOpenedPortsS(open, ';');
  std::printf("  ZeltoCom_GetOpenedPortsS -> %d (%s)\n", stillOpen, LastError().c_str());

  ShowStation();
  return 0;
}
