// What an instrument knows and how its answers are planned. The port's thread
// turns a Reply into bytes on the wire; nothing here touches the line.
#pragma once

#include <array>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sequence.hpp"
#include "zeltosim/zeltosim.hpp"

namespace zeltosim {
namespace detail {

// One burst of answer lines, sent once its delay (counted from the end of the
// previous message) has passed.
struct Message {
  int delayMs = 0;
  std::vector<std::string> lines;
  bool eot = false;  // 0x04 after the last line
};

struct Reply {
  std::vector<Message> messages;
  int newBaud = 0;         // > 0: the line switches to this rate after the messages
  int byteIntervalMs = 0;  // > 0: the bytes go out one at a time, this far apart
  bool endless = false;    // digits follow until the instrument's fault changes
  std::string from;        // serial number of the instrument that answers
};

inline constexpr int kAdjustmentSets = 99;

// The external trigger input: what a pulse on it starts.
struct TriggerSetup {
  bool enabled = false;
  bool pwm = false;
  int range = 0;                // the capture's range digit, 1..6
  std::string output = "NONE";  // what is sent when the capture is done
  int preDelayMs = 0;
  int postDelayMs = 0;
};

}  // namespace detail

struct Instrument::State {
  explicit State(Config c);

  mutable std::mutex mutex;  // guards everything below
  Config config;
  bool spectrometer = false;
  bool microseconds = false;  // "-W2" models: exposures in us, and PWM
  std::array<Settings, detail::kAdjustmentSets> sets{};
  int currentSet = 0;
  std::vector<Fiber> captured;  // readings of the last capture
  int captures = 0;
  std::string lastCaptureCommand;
  std::chrono::steady_clock::time_point captureEnds{};  // of the last capture
  std::vector<std::string> received;
  std::vector<UserCalibration> calibration;  // per fibre
  detail::TriggerSetup trigger;
  detail::SequenceMemory sequence;
  std::map<std::string, std::string> fixedAnswers;  // by upper-case command

  Settings& current() { return sets[static_cast<size_t>(currentSet)]; }
};

namespace detail {

std::string Upper(std::string text);

// A decimal argument of at most `maxDigits` digits within [lo, hi].
std::optional<long> Number(std::string_view text, size_t maxDigits, long lo, long hi);

// How long a capture whose natural length is `ms` takes on this instrument.
int CaptureMs(const Instrument::State& st, double ms);

// A message in the instrument's present end-of-transmission mode.
Message Say(const Instrument::State& st, std::vector<std::string> lines, int delayMs = 0);
Reply SayOnce(const Instrument::State& st, std::vector<std::string> lines);
Reply SyntaxError(const Instrument::State& st);

// Full treatment of a line that reached this instrument: it is recorded, the
// instrument's fault and delays apply, and `normal` decides the answer of a
// healthy instrument. Takes the instrument's lock; `normal` runs under it.
using Behaviour = std::function<Reply(Instrument::State&)>;
Reply Respond(Instrument::State& st, const std::string& line, const Behaviour& normal);

// The command table: the answer of a healthy instrument to `line`.
Reply Execute(Instrument::State& st, const std::string& line);

// An LED analyser starts the capture that the broadcast "BUSC<arg>" asks for,
// as "C<arg>" would but without answering; a spectrometer ignores it. false
// when `arg` is malformed. The caller holds the instrument's lock.
bool JoinBroadcastCapture(Instrument::State& st, std::string_view arg, const std::string& line);

// A healthy instrument's answer to "BUSCE<its serial>".
Reply CaptureEndAnswer(Instrument::State& st);

// The answer to a user-calibration command of an LED analyser; none when
// `upper` is no such command. The caller holds the instrument's lock.
std::optional<Reply> ExecuteCalibration(Instrument::State& st, std::string_view upper);
// The user-calibration commands as HELP lists them.
const std::vector<std::string_view>& CalibrationUsage();
// What a pulse on the trigger input brings: after the pre-delay a capture,
// after the post-delay its report, sent unasked; nothing while the trigger
// is off. The caller holds the instrument's lock.
Reply TriggerFired(Instrument::State& st);

}  // namespace detail
}  // namespace zeltosim
