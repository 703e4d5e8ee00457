// How close a sequence readout of 9999 samples at 921600 baud comes to the
// time its bytes need on the line, with the simulated instrument writing at
// the line rate and writing as fast as the pseudo-terminal takes it, in both
// wait modes.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "support.hpp"
#include "zeltocom.h"
#include "zeltosim/zeltosim.hpp"

namespace {

constexpr int kSamples = 9999;
constexpr int kBaud = 921600;
constexpr int kRuns = 3;

// The bytes of the answer: each sample's line, its digits right-aligned in
// the instrument's 11 characters, and CR LF.
long AnswerBytes(const std::vector<int>& samples) {
  long bytes = 0;
  for (const int s : samples) {
    bytes += std::max(static_cast<long>(std::to_string(s).size()), 11L) + 2;
  }
  return bytes;
}

// The best of a few readouts, in ms; -1 when one failed.
double ReadoutMs(bool paced, long* bytes) {
  zeltosim::Config config;
  config.serial = paced ? "ZS000101" : "ZS000102";
  config.captureMs = 0;  // the burst itself is not what is measured
  zeltosim::LineOptions line;
  line.baud = kBaud;
  line.lineDelay = paced;
  zeltosim::SimPort port(config, line);
  port.master().setLight(0, zeltosim::Light::Blinking(7, 40, 1200, 100));
  setenv("ZELTOCOM_PORTS", port.path().c_str(), 1);
  ZeltoCom_EnumPorts();
  const char* path = port.path().c_str();
  std::vector<int> samples(kSamples, 0);
  double best = -1;
  if (ZeltoCom_Open(path, kBaud) == 1 && ZeltoCom_Sequence_Setup(path, 0, 1, 0, kSamples, 0) == 1 &&
      ZeltoCom_Sequence_Capture(path, 1) == 1) {
    for (int run = 0; run < kRuns; ++run) {
      const Clock::time_point start = Clock::now();
      if (ZeltoCom_Sequence_ReadIntensity(path, 1, samples.data()) != 1) {
        best = -1;
        break;
      }
      const double ms = MsSince(start);
      best = best < 0 ? ms : std::min(best, ms);
    }
  }
  if (best < 0) {
    char why[512];
    std::printf("  readout failed: %s\n", ZeltoCom_GetError_Description(why));
  }
  *bytes = AnswerBytes(samples);
  ZeltoCom_CloseAll();
  return best;
}

int Measure() {
  std::printf("%s waits:\n", WaitModeName());
  for (const bool paced : {true, false}) {
    long bytes = 0;
    const double wallMs = ReadoutMs(paced, &bytes);
    if (wallMs < 0) return 1;
    const double lineMs = static_cast<double>(bytes) * 10.0 * 1000.0 / kBaud;
    std::printf("  %-22s %ld bytes, line time %.0f ms, readout %.1f ms (x%.3f)\n",
                paced ? "paced at the line rate" : "unpaced", bytes, lineMs, wallMs,
                wallMs / lineMs);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::strcmp(argv[1], "--measure") == 0) return Measure();
  std::printf("ZeltoCom_Sequence_ReadIntensity, %d samples at %d baud, best of %d:\n", kSamples,
              kBaud, kRuns);
  int failed = RunInWaitMode(false, {argv[0], "--measure"});
  failed |= RunInWaitMode(true, {argv[0], "--measure"});
  return failed;
}
