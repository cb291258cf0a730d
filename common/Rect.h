// Rectangles in layer pixels, right and bottom exclusive, and their helpers. They work on
// any record with the fields left, top, right and bottom (the host's PF_LRect and PF_Rect
// among them), so nothing here needs the host API's headers.
#ifndef VT_COMMON_RECT_H
#define VT_COMMON_RECT_H

#include <algorithm>
#include <cstdint>

// True when left >= right or top >= bottom.
template <class Rect>
constexpr bool IsEmptyRect(const Rect* rect) {
  return rect->left >= rect->right || rect->top >= rect->bottom;
}

template <class Rect>
constexpr bool SameRect(const Rect& a, const Rect& b) {
  return a.left == b.left && a.top == b.top && a.right == b.right && a.bottom == b.bottom;
}

// dst becomes the bounding box of both; an empty dst takes src, an empty src changes nothing.
template <class Rect>
void UnionLRect(const Rect* src, Rect* dst) {
  if (IsEmptyRect(dst)) {
    *dst = *src;
  } else if (!IsEmptyRect(src)) {
    dst->left = std::min(dst->left, src->left);
    dst->top = std::min(dst->top, src->top);
    dst->right = std::max(dst->right, src->right);
    dst->bottom = std::max(dst->bottom, src->bottom);
  }
}

// rect is cut to its common part with `with`; when they do not meet the result is empty
// (IsEmptyRect) with the edges the cut left.
template <class Rect>
void IntersectRect(Rect& rect, const Rect& with) {
  rect.left = std::max(rect.left, with.left);
  rect.top = std::max(rect.top, with.top);
  rect.right = std::min(rect.right, with.right);
  rect.bottom = std::min(rect.bottom, with.bottom);
}

// True when inner lies wholly inside outer (an empty inner is inside nothing).
template <class Rect>
constexpr bool RectInside(const Rect& inner, const Rect& outer) {
  return !IsEmptyRect(&inner) && inner.left >= outer.left && inner.top >= outer.top &&
         inner.right <= outer.right && inner.bottom <= outer.bottom;
}

#endif  // VT_COMMON_RECT_H
