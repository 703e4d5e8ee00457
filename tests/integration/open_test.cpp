// Opening, closing and the port queries, over simulated instruments.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "bench.hpp"
#include "device/identify.hpp"
#include "device/settings.hpp"
#include "frame/registry.hpp"

using zeltocom::OpenedPorts;
using zeltocom::PortsList_Count;
using zeltosim::Config;
using zeltosim::Fault;
using zeltosim::LineOptions;

using OpenTest = SimBench;

TEST_F(OpenTest, AFixedRateOpensOnlyAnInstrumentAtThatRateAndOnlyOnce) {
  zeltosim::SimPort& port = AddPort(Analyser("ZS4711"), At(115200));
  Publish();
  EXPECT_EQ(Outcome(ZeltoCom_Open(port.path().c_str(), 57600)),
            "0: Unable to communicate with device");
  EXPECT_EQ(PortsList_Count(&OpenedPorts), 0);
  EXPECT_EQ(Outcome(ZeltoCom_Open(port.path().c_str(), 14400)), "-1: Invalid baud-rate");

  port.clearLog();
  ASSERT_EQ(ZeltoCom_Open(port.path().c_str(), 115200), 1) << LastError();
  char serial[32];
  EXPECT_EQ(ZeltoCom_GetSNByPort(serial, port.path().c_str()), 1);
  EXPECT_STREQ(serial, "ZS4711");
  EXPECT_EQ(ZeltoCom_GetBaudrate(port.path().c_str()), 115200);
  // The wake-up, the bus release and the serial number, in this order.
  EXPECT_EQ(Sent(port), (std::vector<std::string>{"BUSFREE", "GETSERIAL"}));

  // A second open leaves the first connection alone.
  port.clearLog();
  EXPECT_EQ(Outcome(ZeltoCom_Open(port.path().c_str(), 115200)), "0: The port is already in use");
  EXPECT_TRUE(port.lineLog().empty());
  EXPECT_EQ(PortsList_Count(&OpenedPorts), 1);
}

// Garbage at the wrong rates never passes for an answer.
TEST_F(OpenTest, RateSearchTriesTheRatesInOrderThenTheRememberedOneFirst) {
  LineOptions line = At(921600);
  line.wrongSpeed = zeltosim::WrongSpeed::Garbage;
  zeltosim::SimPort& port = AddPort(Analyser("ZS0921"), line);
  Publish();
  ASSERT_EQ(ZeltoCom_Open(port.path().c_str(), 0), 1) << LastError();
  EXPECT_EQ(SpeedsOf(port, "BUSFREE"), (std::vector<int>{57600, 460800, 115200, 921600}));
  EXPECT_EQ(ZeltoCom_GetBaudrate(port.path().c_str()), 921600);
  char serial[32];
  ZeltoCom_GetSNByPort(serial, port.path().c_str());
  EXPECT_STREQ(serial, "ZS0921");

  ASSERT_EQ(ZeltoCom_Close(port.path().c_str()), 1);
  port.clearLog();
  ASSERT_EQ(ZeltoCom_Open(port.path().c_str(), 0), 1) << LastError();
  EXPECT_EQ(SpeedsOf(port, "BUSFREE"), (std::vector<int>{921600}));
}

// A refusal of the bus release still comes from an instrument; a serial
// number too short for one is taken only at a rate the caller fixed.
TEST_F(OpenTest, SilentAndEchoingLinesAreNoInstruments) {
  Config config = Analyser("ZS0001");
  config.fault = Fault::Silent;
  zeltosim::SimPort& silent = AddPort(config, At(19200));
  config.fault = Fault::Echo;
  zeltosim::SimPort& echo = AddPort(config);
  config = Analyser("ZS0002");
  config.knowsBus = false;
  zeltosim::SimPort& noBus = AddPort(config);
  zeltosim::SimPort& shortSerial = AddPort(Analyser("Z12"));
  Publish();
  EXPECT_EQ(Outcome(ZeltoCom_Open(silent.path().c_str(), 0)), "0: Unable to open port");
  EXPECT_EQ(SpeedsOf(silent, "BUSFREE").size(), 8u);
  EXPECT_EQ(Outcome(ZeltoCom_Open(echo.path().c_str(), echo.baud())),
            "0: Unable to communicate with device");
  EXPECT_EQ(ZeltoCom_Open(noBus.path().c_str(), 0), 1) << LastError();
  EXPECT_EQ(ZeltoCom_Open(shortSerial.path().c_str(), 0), 0);
  EXPECT_EQ(ZeltoCom_Open(shortSerial.path().c_str(), shortSerial.baud()), 1) << LastError();
}

