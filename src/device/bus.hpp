#pragma once

#include <string>
#include <string_view>

#include "device/exchange.hpp"

namespace zeltocom {

struct s_CommPort;

// How a hand-over's time-out is rounded from the line's character time:
// adding an instrument to a chain rounds up, handing the line over down.
enum class Rounding { Down, Up };

// How long the instrument asked for the line gets to answer "BUSGET": 15
// characters' time and 20 ms, at least 80 ms.
TimeoutMs BusGetTimeoutMs(double charTimeMs, Rounding rounding);
// How long whoever holds the line gets to answer "BUSFREE": 16 characters'
// time and 20 ms.
TimeoutMs BusFreeTimeoutMs(double charTimeMs);
// The chain calls' own hand-overs, and one completion query of a chain
// capture: 25 characters' time, counted in whole groups of five, and 50 or
// 20 ms.
TimeoutMs ChainFreeTimeMs(double charTimeMs);
TimeoutMs ChainPollTimeMs(double charTimeMs);

// Asks the instrument with `serial` on the master's line to take it
// ("BUSGET<serial>"), waiting for the answer as `end` says.
Reply AskForLine(s_CommPort* master, std::string_view serial, const End& end, Rounding rounding);

// Hands the line of `port` (or of its master) to the instrument with
// `serialNumber`, learning chained instruments the first time they answer.
// 1 it holds the line; 0 refused or no answer; -1 not sent; a failing
// BUSFREE of the previous holder is returned as it stands.
int CMD_BusGet(s_CommPort* port, std::string_view serialNumber, Reply* reply);
// Gives the line back to the master. 1, 0 or -1.
int CMD_BusFree(s_CommPort* port, Reply* reply);

// Old firmware sends the 0x04 that ends its answer to "BUSCE" on its own,
// after the line end: when `answer` came without it, it is waited for up to
// `waitMs` (and thrown away), so that it is not taken for the next answer.
void AwaitLateEot(s_CommPort* port, const Reply& answer, TimeoutMs waitMs);

// The instrument's end-of-response marker, "\r\n\x04" or "\r\n", judged from
// an answer and, failing that, from whether a lone 0x04 follows it.
std::string GetEOTformat(SerialLine& line, double charTimeMs, std::string_view answer);
std::string GetEOTformat(s_CommPort* port, std::string_view answer);

}  // namespace zeltocom
