#include "frame/utils.hpp"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <string>
#include <utility>

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

// The last point places the decimal point; signs, units and other points
// are dropped with the rest.
TEST(Parsers, ParseDecimalPlacesTheLastPoint) {
  const std::pair<const char*, float> cases[] = {
      {"", 0.0f},   {"12.5", 12.5f}, {"-0.25 cd", 0.25f}, {"1.2.3", 12.3f},    {"x=007", 7.0f},
      {".5", 0.5f}, {"5.", 5.0f},    {"1e3", 13.0f},      {"0.3288", 0.3288f}, {"0,5", 5.0f}};
  for (const auto& [text, value] : cases) EXPECT_FLOAT_EQ(ParseDecimal(text), value) << text;
  // Places beyond a double's range: a digit far behind the point is lost,
  // and zeros far before it add nothing rather than make the sum not a
  // number.
  EXPECT_EQ(ParseDecimal("0." + std::string(400, '0') + "1"), 0.0f);
  EXPECT_EQ(ParseDecimal("1" + std::string(400, '0')), HUGE_VALF);
}
