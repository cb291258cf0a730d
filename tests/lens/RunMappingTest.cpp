// The run mapping: agreement with the reference model and with the scalar mappings, the
// table and solver paths of Apply, Remove's unclamped polynomial, and short runs.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <random>
#include <vector>

#include "LensTestSupport.h"
#include "lens/PointMapping.h"
#include "lens/RunMapping.h"

namespace {

using lenstest::LD;
using lenstest::LensParams;
using lenstest::MakeLens;
using lenstest::MakeRef;
using lenstest::TestPoint;

class RunMappingTest : public testing::Test {
 protected:
  void SetUp() override { lenstest::EnsureCpuChecked(); }
};

// Maps any number of positions, 64 at a time (the last run shorter).
std::vector<VtPt> MapRuns(const VtAFXLensData& lens, const std::vector<VtPt>& points) {
  std::vector<VtPt> result;
  for (size_t start = 0; start < points.size(); start += 64) {
    FGulpPt out;
    out.x.SetLen(int(points.size()), int(start));
    out.y.SetLen(int(points.size()), int(start));
    for (int k = 0; k < out.x.len; ++k) {
      out.x[k] = points[start + k].x;
      out.y[k] = points[start + k].y;
    }
    FGulpPt in;
    MapOutToInPt(&lens, out, in);
    EXPECT_EQ(in.x.len, out.x.len);
    EXPECT_EQ(in.y.len, out.x.len);
    for (int k = 0; k < in.x.len; ++k) result.push_back({in.x[k], in.y[k]});
  }
  return result;
}

std::vector<VtPt> Positions(const std::vector<TestPoint>& points) {
  std::vector<VtPt> result;
  for (const auto& q : points) result.push_back({q.x, q.y});
  return result;
}

TEST_F(RunMappingTest, ZeroCoefficientsGiveTheIdentityOnEveryPath) {
  std::vector<VtPt> points;
  for (int k = 0; k < 100; ++k) points.push_back({float(k * 19), float(k * 10.5)});
  for (int mode : {kModeRemove, kModeApply}) {
    LensParams p;
    p.mode = mode;
    auto lens = MakeLens(p);
    for (int valid : {1, 0}) {
      if (mode == kModeRemove && valid == 0) continue;
      lens->tableValid = valid;
      const auto mapped = MapRuns(*lens, points);
      for (size_t k = 0; k < points.size(); ++k) {
        EXPECT_NEAR(mapped[k].x, points[k].x, 1e-3);
        EXPECT_NEAR(mapped[k].y, points[k].y, 1e-3);
      }
    }
  }
}

TEST_F(RunMappingTest, TheCentreMapsToTheOffsetOnEveryPath) {
  // A square 1024 frame puts the centre exactly at normalised 0.
  LensParams p;
  p.wd = p.hd = p.wu = p.hu = 1024;
  p.quadX1000 = -50;
  p.cubeX1000 = 30;
  p.quarX1000 = 12;
  for (int mode : {kModeRemove, kModeApply}) {
    p.mode = mode;
    auto lens = MakeLens(p);
    ASSERT_EQ(lens->tableValid, 1);
    for (int valid : {1, 0}) {
      lens->tableValid = valid;
      const auto mapped = MapRuns(*lens, {{512, 512}});
      EXPECT_EQ(mapped[0].x, lens->pixOffsetX);
      EXPECT_EQ(mapped[0].y, lens->pixOffsetY);
    }
    // The scalar mappings too.
    const VtPt d = DistortPt(*lens, {512, 512});
    VtPt u;
    UndistortPt(lens.get(), {512, 512}, &u);
    EXPECT_EQ(d.x, lens->pixOffsetX);
    EXPECT_EQ(d.y, lens->pixOffsetY);
    EXPECT_EQ(u.x, lens->pixOffsetX);
    EXPECT_EQ(u.y, lens->pixOffsetY);
  }
}

TEST_F(RunMappingTest, ZoomMagnifiesInRemoveAndShrinksInApply) {
  LensParams p;
  p.zoom = 2.0;
  p.mode = kModeRemove;
  auto mapped = MapRuns(*MakeLens(p), {{1500, 540}, {960, 0}});
  EXPECT_NEAR(mapped[0].x, 960 + 270, 1e-3);
  EXPECT_NEAR(mapped[1].y, 540 - 270, 1e-3);
  p.mode = kModeApply;
  auto lens = MakeLens(p);
  for (int valid : {1, 0}) {
    lens->tableValid = valid;
    mapped = MapRuns(*lens, {{1500, 540}, {960, 0}});
    EXPECT_NEAR(mapped[0].x, 960 + 1080, 1e-3);
    EXPECT_NEAR(mapped[1].y, 540 - 1080, 1e-3);
  }
}

TEST_F(RunMappingTest, OtherModesMapAsRemove) {
  LensParams p;
  p.quadX1000 = 120;
  p.zoom = 1.3;
  auto remove = MakeLens(p);
  p.mode = -1;
  auto unset = MakeLens(p);
  std::vector<VtPt> points;
  for (int k = 0; k < 70; ++k) points.push_back({float(k * 29), float(k * 15)});
  const auto a = MapRuns(*remove, points);
  const auto b = MapRuns(*unset, points);
  for (size_t k = 0; k < points.size(); ++k) {
    EXPECT_EQ(a[k].x, b[k].x);
    EXPECT_EQ(a[k].y, b[k].y);
  }
}

TEST_F(RunMappingTest, RemoveFollowsThePolynomialBeyondTheLimit) {
  // DistortionX1000 = -20000: inside u = 0.12896 the run and scalar mappings agree; beyond
  // it the run mapping folds the picture back (factor 1 - 20 u^2) and past u = 0.2236
  // mirrors it through the centre, while DistortPt holds the factor at about 0.667.
  LensParams p;
  p.quadX1000 = -20000;
  auto lens = MakeLens(p);
  const std::vector<VtPt> points = {{960 + 54, 540}, {960 + 162, 540}, {960, 540 - 270}};
  const auto mapped = MapRuns(*lens, points);
  const VtPt inside = DistortPt(*lens, points[0]);  // u = 0.1
  EXPECT_EQ(mapped[0].x, inside.x);
  EXPECT_EQ(mapped[0].y, inside.y);
  EXPECT_NEAR(mapped[1].x - 960.0, 162.0 * (1.0 - 20.0 * 0.09), 1e-3);  // u = 0.3: -0.8
  EXPECT_NEAR(mapped[2].y - 540.0, -270.0 * (1.0 - 20.0 * 0.25), 1e-3);  // u = 0.5: -4
  EXPECT_GT(DistortPt(*lens, points[1]).x, 960.0f);
}

TEST_F(RunMappingTest, ApplyHoldsTheLimitRadiusOnBothPaths) {
  // Beyond limitDistorted the solver holds u at limitUndistorted and the table reads entry
  // 2048 (fraction 0), the same radius up to rounding; far positions included.
  LensParams p;
  p.quadX1000 = -50;
  p.mode = kModeApply;
  auto lens = MakeLens(p);
  ASSERT_EQ(lens->tableValid, 1);
  const std::vector<VtPt> points = {{0, 0},     {1919, 1079}, {-5000, 540},
                                    {960, 1e6f}, {3e7f, -3e7f}, {-1e9f, 1e9f}};
  const auto table = MapRuns(*lens, points);
  lens->tableValid = 0;
  const auto solver = MapRuns(*lens, points);
  const auto ref = MakeRef(p);
  for (size_t k = 0; k < points.size(); ++k) {
    LD nx, ny;
    ref.Normalise(points[k].x, points[k].y, &nx, &ny);
    const LD r = std::sqrt(nx * nx + ny * ny);
    // Where the input lands: the limit radius along the point's direction.
    const LD ex = nx / r * lens->limitUndistorted / ref.sx + ref.cx;
    const LD ey = ny / r * lens->limitUndistorted / ref.sy + ref.cy;
    EXPECT_NEAR(solver[k].x, ex, 1e-3) << k;
    EXPECT_NEAR(solver[k].y, ey, 1e-3) << k;
    EXPECT_NEAR(table[k].x, solver[k].x, 1e-3) << k;
    EXPECT_NEAR(table[k].y, solver[k].y, 1e-3) << k;
  }
}

TEST_F(RunMappingTest, TheSolverComputesExactlyTheRunLength) {
  LensParams p;
  p.quadX1000 = -200;
  p.mode = kModeApply;
  auto lens = MakeLens(p);
  FGulp r;
  r.SetLen(13, 0);
  for (int k = 0; k < 13; ++k) r[k] = 0.05f * float(k);
  FGulp ratio;
  for (int k = 0; k < 64; ++k) ratio[k] = -7.0f;
  SolveUndistortRatios(*lens, r, ratio);
  EXPECT_EQ(ratio.len, 13);
  EXPECT_EQ(ratio[0], 1.0f);
  for (int k = 1; k < 13; ++k) EXPECT_EQ(ratio[k], UndistortRatio(*lens, r[k])) << k;
  for (int k = 13; k < 64; ++k) EXPECT_EQ(ratio[k], -7.0f) << k;

  // A short run through the whole mapping: 13 results, each the scalar mapping's.
  lens->tableValid = 0;
  std::vector<VtPt> points;
  for (int k = 0; k < 13; ++k) points.push_back({float(700 + 37 * k), float(400 + 11 * k)});
  const auto mapped = MapRuns(*lens, points);
  ASSERT_EQ(mapped.size(), 13u);
  for (int k = 0; k < 13; ++k) {
    VtPt scalar;
    UndistortPt(lens.get(), points[k], &scalar);
    EXPECT_NEAR(mapped[k].x, scalar.x, 1e-3);
    EXPECT_NEAR(mapped[k].y, scalar.y, 1e-3);
  }
}

// Bound on the difference between the run and scalar mappings of one point: they round the
// zoom into different places, a few ulps of the normalised result, which reach the pixel
// result scaled by pixScale, plus the final multiply-add's rounding.
double RunVsScalarTolerance(const VtAFXLensData& lens, VtPt scalar) {
  const double eps = std::ldexp(1.0, -24);
  const double dx = std::fabs(scalar.x - lens.pixOffsetX);
  const double dy = std::fabs(scalar.y - lens.pixOffsetY);
  return 8 * eps * (dx + dy + std::fabs(scalar.x) + std::fabs(scalar.y));
}

TEST_F(RunMappingTest, AgreesWithTheScalarMappingsInsideTheLimit) {
  std::mt19937 rng(31);
  for (int n = 0; n < 60; ++n) {
    const int mode = n % 2 == 0 ? kModeRemove : kModeApply;
    LensParams p = lenstest::RandomParams(rng, mode);
    if (n % 4 == 0) p.zoom = 1.0;
    auto lens = MakeLens(p);
    const auto ref = MakeRef(p);
    SCOPED_TRACE(testing::Message() << "case " << n << ", zoom " << p.zoom);
    if (mode == kModeRemove) {
      const auto points = Positions(lenstest::ForwardPoints(*lens, ref, rng, 100));
      const auto mapped = MapRuns(*lens, points);
      for (size_t k = 0; k < points.size(); ++k) {
        const VtPt scalar = DistortPt(*lens, points[k]);
        if (p.zoom == 1.0) {
          // With no zoom both evaluate the same operations in the same order.
          EXPECT_EQ(mapped[k].x, scalar.x) << k;
          EXPECT_EQ(mapped[k].y, scalar.y) << k;
        } else {
          // The zoom is folded into the affine step here and applied after it in DistortPt;
          // allow for the local gain of the polynomial on that rounding.
          const LD gain = lenstest::LocalGain(
              [&](LD x, LD y, LD* ox, LD* oy) { ref.Forward(x, y, ox, oy); }, points[k].x,
              points[k].y);
          const double tol = double(lenstest::MappingTolerance(
              p, ref, gain, points[k].x, points[k].y, scalar.x, scalar.y, 0, false, 1));
          EXPECT_NEAR(mapped[k].x, scalar.x, tol) << k;
          EXPECT_NEAR(mapped[k].y, scalar.y, tol) << k;
        }
      }
    } else {
      const auto points = Positions(lenstest::InversePoints(*lens, ref, rng, 100));
      lens->tableValid = 0;
      const auto mapped = MapRuns(*lens, points);
      for (size_t k = 0; k < points.size(); ++k) {
        VtPt scalar;
        UndistortPt(lens.get(), points[k], &scalar);
        const double tol = RunVsScalarTolerance(*lens, scalar);
        EXPECT_NEAR(mapped[k].x, scalar.x, tol) << k;
        EXPECT_NEAR(mapped[k].y, scalar.y, tol) << k;
      }
    }
  }
}

TEST_F(RunMappingTest, AgreesWithTheReferenceInsideTheLimit) {
  // Remove against the forward polynomial; Apply against the inverse, by the solver and,
  // where the table is valid, by the table. The table may be off by its measured midpoint
  // error (at most 1.5 pixels in units of half the undistorted width): an error in u of
  // maxError / halfWidth normalised units, which the zoom and pixScale carry into pixels.
  std::mt19937 rng(77);
  int tablesUsed = 0;
  for (int n = 0; n < 120; ++n) {
    const int mode = n % 2 == 0 ? kModeRemove : kModeApply;
    const LensParams p = lenstest::RandomParams(rng, mode);
    auto lens = MakeLens(p);
    const auto ref = MakeRef(p);
    SCOPED_TRACE(testing::Message() << "case " << n << ": k " << p.quadX1000 << " "
                                    << p.cubeX1000 << " " << p.quarX1000 << ", zoom " << p.zoom
                                    << ", " << p.wd << "x" << p.hd << " / " << p.wu << "x"
                                    << p.hu << ", pa " << p.pa);
    const bool remove = mode == kModeRemove;
    const auto points = remove ? lenstest::ForwardPoints(*lens, ref, rng, 100)
                               : lenstest::InversePoints(*lens, ref, rng, 100);
    const auto positions = Positions(points);
    auto map = [&](LD x, LD y, LD* ox, LD* oy) {
      remove ? ref.Forward(x, y, ox, oy) : ref.Inverse(x, y, ox, oy);
    };
    const LD perUnit = std::fmax(1 / ref.sx, 1 / ref.sy);
    const LD tableTerm = LD(InverseTableMaxError(*lens)) /
                         std::fabs(LD(p.wu) / 2) * ref.zoom * perUnit;

    const int table = lens->tableValid;
    if (!remove && table) ++tablesUsed;
    std::vector<VtPt> byTable;
    for (int valid : {table, 0}) {
      if (remove && valid == 0) continue;
      lens->tableValid = valid;
      const auto mapped = MapRuns(*lens, positions);
      for (size_t k = 0; k < points.size(); ++k) {
        const auto& q = points[k];
        LD ex, ey;
        map(q.x, q.y, &ex, &ey);
        LD nx, ny;
        ref.Normalise(q.x, q.y, &nx, &ny);
        const LD m = std::sqrt(nx * nx + ny * ny) / ref.zoom;
        const LD tol = lenstest::MappingTolerance(p, ref, lenstest::LocalGain(map, q.x, q.y),
                                                  q.x, q.y, ex, ey, remove ? m : 0, !remove,
                                                  q.slope);
        const char* path = remove ? "" : valid ? " table" : " solver";
        EXPECT_NEAR(mapped[k].x, ex, tol + (valid ? tableTerm : 0)) << q.x << ", " << q.y << path;
        EXPECT_NEAR(mapped[k].y, ey, tol + (valid ? tableTerm : 0)) << q.x << ", " << q.y << path;
        // The table path against the solver path: the table's own error and the rounding
        // of both.
        if (!remove && valid == 0 && !byTable.empty()) {
          EXPECT_NEAR(byTable[k].x, mapped[k].x, tableTerm + 2 * tol) << q.x << ", " << q.y;
          EXPECT_NEAR(byTable[k].y, mapped[k].y, tableTerm + 2 * tol) << q.x << ", " << q.y;
        }
      }
      if (!remove && valid) byTable = mapped;
    }
  }
  EXPECT_GT(tablesUsed, 20);
}

}  // namespace

