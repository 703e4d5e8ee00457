// The VEC bin file reader and both point tests: any text gives bins or an
// error, and any point a bin or none.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "api/binning.hpp"
#include "fuzz_check.hpp"

using namespace zeltocom;

namespace {

bool AmongBins(const VecFile& file, const tBinVector* bin) {
  return bin == nullptr || (bin >= file.bins.data() && bin < file.bins.data() + file.bins.size());
}

void CheckPoint(const VecFile& file, float x, float y) {
  Require(AmongBins(file, FindBinByOneCrossing(file.bins, x, y)));
  // A vertical edge never counts, wherever it stands.
  Require(!CheckSegmentsIntersect(x, y, x, y + 1, 0, 0, 0.3f, 0.3f));
  if (!std::isfinite(x) || !std::isfinite(y)) return;
  const tBinVector* holding = FindBinHolding(file.bins, x, y);
  Require(AmongBins(file, holding));
  // The first bin that holds the point, and only the first, is the answer.
  for (const tBinVector& bin : file.bins) {
    if (&bin == holding) break;
    Require(!BinHolds(bin, x, y));
  }
  Require(holding == nullptr || BinHolds(*holding, x, y));
}

// A bin holds its own corners, whichever way round it is written; one with
// a corner beyond the float range holds nothing.
void CheckCorners(const tBinVector& bin) {
  tBinVector reversed = bin;
  std::ranges::reverse(reversed.x);
  std::ranges::reverse(reversed.y);
  const auto isFinite = [](float v) { return std::isfinite(v); };
  const bool finite = std::ranges::all_of(bin.x, isFinite) && std::ranges::all_of(bin.y, isFinite);
  Require(finite || !OneCrossingRisks(bin).empty());
  for (std::size_t i = 0; i < bin.x.size(); ++i) {
    Require(BinHolds(bin, bin.x[i], bin.y[i]) == finite);
    Require(BinHolds(reversed, bin.x[i], bin.y[i]) == finite);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const VecFile file = ReadVecFile(std::string_view(reinterpret_cast<const char*>(data), size));
  if (!file.error.empty()) return 0;
  Require(!file.bins.empty());
  for (const tBinVector& bin : file.bins) {
    Require(!bin.x.empty() && bin.x.size() == bin.y.size());
    CheckCorners(bin);
  }
  CheckPoint(file, 0.3f, 0.3f);
  CheckPoint(file, -0.5f, 0.25f);
  // The input's last bytes as a point too, whatever floats they make.
  float point[2];
  if (size >= sizeof point) {
    std::memcpy(point, data + size - sizeof point, sizeof point);
    CheckPoint(file, point[0], point[1]);
  }
  return 0;
}
