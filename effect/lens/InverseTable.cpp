#include "lens/InverseTable.h"

#include <cmath>

#include "lens/PointMapping.h"

namespace {

// The undistorted radius for distorted radius r, as the table stores it.
float UndistortedRadius(const VtAFXLensData& lens, float r) {
  const float ratio = r == 0.0f ? 1.0f : UndistortRatio(lens, r);
  return r * ratio;
}

float TableStep(const VtAFXLensData& lens) {
  return lens.limitDistorted * 0.00048828125f;  // exactly limitDistorted / 2048
}

}  // namespace

float InverseTableMaxError(const VtAFXLensData& lens) {
  const float step = TableStep(lens);
  const float halfWidth = static_cast<float>(lens.undistortedWidth) * 0.5f;
  const float* table = lens.inverseTable;
  float maxError = 0.0f;
  for (int i = 0; i < kInverseTableIntervals; ++i) {
    const float rm = (static_cast<float>(i) + 0.5f) * step;
    const float exact = UndistortedRadius(lens, rm);
    const float interpolated = (table[i] + table[i + 1]) * 0.5f;
    const float error = std::fabs((interpolated - exact) * halfWidth);
    if (error > maxError) maxError = error;  // a NaN error never wins
  }
  return maxError;
}

bool InverseTableUsable(const VtAFXLensData& lens) {
  const float transform[8] = {lens.normScaleX, lens.normScaleY, lens.normOffsetX,
                              lens.normOffsetY, lens.pixScaleX,  lens.pixScaleY,
                              lens.pixOffsetX,  lens.pixOffsetY};
  for (float v : transform) {
    if (!std::isfinite(v)) return false;
  }
  // A finite radius times a finite positive scale never gives a NaN index, and the clamp to
  // 0..2048 handles everything else.
  return std::isfinite(lens.limitDistorted) && lens.limitDistorted > 0.0f &&
         std::isfinite(lens.limitUndistorted) && lens.limitUndistorted > 0.0f &&
         std::isfinite(lens.lutScale) && lens.lutScale > 0.0f;
}

void BuildInverseTable(VtAFXLensData& lens) {
  const float step = TableStep(lens);
  float* table = lens.inverseTable;
  for (int i = 0; i <= kInverseTableIntervals; ++i) {
    table[i] = UndistortedRadius(lens, static_cast<float>(i) * step);
  }
  // Interpolation at index 2048 reads one entry further.
  table[kInverseTableIntervals + 1] = table[kInverseTableIntervals];

  const float maxError = InverseTableMaxError(lens);
  lens.tableValid = (InverseTableUsable(lens) && maxError < 1.5f) ? 1 : 0;
}
