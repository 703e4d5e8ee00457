// Port queries, device types and the settings that size time-outs.
#include "bench.hpp"
#include "device/identify.hpp"
#include "device/settings.hpp"

using namespace zeltocom;

namespace {

class QueriesTest : public SimBench {
 protected:
  PortRef Open(zeltosim::Config config) {
    zeltosim::SimPort& port = OpenPort(std::move(config));
    port.clearLog();
    return Record(port);
  }
  zeltosim::SimPort& Sim() { return *ports_.back(); }
};

}  // namespace

TEST_F(QueriesTest, PortsThatAreNotOpen) {
  EXPECT_EQ(ZeltoCom_GetBaudrate("/dev/pts/0"), 0);
  EXPECT_EQ(LastError(), "Detect ports first");
  zeltosim::SimPort& port = AddPort(Analyser("ZS0001"));
  Publish();
  EXPECT_EQ(ZeltoCom_GetBaudrate(port.path().c_str()), 0);
  EXPECT_EQ(LastError(), "The port is not in use");
  // Availability is about detection, not opening.
  EXPECT_EQ(ZeltoCom_IsPortAvailable(port.path().c_str()), 1);
  EXPECT_EQ(ZeltoCom_IsPortAvailable("/dev/pts/none"), 0);
  EXPECT_EQ(LastError(), "The port is not available");

  char buffer[256] = "untouched";
  EXPECT_EQ(ZeltoCom_GetPortBySN(buffer, "ZS0001"), -1);
  EXPECT_EQ(LastError(), "The device path is not in use");
  EXPECT_STREQ(buffer, "untouched");
}

TEST_F(QueriesTest, ListsOfOpenPortsFollowTheOpeningOrder) {
  zeltosim::SimPort& a = AddPort(Analyser("ZSAAAA"));
  zeltosim::SimPort& b = AddPort(Analyser("ZSBBBB"));
  Publish();
  char text[1024] = "untouched";
  EXPECT_EQ(ZeltoCom_GetOpenedPortsS(text, ';'), 0);
  EXPECT_EQ(LastError(), "No ports have been opened yet");
  EXPECT_STREQ(text, "untouched");

  ASSERT_EQ(ZeltoCom_Open(b.path().c_str(), b.baud()), 1);
  ASSERT_EQ(ZeltoCom_Open(a.path().c_str(), a.baud()), 1);
  EXPECT_EQ(ZeltoCom_GetOpenedPortsS(text, ';'), 2);
  EXPECT_EQ(std::string(text), b.path() + ";" + a.path());

  char first[256];
  char second[256];
  char* paths[] = {first, second};
  EXPECT_EQ(ZeltoCom_GetOpenedPorts(paths), 2);
  EXPECT_EQ(first, b.path());
  EXPECT_EQ(second, a.path());
}

TEST_F(QueriesTest, DeviceTypeWords) {
  zeltosim::Config unknown = Analyser("ZS0003");
  unknown.hardware = "Zelto 05-P rev2";
  char word[13];
  for (const auto& [config, expected] : {std::pair{unknown, "UNKONWN"},
                                         {Spectrometer("SP0001"), "SPECTROMETER"},
                                         {Analyser("ZS0001"), "ICT"}}) {
    Open(config);
    ASSERT_EQ(ZeltoCom_GetDeviceType(Sim().path().c_str(), word), 1);
    EXPECT_STREQ(word, expected);
  }
  EXPECT_EQ(ZeltoCom_GetDeviceType("/dev/pts/none", word), 0);
  EXPECT_EQ(LastError(), "The port is not in use");

  Sim().master().setFault(zeltosim::Fault::Silent);
  Record(Sim())->hardwareDescriptor.clear();
  std::strcpy(word, "kept");
  EXPECT_EQ(ZeltoCom_GetDeviceType(Sim().path().c_str(), word), 0);
  EXPECT_STREQ(word, "kept");
}

TEST_F(QueriesTest, SilentInstrumentsGetDefaultsThatSizeATimeOut) {
  const PortRef port = Open(Analyser("ZS0001"));
  CMD_LoadSettings_HardwareType(port.get());
  Sim().master().setFault(zeltosim::Fault::Silent);
  CMD_LoadSettings_Exposure(port.get());
  CMD_LoadSettings_NumFibers(port.get());
  EXPECT_EQ(port->fiberSettingsCur->factor, 1);
  EXPECT_EQ(port->numFibers, 1);
  EXPECT_EQ(CMD_LoadSettings_AdjustmentSet(port.get()), 1);
  EXPECT_EQ(port->adjustmentSet, 0);
}
