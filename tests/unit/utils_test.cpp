#include "frame/utils.hpp"

#include <gtest/gtest.h>

#include <climits>

using namespace zeltocom;

TEST(Parsers, GatherDigitsAndIgnoreEverythingElse) {
  EXPECT_EQ(ParseInt(""), 0);
  EXPECT_EQ(ParseInt("x=0042"), 42);
  EXPECT_EQ(ParseInt("-12"), 12);
  EXPECT_EQ(ParseInt("1.5"), 15);
  EXPECT_EQ(ParseInt("SETFACTOR05"), 5);
  EXPECT_EQ(ParseLong("SETBAUD921600"), 921600L);
  // Far too many digits saturate rather than wrap.
  EXPECT_EQ(ParseInt("99999999999999999999999"), INT_MAX);
}
