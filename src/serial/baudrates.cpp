#include "serial/baudrates.hpp"

#include <algorithm>
#include <cstdint>
#include <mutex>

#include "frame/fixed_text.hpp"
#include "frame/registry.hpp"
#include "frame/utils.hpp"
#include "serial/driver.hpp"

namespace zeltocom {

namespace {

// One remembered connection; rows are appended or their rate overwritten,
// never removed.
struct sPortBaudrate {
  FixedText<254> devicePath;
  FixedText<20> serialNumber;
  int64_t baudrate = 0;
};

std::mutex baudMutex;
std::vector<sPortBaudrate> lstPortBaudrates;

}  // namespace

double CharTimeMs(int baud) {
  const double t = 11000.0 / baud;
  return t < 0.15 ? 0.15 : t;
}

bool isBaudrateValid(int baud) {
  return baud == 0 || std::ranges::find(kAdmittedBaudrates, baud) != std::end(kAdmittedBaudrates);
}

std::vector<int> RateSearchOrder(long remembered) {
  std::vector<int> order(std::begin(kAdmittedBaudrates), std::end(kAdmittedBaudrates));
  const auto it = std::ranges::find(order, remembered);
  if (it != order.end()) std::rotate(order.begin(), it, it + 1);
  return order;
}

long GetBaudrateForPort(std::string_view devicePath) {
  std::lock_guard lock(baudMutex);
  for (const sPortBaudrate& row : lstPortBaudrates) {
    if (row.devicePath == devicePath) return static_cast<long>(row.baudrate);
  }
  return -1;
}

long GetBaudrateForSN(std::string_view serialNumber, std::string* devicePath) {
  std::lock_guard lock(baudMutex);
  for (const sPortBaudrate& row : lstPortBaudrates) {
    if (row.serialNumber == serialNumber) {
      if (devicePath != nullptr) *devicePath = std::string(row.devicePath.view());
      return static_cast<long>(row.baudrate);
    }
  }
  return -1;
}

void UpdateBaudrateForPort(std::string_view devicePath, std::string_view serialNumber, long baud) {
  std::lock_guard lock(baudMutex);
  for (sPortBaudrate& row : lstPortBaudrates) {
    // The serial number stays that of the first device seen on this path.
    if (row.devicePath == devicePath) {
      row.baudrate = baud;
      return;
    }
  }
  sPortBaudrate row;
  row.devicePath.assign(devicePath);
  row.serialNumber.assign(serialNumber);
  row.baudrate = baud;
  lstPortBaudrates.push_back(row);
}

void ForgetBaudrates() {
  std::lock_guard lock(baudMutex);
  lstPortBaudrates.clear();
}

int ChangePortBaudrate(s_CommPort* port, std::string_view text) {
  port->baudrate = static_cast<int>(ParseLong(text));
  int& fd = port->line->fd;
  if (SetRateByCustomDivisor(fd, port->baudrate) == 0) return 0;
  if (SetArbitraryRate(fd, port->baudrate) == 0) return 0;
  if (SetFallbackRate57600(fd) == 0) return 0;
  return -1;
}

}  // namespace zeltocom
