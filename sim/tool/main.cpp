// zeltosim: simulated instruments on pseudo-terminals for test stations.
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>

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

// One call per line, so that the lines of several ports never mix.
void PrintTrace(const std::string& line) { std::fprintf(stderr, "%s\n", line.c_str()); }

using Ports = std::vector<std::unique_ptr<SimPort>>;

// Fires the trigger input of port `number` (1 is the first), of all with 0.
void Fire(const Ports& ports, int number) {
  for (std::size_t i = 0; i < ports.size(); ++i) {
    if (number == 0 || static_cast<std::size_t>(number) == i + 1) ports[i]->fireTrigger();
  }
}

// One line of standard input: "fire" or "fire N".
void Obey(const Ports& ports, const std::string& line) {
  char* end = nullptr;
  if (line == "fire") return Fire(ports, 0);
  if (line.starts_with("fire ")) {
    const long number = std::strtol(line.c_str() + 5, &end, 10);
    if (*end == '\0' && number >= 1 && static_cast<std::size_t>(number) <= ports.size()) {
      return Fire(ports, static_cast<int>(number));
    }
  }
  if (!line.empty()) std::fprintf(stderr, "zeltosim: \"%s\": expected fire [N]\n", line.c_str());
}

// Takes what standard input has; false at its end.
bool ReadCommands(const Ports& ports, std::string& pending) {
  char chunk[256];
  const ssize_t n = read(STDIN_FILENO, chunk, sizeof chunk);
  if (n <= 0) return false;
  pending.append(chunk, static_cast<std::size_t>(n));
  for (std::size_t end; (end = pending.find('\n')) != std::string::npos;) {
    std::string line = pending.substr(0, end);
    pending.erase(0, end + 1);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    Obey(ports, line);
  }
  return true;
}

// Serves trigger requests until SIGINT or SIGTERM; SIGUSR1 fires every port.
void Serve(const Ports& ports, const sigset_t& signals) {
  const int signalFd = signalfd(-1, &signals, SFD_CLOEXEC);
  if (signalFd < 0) throw std::runtime_error("signalfd failed");
  pollfd waits[2] = {{signalFd, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
  std::string pending;
  for (;;) {
    if (poll(waits, 2, -1) < 0) continue;
    if (waits[0].revents != 0) {
      signalfd_siginfo info{};
      if (read(signalFd, &info, sizeof info) != sizeof info) continue;
      if (info.ssi_signo != SIGUSR1) break;
      Fire(ports, 0);
    }
    // Without standard input (or at its end) only the signals are served.
    if (waits[1].revents != 0 && !ReadCommands(ports, pending)) waits[1].fd = -1;
  }
  close(signalFd);
}

int Run(const zeltosim::tool::Options& options) {
  // Blocked before any port thread starts, so only the signalfd sees them.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  Ports ports;
  std::vector<const SimPort*> all;
  for (const auto& setup : options.ports) {
    zeltosim::LineOptions line = setup.line;
    if (options.verbose) line.trace = PrintTrace;
    auto port = std::make_unique<SimPort>(setup.master, line);
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

  Serve(ports, signals);
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
