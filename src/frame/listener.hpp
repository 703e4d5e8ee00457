#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace zeltocom {

// The states of a port's trigger listener.
enum eTriggerState {
  TRIGGER_IDLE = 0,  // never listened
  TRIGGER_LISTENING = 1,
  TRIGGER_ABORTED = 2,
  TRIGGER_FAILED = 3,
  TRIGGER_FINISHED = 4,  // a message is in the port's last answer
};

// What an instrument sends unasked when its trigger input fires, as this
// library enabled the trigger: `lines` lines of `fields` numbers each, or,
// with `fields` 0, the acknowledgement "OK".
struct UnaskedReports {
  bool expected = false;
  int fields = 0;
  int lines = 1;
};

// The thread that waits on a master's line for what its instrument sends
// when the trigger input fires. The thread takes neither the line nor this
// object's lock: it reads the line only while nobody else can, because
// taking the line stops it first.
class TriggerListener {
 public:
  TriggerListener() = default;
  ~TriggerListener();
  TriggerListener(const TriggerListener&) = delete;
  TriggerListener& operator=(const TriggerListener&) = delete;

  // Written by the listener once, at its end; read by anyone.
  std::atomic<int> triggerState{TRIGGER_IDLE};
  // Asks the listener to end; it sees the flag when woken.
  std::atomic<bool> triggerAbort{false};

  // The delays the instrument last accepted (0: refused). Under the line.
  int triggerPreDelay = 0;
  int triggerPostDelay = 0;
  // The reports to expect on the line while no listener waits. Under the line.
  UnaskedReports reports;

  // What ends the instrument's message; chosen before the thread starts and
  // only read by it.
  std::string terminator;
  bool dataExpected = false;
  int lineCount = 0;

  // Runs `body` on a new thread with the state set to listening. The caller
  // holds the line, and a listener started before has been stopped.
  void Start(std::function<void()> body);
  // Ends a running listener (its state becomes aborted) and joins the thread;
  // joins a finished one. Called by whoever takes the line.
  void Stop();
  // The descriptor that Stop rings to wake the listener; -1 before Start.
  int wakeFd() const { return wakeFd_; }

 private:
  std::mutex mutex_;  // guards `thread_` and the descriptor's creation
  std::thread thread_;
  int wakeFd_ = -1;
};

}  // namespace zeltocom
