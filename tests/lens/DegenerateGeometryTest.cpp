// Degenerate geometry: zero or negative sizes, zoom 0, non-finite values. Nothing may hang
// or crash, the output frame stays within +-1e9, and the inverse table is only used when the
// geometry is finite (run under the address sanitizer, a table read outside the record is
// caught: the records live on the heap).
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "LensTestSupport.h"
#include "lens/PointMapping.h"
#include "lens/RunMapping.h"

namespace {

using lenstest::LensParams;
using lenstest::MakeLens;

const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();

struct Degenerate {
  std::string name;
  LensParams params;
  bool nonFinite;  // the transform, limit or table scale cannot all be finite
};

std::vector<Degenerate> Cases() {
  std::vector<Degenerate> cases;
  auto add = [&](const std::string& name, bool nonFinite, auto change) {
    LensParams p;
    p.quadX1000 = -50;
    change(p);
    cases.push_back({name, p, nonFinite});
  };
  add("zero undistorted width", true, [](LensParams& p) { p.wu = 0; });
  add("zero undistorted height", true, [](LensParams& p) { p.hu = 0; });
  add("all sizes zero", true, [](LensParams& p) { p.wd = p.hd = p.wu = p.hu = 0; });
  add("zero distorted size", false, [](LensParams& p) { p.wd = p.hd = 0; });
  add("negative sizes", false, [](LensParams& p) {
    p.wd = p.wu = -1920;
    p.hd = p.hu = -1080;
  });
  add("negative undistorted height", false, [](LensParams& p) { p.hu = -1080; });
  add("zoom 0", false, [](LensParams& p) { p.zoom = 0; });
  add("zoom NaN", false, [](LensParams& p) { p.zoom = kNaN; });
  add("zoom infinite", false, [](LensParams& p) { p.zoom = kInf; });
  add("quadratic NaN", true, [](LensParams& p) { p.quadX1000 = kNaN; });
  add("cubic infinite", true, [](LensParams& p) { p.cubeX1000 = kInf; });
  add("quartic -infinite", true, [](LensParams& p) { p.quarX1000 = -kInf; });
  add("huge quadratic", false, [](LensParams& p) { p.quadX1000 = 1e40; });
  add("pixel aspect 0", true, [](LensParams& p) { p.pa = 0; });
  add("pixel aspect NaN", true, [](LensParams& p) { p.pa = kNaN; });
  add("pixel aspect infinite", true, [](LensParams& p) { p.pa = kInf; });
  add("huge sizes", false, [](LensParams& p) {
    p.wd = p.wu = 2000000000;
    p.hd = p.hu = 1;
  });
  // A frame 327680 units wide: the limit search steps until the 0.002 step no longer moves
  // u (at 65536), where P, still rising, rounds down to float: the same step would be
  // accepted again and again.
  add("very wide frame", false, [](LensParams& p) {
    p.quadX1000 = 300;
    p.quarX1000 = 500;
    p.wd = p.wu = 32768;
    p.hd = p.hu = 1;
    p.pa = 10;
  });
  return cases;
}

// Runs of output positions: ordinary, far out, and a short run.
std::vector<FGulpPt> TestRuns() {
  std::vector<FGulpPt> runs(3);
  for (int k = 0; k < 64; ++k) {
    runs[0].x[k] = float(k * 30);
    runs[0].y[k] = float(k * 17);
  }
  const float far[] = {1e9f, -1e9f, 3e38f, -3e38f, 0.0f, 1073741824.0f, -2147483648.0f, 5.0f};
  for (int k = 0; k < 64; ++k) {
    runs[1].x[k] = far[k % 8];
    runs[1].y[k] = far[(k / 8) % 8];
  }
  runs[2].x.SetLen(5, 0);
  runs[2].y.SetLen(5, 0);
  for (int k = 0; k < 5; ++k) {
    runs[2].x[k] = float(k) - 2.0f;
    runs[2].y[k] = 540.0f;
  }
  return runs;
}

TEST(DegenerateGeometryTest, NothingHangsCrashesOrOverflows) {
  lenstest::EnsureCpuChecked();
  const auto runs = TestRuns();
  for (const auto& c : Cases()) {
    for (int mode : {kModeRemove, kModeApply}) {
      SCOPED_TRACE(c.name + (mode == kModeApply ? " (Apply)" : " (Remove)"));
      LensParams p = c.params;
      p.mode = mode;
      auto lens = MakeLens(p);

      const PF_LRect& rect = lens->maxResultRect;
      for (int32_t bound : {rect.left, rect.top, rect.right, rect.bottom}) {
        EXPECT_LE(bound, 1000000000);
        EXPECT_GE(bound, -1000000000);
      }
      if (c.nonFinite) {
        EXPECT_EQ(lens->tableValid, 0);
      }
      if (lens->tableValid) {
        EXPECT_TRUE(InverseTableUsable(*lens));
      }

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

TEST(DegenerateGeometryTest, OutputFrameBoundsSaturate) {
  // A one-pixel-high undistorted frame 2e9 pixels wide in Remove with pixel aspect 1: the
  // frame spans 2e9 layer pixels around the centre, beyond what the bounds may hold.
  LensParams p;
  p.wd = p.wu = 2000000000;
  p.hd = p.hu = 1;
  auto lens = MakeLens(p);
  EXPECT_EQ(lens->maxResultRect.left, 0);
  EXPECT_EQ(lens->maxResultRect.right, 1000000000);
  p.wd = 0;  // now centred on 0 with pixels half as wide: -2e9 .. 2e9
  p.pa = 0.5;
  lens = MakeLens(p);
  EXPECT_EQ(lens->maxResultRect.left, -1000000000);
  EXPECT_EQ(lens->maxResultRect.right, 1000000000);

  // An undefined horizontal extent (0 * infinity) gives 0; the vertical one is unaffected.
  p = LensParams();
  p.wu = 0;
  p.mode = kModeApply;
  lens = MakeLens(p);
  EXPECT_EQ(lens->maxResultRect.left, 0);
  EXPECT_EQ(lens->maxResultRect.right, 0);
  EXPECT_EQ(lens->maxResultRect.top, 0);
  EXPECT_EQ(lens->maxResultRect.bottom, 1081);
}

}  // namespace
