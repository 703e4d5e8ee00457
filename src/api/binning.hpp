#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace zeltocom {

// One bin of a VEC file: a named polygon of the chromaticity plane.
struct tBinVector {
  std::string name;
  std::vector<float> x;
  std::vector<float> y;
};

// The bins of a VEC file's text in file order, or why the text is no bin
// file.
struct VecFile {
  std::vector<tBinVector> bins;
  std::string error;  // empty for a valid bin file
};
VecFile ReadVecFile(std::string_view text);

// Whether the edge (x1, y1)-(x2, y2) meets the line through (x3, y3) and
// (x4, y4) anywhere up to (x4, y4). A vertical edge never does.
bool CheckSegmentsIntersect(float x1, float y1, float x2, float y2, float x3, float y3, float x4,
                            float y4);

// The established rule: the first of `bins` whose edges the segment from the
// origin to (x, y) crosses exactly once; null when none.
const tBinVector* FindBinByOneCrossing(const std::vector<tBinVector>& bins, float x, float y);

// Whether the polygon of `bin` holds the finite point (x, y): inside by the
// even-odd rule, or on an edge or corner. Computed without rounding; a bin
// with a corner that is not a finite number holds nothing.
bool BinHolds(const tBinVector& bin, float x, float y);

// The first of `bins` that holds (x, y); null when none.
const tBinVector* FindBinHolding(const std::vector<tBinVector>& bins, float x, float y);

// What in the shape of `bin` lets the established rule put some of its
// points in the wrong place; empty when nothing does.
std::vector<std::string> OneCrossingRisks(const tBinVector& bin);

}  // namespace zeltocom