// Learnt at the opening, and switched by the commands that switch it.
TEST_F(OpenTest, EndOfTransmissionMarkerIsLearntAndSwitched) {
  for (const bool eot : {true, false}) {
    Config config = Analyser(eot ? "ZSEOT1" : "ZSPLN1");
    config.eot = eot;
    zeltosim::SimPort& port = AddPort(config, At(230400));
    Publish();
    ASSERT_EQ(ZeltoCom_Open(port.path().c_str(), 230400), 1) << LastError();
    EXPECT_EQ(Record(port)->eotFormat.view(), eot ? "\r\n\x04" : "\r\n");
  }
  const zeltosim::SimPort& port = *ports_.back();
  for (const auto& [command, eot] : {std::pair{"ENABLEEOT", "\r\n\x04"}, {"DisableEot", "\r\n"}}) {
    ASSERT_EQ(Send(port, command), 1) << command;
    EXPECT_STREQ(answer_, "OK");
    EXPECT_EQ(Record(port)->eotFormat.view(), eot);
    ASSERT_EQ(Send(port, "GETSERIAL"), 1);
    EXPECT_STREQ(answer_, "ZSPLN1");
  }
}

TEST_F(OpenTest, OpenBySerialNumberSearchesEveryPortOrTheRememberedOneFirst) {
  zeltosim::SimPort& first = AddPort(Analyser("ZSAAAA"), At(9600));
  zeltosim::SimPort& second = AddPort(Analyser("ZSBBBB"), At(460800));
  Publish();
  // Serial numbers match without regard to letter case, open or not.
  ASSERT_EQ(ZeltoCom_OpenSN("zsbbbb", 0), 1) << LastError();
  char path[256];
  ASSERT_EQ(ZeltoCom_GetPortBySN(path, "zsbbbb"), 1);
  EXPECT_EQ(path, second.path());
  EXPECT_EQ(Outcome(ZeltoCom_OpenSN("ZSBBBB", 0)), "0: The port is already open!");

  // The open port is not probed again while another serial is searched.
  first.clearLog();
  second.clearLog();
  EXPECT_EQ(Outcome(ZeltoCom_OpenSN("ZSCCCC", 9600)), "0: Unable to find device");
  EXPECT_TRUE(second.lineLog().empty());
  EXPECT_EQ(SpeedsOf(first, "GETSERIAL"), (std::vector<int>{9600}));

  EXPECT_EQ(ZeltoCom_OpenSN("ZSAAAA", 115200), 0);
  EXPECT_EQ(Outcome(ZeltoCom_OpenSN("ZSAAAA", 3)), "-1: Invalid baud-rate");
  ASSERT_EQ(ZeltoCom_OpenSN("ZSAAAA", 9600), 1) << LastError();

  // Once closed, the remembered place and rate are tried first.
  ASSERT_EQ(ZeltoCom_CloseAll(), 1);
  first.clearLog();
  second.clearLog();
  ASSERT_EQ(ZeltoCom_OpenSN("ZSBBBB", 0), 1) << LastError();
  EXPECT_TRUE(first.lineLog().empty());
  EXPECT_EQ(SpeedsOf(second, "GETSERIAL"), (std::vector<int>{460800}));
}

