// The inverse of the lens polynomial, tabulated once per pre-render so that Apply needs one
// linear interpolation per pixel instead of a Newton solve.
#ifndef VT_LENS_INVERSETABLE_H
#define VT_LENS_INVERSETABLE_H

#include "lens/LensData.h"

// Fills inverseTable (2049 samples over [0, limitDistorted] plus a copy of the last) and sets
// tableValid: 1 only when the geometry is finite and interpolation stays within 1.5 pixels.
void BuildInverseTable(VtAFXLensData& lens);

// Internal: the worst error of linear interpolation in the table at the 2048 interval
// midpoints, in normalised units times half the undistorted width. NaN errors are ignored.
float InverseTableMaxError(const VtAFXLensData& lens);

// Internal: whether the frame transform, the limit and lutScale are all finite (and positive
// where a table index depends on it), so that every lookup index stays inside the table.
bool InverseTableUsable(const VtAFXLensData& lens);

#endif
