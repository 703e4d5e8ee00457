#include "serial/enumerate.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>

using namespace zeltocom;
namespace fs = std::filesystem;

namespace {

// A fabricated /sys/class/tty (and the /dev its ports are named in): each tty directory gets a
// device link whose driver link names `driver` (or no device link at all).
class FakeSysfs : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = fs::temp_directory_path() / ("zeltocom-sysfs-" + std::to_string(getpid()));
    fs::create_directories(root_ / "class/tty");
  }
  void TearDown() override { fs::remove_all(root_); }

  void AddTty(const std::string& name, const std::string& driver) {
    fs::create_directories(root_ / "class/tty" / name);
    if (driver.empty()) return;
    const fs::path device = root_ / "devices" / name;
    fs::create_directories(device);
    fs::create_directories(root_ / "drivers" / driver);
    fs::create_directory_symlink(root_ / "drivers" / driver, device / "driver");
    fs::create_directory_symlink(device, root_ / "class/tty" / name / "device");
  }

  // The kernel's "console/active" of the tty class.
  void SetConsole(const std::string& active) {
    fs::create_directories(root_ / "class/tty/console");
    std::ofstream(root_ / "class/tty/console/active") << active;
  }

  std::vector<std::string> Scan(const UartProbe& probe) {
    return ScanTtyClass(TtyDir(), DevDir(), probe);
  }
  std::string TtyDir() const { return (root_ / "class/tty").string() + "/"; }
  std::string DevDir() const { return (root_ / "dev").string() + "/"; }

  fs::path root_;
};

}  // namespace

TEST_F(FakeSysfs, ListsPortsWithADriverThenLegacyUartsWithHardwareButNoConsole) {
  AddTty("ttyUSB0", "ftdi_sio");
  AddTty("ttyACM0", "cdc_acm");
  AddTty("ttyUSB1", "ftdi_sio");
  AddTty("tty1", "");  // a virtual console has no device link
  AddTty("ttyS0", "serial8250");
  AddTty("ttyS1", "port");  // the serial-base driver of current kernels
  AddTty("ttyS2", "serial8250");

  // Legacy UARTs come last, and only with hardware behind them; the others
  // in reverse directory order.
  std::vector<std::string> expected;
  for (const fs::directory_entry& entry : fs::directory_iterator(TtyDir())) {
    const std::string name = entry.path().filename();
    if (name != "tty1" && !name.starts_with("ttyS"))
      expected.insert(expected.begin(), DevDir() + name);
  }
  expected.push_back(DevDir() + "ttyS1");
  int probes = 0;
  const auto onlyS1 = [&](const std::string& path) {
    ++probes;
    return path == DevDir() + "ttyS1";
  };
  EXPECT_EQ(Scan(onlyS1), expected);
  EXPECT_EQ(probes, 3);

  // The active consoles, and the ports left (sorted): a console is neither
  // probed nor listed.
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {"tty1 ttyS0\n", {"ttyACM0", "ttyS1", "ttyS2", "ttyUSB0", "ttyUSB1"}},
      {"ttyS1", {"ttyACM0", "ttyS0", "ttyS2", "ttyUSB0", "ttyUSB1"}},
      {"  ttyUSB1\tttyS0 \n", {"ttyACM0", "ttyS1", "ttyS2", "ttyUSB0"}},
      {"ttyS", {"ttyACM0", "ttyS0", "ttyS1", "ttyS2", "ttyUSB0", "ttyUSB1"}},  // whole names only
      {"", {"ttyACM0", "ttyS0", "ttyS1", "ttyS2", "ttyUSB0", "ttyUSB1"}},
  };
  for (const auto& [active, left] : cases) {
    SetConsole(active);
    std::vector<std::string> probed;
    std::vector<std::string> listed;
    const auto probe = [&](const std::string& path) {
      probed.push_back(fs::path(path).filename());
      return true;
    };
    for (const std::string& path : Scan(probe)) listed.push_back(fs::path(path).filename());
    std::ranges::sort(listed);
    std::ranges::sort(probed);
    EXPECT_EQ(listed, left) << active;
    EXPECT_TRUE(std::ranges::includes(left, probed)) << active << " probed too many";
  }
}

TEST(Enumeration, EnvironmentVariableNamesThePorts) {
  // A path longer than any port record holds would overrun hosts' path buffers.
  const std::string tooLong = "/dev/" + std::string(250, 'x');
  setenv("ZELTOCOM_PORTS", ("/dev/pts/41;;" + tooLong + ";/dev/pts/40;").c_str(), 1);
  EXPECT_EQ(EnumSerialPorts(), (std::vector<std::string>{"/dev/pts/41", "/dev/pts/40"}));

  // Set but empty names no port: only an unset variable leaves the choice to
  // the machine's scan (which this test never runs: it would open the
  // machine's own lines).
  for (const char* value : {"", ";;;"}) {
    setenv("ZELTOCOM_PORTS", value, 1);
    EXPECT_EQ(PortsNamedByEnvironment(), std::vector<std::string>{}) << '"' << value << '"';
  }
  unsetenv("ZELTOCOM_PORTS");
  EXPECT_FALSE(PortsNamedByEnvironment().has_value());
}
