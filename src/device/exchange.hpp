#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "frame/clock.hpp"
#include "frame/serial_line.hpp"

namespace zeltocom {

struct s_CommPort;

// How the answer to a command ends.
class End {
 public:
  // At the first `marker` (CR LF when empty): a one-line answer, or a text
  // such as "Acquiring...\r\n".
  static End Marker(std::string_view marker);
  // After `count` line feeds; a refusal ending in `marker` ends it sooner.
  static End Lines(int count, std::string_view marker = {});
  // Once the line has been quiet for 200 ms after some bytes; a refusal
  // ending in `marker` ends it sooner.
  static End Quiet(std::string_view marker = {});
  // The same end, with the answer's line end and 0x04 dropped.
  End Trimmed() const;

  std::string_view marker() const { return marker_; }
  bool multiLine() const { return multiLine_; }
  int lineCount() const { return lineCount_; }
  bool trimmed() const { return trim_; }
  // How the trace names it: end "\r\n", lines 8, quiet.
  std::string Describe() const;

 private:
  std::string marker_;
  bool multiLine_ = false;
  int lineCount_ = 0;
  bool trim_ = false;
};

// What a command came to. A line that is lost (unplugged, closed during the
// exchange, streaming without end, out of step for good) is no outcome: a
// LineError leaves the call, which fails with its text.
enum class Outcome { Answered, Late, SyntaxError, NotSent };

struct Reply {
  std::string text;
  Outcome outcome = Outcome::Late;
  // A refusal was read, even when the wait then ran out of time.
  bool syntaxError = false;
  // How long the line had been quiet when the wait ended.
  TimeoutMs quietMs = 0;
  bool answered() const { return outcome == Outcome::Answered; }
};

// What the trace says when a line that ran out of time cannot be brought
// back in step, and when an answer cannot be told from a trigger report.
inline constexpr const char* kNotInStep = "The instrument has not answered since a time-out";
inline constexpr const char* kReportOrAnswer =
    "A trigger report came with the answer and cannot be told from it";

// The exchange with whoever holds the line of `port`: every command of the
// library goes through here, and so does the wire trace.
//
// Before a command goes out, the line is brought to a known state: after a
// time-out, "GETSERIAL" is sent and everything up to the serial number of
// the instrument holding the line is thrown away, so that no late answer is
// taken for a later command's; a chained instrument that was removed while
// holding the line is asked to free it; and whatever is still arriving is
// thrown away (trigger reports among it kept as the port's last response).
// When the line cannot be brought in step (tried once per call), the
// command is held back and the waits for its answer end at once, late: the
// caller reports a time-out. The caller holds the port's line.
Reply Exchange(s_CommPort* port, std::string_view command, const End& end, TimeoutMs timeout);

// The two halves of Exchange, for commands with more than one answer.
// SendCommand: false when the command could not be written.
bool SendCommand(s_CommPort* port, std::string_view command);
// The answer owed to the last command. When a trigger report that the
// library expects comes before it, the report is kept as the port's last
// response, not taken for the answer; when the two cannot be told apart,
// LineError.
Reply Await(s_CommPort* port, const End& end, TimeoutMs timeout);
// Bytes that may or may not come (a lone 0x04, an announcement, the
// settling of a line): running out of time leaves the line in step. The
// outcome is judged against `lateAfter` when given, instead of `timeout`.
Reply AwaitStraggler(s_CommPort* port, const End& end, TimeoutMs timeout,
                     std::optional<TimeoutMs> lateAfter = std::nullopt);
// Whether the last command was held back (see Exchange).
bool CommandHeldBack(const s_CommPort* port);

// The same on a line that has no record yet (an open's handshake): nothing
// to bring in step, the serial number in the trace given by the caller.
bool SendOnLine(SerialLine& line, std::string_view serial, std::string_view command);
Reply AwaitOnLine(SerialLine& line, std::string_view serial, const End& end, TimeoutMs timeout);
Reply AwaitStragglerOnLine(SerialLine& line, std::string_view serial, const End& end,
                           TimeoutMs timeout, std::optional<TimeoutMs> lateAfter = std::nullopt);

// Waits for the message an instrument sends unasked once its trigger input
// fired, ended as `end` says or by 100 ms of quiet, sleeping until it comes
// or `wakeFd` rings with `abort` set. Runs beside the exchanges of the
// line's holder: it reads the line but never writes. True when a message
// ended (`message` trimmed, its refusal flag set); false when aborted, or
// when the line failed (then `message` says why).
bool AwaitTriggerMessage(const SerialLine& line, std::string_view serial, int wakeFd,
                         const std::atomic<bool>& abort, const End& end, Reply* message);

// One exchange, in the library's oldest terms: 1 answered, 0 late or
// refused, -1 not written; the trimmed answer in `text` when given.
int CMD_SendCommand(s_CommPort* port, std::string_view command, TimeoutMs timeout,
                    std::string* text = nullptr);

}  // namespace zeltocom
