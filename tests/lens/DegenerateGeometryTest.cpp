// Degenerate geometry: zero or negative sizes, zoom 0, non-finite values. Nothing may hang
// or crash, the output frame stays within +-1e9, and the inverse table is only used when the
// geometry is finite (run under the address sanitizer, a table read outside the record is
// caught: the records live on the heap).
#include "LensTestSupport.h"

namespace {

using namespace lenstest;

const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();

// Runs of output positions: ordinary, far out, and a short run.
std::vector<FGulpPt> TestRuns() {
  std::vector<FGulpPt> runs(3);
  const float far[] = {1e9f, -1e9f, 3e38f, -3e38f, 0.0f, 1073741824.0f, -2147483648.0f, 5.0f};
  for (int k = 0; k < 64; ++k) {
    runs[0].x[k] = float(k * 30), runs[0].y[k] = float(k * 17);
    runs[1].x[k] = far[k % 8], runs[1].y[k] = far[(k / 8) % 8];
    runs[2].x[k] = float(k) - 2.0f, runs[2].y[k] = 540.0f;
  }
  runs[2].x.SetLen(5, 0);
  runs[2].y.SetLen(5, 0);
  return runs;
}

TEST(DegenerateGeometryTest, NothingHangsCrashesOrOverflows) {
  CheckCPUFeatures();
  // nonFinite: the transform, limit or table scale cannot all be finite.
  const struct {
    const char* name;
    bool nonFinite;
    void (*change)(LensParams&);
  } cases[] = {
      {"zero undistorted width", true, [](LensParams& p) { p.wu = 0; }},
      {"zero undistorted height", true, [](LensParams& p) { p.hu = 0; }},
      {"all sizes zero", true, [](LensParams& p) { p.wd = p.hd = p.wu = p.hu = 0; }},
      {"zero distorted size", false, [](LensParams& p) { p.wd = p.hd = 0; }},
      {"negative sizes", false, [](LensParams& p) { p.wd = p.wu = -1920, p.hd = p.hu = -1080; }},
      {"negative undistorted height", false, [](LensParams& p) { p.hu = -1080; }},
      {"zoom 0", false, [](LensParams& p) { p.zoom = 0; }},
      {"zoom NaN", false, [](LensParams& p) { p.zoom = kNaN; }},
      {"zoom infinite", false, [](LensParams& p) { p.zoom = kInf; }},
      {"quadratic NaN", true, [](LensParams& p) { p.quadX1000 = kNaN; }},
      {"cubic infinite", true, [](LensParams& p) { p.cubeX1000 = kInf; }},
      {"quartic -infinite", true, [](LensParams& p) { p.quarX1000 = -kInf; }},
      {"huge quadratic", false, [](LensParams& p) { p.quadX1000 = 1e40; }},
      {"pixel aspect 0", true, [](LensParams& p) { p.pa = 0; }},
      {"pixel aspect NaN", true, [](LensParams& p) { p.pa = kNaN; }},
      {"pixel aspect infinite", true, [](LensParams& p) { p.pa = kInf; }},
  };
  const auto runs = TestRuns();
  for (const auto& c : cases) {
    for (int mode : {kModeRemove, kModeApply}) {
      SCOPED_TRACE(testing::Message() << c.name << (mode == kModeApply ? " (Apply)" : " (Remove)"));
      LensParams p;
      p.quadX1000 = -50, p.mode = mode;
      c.change(p);
      auto lens = MakeLens(p);
      const PF_LRect& rect = lens->maxResultRect;
      for (int32_t bound : {rect.left, rect.top, rect.right, rect.bottom})
        EXPECT_LE(std::abs(int64_t{bound}), 1000000000);
      EXPECT_TRUE(!c.nonFinite || lens->tableValid == 0);
      EXPECT_TRUE(!lens->tableValid || InverseTableUsable(*lens));

      // The scalar mappings only have to come back (the solver is bounded by 20 updates).
      for (VtPt q : {VtPt{0, 0}, VtPt{960, 540}, VtPt{1e9f, -1e9f}, VtPt{3e38f, 3e38f}}) {
        DistortPt(*lens, q);
        VtPt u;
        UndistortPt(lens.get(), q, &u);
      }
      // Both Apply paths when the table is valid; only the solver otherwise.
      const int table = lens->tableValid;
      for (int valid : {table, 0}) {
        lens->tableValid = valid;
        for (const auto& run : runs) {
          FGulpPt in;
          MapOutToInPt(lens.get(), run, in);
          EXPECT_EQ(in.x.len, run.x.len);
        }
      }
    }
  }
}

// A frame 327680 units wide: the limit search steps until the 0.002 step no longer moves u
// (at 65536), where P, still rising, rounds down to float: the same step would be accepted
// again and again. The search is the same in both modes.
TEST(DegenerateGeometryTest, LimitSearchEndsAndOutputFrameBoundsSaturate) {
  LensParams p;
  p.quadX1000 = 300, p.quarX1000 = 500, p.wd = p.wu = 32768, p.hd = p.hu = 1, p.pa = 10;
  EXPECT_EQ(MakeLens(p)->limitUndistorted, 65536.0f);  // the first float that 0.002 cannot move

  // A one-pixel-high undistorted frame 2e9 pixels wide in Remove with pixel aspect 1: the
  // frame spans 2e9 layer pixels around the centre, beyond what the output frame's bounds
  // may hold. (The barrel keeps the limit search short.)
  p = LensParams();
  p.quadX1000 = -50, p.wd = p.wu = 2000000000, p.hd = p.hu = 1;
  EXPECT_TRUE(RectIs(MakeLens(p)->maxResultRect, 0, 0, 1000000000, 2));
  p.wd = 0, p.pa = 0.5;  // now centred on 0 with pixels half as wide: -2e9 .. 2e9
  EXPECT_TRUE(RectIs(MakeLens(p)->maxResultRect, -1000000000, 0, 1000000000, 2));
  // An undefined horizontal extent (0 * infinity) gives 0; the vertical one is unaffected.
  p = LensParams();
  p.wu = 0, p.mode = kModeApply;
  EXPECT_TRUE(RectIs(MakeLens(p)->maxResultRect, 0, 0, 0, 1081));
}

}  // namespace
