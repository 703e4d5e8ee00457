// Identification and the settings cache against simulated instruments.
#include "bench.hpp"
#include "device/command.hpp"
#include "device/identify.hpp"
#include "device/settings.hpp"
#include "frame/registry.hpp"

using namespace zeltocom;

namespace {

class SettingsTest : public SimBench {
 protected:
  PortRef Open(zeltosim::Config config) {
    zeltosim::SimPort& port = OpenPort(std::move(config));
    port.clearLog();
    return Record(port);
  }
  zeltosim::SimPort& Sim() { return *ports_.back(); }
};

}  // namespace

TEST_F(SettingsTest, DeviceTypeWords) {
  zeltosim::Config unknown = Analyser("ZS0003");
  unknown.hardware = "Zelto 05-P rev2";
  Open(unknown);
  Open(Spectrometer("SP0001"));
  Open(Analyser("ZS0001"));
  char word[13];
  ASSERT_EQ(ZeltoCom_GetDeviceType(ports_[0]->path().c_str(), word), 1);
  EXPECT_STREQ(word, "UNKONWN");
  ASSERT_EQ(ZeltoCom_GetDeviceType(ports_[1]->path().c_str(), word), 1);
  EXPECT_STREQ(word, "SPECTROMETER");
  ASSERT_EQ(ZeltoCom_GetDeviceType(ports_[2]->path().c_str(), word), 1);
  EXPECT_STREQ(word, "ICT");
  EXPECT_EQ(ZeltoCom_GetDeviceType("/dev/pts/none", word), 0);
  EXPECT_EQ(LastError(), "The port is not in use");

  ports_[2]->master().setFault(zeltosim::Fault::Silent);
  Record(*ports_[2])->hardwareDescriptor.clear();
  std::strcpy(word, "kept");
  EXPECT_EQ(ZeltoCom_GetDeviceType(ports_[2]->path().c_str(), word), 0);
  EXPECT_STREQ(word, "kept");
}

TEST_F(SettingsTest, SilentInstrumentsGetDefaultsThatSizeATimeOut) {
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
