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
