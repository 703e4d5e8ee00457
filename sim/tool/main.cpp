// zeltosim: simulated instruments on pseudo-terminals for test stations.
#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <exception>
#include <memory>

#include "options.hpp"
#include "zeltosim/zeltosim.hpp"

namespace {

using zeltosim::SimPort;

void PrintInstrument(const std::string& serial, int baud, const std::string& path,
                     const std::string& behind) {
  std::printf("serial=%s baud=%d path=%s", serial.c_str(), baud, path.c_str());
  if (!behind.empty()) std::printf(" chained=%s", behind.c_str());
  std::printf("\n");
}

int Run(const zeltosim::tool::Options& options) {
  // Blocked before any port thread starts, so only sigwait below sees them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  std::vector<std::unique_ptr<SimPort>> ports;
  std::vector<const SimPort*> all;
  for (const auto& setup : options.ports) {
    auto port = std::make_unique<SimPort>(setup.master, setup.line);
    PrintInstrument(port->master().serial(), port->baud(), port->path(), "");
    for (const auto& lit : setup.lights) port->master().setLight(lit.fibre - 1, lit.light);
    for (const auto& chained : setup.chained) {
      const auto& added = port->chain(chained);
      PrintInstrument(added.serial(), port->baud(), port->path(), port->master().serial());
    }
    all.push_back(port.get());
    ports.push_back(std::move(port));
  }
  std::printf("ZELTOCOM_PORTS=%s\n", zeltosim::PortsVariable(all).c_str());
  std::fflush(stdout);

  int signal = 0;
  sigwait(&stopSignals, &signal);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  zeltosim::tool::Options options;
  try {
    options = zeltosim::tool::ParseOptions(std::vector<std::string>(argv + 1, argv + argc));
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zeltosim: %s\nTry 'zeltosim --help'.\n", e.what());
    return 2;
  }
  if (options.help) {
    std::fputs(zeltosim::tool::kUsage, stdout);
    return 0;
  }
  try {
    return Run(options);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zeltosim: %s\n", e.what());
    return 1;
  }
}
