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

// One exchange with whoever holds the line: writes `command`, waits up to
// `timeoutMs` for the port's end marker. 1 when answered, 0 when late or a
// syntax error, -1 when the command could not be written. The (trimmed)
// answer stays in `response`. The caller holds the port's line.
int CMD_SendCommand(s_CommPort* port, std::string_view command, unsigned long timeoutMs,
                    t_comresponse* response);

}  // namespace zeltocom
