// zeltocom_bench: what waiting costs and how exact it is, how fast answers
// come in and stale bytes go out, what bringing a line back in step after a
// time-out costs, and whether opening and closing leak. Each figure is set
// against a raw exchange or read loop over the same pseudo-terminal,
// measured in the same run.
//
//   zeltocom_bench [--soak N]     (N open/close cycles, default 10000; 0 skips)
//
// The wait figures are taken in both wait modes: the program runs itself
// once more with ZELTOCOM_WAIT=busy, since the mode is fixed at load time.
#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "support.hpp"
#include "zeltocom.h"
#include "zeltosim/zeltosim.hpp"

namespace {

std::string LastError() {
  char text[512];
  return ZeltoCom_GetError_Description(text);
}

zeltosim::Config Instrument(const std::string& serial) {
  zeltosim::Config config;
  config.serial = serial;
  config.eot = true;
  return config;
}

// The host's end of a line, without the library: the reference exchange.
class RawLine {
 public:
  explicit RawLine(const std::string& path) {
    fd_ = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    termios t{};
    tcgetattr(fd_, &t);
    cfmakeraw(&t);
    cfsetispeed(&t, B921600);
    cfsetospeed(&t, B921600);
    tcsetattr(fd_, TCSANOW, &t);
  }
  ~RawLine() { close(fd_); }
  void Send(const std::string& line) {
    const std::string bytes = line + "\r\n";
    if (write(fd_, bytes.data(), bytes.size()) < 0) std::perror("write");
  }
  // Reads until `end` has arrived or `bytes` have come, whichever is first.
  std::size_t ReadUntil(const std::string& end, std::size_t bytes) {
    std::string got;
    std::size_t total = 0;
    char buffer[4096];
    while (total < bytes) {
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, 1000) <= 0) break;
      const ssize_t n = read(fd_, buffer, sizeof buffer);
      if (n <= 0) continue;
      total += static_cast<std::size_t>(n);
      if (!end.empty()) {
        got.append(buffer, static_cast<std::size_t>(n));
        if (got.ends_with(end)) break;
      }
    }
    return total;
  }

 private:
  int fd_ = -1;
};

void Publish(const std::vector<const zeltosim::SimPort*>& ports) {
  setenv("ZELTOCOM_PORTS", zeltosim::PortsVariable(ports).c_str(), 1);
  ZeltoCom_EnumPorts();
}

// The time of one raw GETSERIAL exchange over a fresh simulated line, in ms.
double RawExchangeMs(int rounds) {
  zeltosim::SimPort port(Instrument("ZB000009"), {921600});
  RawLine raw(port.path());
  const auto start = Clock::now();
  for (int i = 0; i < rounds; ++i) {
    raw.Send("GETSERIAL");
    raw.ReadUntil("\r\n\x04", 1 << 20);
  }
  return MsSince(start) / rounds;
}

// One exchange, raw and through the library.
void MeasureExchange() {
  zeltosim::SimPort port(Instrument("ZB000001"), {921600});
  constexpr int kRounds = 300;
  double rawMs = 0;
  {
    RawLine raw(port.path());
    const auto start = Clock::now();
    for (int i = 0; i < kRounds; ++i) {
      raw.Send("GETSERIAL");
      raw.ReadUntil("\r\n\x04", 1 << 20);
    }
    rawMs = MsSince(start) / kRounds;
  }
  Publish({&port});
  if (ZeltoCom_Open(port.path().c_str(), 921600) != 1) {
    std::printf("open failed: %s\n", LastError().c_str());
    return;
  }
  char answer[256];
  const auto start = Clock::now();
  for (int i = 0; i < kRounds; ++i) ZeltoCom_Send(port.path().c_str(), "GETSERIAL", answer);
  const double libraryMs = MsSince(start) / kRounds;
  ZeltoCom_CloseAll();
  std::printf("  one exchange (GETSERIAL)      raw pty %.3f ms, library %.3f ms  (x%.2f)\n", rawMs,
              libraryMs, libraryMs / rawMs);
}

