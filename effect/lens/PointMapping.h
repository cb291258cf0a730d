// Scalar lens mappings, one point or one radius at a time. The pre-render maps rectangle
// borders with them, the inverse table is sampled with UndistortRatio, and the run mapping
// falls back to UndistortRatio when the table is not accurate enough.
#ifndef VT_LENS_POINTMAPPING_H
#define VT_LENS_POINTMAPPING_H

#include "lens/LensData.h"

struct VtPt {
  float x;
  float y;
};

// u / r for the undistorted radius u with P(u) = r (Newton's method in double), u held at
// limitUndistorted from limitDistorted on; 1 for r = 0.
float UndistortRatio(const VtAFXLensData& lens, float r);

// Through the inverse polynomial: Apply's output-to-input mapping, and Remove's mapping of
// input positions back to output positions.
void UndistortPt(const VtAFXLensData* lens, const VtPt& in, VtPt* out);

// Through the forward polynomial with the radius held at the monotonic limit: Remove's
// output-to-input mapping, and Apply's mapping of input positions back to the output.
VtPt DistortPt(const VtAFXLensData& lens, VtPt p);

#endif
