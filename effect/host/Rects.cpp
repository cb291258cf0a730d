#include "host/Rects.h"

#include <algorithm>
#include <cmath>

bool IsEdgePixel(PF_LRect* rect, int32_t x, int32_t y) {
  const bool onVerticalEdge =
      (x == rect->left || x == rect->right) && rect->top <= y && y <= rect->bottom;
  const bool onHorizontalEdge =
      (y == rect->top || y == rect->bottom) && rect->left <= x && x <= rect->right;
  return onVerticalEdge || onHorizontalEdge;
}

namespace {

constexpr int32_t kStartBound = 1000000000;

// Nearest integer, ties to even, of a finite coordinate held within +-kMaxRectBound.
int32_t RoundBound(float v) {
  const float held = std::min(kMaxRectBound, std::max(-kMaxRectBound, v));
  return static_cast<int32_t>(std::nearbyint(held));
}

struct Bounds {
  int32_t minX = kStartBound;
  int32_t minY = kStartBound;
  int32_t maxX = -kStartBound;
  int32_t maxY = -kStartBound;
};

void FoldPoint(Bounds& bounds, const VtAFXLensData& lens, RectPointMap map, float x, float y) {
  const VtPt mapped = map(lens, VtPt{x, y});
  if (!std::isfinite(mapped.x) || !std::isfinite(mapped.y)) {
    return;
  }
  const int32_t ix = RoundBound(mapped.x);
  const int32_t iy = RoundBound(mapped.y);
  bounds.minX = std::min(bounds.minX, ix);
  bounds.minY = std::min(bounds.minY, iy);
  bounds.maxX = std::max(bounds.maxX, ix);
  bounds.maxY = std::max(bounds.maxY, iy);
}

}  // namespace

PF_LRect MapRectBounds(const PF_LRect& rect, const VtAFXLensData& lens, RectPointMap map) {
  // Formed in 64 bits so that a host rectangle at the int32 limits cannot wrap.
  const float x0 = static_cast<float>(static_cast<int64_t>(rect.left) - 2);
  const float y0 = static_cast<float>(static_cast<int64_t>(rect.top) - 2);
  const float x1 = static_cast<float>(static_cast<int64_t>(rect.right) + 1);
  const float y1 = static_cast<float>(static_cast<int64_t>(rect.bottom) + 1);
  const float dx = (x1 - x0) * 0.1f;
  const float dy = (y1 - y0) * 0.1f;

  Bounds bounds;
  for (int i = 0; i <= 10; ++i) {
    // The far ends are reached by ten steps, not by reusing x1 and y1.
    const float xi = dx * static_cast<float>(i) + x0;
    const float yi = dy * static_cast<float>(i) + y0;
    FoldPoint(bounds, lens, map, xi, y0);
    FoldPoint(bounds, lens, map, xi, y1);
    FoldPoint(bounds, lens, map, x0, yi);
    FoldPoint(bounds, lens, map, x1, yi);
  }
  return PF_LRect{bounds.minX - 2, bounds.minY - 2, bounds.maxX + 3, bounds.maxY + 3};
}
