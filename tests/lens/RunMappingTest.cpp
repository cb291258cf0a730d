// The run mapping: agreement with the reference model and with the scalar mappings on random
// lenses (zooms, sizes and pixel aspects; the table and solver paths of Apply), Remove's
// unclamped polynomial, the radius held beyond the limit, short runs and row steps.
#include "LensTestSupport.h"
#include "gulp/CpuFeatures.h"

namespace {

using namespace lenstest;

class RunMappingTest : public testing::Test {
 protected:
  void SetUp() override { CheckCPUFeatures(); }
};

// Maps any number of positions, 64 at a time (the last run shorter).
std::vector<VtPt> MapRuns(const VtAFXLensData& lens, const std::vector<VtPt>& points) {
  std::vector<VtPt> result;
  for (size_t start = 0; start < points.size(); start += 64) {
    FGulpPt out;
    out.x.SetLen(int(points.size()), int(start));
    out.y.SetLen(int(points.size()), int(start));
    for (int k = 0; k < out.x.len; ++k) out.x[k] = points[start + k].x, out.y[k] = points[start + k].y;
    FGulpPt in;
    MapOutToInPt(&lens, out, in);
    EXPECT_EQ(in.x.len, out.x.len);
    EXPECT_EQ(in.y.len, out.x.len);
    for (int k = 0; k < in.x.len; ++k) result.push_back({in.x[k], in.y[k]});
  }
  return result;
}

TEST_F(RunMappingTest, OtherModesMapAsRemove) {
  LensParams p;
  p.quadX1000 = 120, p.zoom = 1.3, p.wu = 2000, p.hu = 1125, p.pa = 1.5;
  auto remove = MakeLens(p);
  std::vector<VtPt> points;
  for (int k = 0; k < 70; ++k) points.push_back({float(k * 29), float(k * 15)});
  const auto a = MapRuns(*remove, points);
  for (int mode : {-1, 0, 3}) {
    p.mode = mode;
    auto other = MakeLens(p);
    const PF_LRect& r = remove->maxResultRect;
    EXPECT_TRUE(RectIs(other->maxResultRect, r.left, r.top, r.right, r.bottom));
    const auto b = MapRuns(*other, points);
    EXPECT_EQ(std::memcmp(a.data(), b.data(), a.size() * sizeof(VtPt)), 0) << "mode " << mode;
  }
}

TEST_F(RunMappingTest, BeyondTheLimitRemoveFollowsThePolynomialAndApplyHoldsTheRadius) {
  // DistortionX1000 = -20000: inside u = 0.12896 the run and scalar mappings agree; beyond
  // it the run mapping folds the picture back (factor 1 - 20 u^2) and past u = 0.2236
  // mirrors it through the centre, while DistortPt holds the factor at P(lu)/lu, about 0.667,
  // so that positions scale linearly instead of folding back.
  LensParams p;
  p.quadX1000 = -20000;
  auto lens = MakeLens(p);
  std::vector<VtPt> points = {{960 + 54, 540}, {960 + 162, 540}, {960, 540 - 270}};
  const auto mapped = MapRuns(*lens, points);
  const VtPt inside = DistortPt(*lens, points[0]);  // u = 0.1
  EXPECT_EQ(mapped[0].x, inside.x);
  EXPECT_EQ(mapped[0].y, inside.y);
  EXPECT_NEAR(mapped[1].x - 960.0, 162.0 * (1.0 - 20.0 * 0.09), 1e-3);  // u = 0.3: -0.8
  EXPECT_NEAR(mapped[2].y - 540.0, -270.0 * (1.0 - 20.0 * 0.25), 1e-3);  // u = 0.5: -4
  const double factor = 1.0 - 20.0 * double(lens->limitUndistorted) * lens->limitUndistorted;
  EXPECT_NEAR(factor, 0.667, 0.001);
  for (float dx : {81.0f, 162.0f, 540.0f}) {  // normalised radii 0.15, 0.3, 1
    const VtPt held = DistortPt(*lens, {960 + dx, 540});
    EXPECT_NEAR(held.x - 960.0, dx * factor, 1e-3 * dx);
    EXPECT_NEAR(held.y, 540.0, 1e-3);
  }

  // Apply: beyond limitDistorted the solver holds u at limitUndistorted and the table reads
  // entry 2048 (fraction 0), the same radius up to rounding; far positions included.
  p.quadX1000 = -50, p.mode = kModeApply;
  lens = MakeLens(p);
  ASSERT_EQ(lens->tableValid, 1);
  points = {{0, 0}, {1919, 1079}, {-5000, 540}, {960, 1e6f}, {3e7f, -3e7f}, {-1e9f, 1e9f}};
  const auto table = MapRuns(*lens, points);
  lens->tableValid = 0;
  const auto solver = MapRuns(*lens, points);
  const auto ref = MakeRef(p);
  for (size_t k = 0; k < points.size(); ++k) {
    LD nx, ny, ex, ey;  // where the input lands: the limit radius along the point's direction
    ref.Normalise(points[k].x, points[k].y, &nx, &ny);
    const LD f = lens->limitUndistorted / std::sqrt(nx * nx + ny * ny);
    ref.ToPixels(nx * f, ny * f, &ex, &ey);
    EXPECT_NEAR(solver[k].x, ex, 1e-3) << k;
    EXPECT_NEAR(solver[k].y, ey, 1e-3) << k;
    EXPECT_NEAR(table[k].x, solver[k].x, 1e-3) << k;
    EXPECT_NEAR(table[k].y, solver[k].y, 1e-3) << k;
  }
}

TEST_F(RunMappingTest, TheSolverComputesExactlyTheRunLength) {
  LensParams p;
  p.quadX1000 = -200, p.mode = kModeApply;
  auto lens = MakeLens(p);
  FGulp r, ratio;
  r.SetLen(13, 0);
  for (int k = 0; k < 13; ++k) r[k] = 0.05f * float(k);
  ratio.Constant(-7.0f);
  SolveUndistortRatios(*lens, r, ratio);
  EXPECT_EQ(ratio.len, 13);
  EXPECT_EQ(ratio[0], 1.0f);
  for (int k = 1; k < 13; ++k) EXPECT_EQ(ratio[k], UndistortRatio(*lens, r[k])) << k;
  for (int k = 13; k < 64; ++k) EXPECT_EQ(ratio[k], -7.0f) << k;
}

// Remove against the forward polynomial; Apply against the inverse, by the solver and, where
// the table is valid, by the table. The table may be off by its measured midpoint error (at
// most 1.5 pixels in units of half the undistorted width): an error in u of maxError /
// halfWidth normalised units, which the zoom and pixScale carry into pixels. Then each
// against the scalar mapping: without a zoom Remove evaluates the same operations in the same
// order, and Apply's solver differs only in where the zoom is rounded in (a few ulps of the
// normalised result, scaled by pixScale, plus the final multiply-add's rounding).
TEST_F(RunMappingTest, AgreesWithTheReferenceAndTheScalarMappingsInsideTheLimit) {
  std::mt19937 rng(77);
  int tablesUsed = 0;
  for (int n = 0; n < 120; ++n) {
    const int mode = n % 2 == 0 ? kModeRemove : kModeApply;
    LensParams p = RandomParams(rng, mode);
    if (n % 4 == 0) p.zoom = 1.0;
    auto lens = MakeLens(p);
    const auto ref = MakeRef(p);
    SCOPED_TRACE(testing::Message() << "case " << n << ": k " << p.quadX1000 << " " << p.cubeX1000 << " "
                                    << p.quarX1000 << ", zoom " << p.zoom << ", " << p.wd << "x" << p.hd
                                    << " / " << p.wu << "x" << p.hu << ", pa " << p.pa);
    const bool remove = mode == kModeRemove;
    const auto points = InsidePoints(*lens, ref, rng, 50, remove);
    const std::vector<VtPt> positions(points.begin(), points.end());
    auto map = [&](LD x, LD y, LD* ox, LD* oy) { ref.Map(remove, x, y, ox, oy); };
    const LD perUnit = std::fmax(1 / ref.sx, 1 / ref.sy);
    const LD tableTerm = LD(InverseTableMaxError(*lens)) / std::fabs(LD(p.wu) / 2) * ref.zoom * perUnit;

    // Expected positions and tolerances, once per point for every path.
    std::vector<LD> ex(points.size()), ey(points.size()), tol(points.size()), scalarTol(points.size());
    for (size_t k = 0; k < points.size(); ++k) {
      const auto& q = points[k];
      LD nx, ny;
      map(q.x, q.y, &ex[k], &ey[k]);
      ref.Normalise(q.x, q.y, &nx, &ny);
      const LD m = std::sqrt(nx * nx + ny * ny) / ref.zoom;
      const LD gain = LocalGain(map, q.x, q.y);
      tol[k] = MappingTolerance(p, ref, gain, q.x, q.y, ex[k], ey[k], remove ? m : 0, !remove, q.slope);
      scalarTol[k] = MappingTolerance(p, ref, gain, q.x, q.y, ex[k], ey[k], 0, false, 1);
    }
    const int table = lens->tableValid;
    if (!remove && table) ++tablesUsed;
    std::vector<VtPt> byTable;
    for (int valid : {table, 0}) {
      if (remove && valid == 0) continue;
      lens->tableValid = valid;
      const auto mapped = MapRuns(*lens, positions);
      for (size_t k = 0; k < points.size(); ++k) {
        const VtPt& q = points[k];
        SCOPED_TRACE(testing::Message() << "at (" << q.x << ", " << q.y << ")"
                                        << (remove ? "" : valid ? " table" : " solver"));
        const LD pathTol = tol[k] + (valid ? tableTerm : 0);
        EXPECT_NEAR(mapped[k].x, ex[k], pathTol);
        EXPECT_NEAR(mapped[k].y, ey[k], pathTol);
        if (remove) {
          const VtPt scalar = DistortPt(*lens, q);
          const double same = p.zoom == 1.0 ? 0.0 : double(scalarTol[k]);
          EXPECT_NEAR(mapped[k].x, scalar.x, same);
          EXPECT_NEAR(mapped[k].y, scalar.y, same);
        } else if (valid == 0) {
          VtPt scalar;
          UndistortPt(lens.get(), q, &scalar);
          const double close = 8 * std::ldexp(1.0, -24) * (std::fabs(scalar.x - lens->pixOffsetX) +
                               std::fabs(scalar.y - lens->pixOffsetY) + std::fabs(scalar.x) + std::fabs(scalar.y));
          EXPECT_NEAR(mapped[k].x, scalar.x, close);
          EXPECT_NEAR(mapped[k].y, scalar.y, close);
          // The table path against the solver path: the table's own error and the rounding
          // of both.
          if (!byTable.empty()) {
            EXPECT_NEAR(byTable[k].x, mapped[k].x, tableTerm + 2 * tol[k]);
            EXPECT_NEAR(byTable[k].y, mapped[k].y, tableTerm + 2 * tol[k]);
          }
        }
      }
      if (!remove && valid) byTable = mapped;
    }
  }
  EXPECT_GT(tablesUsed, 20);
}

// A row step mapped straight from its start, 4 or 8 lanes at a time, must give exactly what
// mapping the stored runs (Iota and Constant, always 4 lanes) and subtracting the buffer
// origin gives: every path, every step length, starts where float steps are exact and where
// they round (beyond 2^24).
TEST_F(RunMappingTest, RowStepsMapAsTheirStoredRunsOnEveryWidth) {
  CheckCPUFeatures();
  const int32_t savedWide = wide_vectors.load();
  for (int32_t wide : {0, 1}) {
  if (wide == 1 && !__builtin_cpu_supports("avx2")) continue;  // no 8-lane path here
  wide_vectors.store(wide);
  const struct {
    int mode;
    double quad, cube, quar;
    int tableValid;
  } cases[] = {{kModeRemove, -50, 0, 0, 1}, {kModeRemove, 30, -20, 10, 1}, {kModeRemove, 20, 0, -5, 1},
               {kModeRemove, -10, 15, 0, 1}, {kModeApply, -50, 0, 0, 1}, {kModeApply, -50, 0, 0, 0}};
  const BufferOrigin origins[] = {{0.0f, 0.0f}, {149.0f, -23.0f}};
  for (const auto& c : cases) {
    LensParams p;
    p.mode = c.mode, p.quadX1000 = c.quad, p.cubeX1000 = c.cube, p.quarX1000 = c.quar;
    auto lens = MakeLens(p);
    lens->tableValid = c.tableValid;
    for (float x0 : {0.0f, -37.0f, 1913.0f, 16777200.0f, -16777230.0f}) {
      for (int len : {1, 3, 4, 5, 8, 13, 63, 64}) {
        for (const BufferOrigin& origin : origins) {
          SCOPED_TRACE(testing::Message() << "mode " << c.mode << " table " << c.tableValid
                                          << " x0 " << x0 << " len " << len << " origin " << origin.x);
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
          ASSERT_EQ(viaStep.x.len, len);
          ASSERT_EQ(viaStep.y.len, len);
          ASSERT_EQ(std::memcmp(viaStep.x.data(), viaRuns.x.data(), len * sizeof(float)), 0);
          ASSERT_EQ(std::memcmp(viaStep.y.data(), viaRuns.y.data(), len * sizeof(float)), 0)
              << (wide ? "8 lanes" : "4 lanes");
        }
      }
    }
  }
  }
  wide_vectors.store(savedWide);
}

}  // namespace