// The wire trace's cost: exchanges with the trace off and on (to a file),
// in alternating blocks so that the machine's noise falls on both alike,
// against a raw exchange over the same line. The best block of each counts.
void MeasureTrace() {
  zeltosim::SimPort port(Instrument("ZB000010"), {921600});
  constexpr int kRounds = 200;
  constexpr int kBlocks = 7;
  const double rawMs = RawExchangeMs(kRounds);
  Publish({&port});
  if (ZeltoCom_Open(port.path().c_str(), 921600) != 1) {
    std::printf("open failed: %s\n", LastError().c_str());
    return;
  }
  const std::string traceFile = "/tmp/zeltocom_bench_trace.txt";
  char answer[256];
  const auto block = [&] {
    const auto start = Clock::now();
    for (int i = 0; i < kRounds; ++i) ZeltoCom_Send(port.path().c_str(), "GETSERIAL", answer);
    return MsSince(start) / kRounds;
  };
  double offMs = 1e9;
  double onMs = 1e9;
  for (int b = 0; b < kBlocks; ++b) {
    offMs = std::min(offMs, block());
    ZeltoCom_SetTrace(traceFile.c_str());
    onMs = std::min(onMs, block());
    ZeltoCom_SetTrace(nullptr);
  }
  ZeltoCom_CloseAll();
  std::filesystem::remove(traceFile);
  std::printf("  wire trace                    raw pty %.3f ms, trace off %.3f ms (x%.2f), "
              "trace on %.3f ms (x%.2f; +%.1f us per exchange)\n",
              rawMs, offMs, offMs / rawMs, onMs, onMs / rawMs, (onMs - offMs) * 1000);
}

// An endless answer up to the library's 1 MiB limit, raw and through the library.
void MeasureIntake() {
  zeltosim::Config config = Instrument("ZB000002");
  config.fault = zeltosim::Fault::Babble;
  constexpr std::size_t kBytes = std::size_t{1} << 20;
  double rawMBs = 0;
  {
    zeltosim::SimPort port(config, {921600});
    RawLine raw(port.path());
    raw.Send("GETSERIAL");
    const auto start = Clock::now();
    const std::size_t got = raw.ReadUntil("", kBytes);
    rawMBs = static_cast<double>(got) / 1e6 / (MsSince(start) / 1000.0);
  }
  zeltosim::Config healthy = Instrument("ZB000002");
  zeltosim::SimPort port(healthy, {921600});
  Publish({&port});
  ZeltoCom_Open(port.path().c_str(), 921600);
  port.master().setFault(zeltosim::Fault::Babble);
  const auto start = Clock::now();
  const int result = ZeltoCom_Send(port.path().c_str(), "GETSERIAL", nullptr);
  const double seconds = MsSince(start) / 1000.0;
  port.master().setFault(zeltosim::Fault::None);
  ZeltoCom_CloseAll();
  const double libraryMBs = static_cast<double>(kBytes) / 1e6 / seconds;
  std::printf(
      "  intake of a 1 MiB answer      raw pty %.2f MB/s, library %.2f MB/s  (x%.2f; %d, \"%s\")\n",
      rawMBs, libraryMBs, libraryMBs / rawMBs, result, LastError().c_str());
}

// Stale bytes thrown away before a command, against a raw read loop taking
// the same flood: an instrument answers with 8 MB, the library takes the
// first MiB as an answer (too long), and the next command must get rid of
// the rest first.
void MeasureDiscard() {
  constexpr std::size_t kFlood = std::size_t{8} << 20;
  zeltosim::Config config = Instrument("ZB000003");
  config.hugeAnswerBytes = kFlood;
  double rawMBs = 0;
  {
    config.fault = zeltosim::Fault::Huge;
    zeltosim::SimPort port(config, {921600});
    RawLine raw(port.path());
    raw.Send("GETSERIAL");
    const auto start = Clock::now();
    const std::size_t got = raw.ReadUntil("", kFlood);
    rawMBs = static_cast<double>(got) / 1e6 / (MsSince(start) / 1000.0);
  }
  config.fault = zeltosim::Fault::None;
  zeltosim::SimPort port(config, {921600});
  Publish({&port});
  ZeltoCom_Open(port.path().c_str(), 921600);
  char answer[256];
  port.master().setFault(zeltosim::Fault::Huge);
  const int first = ZeltoCom_Send(port.path().c_str(), "GETSERIAL", answer);
  port.master().setFault(zeltosim::Fault::None);
  const auto start = Clock::now();
  const int second = ZeltoCom_Send(port.path().c_str(), "GETSERIAL", answer);
  const double seconds = MsSince(start) / 1000.0;
  ZeltoCom_CloseAll();
  const double libraryMBs = static_cast<double>(kFlood - (std::size_t{1} << 20)) / 1e6 / seconds;
  std::printf("  stale bytes thrown away       raw pty %.2f MB/s, library %.2f MB/s  (x%.2f; "
              "first %d, then %d \"%s\")\n",
              rawMBs, libraryMBs, libraryMBs / rawMBs, first, second, answer);
}

