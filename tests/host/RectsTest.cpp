// Rectangle utilities and the mapping of a rectangle's border through a point mapping.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <limits>
#include <vector>

#include "host/Rects.h"

namespace {

void ExpectRect(const PF_LRect& r, int left, int top, int right, int bottom) {
  EXPECT_EQ(r.left, left);
  EXPECT_EQ(r.top, top);
  EXPECT_EQ(r.right, right);
  EXPECT_EQ(r.bottom, bottom);
}

VtAFXLensData AnyLens() {
  VtAFXLensData lens{};
  return lens;
}

TEST(RectUtilities, EmptyRectangles) {
  const PF_LRect noWidth{5, 5, 5, 10}, noHeight{0, 7, 10, 7}, pixel{0, 0, 1, 1};
  const PF_LRect inverted{3, 0, 2, 5};
  EXPECT_TRUE(IsEmptyRect(&noWidth));
  EXPECT_TRUE(IsEmptyRect(&noHeight));
  EXPECT_TRUE(IsEmptyRect(&inverted));
  EXPECT_FALSE(IsEmptyRect(&pixel));
}

TEST(RectUtilities, UnionTakesSourceIntoEmptyAndBoundsBoth) {
  const PF_LRect src{0, 0, 4, 4};
  PF_LRect empty{9, 9, 9, 9};
  UnionLRect(&src, &empty);
  ExpectRect(empty, 0, 0, 4, 4);

  PF_LRect dst{2, 2, 6, 6};
  UnionLRect(&src, &dst);
  ExpectRect(dst, 0, 0, 6, 6);

  const PF_LRect emptySrc{-50, -50, -50, 100};
  UnionLRect(&emptySrc, &dst);
  ExpectRect(dst, 0, 0, 6, 6);
}

TEST(RectUtilities, EdgePixelIncludesRightAndBottomLines) {
  PF_LRect r{0, 0, 10, 10};
  EXPECT_TRUE(IsEdgePixel(&r, 10, 5));
  EXPECT_TRUE(IsEdgePixel(&r, 3, 0));
  EXPECT_TRUE(IsEdgePixel(&r, 10, 10));
  EXPECT_TRUE(IsEdgePixel(&r, 0, 10));
  EXPECT_FALSE(IsEdgePixel(&r, 5, 5));
  EXPECT_FALSE(IsEdgePixel(&r, 11, 0));
  EXPECT_FALSE(IsEdgePixel(&r, 10, 11));
}

// --- MapRectBounds -------------------------------------------------------------------------

std::vector<VtPt> mapped_points;

VtPt RecordingIdentity(const VtAFXLensData&, VtPt p) {
  mapped_points.push_back(p);
  return p;
}
VtPt ShiftLeftHalf(const VtAFXLensData&, VtPt p) { return VtPt{p.x - 0.5f, p.y}; }
VtPt NanLeftOfZero(const VtAFXLensData&, VtPt p) {
  return p.x < 0.0f ? VtPt{std::numeric_limits<float>::quiet_NaN(), p.y} : p;
}
VtPt AlwaysNan(const VtAFXLensData&, VtPt) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  return VtPt{nan, nan};
}
VtPt Explode(const VtAFXLensData&, VtPt p) {
  // Far beyond int32 on both sides, with infinities at the corners.
  const float inf = std::numeric_limits<float>::infinity();
  if (p.x < 0.0f && p.y < 0.0f) return VtPt{-inf, -inf};
  return VtPt{p.x * 1e30f, p.y * 1e30f};
}

TEST(MapRectBounds, IdentityOfFullFrameWidensByMargins) {
  mapped_points.clear();
  const PF_LRect r = MapRectBounds(PF_LRect{0, 0, 1920, 1080}, AnyLens(), RecordingIdentity);
  // Border at -2 and right/bottom + 1, then -2 / +3.
  ExpectRect(r, -4, -4, 1924, 1084);
}

TEST(MapRectBounds, MapsOnlyFortyFourBorderPoints) {
  mapped_points.clear();
  MapRectBounds(PF_LRect{10, 20, 110, 70}, AnyLens(), RecordingIdentity);
  ASSERT_EQ(mapped_points.size(), 44u);
  int onBorder = 0;
  for (const VtPt& p : mapped_points) {
    const bool vertical = std::fabs(p.x - 8.0f) < 1e-3f || std::fabs(p.x - 111.0f) < 1e-3f;
    const bool horizontal = std::fabs(p.y - 18.0f) < 1e-3f || std::fabs(p.y - 71.0f) < 1e-3f;
    onBorder += (vertical || horizontal) ? 1 : 0;
    EXPECT_GE(p.x, 8.0f - 1e-3f);
    EXPECT_LE(p.x, 111.0f + 1e-3f);
    EXPECT_GE(p.y, 18.0f - 1e-3f);
    EXPECT_LE(p.y, 71.0f + 1e-3f);
  }
  EXPECT_EQ(onBorder, 44);
}

TEST(MapRectBounds, RoundsHalvesToEven) {
  // Border x from -2 to 3; shifted by -0.5 the ends land on -2.5 and 2.5, which round to -2
  // and 2 (away from zero would give -3 and 3).
  const PF_LRect r = MapRectBounds(PF_LRect{0, 0, 2, 2}, AnyLens(), ShiftLeftHalf);
  ExpectRect(r, -4, -4, 5, 6);
}

TEST(MapRectBounds, LeavesOutNonFinitePoints) {
  // Border x runs -2, -0.7, 0.6, ... (steps of 1.3); the points left of 0 are not finite.
  const PF_LRect r = MapRectBounds(PF_LRect{0, 0, 10, 10}, AnyLens(), NanLeftOfZero);
  ExpectRect(r, 1 - 2, -2 - 2, 11 + 3, 11 + 3);
}

TEST(MapRectBounds, NoFinitePointGivesEmptyRectangle) {
  const PF_LRect r = MapRectBounds(PF_LRect{0, 0, 10, 10}, AnyLens(), AlwaysNan);
  EXPECT_TRUE(IsEmptyRect(&r));
}

TEST(MapRectBounds, HugeResultsStayWithinInt32) {
  const PF_LRect r = MapRectBounds(PF_LRect{-5, -5, 5, 5}, AnyLens(), Explode);
  EXPECT_EQ(r.left, -1000000000 - 2);
  EXPECT_EQ(r.top, -1000000000 - 2);
  EXPECT_EQ(r.right, 1000000000 + 3);
  EXPECT_EQ(r.bottom, 1000000000 + 3);
}

TEST(MapRectBounds, HostRectangleAtInt32LimitsDoesNotWrap) {
  mapped_points.clear();
  const PF_LRect r =
      MapRectBounds(PF_LRect{INT_MIN, INT_MIN, INT_MAX, INT_MAX}, AnyLens(), RecordingIdentity);
  EXPECT_EQ(r.left, -1000000000 - 2);
  EXPECT_EQ(r.right, 1000000000 + 3);
  // The border starts left of the rectangle, not wrapped around to the far right.
  EXPECT_LT(mapped_points.front().x, -2.0e9f);
}

}  // namespace
