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
  s_CommPort* Open(zeltosim::Config config) {
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
  s_CommPort* port = Open(Analyser("ZS0001"));
  CMD_LoadSettings_HardwareType(port);
  Sim().master().setFault(zeltosim::Fault::Silent);
  CMD_LoadSettings_Exposure(port);
  CMD_LoadSettings_NumFibers(port);
  EXPECT_EQ(port->fiberSettingsCur->factor, 1);
  EXPECT_EQ(port->numFibers, 1);
  EXPECT_EQ(CMD_LoadSettings_AdjustmentSet(port), 1);
  EXPECT_EQ(port->adjustmentSet, 0);
  // The status page is read until the line falls silent, so silence reads
  // as a page without the word "logarithmic".
  EXPECT_EQ(CMD_LoadSettings_IntensityMode(port), 1);
  EXPECT_EQ(port->fiberSettingsCur->intensityMode, 0);
}

TEST_F(SettingsTest, CustomTimeUnits) {
  s_CommPort* w2 = Open(Spectrometer("SP0002", "Zelto 01-W2"));
  EXPECT_EQ(CMD_LoadSettings_CustomTime(w2), 0);
  EXPECT_FLOAT_EQ(w2->fiberSettingsCur->customTime, 100000.0f);

  s_CommPort* w = Open(Spectrometer("SP0001", "Zelto 01-W"));
  EXPECT_EQ(CMD_LoadSettings_CustomTime(w), 0);
  EXPECT_FLOAT_EQ(w->fiberSettingsCur->customTime, 0.1f);

  s_CommPort* analyser = Open(Analyser("ZS0001"));
  EXPECT_EQ(CMD_LoadSettings_CustomTime(analyser), 0);
  EXPECT_FLOAT_EQ(analyser->fiberSettingsCur->customTime, 1.0f);
  EXPECT_EQ(Sim().countReceived("GETCUSTOMTIME"), 0);
}

TEST_F(SettingsTest, WritersSendOnlyWhatChanged) {
  s_CommPort* w2 = Open(Spectrometer("SP0002", "Zelto 01-W2"));
  zeltosim::SimPort& w2Sim = Sim();
  EXPECT_EQ(CMD_WriteSettings_CustomTime(w2, 1.5f), 1);
  EXPECT_EQ(w2Sim.countReceived("PUTCUSTOMTIME0001500"), 1);
  EXPECT_EQ(CMD_WriteSettings_CustomTime(w2, 1.5f), 1);
  EXPECT_EQ(w2Sim.countReceived("PUTCUSTOMTIME0001500"), 1);
  EXPECT_EQ(CMD_WriteSettings_CustomTime(w2, -1.0f), 0);
  EXPECT_EQ(CMD_WriteSettings_PWM(w2, 1), 1);
  EXPECT_EQ(w2Sim.master().settings().pwm, 1);
  EXPECT_EQ(w2->fiberSettingsCur->pwm, 1);

  s_CommPort* w = Open(Spectrometer("SP0001", "Zelto 01-W"));
  EXPECT_EQ(CMD_WriteSettings_CustomTime(w, 1.5f), 1);
  EXPECT_EQ(Sim().countReceived("PUTCUSTOMTIME0000001"), 1);
  // Without PWM the write is done at once and nothing is cached.
  EXPECT_EQ(CMD_WriteSettings_PWM(w, 1), 1);
  EXPECT_EQ(w->fiberSettingsCur->pwm, -1);
  EXPECT_EQ(Sim().countReceived("PUTPWM1"), 0);

  s_CommPort* analyser = Open(Analyser("ZS0001"));
  EXPECT_EQ(CMD_WriteSettings_PWM(analyser, 1), 0);
  EXPECT_EQ(CMD_WriteSettings_CustomTime(analyser, 2.0f), 0);
}

TEST_F(SettingsTest, IntensityModeFromTheStatusPage) {
  zeltosim::Config config = Analyser("ZS0001");
  config.hasIntensityModeCommand = false;
  s_CommPort* port = Open(config);
  EXPECT_EQ(CMD_LoadSettings_IntensityMode(port), 1);
  EXPECT_EQ(port->fiberSettingsCur->intensityMode, 1);
  EXPECT_EQ(Sim().countReceived("GETSTATUS"), 1);

  config.serial = "ZS0002";
  config.eot = true;
  s_CommPort* eotPort = Open(config);
  t_comresponse answer;
  ASSERT_EQ(CMD_SendCommand(eotPort, "SETLIN", 200, &answer), 1);
  EXPECT_EQ(CMD_LoadSettings_IntensityMode(eotPort), 1);
  EXPECT_EQ(eotPort->fiberSettingsCur->intensityMode, 0);

  eIntensityMode mode = INTENSITY_LINEAR;
  zeltosim::Config direct = Analyser("ZS0003");
  s_CommPort* directPort = Open(direct);
  EXPECT_EQ(CMD_GetIntensityMode(directPort, &mode), 1);
  EXPECT_EQ(mode, INTENSITY_LOGARITHMIC);
  EXPECT_EQ(Sim().countReceived("GETSTATUS"), 0);
}
