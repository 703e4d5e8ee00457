#include "device/intensity_scale.hpp"

#include <gtest/gtest.h>

#include <climits>
#include <set>
#include <utility>

#include "device/identify.hpp"
#include "frame/registry.hpp"

using namespace zeltocom;

namespace {

struct Generation {
  const char* name;
  const char* model;  // "GETHW"
  const char* id;     // "ID"
  const char* firmware;
  const char* eot;
  int isPWM;
  int range;
  int linearOf20000;  // log 20000 on the linear scale
  int logOf5000;      // linear 5000 on the log scale
};

// Every record answers from its cache, so no instrument is needed.
void Describe(s_CommPort& port, const Generation& g) {
  port.settings.current->intensityMode = IntensityMode::Logarithmic;
  SetHardwareDescriptor(&port, g.model);
  port.deviceIdText.assign(g.id);
  port.SetFirmware(g.firmware);
  port.eotFormat.assign(g.eot);
}

// Log 20000 on the linear scale and linear 5000 on the log scale.
std::pair<int, int> Converted(const Generation& g) {
  s_CommPort port;
  Describe(port, g);
  return {AnalyserIntensityLogToLin(&port, 20000, g.isPWM, g.range),
          AnalyserIntensityLinToLog(&port, 5000, g.isPWM, g.range)};
}

}  // namespace

TEST(IntensityScale, EachFirmwareGenerationConvertsBothWays) {
  const Generation generations[] = {
      {"code 05F", "Zelto 05-P", "05F", "F1.50", "\r\n", 0, 0, 1614, 16196},
      {"firmware 2.00 and later", "Zelto 05-P", "04", "F2.00", "\r\n", 0, 3, 1614, 16196},
      {"Zelto 2- models", "Zelto 2-P", "04", "F1.50", "\r\n", 0, 0, 2127, 14203},
      {"older, automatic range", "Zelto 05-P", "04", "F1.10", "\r\n", 0, 0, 2601, -174514},
      {"older, fixed range", "Zelto 05-P", "04", "I1.10", "\r\n", 0, 2, 3446, 11204},
      {"beta of an older one", "Zelto 05-P", "04", "BF1.10", "\r\n", 0, 1, 1982, 15203},
      {"PWM without 0x04, range 3", "Zelto 05-P", "04", "F1.20", "\r\n", 1, 3, 6343, 7162},
      {"PWM without 0x04, automatic", "Zelto 05-P", "04", "F1.20", "\r\n", 1, 0, 1022077, 58},
      {"PWM with 0x04", "Zelto 05-P", "04", "F1.20", "\r\n\x04", 1, 1, 1982, 15203},
      {"node, older firmware", "Zelto Node", "04", "F1.10", "\r\n", 1, 0, 4562, 9251},
  };
  for (const Generation& g : generations) {
    EXPECT_EQ(Converted(g), std::pair(g.linearOf20000, g.logOf5000)) << g.name;
  }
}

// Firmware numbers on either side of each edge between generations convert
// as the generation they belong to: a PWM capture at range 3, without 0x04.
TEST(IntensityScale, FirmwareNumbersAtTheEdgesOfEachGeneration) {
  const auto like = [](const char* firmware) {
    return Generation{firmware, "Zelto 05-P", "04", firmware, "\r\n", 1, 3, 0, 0};
  };
  const Generation modern = like("F2.00");
  const Generation standard = like("F1.50");
  const Generation pwm = like("F1.20");
  const Generation older = like("F1.10");
  const struct {
    Generation edge;
    const Generation& as;
  } rows[] = {
      {like("F1.99"), standard}, {like("F1.25"), standard}, {like("F1.24"), pwm},
      {like("F1.13"), pwm},      {like("F1.12"), older},    {like("I1.16"), pwm},
      {like("I1.15"), older},    {like("BI1.10"), pwm},     {like("F2.01"), modern},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Converted(row.edge), Converted(row.as)) << row.edge.name;
  }
  // The four references differ, so each row tells its generation.
  const std::set<int> values = {Converted(modern).second, Converted(standard).second,
                                Converted(pwm).second, Converted(older).second};
  EXPECT_EQ(values.size(), 4u);
}

// The range gains 1, 2, 10, 25, 50 scale a PWM capture before 0x04; range 6
// has none and reads as automatic.
TEST(IntensityScale, EachRangeGainOfPwmCapturesBeforeEot) {
  const Generation automatic{"", "Zelto 05-P", "04", "F1.20", "\r\n", 1, 0, 0, 0};
  s_CommPort port;
  Describe(port, automatic);
  const int gains[] = {1, 2, 10, 25, 50};
  const int unit = AnalyserIntensityLogToLin(&port, 20000, 1, 1);
  for (int i = 0; i < 5; ++i) {
    const int range = i + 1;
    SCOPED_TRACE(range);
    EXPECT_NEAR(AnalyserIntensityLogToLin(&port, 20000, 1, range), unit * gains[i], gains[i]);
    EXPECT_EQ(AnalyserIntensityLinToLog(&port, 5000 * gains[i], 1, range),
              AnalyserIntensityLinToLog(&port, 5000, 1, 1));
  }
  Generation six = automatic;
  six.range = 6;
  EXPECT_EQ(Converted(six), Converted(automatic));
}

TEST(IntensityScale, WorkedValueAndLinearMode) {
  s_CommPort port;
  Describe(port, {"", "Zelto 05-P", "05F", "F1.50", "\r\n", 0, 0, 0, 0});
  // (e - 1) * 1000
  EXPECT_EQ(AnalyserIntensityLogToLin(&port, 20814, 0, 0), 1718);
  // Readings no int can hold in the other scale are held to its range.
  EXPECT_EQ(AnalyserIntensityLogToLin(&port, INT_MAX, 0, 0), INT_MAX);
  EXPECT_EQ(AnalyserIntensityLinToLog(&port, INT_MIN, 0, 0), 0);
  // A linear instrument's values are linear already; the way back still converts.
  port.settings.current->intensityMode = IntensityMode::Linear;
  EXPECT_EQ(AnalyserIntensityLogToLin(&port, 20814, 0, 0), 20814);
  EXPECT_EQ(AnalyserIntensityLinToLog(&port, 5000, 0, 0), 16196);
}
