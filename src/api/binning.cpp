// Chromaticity binning from VEC files.
#include "api/binning.hpp"

#include <algorithm>
#include <optional>

#include "api/common.hpp"
#include "frame/errors.hpp"
#include "frame/utils.hpp"
#include "zeltocom.h"

namespace zeltocom {

namespace {

constexpr const char* kSyntaxError = "Syntax error in VEC file";

// Lines shorter than this hold no bin.
constexpr std::size_t kMinBinLineLength = 6;

// "x,y;x,y;...": the values of a vertex go to x and y in turn, so a vertex
// with one or three values leaves the bin unbalanced.
void ReadVertices(std::string_view list, tBinVector& bin) {
  for (const std::string& vertex : SplitNonEmpty(list, ';')) {
    const std::vector<std::string> values = SplitNonEmpty(vertex, ',');
    for (std::size_t i = 0; i < values.size(); ++i) {
      (i % 2 == 0 ? bin.x : bin.y).push_back(ParseDecimal(values[i]));
    }
  }
}

bool IsPolygon(const tBinVector& bin) { return !bin.x.empty() && bin.x.size() == bin.y.size(); }

bool Crosses(const tBinVector& bin, std::size_t from, std::size_t to, float x, float y) {
  return CheckSegmentsIntersect(bin.x[from], bin.y[from], bin.x[to], bin.y[to], 0, 0, x, y);
}

int CrossingsOf(const tBinVector& bin, float x, float y) {
  const std::size_t last = bin.x.size() - 1;
  int crossings = 0;
  for (std::size_t i = 0; i < last; ++i) crossings += Crosses(bin, i, i + 1, x, y);
  // A file may close the polygon itself by repeating the first vertex.
  if (bin.x[last] != bin.x[0] || bin.y[last] != bin.y[0]) crossings += Crosses(bin, last, 0, x, y);
  return crossings;
}

}  // namespace

VecFile ReadVecFile(std::string_view text) {
  VecFile file;
  int area = 0;
  for (const std::string& line : SplitLines(text)) {
    if (line.size() > kMaxFileLineLength) return {{}, kSyntaxError};
    if (line.size() < kMinBinLineLength) continue;
    tBinVector& bin = file.bins.emplace_back();
    ++area;
    const std::size_t eq = line.find('=');
    if (eq == std::string::npos) {
      bin.name = StringPrintf("Area %d", area);
      ReadVertices(line, bin);
    } else {
      bin.name = line.substr(0, eq);
      ReadVertices(std::string_view(line).substr(eq + 1), bin);
    }
  }
  if (file.bins.empty()) {
    file.error = "VEC file does not contain any bin";
  } else if (!std::ranges::all_of(file.bins, IsPolygon)) {
    file.error = kSyntaxError;
  }
  return file;
}

bool CheckSegmentsIntersect(float x1, float y1, float x2, float y2, float x3, float y3, float x4,
                            float y4) {
  const float dx = x2 - x1;
  const float k = (x3 - x1) * (y2 - y1) / dx;
  const float s = (y3 - y1 - k) / ((y2 - y1) * (x4 - x3) / dx - (y4 - y3));
  const float t = ((x4 - x3) * s + (x3 - x1)) / dx;
  // No s >= 0: the test line stays open beyond the origin.
  return t >= 0 && t <= 1 && s <= 1;
}

const tBinVector* FindBin(const std::vector<tBinVector>& bins, float x, float y) {
  // Exactly one crossing, not an odd number.
  const auto found = std::ranges::find_if(bins, [&](const tBinVector& bin) {
    return CrossingsOf(bin, x, y) == 1;
  });
  return found != bins.end() ? &*found : nullptr;
}

}  // namespace zeltocom

using namespace zeltocom;

extern "C" {

int ZeltoCom_Binning_GetBinFromVECFile(const char* path, char* binName, float x, float y) {
  return Guarded(-1, [&] {
    const std::string file(Arg(path));
    if (file.size() < 5) {
      SetError(nullptr, "Wrong VEC file path");
      return -1;
    }
    if (!strtolower(file).ends_with(".vec")) {
      SetError(nullptr, "Wrong VEC file extension");
      return -1;
    }
    if (binName == nullptr) {
      SetError(nullptr, kNoBuffer);
      return -1;
    }
    const std::optional<std::string> text = ReadFileOrReport(file);
    if (!text) return -1;
    const VecFile vec = ReadVecFile(*text);
    if (!vec.error.empty()) {
      SetError(nullptr, vec.error);
      return -1;
    }
    const tBinVector* bin = FindBin(vec.bins, x, y);
    if (bin == nullptr) return 0;
    CopyOut(binName, bin->name);
    return 1;
  });
}

}  // extern "C"
