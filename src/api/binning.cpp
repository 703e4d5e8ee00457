// Chromaticity binning from VEC files.
#include "api/binning.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <iterator>
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

// ---- Exact geometry ----

struct Point {
  float x;
  float y;
  bool operator==(const Point&) const = default;
};

Point Corner(const tBinVector& bin, std::size_t i) {
  const std::size_t k = i % bin.x.size();
  return {bin.x[k], bin.y[k]};
}

// a + b as the rounded sum and the exact rest that rounding dropped.
std::pair<double, double> TwoSum(double a, double b) {
  const double sum = a + b;
  const double bPart = sum - a;
  const double aPart = sum - bPart;
  return {sum, (a - aPart) + (b - bPart)};
}

// The sign of the exact sum of `terms`: they are gathered into parts that do
// not overlap, so no digit is lost, and the largest part decides.
template <std::size_t N>
int SignOfSum(const std::array<double, N>& terms) {
  std::array<double, N> parts{};  // by increasing magnitude
  std::size_t count = 0;
  for (double term : terms) {
    std::array<double, N> grown{};
    std::size_t kept = 0;
    double carry = term;
    for (std::size_t i = 0; i < count; ++i) {
      const auto [sum, rest] = TwoSum(carry, parts[i]);
      if (rest != 0) grown[kept++] = rest;
      carry = sum;
    }
    grown[kept++] = carry;
    parts = grown;
    count = kept;
  }
  for (std::size_t i = count; i-- > 0;) {
    if (parts[i] != 0) return parts[i] > 0 ? 1 : -1;
  }
  return 0;
}

// The side of the line a -> b that p lies on: 1 left, -1 right, 0 on it.
// (b - a) x (p - a), expanded into products of two floats, each exact in a
// double.
int Orientation(Point a, Point b, Point p) {
  const auto times = [](float u, float v) { return static_cast<double>(u) * v; };
  return SignOfSum(std::array<double, 6>{times(b.x, p.y), -times(b.x, a.y), -times(a.x, p.y),
                                         -times(b.y, p.x), times(b.y, a.x), times(a.y, p.x)});
}

bool OnSegment(Point a, Point b, Point p) {
  return Orientation(a, b, p) == 0 && std::min(a.x, b.x) <= p.x && p.x <= std::max(a.x, b.x) &&
         std::min(a.y, b.y) <= p.y && p.y <= std::max(a.y, b.y);
}

// Whether the edge a -> b crosses the ray from p towards +x. A corner at the
// ray's height counts as below it, so a ray through a corner crosses once
// where the boundary passes there and twice or not at all where it touches.
bool CrossesRayRightOf(Point a, Point b, Point p) {
  if ((a.y > p.y) == (b.y > p.y)) return false;
  const int side = Orientation(a, b, p);
  return b.y > a.y ? side > 0 : side < 0;
}

bool FiniteCorners(const tBinVector& bin) {
  const auto finite = [](float v) { return std::isfinite(v); };
  return std::ranges::all_of(bin.x, finite) && std::ranges::all_of(bin.y, finite);
}

// The corners in order without repeats: a corner equal to the one before it
// adds no edge, and neither does a last one equal to the first.
std::vector<Point> DistinctCorners(const tBinVector& bin) {
  std::vector<Point> corners;
  for (std::size_t i = 0; i < bin.x.size(); ++i) {
    if (corners.empty() || Corner(bin, i) != corners.back()) corners.push_back(Corner(bin, i));
  }
  while (corners.size() > 1 && corners.back() == corners.front()) corners.pop_back();
  return corners;
}

bool HasArea(const std::vector<Point>& corners) {
  for (std::size_t i = 2; i < corners.size(); ++i) {
    if (Orientation(corners[0], corners[1], corners[i]) != 0) return true;
  }
  return false;
}

// The established rule divides by an edge's run in x, so its rounding moves
// the crossings of a steep edge by about 6e-8 * x * rise / run: from a rise
// of 1000 times the run on, that reaches the fifth decimal of a reading.
constexpr double kSteepRise = 1000;

bool HasSteepEdge(const std::vector<Point>& corners) {
  for (std::size_t i = 0; i < corners.size(); ++i) {
    const Point a = corners[i];
    const Point b = corners[(i + 1) % corners.size()];
    const double run = std::fabs(static_cast<double>(b.x) - a.x);
    if (run * kSteepRise <= std::fabs(static_cast<double>(b.y) - a.y)) return true;
  }
  return false;
}

