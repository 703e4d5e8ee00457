#include "serial/enumerate.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
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

std::string InDirectory(std::string directory, const std::string& name) {
  if (!directory.empty() && directory.back() != '/') directory += '/';
  return directory + name;
}

// The ttys the kernel writes its console to, as "console/active" of the tty
// class names them ("tty0 ttyS0"). On a machine whose console is a serial
// line, opening it to probe would disturb the console and whoever logs in
// on it.
std::vector<std::string> ConsoleTtys(const std::string& ttyClassDir) {
  std::ifstream active(InDirectory(ttyClassDir, "console/active"));
  return {std::istream_iterator<std::string>(active), {}};
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
  return std::ranges::find(portslist, path) != portslist.end();
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
  const std::vector<std::string> consoles = ConsoleTtys(ttyClassDir);
  // Hosts rely on this order: the last directory entry is listed first.
  for (int i = n - 1; i >= 0; --i) {
    const std::string name = entries[i]->d_name;
    std::free(entries[i]);
    if (name == "." || name == ".." || std::ranges::find(consoles, name) != consoles.end()) {
      continue;
    }
    register_comport(list, list8250, InDirectory(ttyClassDir, name), devDir);
  }
  std::free(entries);
  probe_serial8250_comports(list, list8250, probe);
  return list;
}

std::optional<std::vector<std::string>> PortsNamedByEnvironment() {
  const char* named = std::getenv("ZELTOCOM_PORTS");
  if (named == nullptr) return std::nullopt;
  // A path no port record could hold is no port: hosts size their path
  // buffers for the longest one.
  std::vector<std::string> paths = SplitNonEmpty(named, ';');
  std::erase_if(paths, [](const std::string& path) { return path.size() > kMaxPathLength; });
  return paths;
}

std::vector<std::string> EnumSerialPorts() {
  // Set but empty names no port: a host that empties the list must not get
  // the machine's own lines instead.
  if (std::optional<std::vector<std::string>> named = PortsNamedByEnvironment()) return *named;
  return ScanTtyClass("/sys/class/tty/", "/dev/", HasUartBehind);
}

}  // namespace zeltocom
