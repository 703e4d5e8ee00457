// The VEC bin file reader and the point test: any text gives bins or an
// error, and any point a bin or none.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "api/binning.hpp"
#include "fuzz_check.hpp"

using namespace zeltocom;

namespace {

void CheckPoint(const VecFile& file, float x, float y) {
  const tBinVector* bin = FindBin(file.bins, x, y);
  Require(bin == nullptr || (bin >= file.bins.data() && bin < file.bins.data() + file.bins.size()));
  // A vertical edge never counts, wherever it stands.
  Require(!CheckSegmentsIntersect(x, y, x, y + 1, 0, 0, 0.3f, 0.3f));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const VecFile file = ReadVecFile(std::string_view(reinterpret_cast<const char*>(data), size));
  if (!file.error.empty()) return 0;
  Require(!file.bins.empty());
  for (const tBinVector& bin : file.bins) Require(!bin.x.empty() && bin.x.size() == bin.y.size());
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