int Sign(float v) { return (v > 0) - (v < 0); }

// How often the non-zero signs of `steps` change around the polygon.
int SignChanges(const std::vector<int>& steps) {
  std::vector<int> signs;
  std::ranges::copy_if(steps, std::back_inserter(signs), [](int s) { return s != 0; });
  int changes = 0;
  for (std::size_t i = 0; i < signs.size(); ++i)
    changes += signs[i] != signs[(i + 1) % signs.size()];
  return changes;
}

// A polygon with area is convex when it turns one way only and goes once
// around: right and left, up and down, two changes each (a star turns one
// way but goes around twice).
bool IsConvex(const std::vector<Point>& corners) {
  const std::size_t n = corners.size();
  int turning = 0;
  std::vector<int> dx;
  std::vector<int> dy;
  for (std::size_t i = 0; i < n; ++i) {
    const Point a = corners[i];
    const Point b = corners[(i + 1) % n];
    const int turn = Orientation(a, b, corners[(i + 2) % n]);
    if (turn != 0 && turning != 0 && turn != turning) return false;
    if (turn != 0) turning = turn;
    dx.push_back(Sign(b.x - a.x));
    dy.push_back(Sign(b.y - a.y));
  }
  return SignChanges(dx) <= 2 && SignChanges(dy) <= 2;
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
      ReadVertices(std::string_view{line}.substr(eq + 1), bin);
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

const tBinVector* FindBinByOneCrossing(const std::vector<tBinVector>& bins, float x, float y) {
  // Exactly one crossing, not an odd number.
  const auto found = std::ranges::find_if(
      bins, [&](const tBinVector& bin) { return CrossingsOf(bin, x, y) == 1; });
  return found != bins.end() ? &*found : nullptr;
}

bool BinHolds(const tBinVector& bin, float x, float y) {
  if (!FiniteCorners(bin)) return false;
  const Point p{x, y};
  bool inside = false;
  for (std::size_t i = 0; i < bin.x.size(); ++i) {
    const Point a = Corner(bin, i);
    const Point b = Corner(bin, i + 1);
    if (OnSegment(a, b, p)) return true;
    if (CrossesRayRightOf(a, b, p)) inside = !inside;
  }
  return inside;
}

const tBinVector* FindBinHolding(const std::vector<tBinVector>& bins, float x, float y) {
  const auto found =
      std::ranges::find_if(bins, [&](const tBinVector& bin) { return BinHolds(bin, x, y); });
  return found != bins.end() ? &*found : nullptr;
}

std::vector<std::string> OneCrossingRisks(const tBinVector& bin) {
  if (!FiniteCorners(bin)) return {"a corner that is not a finite number"};
  const std::vector<Point> corners = DistinctCorners(bin);
  // Its edges cover each other, so a ray crosses them in pairs.
  if (!HasArea(corners)) return {"no area (its corners lie on one line)"};
  std::vector<std::string> risks;
  // A vertical edge never counts.
  if (HasSteepEdge(corners))
    risks.emplace_back("an edge parallel or nearly parallel to the y axis");
  // A ray can leave a concave bin three times.
  if (!IsConvex(corners)) risks.emplace_back("not convex");
  // The ray from the origin has no direction.
  if (BinHolds(bin, 0, 0)) risks.emplace_back("holds the origin");
  return risks;
}

}  // namespace zeltocom

using namespace zeltocom;

