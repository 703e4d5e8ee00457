#include <gtest/gtest.h>

#include <cmath>
#include <optional>
#include <string>

#include "device/trigger_report.hpp"
#include "device/user_cal.hpp"
#include "frame/utils.hpp"

using namespace zeltocom;

// What reads whole as a number of each type, and what does not.
TEST(SingleReading, TakesOnlyWholeFiniteNumbersOfTheType) {
  const std::pair<const char*, std::optional<int>> integers[] = {
      {"42", 42},         {" -7\r\n", -7},     {"+5", 5},    {"2147483647", 2147483647},
      {"2147483648", {}}, {"-2147483649", {}}, {"+-5", {}},  {"++5", {}},
      {"5.0", {}},        {"1e3", {}},         {"0x10", {}}, {"12abc", {}},
      {"", {}},           {" ", {}},           {"5 6", {}},  {"nan", {}},
  };
  for (const auto& [text, value] : integers) {
    EXPECT_EQ(SingleReading<int>(text), value) << '"' << text << '"';
  }
  const std::pair<const char*, std::optional<double>> decimals[] = {
      {"1.50000E+00", 1.5}, {"+0.010", 0.01}, {"-0,250", -0.25}, {"\t3\t", 3.0},
      {"1E308", 1e308},     {"1E309", {}},    {"inf", {}},       {"-infinity", {}},
      {"nan", {}},          {"1.5.0", {}},    {"1,5,0", {}},     {"1.5 2.5", {}},
  };
  for (const auto& [text, value] : decimals) {
    EXPECT_EQ(SingleReading<double>(text), value) << '"' << text << '"';
  }
  // Less fits a float than a double, and no sign an unsigned.
  for (const char* text : {"3.5E38", "-1E39"}) EXPECT_EQ(SingleReading<float>(text), std::nullopt);
  for (const char* text : {"-1", "4294967296"})
    EXPECT_EQ(SingleReading<unsigned>(text), std::nullopt);
}

TEST(ExponentFits, ExactlyTheFactorsTheCommandsCarryWhole) {
  for (double value : {0.0, 1.5, -2.0, 1e-99, 9.99999e99, -1e99}) {
    EXPECT_TRUE(ExponentFits(value)) << value;
  }
  // 9.9999996e99 rounds up to 1.00000E+100.
  for (double value : {1e100, 9.9999996e99, 5e-101, 1e300, HUGE_VAL, std::nan("")}) {
    EXPECT_FALSE(ExponentFits(value)) << value;
  }
}

// An unasked report line is one number per field of its type, signed or not:
// a line with a field more or less is some other message.
TEST(TriggerReportLine, ExactlyTheFieldsOfItsTypeAllNumbers) {
  const UnaskedReports xyi = ReportsOf("XYI", 2, false);
  EXPECT_TRUE(IsReportLine(xyi, "0.3127 0.3290 1200"));
  EXPECT_TRUE(IsReportLine(xyi, "-0.0100 +0.3290 1200"));
  EXPECT_FALSE(IsReportLine(xyi, "0.3127 0.3290"));
  EXPECT_FALSE(IsReportLine(xyi, "0.3127 0.3290 1200 7"));
  EXPECT_FALSE(IsReportLine(xyi, "0.3127 0.3290 --1200"));
  EXPECT_FALSE(IsReportLine(xyi, "0.3127 0.3290 I"));
  EXPECT_TRUE(IsReportLine(ReportsOf("NONE", 2, false), "OK"));
}
