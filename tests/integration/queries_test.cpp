// Port queries and error texts through the C interface.
#include "bench.hpp"

using QueriesTest = SimBench;

TEST_F(QueriesTest, BaudRateNeedsADetectionFirst) {
  EXPECT_EQ(ZeltoCom_GetBaudrate("/dev/pts/0"), 0);
  EXPECT_EQ(LastError(), "Detect ports first");
  zeltosim::SimPort& port = AddPort(Analyser("ZS0001"));
  Publish();
  EXPECT_EQ(ZeltoCom_GetBaudrate(port.path().c_str()), 0);
  EXPECT_EQ(LastError(), "The port is not in use");
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

TEST_F(QueriesTest, AvailabilityIsAboutDetectionNotOpening) {
  zeltosim::SimPort& port = AddPort(Analyser("ZS0001"));
  Publish();
  EXPECT_EQ(ZeltoCom_IsPortAvailable(port.path().c_str()), 1);
  EXPECT_EQ(ZeltoCom_IsPortAvailable("/dev/pts/none"), 0);
  EXPECT_EQ(LastError(), "The port is not available");
}

TEST_F(QueriesTest, LookUpsOfPortsThatAreNotOpen) {
  char buffer[256] = "untouched";
  EXPECT_EQ(ZeltoCom_GetPortBySN(buffer, "ZS0001"), -1);
  EXPECT_EQ(LastError(), "The device path is not in use");
  EXPECT_STREQ(buffer, "untouched");
  EXPECT_EQ(ZeltoCom_GetSNByPort(buffer, "/dev/pts/none"), -1);
  ZeltoCom_GetLibraryVersion(buffer);
  EXPECT_STREQ(buffer, "v3.0.0");
}

