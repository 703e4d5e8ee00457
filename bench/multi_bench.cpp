// zeltocom_multi_bench: what running many ports at once costs. A parallel
// capture over 1, 2, 4 and 8 simulated instruments against one, a parallel
// open of 8 against one, and the processor time each waiting port takes,
// in both wait modes (the program runs itself again with ZELTOCOM_WAIT=busy,
// since the mode is fixed when the library is loaded).
//
//   zeltocom_multi_bench [--rounds N]   (repetitions per figure, default 5;
//                                        the median is printed)
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support.hpp"
#include "zeltocom.h"
#include "zeltosim/zeltosim.hpp"

namespace {

constexpr int kBaud = 57600;
constexpr int kCaptureMs = 200;
// Range 3 with factor and averages 1: the simulator's capture takes 160 ms
// at scale 1.
constexpr int kRange = 3;
constexpr double kRangeMs = 160.0;

int rounds = 5;

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

std::string LastError() {
  char text[512];
  return ZeltoCom_GetError_Description(text);
}

// An analyser whose capture at kRange takes kCaptureMs.
zeltosim::Config Analyser(int n, bool eot) {
  zeltosim::Config config;
  config.eot = eot;
  char serial[16];
  std::snprintf(serial, sizeof serial, "ZM%06d", n);
  config.serial = serial;
  config.captureTimeScale = kCaptureMs / kRangeMs;
  return config;
}

// `n` instruments, named to the library.
struct Station {
  explicit Station(int n, bool eot = false) {
    std::vector<const zeltosim::SimPort*> published;
    for (int i = 0; i < n; ++i) {
      ports.push_back(
          std::make_unique<zeltosim::SimPort>(Analyser(i + 1, eot), zeltosim::LineOptions{kBaud}));
      published.push_back(ports.back().get());
      paths.push_back(ports.back()->path().c_str());
    }
    setenv("ZELTOCOM_PORTS", zeltosim::PortsVariable(published).c_str(), 1);
    ZeltoCom_EnumPorts();
  }
  ~Station() { ZeltoCom_CloseAll(); }
  int Open() {
    std::vector<int> results(paths.size());
    return ZeltoCom_Open_Multi(results.data(), paths.data(), static_cast<int>(paths.size()), kBaud);
  }
  std::vector<std::unique_ptr<zeltosim::SimPort>> ports;
  std::vector<const char*> paths;
};

struct CaptureFigures {
  double wallMs = 0;
  double cpuPerPortMs = 0;
};

CaptureFigures CaptureFromAll(int n) {
  Station station(n);
  if (station.Open() != 1) std::printf("  open of %d failed: %s\n", n, LastError().c_str());
  std::vector<double> walls;
  std::vector<double> cpus;
  std::vector<int> results(static_cast<std::size_t>(n));
  for (int r = 0; r < rounds; ++r) {
    const double cpu = CpuMs(CLOCK_PROCESS_CPUTIME_ID);
    const auto start = Clock::now();
    if (ZeltoCom_CaptureFromAll(results.data(), 0, kRange, 0) != 1) {
      std::printf("  capture failed: %s\n", LastError().c_str());
    }
    walls.push_back(MsSince(start));
    cpus.push_back((CpuMs(CLOCK_PROCESS_CPUTIME_ID) - cpu) / n);
  }
  return {Median(walls), Median(cpus)};
}

double OpenAll(int n, bool eot) {
  std::vector<double> walls;
  for (int r = 0; r < rounds; ++r) {
    Station station(n, eot);
    const auto start = Clock::now();
    if (station.Open() != 1) std::printf("  open of %d failed: %s\n", n, LastError().c_str());
    walls.push_back(MsSince(start));
  }
  return Median(walls);
}

void Measure() {
  std::printf("\n%s waits:\n", WaitModeName());
  std::printf("  CaptureFromAll, %d ms captures (median of %d):\n", kCaptureMs, rounds);
  double one = 0;
  for (int n : {1, 2, 4, 8}) {
    const CaptureFigures f = CaptureFromAll(n);
    if (n == 1) one = f.wallMs;
    std::printf("    %d port%s  wall %6.0f ms  x%.2f of one   CPU per waiting port %5.0f ms\n", n,
                n == 1 ? " " : "s", f.wallMs, f.wallMs / one, f.cpuPerPortMs);
  }
  // Instruments that end answers with 0x04 spare the open its wait for one.
  for (bool eot : {false, true}) {
    const double openOne = OpenAll(1, eot);
    const double openEight = OpenAll(8, eot);
    std::printf("  Open_Multi at %d baud%s: 1 port %.0f ms, 8 ports %.0f ms  (x%.2f)\n", kBaud,
                eot ? ", 0x04 ends" : "", openOne, openEight, openEight / openOne);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], "--measure") == 0) {
    rounds = std::max(1, std::atoi(argv[2]));
    Measure();
    return 0;
  }
  if (argc == 3 && std::strcmp(argv[1], "--rounds") == 0) {
    rounds = std::max(1, std::atoi(argv[2]));
  } else if (argc != 1) {
    std::fprintf(stderr, "usage: zeltocom_multi_bench [--rounds N]\n");
    return 2;
  }
  std::printf("zeltocom_multi_bench on %u processors\n", std::thread::hardware_concurrency());
  const std::vector<std::string> measure = {argv[0], "--measure", std::to_string(rounds)};
  return RunInWaitMode(false, measure) | RunInWaitMode(true, measure);
}
