// zeltocom_trigger_bench: what waiting for external triggers costs. Ports of
// a simulated station listen while the program sleeps; the process's
// processor time over that span is what the listeners took (an upper bound:
// the simulated instruments' threads are in the same process, blocked as
// well). Then every trigger fires and every listener must report, and an
// abort's time is taken.
//
//   zeltocom_trigger_bench [--seconds S]     (the wait measured, default 3)
//
// Runs in both wait modes: the listener sleeps in either.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support.hpp"
#include "zeltocom.h"
#include "zeltosim/zeltosim.hpp"

namespace {

constexpr int kBaud = 57600;
int seconds = 3;

std::string LastError() {
  char text[512];
  return ZeltoCom_GetError_Description(text);
}

// `n` analysers, opened, with their triggers on and listened to.
class ListeningStation {
 public:
  explicit ListeningStation(int n) : station_(n, Analyser(), zeltosim::LineOptions{kBaud}) {
    setenv("ZELTOCOM_PORTS", station_.portsVariable().c_str(), 1);
    ZeltoCom_EnumPorts();
    for (int i = 0; i < n; ++i) {
      const char* path = station_.port(i).path().c_str();
      if (ZeltoCom_Open(path, kBaud) != 1 ||
          ZeltoCom_ExternalTrigger_Enable(path, 3, 0, "XYI", 0, 0, 0) != 1 ||
          ZeltoCom_ExternalTrigger_Listen(path) != 1) {
        std::printf("  port %d: %s\n", i + 1, LastError().c_str());
      }
    }
  }
  ~ListeningStation() { ZeltoCom_CloseAll(); }

  // Fires every trigger; how many listeners reported within 5 s.
  int FireAll() {
    for (int i = 0; i < station_.size(); ++i) station_.port(i).fireTrigger();
    int reported = 0;
    for (int i = 0; i < station_.size(); ++i) {
      const char* path = station_.port(i).path().c_str();
      const auto start = Clock::now();
      int state = 0;
      while ((state = ZeltoCom_ExternalTrigger_isFinished(path)) == 0 && MsSince(start) < 5000) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
      }
      reported += state == 1 ? 1 : 0;
    }
    return reported;
  }

  // Starts listening again and aborts at once: the longest abort, in ms.
  double SlowestAbort() {
    double slowest = 0;
    for (int i = 0; i < station_.size(); ++i) {
      const char* path = station_.port(i).path().c_str();
      ZeltoCom_ExternalTrigger_Listen(path);
      const auto start = Clock::now();
      ZeltoCom_ExternalTrigger_Abort(path);
      slowest = std::max(slowest, MsSince(start));
    }
    return slowest;
  }

 private:
  static zeltosim::Config Analyser() {
    zeltosim::Config config;
    config.serial = "ZT0001";
    config.captureMs = 50;
    return config;
  }
  zeltosim::Station station_;
};

void Measure() {
  std::printf("\n%s waits:\n", WaitModeName());
  for (int n : {1, 8}) {
    ListeningStation station(n);
    const double cpu = CpuMs(CLOCK_PROCESS_CPUTIME_ID);
    const auto start = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    const double usedMs = CpuMs(CLOCK_PROCESS_CPUTIME_ID) - cpu;
    const double totalPercent = 100.0 * usedMs / MsSince(start);
    const int reported = station.FireAll();
    std::printf("  %d port%s listening %d s: %.3f %% of one core in all, %.4f %% per port;"
                " %d of %d reported when fired; slowest abort %.1f ms\n",
                n, n == 1 ? " " : "s", seconds, totalPercent, totalPercent / n, reported, n,
                station.SlowestAbort());
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], "--measure") == 0) {
    seconds = std::max(1, std::atoi(argv[2]));
    Measure();
    return 0;
  }
  if (argc == 3 && std::strcmp(argv[1], "--seconds") == 0) {
    seconds = std::max(1, std::atoi(argv[2]));
  } else if (argc != 1) {
    std::fprintf(stderr, "usage: zeltocom_trigger_bench [--seconds S]\n");
    return 2;
  }
  std::printf("zeltocom_trigger_bench on %u processors: processor time of the whole process\n"
              "while ports wait for their triggers (the simulated instruments' threads\n"
              "included, so an upper bound for the listeners)\n",
              std::thread::hardware_concurrency());
  const std::vector<std::string> measure = {argv[0], "--measure", std::to_string(seconds)};
  return RunInWaitMode(false, measure) | RunInWaitMode(true, measure);
}
