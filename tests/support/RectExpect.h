// Comparing a rectangle with four figures, with a message that shows both.
//   EXPECT_TRUE(RectIs(rect, left, top, right, bottom));
#ifndef VT_TESTS_SUPPORT_RECT_EXPECT_H
#define VT_TESTS_SUPPORT_RECT_EXPECT_H

#include <gtest/gtest.h>

template <class Rect>
::testing::AssertionResult RectIs(const Rect& r, long left, long top, long right, long bottom) {
  if (r.left == left && r.top == top && r.right == right && r.bottom == bottom) {
    return ::testing::AssertionSuccess();
  }
  return ::testing::AssertionFailure() << "rect is (" << r.left << ", " << r.top << ", " << r.right
                                       << ", " << r.bottom << "), expected (" << left << ", "
                                       << top << ", " << right << ", " << bottom << ")";
}

#endif
