// An output-to-input position map for a purely quadratic radial lens, written on its own for
// the peer tools of the comparison (OpenCV remap, the ST map of oiiotool): it shares no code
// with the effect, so the peers do the same geometric work without borrowing ours.
//
// The lens: r = u * (1 + k2 * u^2) between an undistorted radius u and a distorted radius r,
// both in units of half the image height, centred on (W/2, H/2); a pixel's position is its
// integer index. Input and output frames have the same size and square pixels.
//   Remove: the output is undistorted; output pixel at radius u reads the input at P(u).
//   Apply:  the output is distorted; output pixel at radius r reads the input at P^-1(r).
// P is inverted only where it rises, up to the frame's corner radius plus 2 %; beyond that
// the undistorted radius is held at the limit.
#ifndef VT_BENCH_COMPARE_LENSMAP_H
#define VT_BENCH_COMPARE_LENSMAP_H

#include <vector>

namespace compare {

enum class LensDirection { Remove, Apply };

struct QuadraticLens {
  int width = 0, height = 0;
  double k2 = 0.0;
  LensDirection direction = LensDirection::Remove;
};

// Per-frame state of the map: the frame transform and, for Apply, a table of u/r over r.
struct LensMapPlan {
  QuadraticLens lens;
  float centreX = 0, centreY = 0;   // pixels
  float unitPixels = 1;             // pixels per normalised unit (H/2)
  float invUnit = 1;
  float k2 = 0;
  // Apply only: ratio u/r at r = i / tableScale for i = 0 .. size-1; beyond rLimit the
  // ratio is uLimit / r.
  std::vector<float> ratioTable;
  float tableScale = 0;
  float rLimit = 0, uLimit = 0;
};

// Everything a frame needs before its rows: the transform and, for Apply, the inverse table
// (a few thousand Newton solves). Cheap next to the rows; done once per frame.
LensMapPlan PlanLensMap(const QuadraticLens& lens);

// Input positions (x, y) of output pixel (x, y) for rows [rowBegin, rowEnd), written to
// mapX/mapY at (y - rowBegin) * stride + x. Safe to call for disjoint row ranges at once.
void BuildLensMapRows(const LensMapPlan& plan, int rowBegin, int rowEnd, float* mapX,
                      float* mapY, int stride);

// The same, for one position (used to check the map against known figures).
void MapOutputToInput(const LensMapPlan& plan, float x, float y, float* inX, float* inY);

}  // namespace compare

#endif