// What a time-out costs the exchange after it: the line is brought back in
// step with one more question first. (The question that timed out was lost
// by the instrument, as a silent one does.)
void MeasureResync() {
  constexpr int kRounds = 100;
  const double rawMs = RawExchangeMs(kRounds);
  zeltosim::SimPort port(Instrument("ZB000004"), {921600});
  Publish({&port});
  ZeltoCom_Open(port.path().c_str(), 921600);
  ZeltoCom_SetResponseTimeout(50);
  char answer[256];
  double inStepMs = 0;
  double afterTimeOutMs = 0;
  for (int i = 0; i < kRounds; ++i) {
    auto start = Clock::now();
    ZeltoCom_Send(port.path().c_str(), "GETSERIAL", answer);
    inStepMs += MsSince(start);
    port.master().setFault(zeltosim::Fault::Silent);
    ZeltoCom_Send(port.path().c_str(), "GETHW", answer);
    port.master().setFault(zeltosim::Fault::None);
    start = Clock::now();
    if (ZeltoCom_Send(port.path().c_str(), "GETSERIAL", answer) != 1) {
      std::printf("  after a time-out: %s\n", LastError().c_str());
    }
    afterTimeOutMs += MsSince(start);
  }
  ZeltoCom_CloseAll();
  ZeltoCom_SetResponseTimeout(2500);
  inStepMs /= kRounds;
  afterTimeOutMs /= kRounds;
  std::printf("  the exchange after a time-out raw pty %.3f ms, in step %.3f ms (x%.2f), after a "
              "time-out %.3f ms (x%.2f): +%.3f ms\n",
              rawMs, inStepMs, inStepMs / rawMs, afterTimeOutMs, afterTimeOutMs / rawMs,
              afterTimeOutMs - inStepMs);
}

struct WaitFigures {
  double wallMs = 0;
  double cpuMs = 0;
};

// `ports` silent instruments, each waited on by its own host thread for one
// 500 ms time-out at the same time.
std::vector<WaitFigures> WaitAtOnce(int ports) {
  std::vector<std::unique_ptr<zeltosim::SimPort>> sims;
  std::vector<const zeltosim::SimPort*> published;
  for (int i = 0; i < ports; ++i) {
    char serial[16];
    std::snprintf(serial, sizeof serial, "ZW%06d", i + 1);
    sims.push_back(
        std::make_unique<zeltosim::SimPort>(Instrument(serial), zeltosim::LineOptions{921600}));
    published.push_back(sims.back().get());
  }
  Publish(published);
  for (const auto& sim : sims) {
    if (ZeltoCom_Open(sim->path().c_str(), 921600) != 1)
      std::printf("open: %s\n", LastError().c_str());
    sim->master().setFault(zeltosim::Fault::Silent);
  }
  ZeltoCom_SetResponseTimeout(500);
  std::vector<WaitFigures> figures(static_cast<std::size_t>(ports));
  std::vector<std::thread> threads;
  for (int i = 0; i < ports; ++i) {
    threads.emplace_back([&, i] {
      const std::string path = sims[static_cast<std::size_t>(i)]->path();
      char answer[64];
      const double cpu = CpuMs(CLOCK_THREAD_CPUTIME_ID);
      const auto start = Clock::now();
      ZeltoCom_Send(path.c_str(), "GETSERIAL", answer);
      figures[static_cast<std::size_t>(i)] = {MsSince(start), CpuMs(CLOCK_THREAD_CPUTIME_ID) - cpu};
    });
  }
  for (std::thread& t : threads) t.join();
  ZeltoCom_CloseAll();
  return figures;
}

