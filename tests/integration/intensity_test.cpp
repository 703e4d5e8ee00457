// Intensity readings between the instruments' two scales.
#include <cstdlib>

#include "bench.hpp"

namespace {

class IntensityTest : public SimBench {
 protected:
  // The raw intensity of fiber 1 after a fresh capture.
  int Captured(const zeltosim::SimPort& port) {
    EXPECT_EQ(ZeltoCom_Capture(port.path().c_str(), 0, 0, 0), 1) << LastError();
    EXPECT_EQ(Send(port, "GETxyI01"), 1);
    float x = 0;
    float y = 0;
    int intensity = -1;
    EXPECT_EQ(std::sscanf(answer_, "%f %f %d", &x, &y, &intensity), 3) << answer_;
    return intensity;
  }
};

}  // namespace

// The same light read on both scales: the conversion of the logarithmic
// reading is the linear one, and the scale follows SETLIN and SETLOG.
TEST_F(IntensityTest, ReadingsAgreeAcrossTheScalesAndBadArgumentsAreRefused) {
  zeltosim::SimPort& port = OpenPort(Analyser("ZI0001"));
  const char* path = port.path().c_str();

  int logarithmic = -1;
  ASSERT_EQ(ZeltoCom_GetIntensityScale(path, &logarithmic), 1) << LastError();
  EXPECT_EQ(logarithmic, 1);
  const int raw = Captured(port);
  EXPECT_EQ(raw, 16411);
  int linear = 0;
  ASSERT_EQ(ZeltoCom_IntensityToLinear(path, raw, 0, 0, &linear), 1) << LastError();
  EXPECT_NEAR(linear, 1200, 1);
  // The way back takes the decimal logarithm where the instrument's scale is
  // natural: the pairing the pattern thresholds are computed with.
  int back = 0;
  ASSERT_EQ(ZeltoCom_IntensityToLog(path, linear, 0, 0, &back), 1);
  EXPECT_EQ(back, 7127);

  ASSERT_EQ(Send(port, "SETLIN"), 1);
  ASSERT_EQ(ZeltoCom_GetIntensityScale(path, &logarithmic), 1);
  EXPECT_EQ(logarithmic, 0);
  const int read = Captured(port);
  EXPECT_NEAR(read, 1200, 1);
  ASSERT_EQ(ZeltoCom_IntensityToLinear(path, read, 0, 3, &linear), 1);
  EXPECT_EQ(linear, read) << "a linear reading stays as it is";
  ASSERT_EQ(ZeltoCom_IntensityToLog(path, read, 0, 0, &back), 1);
  EXPECT_EQ(back, 7127) << "converted whatever scale the instrument reports in";

  ASSERT_EQ(Send(port, "SETLOG"), 1);
  ASSERT_EQ(ZeltoCom_GetIntensityScale(path, &logarithmic), 1);
  EXPECT_EQ(logarithmic, 1);

  // Refusals write nothing; nothing of the scale is known before the first
  // question, so a silent instrument has none.
  zeltosim::SimPort& other = OpenPort(Analyser("ZI0002"));
  path = other.path().c_str();
  int value = 7;
  EXPECT_EQ(ZeltoCom_IntensityToLinear("/dev/zeltocom-none", 100, 0, 0, &value), -1);
  EXPECT_EQ(LastError(), "The port is not in use");
  EXPECT_EQ(ZeltoCom_IntensityToLog(path, 100, 0, 0, nullptr), -1);
  EXPECT_EQ(PortError(other), "No buffer given for the result");
  EXPECT_EQ(ZeltoCom_IntensityToLinear(path, 100, 0, 7, &value), -1);
  EXPECT_EQ(PortError(other), "Capture range should be a value between 0 and 6");
  EXPECT_EQ(ZeltoCom_IntensityToLinear(path, 100, 0, -1, &value), -1);
  EXPECT_EQ(value, 7) << "nothing written on a failure";

  other.master().setFault(zeltosim::Fault::Silent);
  EXPECT_EQ(ZeltoCom_IntensityToLinear(path, 100, 0, 0, &value), 0);
  EXPECT_EQ(PortError(other), "Unable to read the intensity scale of the instrument");
  EXPECT_EQ(ZeltoCom_GetIntensityScale(path, &value), 0);
  EXPECT_EQ(value, 7);
  // Range 6, the fastest, is the last that captures take.
  other.master().setFault(zeltosim::Fault::None);
  EXPECT_EQ(Outcome(ZeltoCom_IntensityToLinear(path, 100, 0, 6, &value)), "1");
}
