#include "frame/utils.hpp"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <string>
#include <utility>

using namespace zeltocom;

// Digits are gathered and everything else ignored; for a decimal the last
// point places the decimal point, and signs, units and other points are
// dropped with the rest.
TEST(Parsers, GatherDigitsAndIgnoreEverythingElse) {
  // Far too many digits (the last row) saturate rather than wrap.
  const std::pair<const char*, int> integers[] = {
      {"", 0},     {"x=0042", 42},     {"-12", 12},
      {"1.5", 15}, {"SETFACTOR05", 5}, {"99999999999999999999999", INT_MAX}};
  for (const auto& [text, value] : integers) EXPECT_EQ(ParseInt(text), value) << text;
  EXPECT_EQ(ParseLong("SETBAUD921600"), 921600L);
  const std::pair<const char*, float> decimals[] = {
      {"", 0.0f},   {"12.5", 12.5f}, {"-0.25 cd", 0.25f}, {"1.2.3", 12.3f},    {"x=007", 7.0f},
      {".5", 0.5f}, {"5.", 5.0f},    {"1e3", 13.0f},      {"0.3288", 0.3288f}, {"0,5", 5.0f}};
  for (const auto& [text, value] : decimals) EXPECT_FLOAT_EQ(ParseDecimal(text), value) << text;
  // Places beyond a double's range: a digit far behind the point is lost,
  // and zeros far before it add nothing rather than make the sum not a
  // number.
  EXPECT_EQ(ParseDecimal("0." + std::string(400, '0') + "1"), 0.0f);
  EXPECT_EQ(ParseDecimal("1" + std::string(400, '0')), HUGE_VALF);
}
