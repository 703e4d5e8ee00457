// What the benchmarks share: their clocks, and running again in the other
// wait mode (the library reads the mode once, when it is loaded, so each
// mode needs a process of its own).
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <ctime>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

using Clock = std::chrono::steady_clock;

inline double MsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// CLOCK_THREAD_CPUTIME_ID or CLOCK_PROCESS_CPUTIME_ID, in ms.
inline double CpuMs(clockid_t clock) {
  timespec t{};
  clock_gettime(clock, &t);
  return static_cast<double>(t.tv_sec) * 1000.0 + static_cast<double>(t.tv_nsec) / 1e6;
}

// Runs this program again with `args` (the first being its name), with
// blocking (the default) or busy waits; the child's exit status.
inline int RunInWaitMode(bool blocking, const std::vector<std::string>& args) {
  std::fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    if (blocking) {
      unsetenv("ZELTOCOM_WAIT");
    } else {
      setenv("ZELTOCOM_WAIT", "busy", 1);
    }
    std::vector<char*> argv;
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    execv("/proc/self/exe", argv.data());
    std::perror("exec");
    _exit(127);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

// Whether this process waits busily (ZELTOCOM_WAIT=busy), as the library
// read it.
inline bool BusyWaits() {
  const char* mode = std::getenv("ZELTOCOM_WAIT");
  return mode != nullptr && std::string(mode) == "busy";
}

inline const char* WaitModeName() { return BusyWaits() ? "busy" : "blocking (default)"; }
