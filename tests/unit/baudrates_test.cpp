#include "serial/baudrates.hpp"

#include <gtest/gtest.h>

#include "serial/termios2.hpp"

using namespace zeltocom;

TEST(Baudrates, SearchOrderPutsTheRememberedRateFirst) {
  EXPECT_EQ(RateSearchOrder(921600),
            (std::vector<int>{921600, 57600, 460800, 115200, 9600, 230400, 38400, 19200}));
  EXPECT_EQ(RateSearchOrder(19200),
            (std::vector<int>{19200, 57600, 460800, 115200, 921600, 9600, 230400, 38400}));
  // An unknown rate leaves the usual order, which starts with the default rate.
  EXPECT_EQ(RateSearchOrder(12345), RateSearchOrder(-1));
  EXPECT_EQ(RateSearchOrder(-1).front(), 57600);
}

TEST(Baudrates, CharacterTimeHasAFloor) {
  EXPECT_NEAR(CharTimeMs(9600), 1.1458, 1e-4);
  EXPECT_NEAR(CharTimeMs(57600), 0.19097, 1e-5);
  EXPECT_DOUBLE_EQ(CharTimeMs(115200), 0.15);
}

// A rate between two divisors takes the nearer: truncating would set 76800
// baud as 115200 on a classic UART.
TEST(Baudrates, CustomDivisorIsTheNearestAndAtLeastOne) {
  EXPECT_EQ(CustomDivisor(115200, 76800), 2);
  EXPECT_EQ(CustomDivisor(3000000, 1200000), 3);
  EXPECT_EQ(CustomDivisor(3000000, 250000), 12);
  EXPECT_EQ(CustomDivisor(115200, 921600), 1);
  EXPECT_EQ(CustomDivisor(115200, 0), 1);
}

TEST(Baudrates, MemoryKeepsTheFirstSerialOfAPath) {
  ForgetBaudrates();
  EXPECT_EQ(GetBaudrateForPort("/dev/x"), -1);
  UpdateBaudrateForPort("/dev/x", "AAA1", 115200);
  UpdateBaudrateForPort("/dev/x", "BBB2", 9600);
  EXPECT_EQ(GetBaudrateForPort("/dev/x"), 9600);

  std::string path;
  EXPECT_EQ(GetBaudrateForSN("AAA1", &path), 9600);
  EXPECT_EQ(path, "/dev/x");
  EXPECT_EQ(GetBaudrateForSN("BBB2", &path), -1);
  EXPECT_EQ(GetBaudrateForSN("aaa1", nullptr), -1);  // case matters here
}
