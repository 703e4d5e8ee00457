#include "api/binning.hpp"

#include <gtest/gtest.h>

#include <limits>

using namespace zeltocom;

namespace {

const std::string kSteep = "an edge parallel or nearly parallel to the y axis";

tBinVector Bin(std::vector<float> x, std::vector<float> y) {
  return {"B", std::move(x), std::move(y)};
}

}  // namespace

// A point a hair's breadth off an edge: rounded arithmetic finds it on the
// edge, and so inside a bin it lies outside of.
TEST(BinHolds, DecidesPointsNextToAnEdgeWithoutRounding) {
  const float ax = 0x1.4d67c4p-33f, ay = 0x1.0734eep-24f;
  const float bx = 0x1.4eeecap-1f, by = 0x1.a4a8f4p-1f;
  const float px = 0x1.da73c6p-2f, py = 0x1.29f1eap-1f;
  const double rounded = (static_cast<double>(bx) - ax) * (static_cast<double>(py) - ay) -
                         (static_cast<double>(by) - ay) * (static_cast<double>(px) - ax);
  ASSERT_EQ(rounded, 0.0) << "the example no longer shows rounding";
  // The point lies left of a -> b: outside the bin on the right, inside the
  // one on the left.
  EXPECT_FALSE(BinHolds(Bin({ax, bx, 1.0f}, {ay, by, 0.0f}), px, py));
  EXPECT_TRUE(BinHolds(Bin({ax, bx, 0.0f}, {ay, by, 1.0f}), px, py));
}

TEST(OneCrossingRisks, NamesWhatInTheShapeMisleadsTheEstablishedRule) {
  const float huge = std::numeric_limits<float>::infinity();
  const std::pair<tBinVector, std::vector<std::string>> cases[] = {
      // A corner written twice makes no edge.
      {Bin({0.3f, 0.3f, 0.4f, 0.25f}, {0.2f, 0.2f, 0.3f, 0.4f}), {}},
      // Rising more than 1000 times its run, and a little less.
      {Bin({0.3f, 0.30009f, 0.1f}, {0.2f, 0.3f, 0.25f}), {kSteep}},
      {Bin({0.3f, 0.30011f, 0.1f}, {0.2f, 0.3f, 0.25f}), {}},
      {Bin({0.0f, 0.5f, 0.5f}, {0.0f, 0.0f, 0.5f}), {kSteep, "holds the origin"}},
      {Bin({0.2f}, {0.3f}), {"no area (its corners lie on one line)"}},
      {Bin({0.2f, 0.3f, 0.2f}, {0.3f, 0.4f, 0.3f}), {"no area (its corners lie on one line)"}},
      {Bin({0.2f, huge, 0.4f}, {0.3f, 0.4f, 0.5f}), {"a corner that is not a finite number"}},
  };
  for (const auto& [bin, risks] : cases) {
    EXPECT_EQ(OneCrossingRisks(bin), risks) << ::testing::PrintToString(bin.x);
  }
}