namespace {

bool SameBits(float a, float b) { return std::memcmp(&a, &b, sizeof a) == 0; }

}  // namespace

// A row step mapped straight from its start must give exactly what mapping the stored runs
// (Iota and Constant) and subtracting the buffer origin gives: every path, every step length,
// starts where float steps are exact and where they round (beyond 2^24).
TEST_F(RunMappingTest, RowStepsMapAsTheirStoredRuns) {
  struct Case {
    int mode;
    double quad, cube, quar;
    int tableValid;
  };
  const Case cases[] = {{kModeRemove, -50, 0, 0, 1},  {kModeRemove, 30, -20, 10, 1},
                        {kModeRemove, 20, 0, -5, 1},  {kModeRemove, -10, 15, 0, 1},
                        {kModeApply, -50, 0, 0, 1},   {kModeApply, -50, 0, 0, 0}};
  const float starts[] = {0.0f, -37.0f, 1913.0f, 16777200.0f, -16777230.0f};
  const BufferOrigin origins[] = {{0.0f, 0.0f}, {149.0f, -23.0f}};
  for (const Case& c : cases) {
    LensParams p;
    p.mode = c.mode;
    p.quadX1000 = c.quad;
    p.cubeX1000 = c.cube;
    p.quarX1000 = c.quar;
    auto lens = MakeLens(p);
    lens->tableValid = c.tableValid;
    for (float x0 : starts) {
      for (int len : {1, 3, 4, 5, 8, 13, 63, 64}) {
        for (const BufferOrigin& origin : origins) {
          const float y = 517.0f;
          FGulpPt out, viaRuns, viaStep;
          out.x.SetLen(len, 0);
          out.y.SetLen(len, 0);
          out.x.Iota(x0, 1.0f);
          out.y.Constant(y);
          MapOutToInPt(lens.get(), out, viaRuns);
          if (origin.x != 0.0f) viaRuns.x -= origin.x;
          if (origin.y != 0.0f) viaRuns.y -= origin.y;
          MapRowStepToBufferPt(lens.get(), RowStep{x0, y, len}, viaStep, origin);
          SCOPED_TRACE("mode " + std::to_string(c.mode) + " table " +
                       std::to_string(c.tableValid) + " x0 " + std::to_string(x0) + " len " +
                       std::to_string(len));
          ASSERT_EQ(viaStep.x.len, len);
          ASSERT_EQ(viaStep.y.len, len);
          for (int k = 0; k < len; ++k) {
            ASSERT_TRUE(SameBits(viaStep.x[k], viaRuns.x[k])) << "x of element " << k;
            ASSERT_TRUE(SameBits(viaStep.y[k], viaRuns.y[k])) << "y of element " << k;
          }
        }
      }
    }
  }
}
