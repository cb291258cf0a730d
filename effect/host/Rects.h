// Rectangle utilities of the smart pre-render (IsEmptyRect, UnionLRect and the other
// helpers shared with the host: common/Rect.h).
#ifndef VT_HOST_RECTS_H
#define VT_HOST_RECTS_H

#include <cstdint>

#include "AE_Effect.h"
#include "common/Rect.h"
#include "lens/LensData.h"
#include "lens/PointMapping.h"

// True when (x, y) lies on the border line of rect, right and bottom edges included.
bool IsEdgePixel(PF_LRect* rect, int32_t x, int32_t y);

// A point mapping through the lens record (one direction of the lens).
using RectPointMap = VtPt (*)(const VtAFXLensData& lens, VtPt p);

// Bounds of the border of `rect` mapped through `map`: 11 points along each side of a border
// two pixels outside the rectangle, reached by ten float steps from the top-left corner,
// rounded to the nearest integer (ties to even) and widened by -2 / +3.
// A mapped point that is not finite is left out, and every rounded coordinate is held within
// +-1e9, so the margins never overflow; when no point is finite the result is empty.
PF_LRect MapRectBounds(const PF_LRect& rect, const VtAFXLensData& lens, RectPointMap map);

// Largest magnitude a mapped bound may take.
constexpr float kMaxRectBound = 1.0e9f;

#endif
