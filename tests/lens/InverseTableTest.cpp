// The inverse radius table: its samples against the reference inverse, its accuracy figures
// and the validity decision.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "LensTestSupport.h"
#include "lens/PointMapping.h"

namespace {

using lenstest::LD;
using lenstest::LensParams;
using lenstest::MakeLens;
using lenstest::MakeRef;

struct TableFigure {
  double quadX1000;
  float maxError;  // approximate
  int valid;
};

TEST(InverseTableTest, AccuracyFiguresForAWideFrame) {
  // A = 16/9, undistorted width 1920.
  const TableFigure figures[] = {
      {0, 0.0002f, 1}, {-50, 0.0014f, 1}, {-200, 4.6f, 0}, {-20000, 0.41f, 1}, {100, 0.0005f, 1}};
  for (const auto& figure : figures) {
    SCOPED_TRACE(figure.quadX1000);
    for (int mode : {kModeRemove, kModeApply}) {  // built the same in both
      LensParams p;
      p.quadX1000 = figure.quadX1000;
      p.mode = mode;
      auto lens = MakeLens(p);
      EXPECT_NEAR(InverseTableMaxError(*lens), figure.maxError, 0.25f * figure.maxError);
      EXPECT_EQ(lens->tableValid, figure.valid);
      EXPECT_EQ(lens->inverseTable[0], 0.0f);
      EXPECT_EQ(lens->inverseTable[2049], lens->inverseTable[2048]);
      EXPECT_FLOAT_EQ(lens->inverseTable[2048], lens->limitUndistorted);
    }
  }
}

TEST(InverseTableTest, ZeroCoefficientsTabulateTheIdentity) {
  auto lens = MakeLens(LensParams());
  const float step = lens->limitDistorted / 2048.0f;
  for (int i = 0; i <= 2048; ++i) ASSERT_EQ(lens->inverseTable[i], float(i) * step) << i;
}

TEST(InverseTableTest, SamplesAgreeWithTheReferenceInverse) {
  // Entry i is P^-1(i * limitDistorted / 2048). The solver stops once |P(u) - r| < 1e-6,
  // so an entry may be off by about 1e-6 / P'(u), plus float rounding of u; samples where
  // P' has all but vanished (the last before a peak) or the solver does not reach the
  // root are left out.
  std::mt19937 rng(99);
  for (int n = 0; n < 30; ++n) {
    const LensParams p = lenstest::RandomParams(rng, kModeApply);
    auto lens = MakeLens(p);
    const auto ref = MakeRef(p);
    SCOPED_TRACE(testing::Message() << "k " << p.quadX1000 << " " << p.cubeX1000 << " "
                                    << p.quarX1000);
    const LD step = LD(lens->limitDistorted) / 2048;
    for (int i = 1; i < 2048; ++i) {
      const LD r = float(i) * float(step);
      if (r >= ref.P(ref.uLimit)) break;
      const LD u = ref.InverseP(r);
      if (ref.dP(u) < 0.01L || !lenstest::NewtonFindsTheRoot(ref, r)) continue;
      const LD tol = 2e-6L / ref.dP(u) + 4 * std::ldexp(1.0L, -24) * u;
      ASSERT_NEAR(lens->inverseTable[i], u, tol) << "entry " << i;
    }
  }
}

// A flat lens (P = identity) whose limit is faked so that only the last interval errs:
// entries i / 2048 for i < 2048 and 1 + 2^-10 at 2048. The midpoint of the last interval is
// then off by 2^-11 normalised units, i.e. by width / 4096 pixels.
std::unique_ptr<VtAFXLensData> LastIntervalOff(int undistortedWidth) {
  LensParams p;
  p.wd = p.wu = undistortedWidth;
  auto lens = MakeLens(p);
  lens->limitDistorted = 1.0f;
  lens->limitUndistorted = 1.0f + std::ldexp(1.0f, -10);
  lens->lutScale = 2048.0f;
  BuildInverseTable(*lens);
  return lens;
}

TEST(InverseTableTest, AnErrorOfExactlyOneAndAHalfPixelsIsRefused) {
  auto atLimit = LastIntervalOff(6144);
  EXPECT_EQ(InverseTableMaxError(*atLimit), 1.5f);
  EXPECT_EQ(atLimit->tableValid, 0);

  auto justBelow = LastIntervalOff(6142);
  EXPECT_FLOAT_EQ(InverseTableMaxError(*justBelow), 6142.0f / 4096.0f);
  EXPECT_EQ(justBelow->tableValid, 1);
}

TEST(InverseTableTest, NotANumberErrorsAreIgnored) {
  auto lens = LastIntervalOff(6144);
  lens->inverseTable[5] = std::numeric_limits<float>::quiet_NaN();
  lens->inverseTable[700] = std::numeric_limits<float>::quiet_NaN();
  EXPECT_EQ(InverseTableMaxError(*lens), 1.5f);
  lens->inverseTable[2048] = 1.0f;  // now every finite midpoint is exact
  EXPECT_EQ(InverseTableMaxError(*lens), 0.0f);
}

TEST(InverseTableTest, ValidOnlyWithFiniteGeometry) {
  // Every error being NaN would measure as 0; the table must still be refused.
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  LensParams p;
  p.quadX1000 = nan;
  EXPECT_EQ(MakeLens(p)->tableValid, 0);
  p = LensParams();
  p.cubeX1000 = inf;
  EXPECT_EQ(MakeLens(p)->tableValid, 0);
  p = LensParams();
  p.hu = 0;  // infinite frame aspect: no limit search, limit 0
  EXPECT_EQ(MakeLens(p)->tableValid, 0);
  p = LensParams();
  p.wu = 0;  // zero frame aspect: 0 * infinity in the transform
  EXPECT_EQ(MakeLens(p)->tableValid, 0);
  p = LensParams();
  p.pa = nan;
  EXPECT_EQ(MakeLens(p)->tableValid, 0);

  // The rule itself, on an otherwise good record.
  auto lens = MakeLens(LensParams());
  ASSERT_TRUE(InverseTableUsable(*lens));
  for (float bad : {0.0f, -1.0f, float(inf), float(nan)}) {
    auto copy = *lens;
    copy.lutScale = bad;
    EXPECT_FALSE(InverseTableUsable(copy)) << bad;
    copy = *lens;
    copy.limitDistorted = bad;
    EXPECT_FALSE(InverseTableUsable(copy)) << bad;
  }
  auto copy = *lens;
  copy.pixScaleY = float(inf);
  EXPECT_FALSE(InverseTableUsable(copy));
}

}  // namespace