TEST_F(OpenTest, PortsAreFoundByPathSerialOrIdAndUnknownOnesAreNot) {
  EXPECT_EQ(Outcome(ZeltoCom_GetBaudrate("/dev/pts/0")), "0: Detect ports first");
  zeltosim::SimPort& port = AddPort(Analyser("ZS0001"));
  Publish();
  EXPECT_EQ(Outcome(ZeltoCom_Open("/dev/pts/nothing", 57600)), "0: Device Path not available");
  // The longest path a record holds is looked for; one more is refused.
  const std::string longest = "/dev/" + std::string(ZELTOCOM_DEVICE_PATH_SIZE - 6, 'x');
  EXPECT_EQ(Outcome(ZeltoCom_Open(longest.c_str(), 57600)), "0: Device Path not available");
  EXPECT_EQ(Outcome(ZeltoCom_Open((longest + "x").c_str(), 57600)),
            "-1: The device path is too long (at most 253 characters)");

  EXPECT_EQ(Outcome(ZeltoCom_GetBaudrate(port.path().c_str())), "0: The port is not in use");
  // Availability is about detection, not opening.
  EXPECT_EQ(ZeltoCom_IsPortAvailable(port.path().c_str()), 1);
  EXPECT_EQ(Outcome(ZeltoCom_IsPortAvailable("/dev/pts/none")), "0: The port is not available");
  char buffer[256] = "untouched";
  EXPECT_EQ(Outcome(ZeltoCom_GetPortBySN(buffer, "ZS0001")), "-1: The device path is not in use");
  EXPECT_STREQ(buffer, "untouched");

  zeltocom::s_IDPort row;
  row.devicePath.assign(port.path());
  row.deviceID.assign("LAMP");
  zeltocom::IDtoPortList_Add(row);
  // Opening by ID consults the project table only: nothing goes on the line.
  EXPECT_EQ(ZeltoCom_OpenID("LAMP"), 1);
  EXPECT_TRUE(port.lineLog().empty());
  EXPECT_EQ(Outcome(ZeltoCom_OpenID("NOLAMP")), "-1: ID not found");
  EXPECT_EQ(std::string(ZeltoCom_GetPortByID("LAMP", buffer)), port.path());
  ZeltoCom_GetPortByID("NOLAMP", buffer);
  EXPECT_STREQ(buffer, "");

  ASSERT_EQ(ZeltoCom_Open(port.path().c_str(), port.baud()), 1) << LastError();
  char answer[64];
  EXPECT_EQ(ZeltoCom_SendSN("zs0001", "GETSERIAL", answer), 1);
  EXPECT_STREQ(answer, "ZS0001");
  EXPECT_EQ(ZeltoCom_SendByID("LAMP", "GETSERIAL", answer), 1);
  EXPECT_EQ(Outcome(ZeltoCom_SendByID("NOLAMP", "GETSERIAL", answer)), "-1: ID not found");
  EXPECT_EQ(Outcome(ZeltoCom_SendSN("ZS0002", "GETSERIAL", answer)),
            "-1: The device path is not in use");
  EXPECT_EQ(Outcome(ZeltoCom_Send("/dev/pts/none", "GETSERIAL", answer)),
            "-1: The device path is not in use");
  EXPECT_EQ(Outcome(ZeltoCom_SetResponseTimeoutAuto("/dev/pts/none", 1)),
            "-1: The port is not in use");

  ASSERT_EQ(ZeltoCom_CloseAll(), 1);
  setenv("ZELTOCOM_PORTS", ";", 1);
  EXPECT_EQ(ZeltoCom_EnumPorts(), 0);
  EXPECT_EQ(Outcome(ZeltoCom_Open(port.path().c_str(), 57600)), "0: No ports detected");
  EXPECT_EQ(Outcome(ZeltoCom_OpenSN("ZS0001", 0)), "0: No ports detected");
  EXPECT_EQ(Outcome(ZeltoCom_OpenID("ANY")), "-1: No ports detected");
}

