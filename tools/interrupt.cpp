#include "interrupt.hpp"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

#include "zeltocom.h"

namespace cli {
namespace {

std::atomic<bool> interrupted{false};
std::atomic<int> wakeFd{-1};

constexpr char kInterrupt = 'i';
constexpr char kQuit = 'q';

// Only what is safe in a signal handler: the flag and one byte to the watcher.
void OnSignal(int) {
  interrupted.store(true);
  const int fd = wakeFd.load();
  if (fd >= 0) (void)!write(fd, &kInterrupt, 1);
}

std::mutex aftermathMutex;
std::function<std::string()> aftermathText;
std::string keptAftermath;  // told when the interrupted command has ended

}  // namespace

InterruptWatch::InterruptWatch() {
  if (pipe2(pipe_, O_CLOEXEC) != 0) return;
  wakeFd.store(pipe_[1]);
  watcher_ = std::thread([this] { Watch(); });
  struct sigaction action {};
  action.sa_handler = OnSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;  // no SA_RESTART: a waiting read, such as the shell's, ends
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

InterruptWatch::~InterruptWatch() {
  if (!watcher_.joinable()) return;
  signal(SIGINT, SIG_DFL);
  signal(SIGTERM, SIG_DFL);
  wakeFd.store(-1);
  (void)!write(pipe_[1], &kQuit, 1);
  watcher_.join();
  close(pipe_[0]);
  close(pipe_[1]);
}

void InterruptWatch::Watch() const {
  char byte = 0;
  while (read(pipe_[0], &byte, 1) == 1 && byte != kQuit) {
    // Closing ends the exchange that waits on a port at once.
    ZeltoCom_CloseAll();
  }
}

bool Interrupted() { return interrupted.load(); }

Aftermath::Aftermath(std::function<std::string()> text) {
  std::lock_guard lock(aftermathMutex);
  aftermathText = std::move(text);
}

Aftermath::~Aftermath() {
  std::lock_guard lock(aftermathMutex);
  if (Interrupted() && keptAftermath.empty()) keptAftermath = aftermathText();
  aftermathText = nullptr;
}

std::string AftermathText() {
  std::lock_guard lock(aftermathMutex);
  return aftermathText ? aftermathText() : keptAftermath;
}

}  // namespace cli
