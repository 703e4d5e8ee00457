#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace zeltocom {

struct s_CommPort;

// The rates the library admits, in the order a rate search tries them.
inline constexpr int kAdmittedBaudrates[] = {57600, 460800, 115200, 921600,
                                             9600,  230400, 38400,  19200};

// The time of one 11-bit character in ms, at least 0.15; response time-outs
// are multiples of it.
double CharTimeMs(int baud);

// 0 (find the rate) or one of the admitted rates.
bool isBaudrateValid(int baud);
// The admitted rates with `remembered` (when it is one of them) moved first.
std::vector<int> RateSearchOrder(long remembered);

// The rate a device path or serial number was last opened at, or -1.
long GetBaudrateForPort(std::string_view devicePath);
long GetBaudrateForSN(std::string_view serialNumber, std::string* devicePath);
void UpdateBaudrateForPort(std::string_view devicePath, std::string_view serialNumber, long baud);
// Forgets every remembered rate, as at the start of the process.
void ForgetBaudrates();

// Switches the open line of `port` to the rate given in `text` (its digits);
// 0 on success, -1 when no way of setting the rate worked.
int ChangePortBaudrate(s_CommPort* port, std::string_view text);

}  // namespace zeltocom