namespace {

// The path checks every bin call makes first; false with their error text.
bool VecPathAccepted(const std::string& file) {
  if (file.size() < 5) {
    SetError(nullptr, "Wrong VEC file path");
    return false;
  }
  if (!strtolower(file).ends_with(".vec")) {
    SetError(nullptr, "Wrong VEC file extension");
    return false;
  }
  return true;
}

// A host's buffer of `size` bytes for a text of any length.
bool RoomGiven(const char* buffer, int size, const char* what) {
  if (buffer == nullptr) {
    SetError(nullptr, kNoBuffer);
    return false;
  }
  if (size < 1) {
    SetError(nullptr, StringPrintf("The size of the %s buffer must be at least 1", what));
    return false;
  }
  return true;
}

// The bins of a readable, valid bin file; none, with the error set (or
// "Unable to open file ..."), otherwise.
std::optional<std::vector<tBinVector>> ReadBins(const std::string& file) {
  const std::optional<std::string> text = ReadFileOrReport(file);
  if (!text) return std::nullopt;
  VecFile vec = ReadVecFile(*text);
  if (!vec.error.empty()) {
    SetError(nullptr, vec.error);
    return std::nullopt;
  }
  return std::move(vec.bins);
}

// One line per bin the established rule can misjudge: "NAME: risk; risk".
std::string RiskReport(const std::vector<tBinVector>& bins, int& listed) {
  std::string report;
  listed = 0;
  for (const tBinVector& bin : bins) {
    const std::vector<std::string> risks = OneCrossingRisks(bin);
    if (risks.empty()) continue;
    if (listed++ > 0) report += '\n';
    report += bin.name + ": " + risks.front();
    for (std::size_t i = 1; i < risks.size(); ++i) report += "; " + risks[i];
  }
  return report;
}

std::string ShortestDecimal(float value) {
  std::array<char, 32> text{};
  auto* const end = std::to_chars(text.data(), text.data() + text.size(), value).ptr;
  return {text.data(), end};
}

// One line per bin: "NAME=x,y;x,y;...", each coordinate the shortest
// decimal that reads back as the same float.
std::string BinList(const std::vector<tBinVector>& bins) {
  std::string list;
  for (const tBinVector& bin : bins) {
    if (!list.empty()) list += '\n';
    list += bin.name + '=';
    for (std::size_t i = 0; i < bin.x.size(); ++i) {
      if (i > 0) list += ';';
      list += ShortestDecimal(bin.x[i]) + ',' + ShortestDecimal(bin.y[i]);
    }
  }
  return list;
}

}  // namespace

extern "C" {

int ZeltoCom_Binning_GetBinFromVECFile(const char* path, char* binName, float x, float y) {
  return Guarded(-1, [&] {
    const std::string file(Arg(path));
    if (!VecPathAccepted(file)) return -1;
    if (binName == nullptr) {
      SetError(nullptr, kNoBuffer);
      return -1;
    }
    const std::optional<std::vector<tBinVector>> bins = ReadBins(file);
    if (!bins) return -1;
    const tBinVector* bin = FindBinByOneCrossing(*bins, x, y);
    if (bin == nullptr) return 0;
    CopyOut(binName, bin->name);
    return 1;
  });
}

int ZeltoCom_Binning_FindBin(const char* path, char* binName, int binNameSize, float x, float y) {
  return Guarded(-1, [&] {
    const std::string file(Arg(path));
    if (!VecPathAccepted(file) || !RoomGiven(binName, binNameSize, "bin name")) return -1;
    if (!std::isfinite(x) || !std::isfinite(y)) {
      SetError(nullptr, "The point's x and y must be finite numbers");
      return -1;
    }
    const std::optional<std::vector<tBinVector>> bins = ReadBins(file);
    if (!bins) return -1;
    const tBinVector* bin = FindBinHolding(*bins, x, y);
    if (bin == nullptr) return 0;
    CopyCut(binName, binNameSize, bin->name);
    return 1;
  });
}

int ZeltoCom_Binning_CheckVECFile(const char* path, char* report, int reportSize) {
  return Guarded(-1, [&] {
    const std::string file(Arg(path));
    if (!VecPathAccepted(file) || !RoomGiven(report, reportSize, "report")) return -1;
    const std::optional<std::vector<tBinVector>> bins = ReadBins(file);
    if (!bins) return -1;
    int listed = 0;
    CopyCut(report, reportSize, RiskReport(*bins, listed));
    return listed;
  });
}

int ZeltoCom_Binning_ListBins(const char* path, char* list, int listSize) {
  return Guarded(-1, [&] {
    const std::string file(Arg(path));
    if (!VecPathAccepted(file) || !RoomGiven(list, listSize, "list")) return -1;
    const std::optional<std::vector<tBinVector>> bins = ReadBins(file);
    if (!bins) return -1;
    CopyCut(list, listSize, BinList(*bins));
    return static_cast<int>(bins->size());
  });
}

}  // extern "C"
