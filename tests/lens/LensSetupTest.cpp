// The lens record's setup: parameter conversion, frame transform, output frame and the
// monotonic limit of the lens polynomial.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "LensTestSupport.h"

namespace {

using lenstest::LensParams;
using lenstest::MakeLens;
using lenstest::MakeRef;

void ExpectRect(const PF_LRect& r, int left, int top, int right, int bottom) {
  EXPECT_EQ(r.left, left);
  EXPECT_EQ(r.top, top);
  EXPECT_EQ(r.right, right);
  EXPECT_EQ(r.bottom, bottom);
}

TEST(LensSetupTest, MaxResultRectCoversTheUndistortedFrame) {
  LensParams p;  // defaults: 1920 x 1080 both sides, pixel aspect 1
  p.mode = kModeRemove;
  ExpectRect(MakeLens(p)->maxResultRect, 0, 0, 1921, 1081);
  p.mode = kModeApply;
  ExpectRect(MakeLens(p)->maxResultRect, 0, 0, 1921, 1081);

  // Larger undistorted size: in Remove the frame is centred on the distorted layer, and the
  // top of -22.5 truncates toward zero.
  p.wu = 2000;
  p.hu = 1125;
  p.mode = kModeRemove;
  ExpectRect(MakeLens(p)->maxResultRect, -40, -22, 1961, 1104);
  p.mode = kModeApply;
  ExpectRect(MakeLens(p)->maxResultRect, 0, 0, 2001, 1126);

  // Equal sizes with pixel aspect 2: the middle half of the layer width.
  LensParams wide;
  wide.pa = 2.0;
  ExpectRect(MakeLens(wide)->maxResultRect, 480, 0, 1441, 1081);

  // Different widths with pixel aspect 4/3: the undistorted image has square pixels.
  LensParams anamorphic;
  anamorphic.wd = 1440;
  anamorphic.pa = 4.0 / 3.0;
  ExpectRect(MakeLens(anamorphic)->maxResultRect, 0, 0, 1441, 1081);
}

TEST(LensSetupTest, FrameTransformMatchesTheGeometry) {
  // Centre and scale of the normalised frame, from the reference description, and the pix*
  // fields inverting the norm* fields per axis, for assorted sizes and aspects.
  std::mt19937 rng(17);
  std::uniform_int_distribution<int> size(16, 4096);
  const double aspects[] = {1.0, 2.0, 4.0 / 3.0, 0.9, 0.1, 10.0};
  for (int n = 0; n < 60; ++n) {
    LensParams p;
    p.mode = n % 2 == 0 ? kModeRemove : kModeApply;
    p.wd = size(rng);
    p.hd = size(rng);
    if (n % 3 == 0) {
      p.wu = p.wd;
      p.hu = p.hd;
    } else {
      p.wu = size(rng);
      p.hu = size(rng);
    }
    p.pa = aspects[n % 6];
    auto lens = MakeLens(p);
    const auto ref = MakeRef(p);
    SCOPED_TRACE(testing::Message() << "case " << n);
    EXPECT_NEAR(lens->normScaleX / ref.sx, 1.0, 1e-6);
    EXPECT_NEAR(lens->normScaleY / ref.sy, 1.0, 1e-6);
    // The centre maps to the origin, and back.
    EXPECT_NEAR(ref.cx * lens->normScaleX + lens->normOffsetX, 0.0, 1e-5);
    EXPECT_NEAR(ref.cy * lens->normScaleY + lens->normOffsetY, 0.0, 1e-5);
    EXPECT_NEAR(lens->pixOffsetX, ref.cx, 1e-3);
    EXPECT_NEAR(lens->pixOffsetY, ref.cy, 1e-3);
    EXPECT_NEAR(double(lens->pixScaleX) * lens->normScaleX, 1.0, 1e-6);
    EXPECT_NEAR(double(lens->pixScaleY) * lens->normScaleY, 1.0, 1e-6);
  }
}

TEST(LensSetupTest, AnyModeOtherThanApplyMapsAsRemove) {
  LensParams p;
  p.quadX1000 = -80;
  p.wu = 2000;
  p.hu = 1125;
  p.pa = 1.5;
  auto remove = MakeLens(p);
  for (int mode : {-1, 0, 3, 7}) {
    p.mode = mode;
    auto other = MakeLens(p);
    EXPECT_EQ(other->normScaleX, remove->normScaleX);
    EXPECT_EQ(other->normOffsetX, remove->normOffsetX);
    EXPECT_EQ(other->normOffsetY, remove->normOffsetY);
    EXPECT_EQ(other->pixScaleX, remove->pixScaleX);
    EXPECT_EQ(other->pixOffsetX, remove->pixOffsetX);
    EXPECT_EQ(other->pixOffsetY, remove->pixOffsetY);
    EXPECT_EQ(other->maxResultRect.left, remove->maxResultRect.left);
    EXPECT_EQ(other->maxResultRect.top, remove->maxResultRect.top);
  }
}

TEST(MonotonicLimitTest, StopsOneStepPastTheFrameCornerWhenPRisesThroughout) {
  // A = 16/9: the corner radius plus 2 % is about 2.080523; the search stops at the first
  // 0.002 step that reaches it and no finer pass runs.
  const double searchEnd = std::sqrt(256.0 / 81.0 + 1.0) * 1.02;
  LensParams p;
  auto flat = MakeLens(p);
  EXPECT_NEAR(flat->limitUndistorted, 2.081985, 1e-6);
  EXPECT_EQ(flat->limitDistorted, flat->limitUndistorted);
  EXPECT_GE(flat->limitUndistorted, searchEnd - 1e-6);
  EXPECT_LT(flat->limitUndistorted, searchEnd + 0.002);

  p.quadX1000 = -50;
  auto barrel = MakeLens(p);
  EXPECT_NEAR(barrel->limitUndistorted, 2.081985, 1e-6);
  EXPECT_NEAR(barrel->limitDistorted, 1.630750, 1e-6);

  p.quadX1000 = 100;
  EXPECT_NEAR(MakeLens(p)->limitDistorted, 2.984456, 1e-6);
}

TEST(MonotonicLimitTest, StopsJustBelowThePeakOfP) {
  LensParams p;
  p.quadX1000 = -200;  // P' = 1 - 0.6 u^2 vanishes at 1.290994
  auto lens = MakeLens(p);
  EXPECT_NEAR(lens->limitUndistorted, 1.290951, 1e-6);
  EXPECT_NEAR(lens->limitDistorted, 0.860663, 1e-6);
  EXPECT_LT(lens->limitUndistorted, 1.0 / std::sqrt(0.6));

  p.quadX1000 = -20000;  // P' vanishes at 1/sqrt(60) = 0.129099
  lens = MakeLens(p);
  EXPECT_NEAR(lens->limitUndistorted, 0.128960, 1e-6);
  EXPECT_NEAR(lens->limitDistorted, 0.086066, 1e-6);
  EXPECT_LT(lens->limitUndistorted, 1.0 / std::sqrt(60.0));
}

TEST(MonotonicLimitTest, RandomCoefficientsGiveAPositiveRefinedLimit) {
  // Within the slider ranges the limit is positive, P rises up to it, limitDistorted is P
  // there, and the finest pass leaves it within a few fine steps of where P stops rising.
  std::mt19937 rng(5);
  std::uniform_real_distribution<double> coefficient(-20000.0, 20000.0);
  std::uniform_real_distribution<double> small(-500.0, 500.0);
  for (int n = 0; n < 40; ++n) {
    LensParams p;
    p.quadX1000 = n % 2 ? coefficient(rng) : small(rng);
    p.cubeX1000 = n % 3 ? coefficient(rng) : 0.0;
    p.quarX1000 = n % 5 ? small(rng) : 0.0;
    auto lens = MakeLens(p);
    const auto ref = MakeRef(p);
    SCOPED_TRACE(testing::Message() << "k = " << p.quadX1000 << ", " << p.cubeX1000 << ", "
                                    << p.quarX1000);
    ASSERT_GT(lens->limitUndistorted, 0.0f);
    ASSERT_GT(lens->limitDistorted, 0.0f);
    EXPECT_NEAR(lens->limitDistorted / ref.P(lens->limitUndistorted), 1.0, 1e-6);
    EXPECT_LE(lens->limitUndistorted, ref.uLimit + 0.002);
    EXPECT_GE(lens->limitUndistorted, ref.uLimit - 0.0006);
  }
}

TEST(LensParamTest, PointSizesRoundToNearestEven) {
  EXPECT_EQ(PointToPixels(0x00640000), 100);
  EXPECT_EQ(PointToPixels(0x00008000), 0);    // 0.5
  EXPECT_EQ(PointToPixels(0x00018000), 2);    // 1.5
  EXPECT_EQ(PointToPixels(0x00028000), 2);    // 2.5
  EXPECT_EQ(PointToPixels(0x00028001), 3);
  EXPECT_EQ(PointToPixels(-0x00018000), -2);  // -1.5
  // Converted to single precision first: 0x7FFFFFFF becomes 2^31, i.e. 32768 pixels.
  EXPECT_EQ(PointToPixels(0x7FFFFFFF), 32768);
  EXPECT_EQ(PointToPixels(INT32_MIN), -32768);
}

TEST(LensParamTest, StoresEachParameterInItsField) {
  VtAFXLensData lens;
  std::memset(&lens, 0, sizeof(lens));
  PF_ParamDef def;
  std::memset(&def, 0, sizeof(def));
  def.u.pd.value = 2;
  StoreLensParam(lens, 1, def);
  def.u.pd.value = 6;
  StoreLensParam(lens, 2, def);
  std::memset(&def, 0, sizeof(def));
  def.u.fs_d.value = -50.0;
  StoreLensParam(lens, 3, def);
  def.u.fs_d.value = 20000.0;
  StoreLensParam(lens, 4, def);
  def.u.fs_d.value = 1234.5;
  StoreLensParam(lens, 5, def);
  def.u.fs_d.value = 2.5;
  StoreLensParam(lens, 6, def);
  def.u.fs_d.value = 1.333;
  StoreLensParam(lens, 8, def);
  std::memset(&def, 0, sizeof(def));
  def.u.td.x_value = 1920 << 16;
  def.u.td.y_value = (1080 << 16) + 0x8000;  // 1080.5 -> 1080
  StoreLensParam(lens, 7, def);
  def.u.td.x_value = 2000 << 16;
  def.u.td.y_value = (1125 << 16) + 0x8000;  // 1125.5 -> 1126
  StoreLensParam(lens, 9, def);

  EXPECT_EQ(lens.distortMode, 2);
  EXPECT_EQ(lens.filterType, 6);
  EXPECT_EQ(lens.quadratic, -50.0 * 0.001);
  EXPECT_EQ(lens.cubic, 20000.0 * 0.001);
  EXPECT_EQ(lens.quartic, 1234.5 * 0.001);
  EXPECT_EQ(lens.zoom, 2.5);
  EXPECT_EQ(lens.pixelAspect, 1.333);
  EXPECT_EQ(lens.distortedWidth, 1920);
  EXPECT_EQ(lens.distortedHeight, 1080);
  EXPECT_EQ(lens.undistortedWidth, 2000);
  EXPECT_EQ(lens.undistortedHeight, 1126);
}

}  // namespace
