#pragma once

#include <string>
#include <string_view>

#include "serial/driver.hpp"

namespace zeltocom {

struct s_CommPort;

// Hands the line of `port` (or of its master) to the instrument with
// `serialNumber`, learning chained instruments the first time they answer.
// 1 it holds the line; 0 refused or no answer; -1 not sent; a failing
// BUSFREE of the previous holder is returned as it stands.
int CMD_BusGet(s_CommPort* port, std::string_view serialNumber, t_comresponse* response);
// Gives the line back to the master. 1, 0 or -1.
int CMD_BusFree(s_CommPort* port, t_comresponse* response);

// The instrument's end-of-response marker, "\r\n\x04" or "\r\n", judged from
// an answer and, failing that, from whether a lone 0x04 follows it.
std::string GetEOTformat(SerialLine& line, double charTimeMs, std::string_view answer);
std::string GetEOTformat(s_CommPort* port, std::string_view answer);

}  // namespace zeltocom
