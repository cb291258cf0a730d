// Scalar point mappings: known figures of the barrel lens, the radius held at the limit and
// the Newton solver's tolerance. Their agreement with the reference model on random lenses is
// checked together with the run mapping's (RunMappingTest).
#include "LensTestSupport.h"

namespace {

using namespace lenstest;

VtPt Undistort(const VtAFXLensData& lens, VtPt p) {
  VtPt out;
  UndistortPt(&lens, p, &out);
  return out;
}

TEST(PointMappingTest, BarrelFiguresInBothModesAndTheRadiusHeldAtTheLimit) {
  // 1920 x 1080, pixel aspect 1, DistortionX1000 = -50.
  LensParams p;
  p.quadX1000 = -50;
  auto remove = MakeLens(p);
  VtPt corner = DistortPt(*remove, {0, 0});
  EXPECT_NEAR(corner.x, 199.704, 0.001);
  EXPECT_NEAR(corner.y, 112.333, 0.001);
  const VtPt back = Undistort(*remove, corner);
  EXPECT_NEAR(back.x, 0.0, 0.001);
  EXPECT_NEAR(back.y, 0.0, 0.001);

  p.zoom = 2.0;
  corner = DistortPt(*MakeLens(p), {0, 0});
  EXPECT_NEAR(corner.x, 504.963, 0.001);
  EXPECT_NEAR(corner.y, 284.042, 0.001);

  // In Apply the corner lies at distorted radius 2.0397, beyond limitDistorted (1.63075):
  // the undistorted radius is held at the limit.
  p.zoom = 1.0, p.mode = kModeApply;
  corner = Undistort(*MakeLens(p), {0, 0});
  EXPECT_NEAR(corner.x, -19.888, 0.001);
  EXPECT_NEAR(corner.y, -11.187, 0.001);

  // Radii from limitDistorted on hold the undistorted radius at the limit.
  p.quadX1000 = -200;
  auto lens = MakeLens(p);
  for (float r : {lens->limitDistorted, lens->limitDistorted * 1.5f, 40.0f, 1e30f})
    EXPECT_FLOAT_EQ(UndistortRatio(*lens, r) * r, lens->limitUndistorted) << r;
  EXPECT_EQ(UndistortRatio(*lens, 0.0f), 1.0f);
}

// A lens whose first Newton residual at r = 2^-p is exactly -residual: with u = r the
// polynomial factor is 1 + residual / r, which needs S = k2 + k3 r + k4 r^2 = residual / r^3;
// S has 53 significant bits, so it is spread over the three float coefficients, and every
// step of the evaluation is then exact.
void LensWithFirstResidual(VtAFXLensData& lens, double residual, int p) {
  std::memset(&lens, 0, sizeof(lens));
  const double r = std::ldexp(1.0, -p);
  const double s = residual / (r * r * r);
  const float k2 = static_cast<float>(s);
  const double rest = s - k2;
  const float k3 = static_cast<float>(std::ldexp(rest, p));
  const double rest2 = rest - std::ldexp(double(k3), -p);
  const float k4 = static_cast<float>(std::ldexp(rest2, 2 * p));
  ASSERT_EQ(rest2 - std::ldexp(double(k4), -2 * p), 0.0);
  lens.quadraticF = k2, lens.cubicF = k3, lens.quarticF = k4;
  lens.limitDistorted = lens.limitUndistorted = 1.0f;  // keep r on the solver's side
  // The premise: evaluated in double, as the solver does, the first residual is exact.
  const double u2 = r * r;
  const double f = ((double(k4) * u2 + (double(k3) * r + double(k2))) * u2 + 1.0) * r;
  ASSERT_EQ(r - f, -residual);
}

TEST(PointMappingTest, NewtonToleranceExcludesBothBounds) {
  VtAFXLensData lens;
  // A residual strictly inside the tolerance stops the solve at u = r: ratio exactly 1.
  LensWithFirstResidual(lens, std::nextafter(1e-6, 0.0), 21);
  EXPECT_EQ(UndistortRatio(lens, std::ldexp(1.0f, -21)), 1.0f);
  LensWithFirstResidual(lens, -std::nextafter(1e-6, 0.0), 19);
  EXPECT_EQ(UndistortRatio(lens, std::ldexp(1.0f, -19)), 1.0f);

  // A residual of exactly -1e-6 or +1e-6 does not stop it: the estimate moves on.
  LensWithFirstResidual(lens, 1e-6, 21);
  EXPECT_LT(UndistortRatio(lens, std::ldexp(1.0f, -21)), 0.9f);
  LensWithFirstResidual(lens, -1e-6, 19);
  EXPECT_NE(UndistortRatio(lens, std::ldexp(1.0f, -19)), 1.0f);
}

}  // namespace
