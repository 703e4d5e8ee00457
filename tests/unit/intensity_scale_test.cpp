#include "device/intensity_scale.hpp"

#include <gtest/gtest.h>

#include <climits>
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
      // Firmware numbers on either side of each edge between generations, in
      // a PWM capture at range 3 without 0x04.
      {"F1.99", "Zelto 05-P", "04", "F1.99", "\r\n", 1, 3, 1982, 15203},
      {"F1.25", "Zelto 05-P", "04", "F1.25", "\r\n", 1, 3, 1982, 15203},
      {"F1.24", "Zelto 05-P", "04", "F1.24", "\r\n", 1, 3, 6343, 7162},
      {"F1.13", "Zelto 05-P", "04", "F1.13", "\r\n", 1, 3, 6343, 7162},
      {"F1.12", "Zelto 05-P", "04", "F1.12", "\r\n", 1, 3, 3446, 11204},
      {"I1.16", "Zelto 05-P", "04", "I1.16", "\r\n", 1, 3, 6343, 7162},
      {"I1.15", "Zelto 05-P", "04", "I1.15", "\r\n", 1, 3, 3446, 11204},
      {"BI1.10", "Zelto 05-P", "04", "BI1.10", "\r\n", 1, 3, 6343, 7162},
      {"F2.01", "Zelto 05-P", "04", "F2.01", "\r\n", 1, 3, 1614, 16196},
      // The range gains 1, 2, 10, 25, 50 scale a PWM capture before 0x04;
      // range 6 has none and reads as automatic.
      {"PWM without 0x04, range 1", "Zelto 05-P", "04", "F1.20", "\r\n", 1, 1, 634, 25688},
      {"PWM without 0x04, range 2", "Zelto 05-P", "04", "F1.20", "\r\n", 1, 2, 1268, 19083},
      {"PWM without 0x04, range 4", "Zelto 05-P", "04", "F1.20", "\r\n", 1, 4, 15858, 3319},
      {"PWM without 0x04, range 5", "Zelto 05-P", "04", "F1.20", "\r\n", 1, 5, 31717, 1664},
      {"PWM without 0x04, range 6", "Zelto 05-P", "04", "F1.20", "\r\n", 1, 6, 1022077, 58},
  };
  for (const Generation& g : generations) {
    EXPECT_EQ(Converted(g), std::pair(g.linearOf20000, g.logOf5000)) << g.name;
  }
}

TEST(IntensityScale, ReadingsBeyondAnIntAndLinearMode) {
  s_CommPort port;
  Describe(port, {"", "Zelto 05-P", "05F", "F1.50", "\r\n", 0, 0, 0, 0});
  // Readings no int can hold in the other scale are held to its range.
  EXPECT_EQ(AnalyserIntensityLogToLin(&port, INT_MAX, 0, 0), INT_MAX);
  EXPECT_EQ(AnalyserIntensityLinToLog(&port, INT_MIN, 0, 0), 0);
  // A linear instrument's values are linear already; the way back still converts.
  port.settings.current->intensityMode = IntensityMode::Linear;
  EXPECT_EQ(AnalyserIntensityLogToLin(&port, 20814, 0, 0), 20814);
  EXPECT_EQ(AnalyserIntensityLinToLog(&port, 5000, 0, 0), 16196);
}
