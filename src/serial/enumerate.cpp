#include "serial/enumerate.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "frame/registry.hpp"
#include "frame/utils.hpp"
#include "serial/termios2.hpp"

namespace zeltocom {

std::atomic<bool> FirstDetectionDone{false};
std::atomic<bool> FirstDetectionInProcess{false};

namespace {

std::mutex portsMutex;
std::vector<std::string> portslist;

std::string LastComponent(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Legacy 8250 ports exist in sysfs whether or not a UART is fitted; since
// Linux 6.7 their driver link names the serial-base driver "port".
bool IsLegacyUartDriver(const std::string& driver) {
  return driver == "serial8250" || driver == "port";
}

void register_comport(std::vector<std::string>& list, std::vector<std::string>& list8250,
                      const std::string& ttyPath, const std::string& devDir) {
  const std::string driver = get_driver(ttyPath);
  if (driver.empty()) return;
  std::string devicePath = devDir + LastComponent(ttyPath);
  if (IsLegacyUartDriver(driver)) {
    list8250.push_back(std::move(devicePath));
  } else {
    list.push_back(std::move(devicePath));
  }
}

void probe_serial8250_comports(std::vector<std::string>& list,
                               const std::vector<std::string>& list8250, const UartProbe& probe) {
  for (const std::string& path : list8250) {
    if (probe(path)) list.push_back(path);
  }
}

}  // namespace

std::vector<std::string> DetectedPorts() {
  std::lock_guard lock(portsMutex);
  return portslist;
}

void SetDetectedPorts(std::vector<std::string> ports) {
  std::lock_guard lock(portsMutex);
  portslist = std::move(ports);
}

bool isDevicePathAvailable(const std::string& path) {
  std::lock_guard lock(portsMutex);
  for (const std::string& p : portslist) {
    if (p == path) return true;
  }
  return false;
}

std::string get_driver(const std::string& ttyPath) {
  const std::string deviceLink = ttyPath + "/device";
  struct stat st {};
  if (lstat(deviceLink.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return {};
  const std::string driverLink = deviceLink + "/driver";
  char target[1024];
  const ssize_t n = readlink(driverLink.c_str(), target, sizeof target - 1);
  if (n <= 0) return {};
  return LastComponent(std::string(target, static_cast<std::size_t>(n)));
}

bool HasUartBehind(const std::string& devicePath) {
  const int fd = open(devicePath.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) return false;
  const int type = SerialPortType(fd);
  close(fd);
  return type > 0;
}

std::vector<std::string> ScanTtyClass(const std::string& ttyClassDir, const std::string& devDir,
                                      const UartProbe& probe) {
  std::vector<std::string> list;
  std::vector<std::string> list8250;
  dirent** entries = nullptr;
  const int n = scandir(ttyClassDir.c_str(), &entries, nullptr, nullptr);
  if (n < 0) {
    std::perror("scandir");
    return list;
  }
  // Hosts rely on this order: the last directory entry is listed first.
  for (int i = n - 1; i >= 0; --i) {
    const std::string name = entries[i]->d_name;
    std::free(entries[i]);
    if (name == "." || name == "..") continue;
    std::string ttyPath = ttyClassDir;
    if (!ttyPath.empty() && ttyPath.back() != '/') ttyPath += '/';
    register_comport(list, list8250, ttyPath + name, devDir);
  }
  std::free(entries);
  probe_serial8250_comports(list, list8250, probe);
  return list;
}

std::vector<std::string> EnumSerialPorts() {
  const char* named = std::getenv("ZELTOCOM_PORTS");
  if (named != nullptr && named[0] != '\0') {
    // A path no port record could hold is no port: hosts size their path
    // buffers for the longest one.
    std::vector<std::string> paths = SplitNonEmpty(named, ';');
    std::erase_if(paths, [](const std::string& path) { return path.size() > kMaxPathLength; });
    return paths;
  }
  return ScanTtyClass("/sys/class/tty/", "/dev/", HasUartBehind);
}

}  // namespace zeltocom