// A 1000 ms time-out on a silent instrument while four processes keep both
// processors busy.
void MeasureStarvedWait() {
  zeltosim::SimPort port(Instrument("ZB000005"), {921600});
  Publish({&port});
  ZeltoCom_Open(port.path().c_str(), 921600);
  port.master().setFault(zeltosim::Fault::Silent);
  ZeltoCom_SetResponseTimeout(1000);
  std::vector<pid_t> burners;
  for (int i = 0; i < 4; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      std::atomic<unsigned long> spins{0};
      for (;;) spins.fetch_add(1, std::memory_order_relaxed);
    }
    burners.push_back(child);
  }
  char answer[64];
  const auto start = Clock::now();
  const int result = ZeltoCom_Send(port.path().c_str(), "GETSERIAL", answer);
  const double wallMs = MsSince(start);
  for (pid_t child : burners) {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
  }
  ZeltoCom_CloseAll();
  ZeltoCom_SetResponseTimeout(2500);
  std::printf("  1000 ms time-out beside 4 busy processes: %.0f ms (x%.2f; result %d)\n", wallMs,
              wallMs / 1000.0, result);
}

void MeasureWaits() {
  std::printf("\nWaits, %s:\n", WaitModeName());
  MeasureExchange();
  MeasureStarvedWait();
  for (int ports : {1, 8}) {
    const std::vector<WaitFigures> figures = WaitAtOnce(ports);
    double wallSum = 0;
    double wallMax = 0;
    double cpuSum = 0;
    for (const WaitFigures& f : figures) {
      wallSum += f.wallMs;
      wallMax = std::max(wallMax, f.wallMs);
      cpuSum += f.cpuMs;
    }
    const double wallMean = wallSum / ports;
    std::printf("  500 ms time-out, %d port%s     wall %.0f ms mean, %.0f ms max (x%.2f of 500); "
                "CPU per waiting port %.0f ms (%.0f%% of a core)\n",
                ports, ports == 1 ? " " : "s", wallMean, wallMax, wallMean / 500.0, cpuSum / ports,
                100.0 * cpuSum / wallSum);
  }
}

int OpenDescriptors() {
  int n = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    ++n;
  return n;
}

long ResidentKiB() {
  long pages = 0;
  long resident = 0;
  FILE* statm = std::fopen("/proc/self/statm", "r");
  if (statm == nullptr) return -1;
  if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2) resident = -1;
  std::fclose(statm);
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

long HeapInUseKiB() { return static_cast<long>(mallinfo2().uordblks / 1024); }

void Soak(int cycles) {
  if (cycles <= 0) return;
  std::printf("\nSoak: %d open/close cycles on one port\n", cycles);
  zeltosim::SimPort port(Instrument("ZS000001"), {921600});
  Publish({&port});
  const auto start = Clock::now();
  int failures = 0;
  for (int i = 1; i <= cycles; ++i) {
    if (ZeltoCom_Open(port.path().c_str(), 921600) != 1 ||
        ZeltoCom_Close(port.path().c_str()) != 1) {
      ++failures;
    }
    // The simulator logs every line it receives; that is not the library's.
    port.clearLog();
    port.master().clearReceived();
    if (i == 1 || i == cycles / 10 || i == cycles) {
      std::printf("  after %5d cycles: %d descriptors, %ld KiB heap in use, %ld KiB resident\n", i,
                  OpenDescriptors(), HeapInUseKiB(), ResidentKiB());
    }
  }
  std::printf("  %d failures; %.1f ms per cycle\n", failures, MsSince(start) / cycles);
}

}  // namespace

int main(int argc, char** argv) {
  int soak = 10000;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--waits") {
      MeasureWaits();
      return 0;
    }
    if (arg == "--soak" && i + 1 < argc) {
      soak = std::atoi(argv[++i]);
    } else {
      std::fprintf(stderr, "usage: zeltocom_bench [--soak N]\n");
      return 2;
    }
  }
  std::printf("zeltocom_bench on %u processors\n", std::thread::hardware_concurrency());
  std::printf("\nAnswers:\n");
  MeasureIntake();
  MeasureDiscard();
  MeasureResync();
  MeasureTrace();
  int failed = RunInWaitMode(true, {argv[0], "--waits"});
  failed |= RunInWaitMode(false, {argv[0], "--waits"});
  Soak(soak);
  return failed;
}
