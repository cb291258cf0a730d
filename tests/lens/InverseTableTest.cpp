// The inverse radius table: its accuracy figures and the validity decision. Its samples are
// checked against the reference inverse through Apply's table path (RunMappingTest).
#include "LensTestSupport.h"

namespace {

using namespace lenstest;

TEST(InverseTableTest, AccuracyFiguresForAWideFrame) {
  // A = 16/9, undistorted width 1920; the maximum errors are approximate.
  const struct {
    double quadX1000;
    float maxError;
    int valid;
  } figures[] = {
      {0, 0.0002f, 1}, {-50, 0.0014f, 1}, {-200, 4.6f, 0}, {-20000, 0.41f, 1}, {100, 0.0005f, 1}};
  for (const auto& figure : figures) {
    SCOPED_TRACE(figure.quadX1000);
    for (int mode : {kModeRemove, kModeApply}) {  // built the same in both
      LensParams p;
      p.quadX1000 = figure.quadX1000, p.mode = mode;
      auto lens = MakeLens(p);
      EXPECT_NEAR(InverseTableMaxError(*lens), figure.maxError, 0.25f * figure.maxError);
      EXPECT_EQ(lens->tableValid, figure.valid);
      EXPECT_EQ(lens->inverseTable[0], 0.0f);
      EXPECT_EQ(lens->inverseTable[2049], lens->inverseTable[2048]);
      EXPECT_FLOAT_EQ(lens->inverseTable[2048], lens->limitUndistorted);
    }
  }
  auto flat = MakeLens(LensParams());  // zero coefficients tabulate the identity
  const float step = flat->limitDistorted / 2048.0f;
  for (int i = 0; i <= 2048; ++i) ASSERT_EQ(flat->inverseTable[i], float(i) * step) << i;
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

TEST(InverseTableTest, AnErrorOfOneAndAHalfPixelsIsRefusedAndNaNErrorsIgnored) {
  auto atLimit = LastIntervalOff(6144);
  EXPECT_EQ(InverseTableMaxError(*atLimit), 1.5f);
  EXPECT_EQ(atLimit->tableValid, 0);
  auto justBelow = LastIntervalOff(6142);
  EXPECT_FLOAT_EQ(InverseTableMaxError(*justBelow), 6142.0f / 4096.0f);
  EXPECT_EQ(justBelow->tableValid, 1);

  atLimit->inverseTable[5] = std::numeric_limits<float>::quiet_NaN();
  atLimit->inverseTable[700] = std::numeric_limits<float>::quiet_NaN();
  EXPECT_EQ(InverseTableMaxError(*atLimit), 1.5f);
  atLimit->inverseTable[2048] = 1.0f;  // now every finite midpoint is exact
  EXPECT_EQ(InverseTableMaxError(*atLimit), 0.0f);
}

TEST(InverseTableTest, UsableOnlyWithFiniteGeometry) {
  // Every error being NaN would measure as 0; the table must still be refused (records
  // with non-finite parameters: DegenerateGeometryTest).
  const float inf = std::numeric_limits<float>::infinity();
  auto lens = MakeLens(LensParams());
  ASSERT_TRUE(InverseTableUsable(*lens));
  for (float bad : {0.0f, -1.0f, inf, std::numeric_limits<float>::quiet_NaN()}) {
    auto copy = *lens;
    copy.lutScale = bad;
    EXPECT_FALSE(InverseTableUsable(copy)) << bad;
    copy = *lens;
    copy.limitDistorted = bad;
    EXPECT_FALSE(InverseTableUsable(copy)) << bad;
  }
  auto copy = *lens;
  copy.pixScaleY = inf;
  EXPECT_FALSE(InverseTableUsable(copy));
}

}  // namespace