TEST_F(OpenTest, APortUsedByAnotherProcessIsLeftAlone) {
  zeltosim::SimPort& port = AddPort(Analyser("ZS0001"));
  Publish();
  // Another program's open file description with its lock, as a second
  // process using the library would hold it.
  const int other = open(port.path().c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
  ASSERT_GE(other, 0);
  ASSERT_EQ(flock(other, LOCK_EX | LOCK_NB), 0);
  EXPECT_EQ(Outcome(ZeltoCom_Open(port.path().c_str(), port.baud())),
            "0: The port is used by another process");
  EXPECT_EQ(Outcome(ZeltoCom_Open(port.path().c_str(), 0)),
            "0: The port is used by another process");
  EXPECT_TRUE(port.lineLog().empty());

  flock(other, LOCK_UN);
  ASSERT_EQ(ZeltoCom_Open(port.path().c_str(), port.baud()), 1) << LastError();
  EXPECT_NE(flock(other, LOCK_EX | LOCK_NB), 0);
  ASSERT_EQ(ZeltoCom_Close(port.path().c_str()), 1);
  EXPECT_EQ(flock(other, LOCK_EX | LOCK_NB), 0);
  close(other);
}

// One device under two names (a stable link and its node) is one port: the
// second name is refused, and a search by serial number leaves it alone.
TEST_F(OpenTest, ADeviceOpenUnderOneNameIsNotOpenedUnderAnother) {
  zeltosim::SimPort& port = AddPort(Analyser("ZS0001"));
  const std::string link = ::testing::TempDir() + "zeltocom-link-" + std::to_string(getpid());
  unlink(link.c_str());
  ASSERT_EQ(symlink(port.path().c_str(), link.c_str()), 0);
  setenv("ZELTOCOM_PORTS", (port.path() + ";" + link).c_str(), 1);
  ASSERT_EQ(ZeltoCom_EnumPorts(), 2);
  ASSERT_EQ(ZeltoCom_Open(link.c_str(), port.baud()), 1) << LastError();
  port.clearLog();
  EXPECT_EQ(Outcome(ZeltoCom_Open(port.path().c_str(), 0)),
            "0: The port is already open as " + link);
  EXPECT_EQ(Outcome(ZeltoCom_OpenSN("ZS0001", 0)), "0: The port is already open!");
  EXPECT_TRUE(port.lineLog().empty());
  EXPECT_EQ(ZeltoCom_Close(link.c_str()), 1);
  EXPECT_EQ(ZeltoCom_Open(port.path().c_str(), 0), 1) << LastError();
  unlink(link.c_str());
}

TEST_F(OpenTest, ListsFollowTheOpeningOrderAndPortsCloseByPathSerialOrAll) {
  zeltosim::SimPort& a = AddPort(Analyser("ZSAAAA"));
  zeltosim::SimPort& b = AddPort(Analyser("ZSBBBB"));
  zeltosim::SimPort& c = AddPort(Analyser("ZSCCCC"));
  Publish();
  char text[1024] = "untouched";
  EXPECT_EQ(Outcome(ZeltoCom_GetOpenedPortsS(text, ';')), "0: No ports have been opened yet");
  EXPECT_STREQ(text, "untouched");

  for (const zeltosim::SimPort* port : {&b, &a, &c}) {
    ASSERT_EQ(ZeltoCom_Open(port->path().c_str(), port->baud()), 1) << LastError();
  }
  EXPECT_EQ(ZeltoCom_GetOpenedPortsS(text, ';'), 3);
  EXPECT_EQ(std::string(text), b.path() + ";" + a.path() + ";" + c.path());
  char paths[3][256];
  char* list[] = {paths[0], paths[1], paths[2]};
  EXPECT_EQ(ZeltoCom_GetOpenedPorts(list), 3);
  EXPECT_EQ(std::vector<std::string>(list, list + 3),
            (std::vector<std::string>{b.path(), a.path(), c.path()}));

  EXPECT_EQ(ZeltoCom_Close(b.path().c_str()), 1);
  EXPECT_EQ(Outcome(ZeltoCom_Close(b.path().c_str())), "0: The device path is not in use");
  int result = -5;
  EXPECT_EQ(ZeltoCom_CloseSN_Multi_Thread(&result, "zsaaaa"), 1);
  EXPECT_EQ(result, 1);
  EXPECT_EQ(ZeltoCom_CloseSN("ZSAAAA"), 0);
  EXPECT_EQ(Opened(), c.path());
  EXPECT_EQ(ZeltoCom_CloseAll(), 1);
  EXPECT_EQ(PortsList_Count(&OpenedPorts), 0);
  EXPECT_EQ(ZeltoCom_CloseAll(), 1);
  EXPECT_EQ(ZeltoCom_Close_Multi_Thread(&result, c.path().c_str()), 0);
  EXPECT_EQ(result, 0);
  // A closed path opens again.
  EXPECT_EQ(ZeltoCom_Open(c.path().c_str(), c.baud()), 1) << LastError();
}

TEST_F(OpenTest, DeviceTypeWords) {
  zeltosim::Config unknown = Analyser("ZS0003");
  unknown.hardware = "Zelto 05-P rev2";
  zeltosim::Config standard = Analyser("ZS0004");
  standard.hardware = "Zelto CLR_STD";  // the last of the words
  char word[13];
  for (const auto& [config, expected] : {std::pair{unknown, "UNKONWN"},
                                         {Spectrometer("SP0001"), "SPECTROMETER"},
                                         {standard, "CLRSTD"},
                                         {Analyser("ZS0001"), "ICT"}}) {
    ASSERT_EQ(ZeltoCom_GetDeviceType(OpenPort(config).path().c_str(), word), 1);
    EXPECT_STREQ(word, expected);
  }
  EXPECT_EQ(Outcome(ZeltoCom_GetDeviceType("/dev/pts/none", word)), "0: The port is not in use");

  zeltosim::SimPort& ict = *ports_.back();
  ict.master().setFault(Fault::Silent);
  Record(ict)->hardwareDescriptor.clear();
  std::strcpy(word, "kept");
  EXPECT_EQ(ZeltoCom_GetDeviceType(ict.path().c_str(), word), 0);
  EXPECT_STREQ(word, "kept");
}

TEST_F(OpenTest, SilentInstrumentsGetDefaultsThatSizeATimeOut) {
  zeltosim::SimPort& sim = OpenPort(Analyser("ZS0001"));
  const zeltocom::PortRef port = Record(sim);
  ASSERT_TRUE(port);
  const std::unique_lock line = zeltocom::LockLine(*port);
  zeltocom::CMD_LoadSettings_HardwareType(port.get());
  sim.master().setFault(Fault::Silent);
  zeltocom::CMD_LoadSettings_Exposure(port.get());
  // The first time-out leaves the line out of step; the instrument does not
  // come back, so the next questions are held back as time-outs too.
  zeltocom::CMD_LoadSettings_NumFibers(port.get());
  EXPECT_EQ(port->settings.current->factor, 1);
  EXPECT_EQ(port->settings.numFibers, 1);
  EXPECT_EQ(zeltocom::CMD_LoadSettings_AdjustmentSet(port.get()), 1);
  EXPECT_EQ(port->settings.adjustmentSet, 0);
  EXPECT_EQ(sim.countReceived("GETSERIAL"), 2);  // the opening's and one attempt
}
