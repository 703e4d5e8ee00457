#include "frame/utils.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "frame/debug_log.hpp"

using namespace zeltocom;

TEST(Parsers, GatherDigitsAndIgnoreEverythingElse) {
  EXPECT_EQ(ParseInt(""), 0);
  EXPECT_EQ(ParseInt("none"), 0);
  EXPECT_EQ(ParseInt("x=0042"), 42);
  EXPECT_EQ(ParseInt("-12"), 12);
  EXPECT_EQ(ParseInt("1.5"), 15);
  EXPECT_EQ(ParseInt("SETFACTOR05"), 5);
  EXPECT_EQ(ParseLong("SETBAUD921600"), 921600L);
  // Far too many digits saturate rather than wrap.
  EXPECT_EQ(ParseInt("99999999999999999999999"), INT_MAX);
}

TEST(Parsers, DecimalTakesTheLastPoint) {
  EXPECT_FLOAT_EQ(ParseDecimal("12.5 nm"), 12.5f);
  EXPECT_FLOAT_EQ(ParseDecimal("1.2.3"), 12.3f);
  EXPECT_FLOAT_EQ(ParseDecimal("-0.25"), 0.25f);
  EXPECT_FLOAT_EQ(ParseDecimal("7"), 7.0f);
  EXPECT_FLOAT_EQ(ParseDecimal("x"), 0.0f);
}

TEST(Parsers, IsIntegerAllowsNoSign) {
  EXPECT_TRUE(isInteger(""));
  EXPECT_TRUE(isInteger("0815"));
  EXPECT_FALSE(isInteger("-1"));
  EXPECT_FALSE(isInteger("1 "));
}

TEST(Texts, EditingInPlace) {
  std::string text = "a,b,,c";
  str_replace(text, ",", ";;");
  EXPECT_EQ(text, "a;;b;;;;c");
  str_replace(text, "", "x");
  EXPECT_EQ(text, "a;;b;;;;c");

  text = "  two words  ";
  trim(text);
  EXPECT_EQ(text, "two words");
  text = "    ";
  trim(text);
  EXPECT_EQ(text, "");

  text = "OK\r\n\x04 done\x1f";
  filterstring(text);
  EXPECT_EQ(text, "OK done");

  EXPECT_EQ(SplitNonEmpty(";/dev/a;;/dev/b;", ';'), (std::vector<std::string>{"/dev/a", "/dev/b"}));
  EXPECT_TRUE(SplitNonEmpty("", ';').empty());
}

TEST(Texts, GetParameterSplitsKeyAndValue) {
  std::string line = "  key = value ";
  EXPECT_EQ(GetParameter(line, 1), "value");
  EXPECT_EQ(GetParameter(line, 0), "key ");
  std::string noEquals = "key value";
  EXPECT_EQ(GetParameter(noEquals, 1), "");
  std::string leading = "=value";
  EXPECT_EQ(GetParameter(leading, 0), "");
  EXPECT_EQ(GetParameter(leading, 1), "value");
}

TEST(Numbers, RoundHalvesUpwards) {
  EXPECT_DOUBLE_EQ(RoundToDecimals(2.5, 0), 3.0);
  EXPECT_DOUBLE_EQ(RoundToDecimals(-2.5, 0), -2.0);
  EXPECT_DOUBLE_EQ(RoundToDecimals(1.23456, 2), 1.23);
}

TEST(Numbers, FormatDecimalSuitsTheCLocale) {
  std::string text = "0,253 1,5";
  FormatDecimal(text);
  EXPECT_EQ(text, "0.253 1.5");
}

TEST(DebugLog, AppendsOneLinePerCall) {
  const auto dir = std::filesystem::temp_directory_path() /
                   ("zeltocom-log-" + std::to_string(getpid()));
  std::filesystem::create_directories(dir);
  const auto previous = std::filesystem::current_path();
  std::filesystem::current_path(dir);
  Logging("OPEN", "first");
  Logging("SEND", "second");
  std::filesystem::current_path(previous);

  std::ifstream file(dir / "debug.txt", std::ios::binary);
  std::stringstream content;
  content << file.rdbuf();
  const std::string text = content.str();
  std::filesystem::remove_all(dir);
  EXPECT_NE(text.find(" [OPEN] -> first\r\n"), std::string::npos);
  EXPECT_NE(text.find(" [SEND] -> second\r\n"), std::string::npos);
  EXPECT_EQ(strcountchar(text, '\n'), 2);
}
