#pragma once

#include <string_view>

#include "serial/driver.hpp"

namespace zeltocom {

struct s_CommPort;

// One exchange with whoever holds the line: writes `command`, waits up to
// `timeoutMs` for the port's end marker. 1 when the answer came in time and
// was not a syntax error, 0 otherwise, -1 when the command could not be
// written. The (trimmed) answer stays in `response`.
int CMD_SendCommand(s_CommPort* port, std::string_view command, unsigned long timeoutMs,
                    t_comresponse* response);

}  // namespace zeltocom
