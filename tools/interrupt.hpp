// Ctrl-C: the tool's ports are closed at once, which ends the library call
// waiting on one of them, and the command ends saying what the instruments
// may still be doing.
#pragma once

#include <functional>
#include <string>
#include <thread>

namespace cli {

// Catches SIGINT and SIGTERM while it lives.
class InterruptWatch {
 public:
  InterruptWatch();
  ~InterruptWatch();
  InterruptWatch(const InterruptWatch&) = delete;
  InterruptWatch& operator=(const InterruptWatch&) = delete;

 private:
  void Watch() const;

  int pipe_[2] = {-1, -1};
  std::thread watcher_;
};

bool Interrupted();

// While it lives, `text` tells what the instruments go on doing should the
// command be interrupted now ("the analyser goes on sequencing for 12 s").
class Aftermath {
 public:
  explicit Aftermath(std::function<std::string()> text);
  ~Aftermath();
  Aftermath(const Aftermath&) = delete;
  Aftermath& operator=(const Aftermath&) = delete;
};
// The text of the Aftermath that lives now, or of the one that lived when
// the interrupt came; empty when none did.
std::string AftermathText();

}  // namespace cli
