// Scalar point mappings: known figures of the barrel lens, the Newton solver's tolerance, and
// agreement with the long-double reference model on random lenses.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "LensTestSupport.h"
#include "lens/PointMapping.h"

namespace {

using lenstest::LD;
using lenstest::LensParams;
using lenstest::MakeLens;
using lenstest::MakeRef;

VtPt Undistort(const VtAFXLensData& lens, VtPt p) {
  VtPt out;
  UndistortPt(&lens, p, &out);
  return out;
}

TEST(PointMappingTest, ZeroCoefficientsGiveTheIdentity) {
  for (int mode : {kModeRemove, kModeApply}) {
    LensParams p;
    p.mode = mode;
    auto lens = MakeLens(p);
    // Anywhere in the frame (beyond its corners Apply holds the radius at the limit).
    for (VtPt q : {VtPt{0, 0}, VtPt{1919, 1079}, VtPt{960, 540}, VtPt{1920, 0},
                   VtPt{1234.5f, 17.25f}}) {
      const VtPt d = DistortPt(*lens, q);
      const VtPt u = Undistort(*lens, q);
      EXPECT_NEAR(d.x, q.x, 1e-3);
      EXPECT_NEAR(d.y, q.y, 1e-3);
      EXPECT_NEAR(u.x, q.x, 1e-3);
      EXPECT_NEAR(u.y, q.y, 1e-3);
    }
  }
}

TEST(PointMappingTest, BarrelFiguresInBothModes) {
  // 1920 x 1080, pixel aspect 1, DistortionX1000 = -50.
  LensParams p;
  p.quadX1000 = -50;
  p.mode = kModeRemove;
  auto remove = MakeLens(p);
  VtPt corner = DistortPt(*remove, {0, 0});
  EXPECT_NEAR(corner.x, 199.704, 0.001);
  EXPECT_NEAR(corner.y, 112.333, 0.001);
  const VtPt back = Undistort(*remove, corner);
  EXPECT_NEAR(back.x, 0.0, 0.001);
  EXPECT_NEAR(back.y, 0.0, 0.001);

  p.zoom = 2.0;
  auto zoomed = MakeLens(p);
  corner = DistortPt(*zoomed, {0, 0});
  EXPECT_NEAR(corner.x, 504.963, 0.001);
  EXPECT_NEAR(corner.y, 284.042, 0.001);

  // In Apply the corner lies at distorted radius 2.0397, beyond limitDistorted (1.63075):
  // the undistorted radius is held at the limit.
  p.zoom = 1.0;
  p.mode = kModeApply;
  auto apply = MakeLens(p);
  corner = Undistort(*apply, {0, 0});
  EXPECT_NEAR(corner.x, -19.888, 0.001);
  EXPECT_NEAR(corner.y, -11.187, 0.001);

  for (const VtAFXLensData* lens : {remove.get(), zoomed.get(), apply.get()}) {
    const VtPt d = DistortPt(*lens, {960, 540});
    const VtPt u = Undistort(*lens, {960, 540});
    EXPECT_NEAR(d.x, 960.0, 1e-3);
    EXPECT_NEAR(d.y, 540.0, 1e-3);
    EXPECT_NEAR(u.x, 960.0, 1e-3);
    EXPECT_NEAR(u.y, 540.0, 1e-3);
  }
}

TEST(PointMappingTest, ZoomMagnifiesInRemoveAndShrinksInApply) {
  // An output point at normalised radius 1 (540 pixels right of the centre).
  LensParams p;
  p.zoom = 2.0;
  p.mode = kModeRemove;
  VtPt in = DistortPt(*MakeLens(p), {1500, 540});
  EXPECT_NEAR(in.x, 960 + 270, 1e-3);
  EXPECT_NEAR(in.y, 540, 1e-3);
  p.mode = kModeApply;
  in = Undistort(*MakeLens(p), {1500, 540});
  EXPECT_NEAR(in.x, 960 + 1080, 1e-3);
  EXPECT_NEAR(in.y, 540, 1e-3);
}

TEST(PointMappingTest, RadiiBeyondTheLimitHoldTheUndistortedRadius) {
  LensParams p;
  p.quadX1000 = -200;
  p.mode = kModeApply;
  auto lens = MakeLens(p);
  for (float r : {lens->limitDistorted, lens->limitDistorted * 1.5f, 40.0f, 1e30f}) {
    EXPECT_FLOAT_EQ(UndistortRatio(*lens, r) * r, lens->limitUndistorted) << r;
  }
  EXPECT_EQ(UndistortRatio(*lens, 0.0f), 1.0f);
}

TEST(PointMappingTest, DistortPtHoldsTheFactorAtTheLimit) {
  // DistortionX1000 = -20000: beyond u = 0.12896 the factor stays at P(lu)/lu, about 0.667,
  // so positions scale linearly instead of folding back.
  LensParams p;
  p.quadX1000 = -20000;
  auto lens = MakeLens(p);
  const double factor = 1.0 - 20.0 * double(lens->limitUndistorted) * lens->limitUndistorted;
  EXPECT_NEAR(factor, 0.667, 0.001);
  for (float dx : {81.0f, 162.0f, 540.0f}) {  // normalised radii 0.15, 0.3, 1
    const VtPt in = DistortPt(*lens, {960 + dx, 540});
    EXPECT_NEAR(in.x - 960.0, dx * factor, 1e-3 * dx);
    EXPECT_NEAR(in.y, 540.0, 1e-3);
  }
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
  lens.quadraticF = k2;
  lens.cubicF = k3;
  lens.quarticF = k4;
  lens.limitDistorted = 1.0f;  // keep r on the solver's side
  lens.limitUndistorted = 1.0f;
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

TEST(PointMappingTest, AgreesWithTheReferenceInsideTheLimit) {
  // DistortPt is the forward polynomial and UndistortPt the inverse, each in the frame of the
  // record's mode: Remove's output-to-input mapping and Apply's back-mapping, and vice versa.
  std::mt19937 rng(2024);
  int checked = 0;
  for (int n = 0; n < 120; ++n) {
    const int mode = n % 2 == 0 ? kModeRemove : kModeApply;
    const LensParams p = lenstest::RandomParams(rng, mode);
    auto lens = MakeLens(p);
    const auto ref = MakeRef(p);
    SCOPED_TRACE(testing::Message() << "case " << n << ": k " << p.quadX1000 << " "
                                    << p.cubeX1000 << " " << p.quarX1000 << ", zoom " << p.zoom
                                    << ", " << p.wd << "x" << p.hd << " / " << p.wu << "x"
                                    << p.hu << ", pa " << p.pa);
    auto forward = [&](LD x, LD y, LD* ox, LD* oy) { ref.Forward(x, y, ox, oy); };
    auto inverse = [&](LD x, LD y, LD* ox, LD* oy) { ref.Inverse(x, y, ox, oy); };

    for (const auto& q : lenstest::ForwardPoints(*lens, ref, rng, 40)) {
      LD ex, ey;
      ref.Forward(q.x, q.y, &ex, &ey);
      const VtPt got = DistortPt(*lens, {q.x, q.y});
      LD nx, ny;
      ref.Normalise(q.x, q.y, &nx, &ny);
      const LD m = std::sqrt(nx * nx + ny * ny) / ref.zoom;
      const LD tol = lenstest::MappingTolerance(
          p, ref, lenstest::LocalGain(forward, q.x, q.y), q.x, q.y, ex, ey, m, false, 1);
      EXPECT_NEAR(got.x, ex, tol) << q.x << ", " << q.y;
      EXPECT_NEAR(got.y, ey, tol) << q.x << ", " << q.y;
      ++checked;
    }
    for (const auto& q : lenstest::InversePoints(*lens, ref, rng, 40)) {
      LD ex, ey;
      ref.Inverse(q.x, q.y, &ex, &ey);
      const VtPt got = Undistort(*lens, {q.x, q.y});
      const LD tol = lenstest::MappingTolerance(
          p, ref, lenstest::LocalGain(inverse, q.x, q.y), q.x, q.y, ex, ey, 0, true, q.slope);
      EXPECT_NEAR(got.x, ex, tol) << q.x << ", " << q.y;
      EXPECT_NEAR(got.y, ey, tol) << q.x << ", " << q.y;
      ++checked;
    }
  }
  EXPECT_GT(checked, 4000);
}

}  // namespace
