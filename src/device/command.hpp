#pragma once

#include <string_view>

#include "serial/driver.hpp"

namespace zeltocom {

struct s_CommPort;

// What a finished wait amounts to.
enum class WaitOutcome { Answered, Late, SyntaxError };

// The one judgement of every wait: late when it ran to its time-out, else a
// syntax error when the instrument refused the command, else answered.
WaitOutcome OutcomeOf(const t_comresponse& response, long timeoutMs);

// What the library says (in its trace) when a line that ran out of time
// cannot be brought back in step, and when an answer cannot be told from a
// trigger report.
inline constexpr const char* kNotInStep = "The instrument has not answered since a time-out";
inline constexpr const char* kReportOrAnswer =
    "A trigger report came with the answer and cannot be told from it";

// Writes `command` to whoever holds the line of `port`. Before it goes out,
// the line is brought to a known state: after a time-out, "GETSERIAL" is
// sent and everything up to the serial number of the instrument holding the
// line is thrown away, so that no late answer is taken for a later
// command's; a chained instrument that was removed while holding the line
// is asked to free it; and whatever is still arriving is thrown away (trigger
// reports among it kept as the port's last response). 1 when written, 0
// when not. When the line cannot be brought in step (tried once per call),
// the command is held back and the waits for its answer end at once, late:
// the caller reports a time-out. The caller holds the port's line.
int CMD_Write(s_CommPort* port, std::string_view command);

// Whether the last command written to the port's line was held back.
bool CMD_CommandHeldBack(const s_CommPort* port);

// Waits for the answer to the command just written, as RS232WaitForData
// does. When a trigger report that the library expects comes before the
// answer, it is kept as the port's last response, not taken for the answer;
// when the two cannot be told apart, LineError.
void CMD_Wait(s_CommPort* port, t_comresponse* response, long timeoutMs, std::string_view marker,
              bool trim, bool multiLine = false, int lineCount = 0);

// Waits for bytes that may or may not come (see RS232WaitForStraggler);
// the text stays untrimmed.
void CMD_WaitForStraggler(s_CommPort* port, t_comresponse* response, long timeoutMs,
                          std::string_view marker);

// One exchange with whoever holds the line: writes `command`, waits up to
// `timeoutMs` for the port's end marker. 1 when answered, 0 when late or a
// syntax error, -1 when the command could not be written. The (trimmed)
// answer stays in `response`. The caller holds the port's line.
int CMD_SendCommand(s_CommPort* port, std::string_view command, unsigned long timeoutMs,
                    t_comresponse* response);

}  // namespace zeltocom
