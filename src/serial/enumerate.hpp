#pragma once

#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace zeltocom {

// Device paths of the last enumeration, in enumeration order.
std::vector<std::string> DetectedPorts();
void SetDetectedPorts(std::vector<std::string> ports);
// True when the last enumeration listed `path` (exact comparison).
bool isDevicePathAvailable(const std::string& path);

extern std::atomic<bool> FirstDetectionDone;
extern std::atomic<bool> FirstDetectionInProcess;

// The paths ZELTOCOM_PORTS names, in its order; nullopt when it is not set.
std::optional<std::vector<std::string>> PortsNamedByEnvironment();

// Lists the serial ports of the machine; ZELTOCOM_PORTS, when set (even
// empty), names them instead (pseudo-terminals, network serial bridges).
std::vector<std::string> EnumSerialPorts();

// Whether a legacy UART port has hardware behind it.
using UartProbe = std::function<bool(const std::string& devicePath)>;
bool HasUartBehind(const std::string& devicePath);

// The sysfs scan, on any tree: `ttyClassDir` stands for /sys/class/tty/ and
// `devDir` for /dev/. The kernel's console ttys are left alone.
std::vector<std::string> ScanTtyClass(const std::string& ttyClassDir, const std::string& devDir,
                                      const UartProbe& probe);

// The driver bound to a sysfs tty directory, or "".
std::string get_driver(const std::string& ttyPath);

}  // namespace zeltocom
