// The lens record's setup: parameter conversion, output frame and the monotonic limit of the
// lens polynomial. The frame transform is checked through the mappings against the reference
// model (RunMappingTest).
#include "LensTestSupport.h"

namespace {

using namespace lenstest;

TEST(LensSetupTest, MaxResultRectCoversTheUndistortedFrame) {
  // Heights 1080 (distorted) and hu. A larger undistorted frame is centred on the distorted
  // layer in Remove (the top of -22.5 truncates toward zero); equal sizes with pixel aspect 2
  // give the middle half of the layer width; with different sizes the undistorted image has
  // square pixels.
  const struct {
    int mode, wd, wu, hu;
    double pa;
    long left, top, right, bottom;
  } cases[] = {
      {kModeRemove, 1920, 1920, 1080, 1, 0, 0, 1921, 1081}, {kModeApply, 1920, 1920, 1080, 1, 0, 0, 1921, 1081},
      {kModeRemove, 1920, 2000, 1125, 1, -40, -22, 1961, 1104}, {kModeApply, 1920, 2000, 1125, 1, 0, 0, 2001, 1126},
      {kModeRemove, 1920, 1920, 1080, 2, 480, 0, 1441, 1081},
      {kModeRemove, 1440, 1920, 1080, 4.0 / 3.0, 0, 0, 1441, 1081},
  };
  for (const auto& c : cases) {
    LensParams p;
    p.mode = c.mode, p.wd = c.wd, p.wu = c.wu, p.hu = c.hu, p.pa = c.pa;
    EXPECT_TRUE(RectIs(MakeLens(p)->maxResultRect, c.left, c.top, c.right, c.bottom));
  }
}

TEST(MonotonicLimitTest, KnownLimits) {
  // 1920 x 1080. Where P rises throughout, the search stops at the first 0.002 step past the
  // frame corner plus 2 % (about 2.080523) and no finer pass runs; otherwise just below
  // the peak of P (-200: P' vanishes at 1.290994; -20000: at 1/sqrt(60) = 0.129099).
  const struct {
    double quadX1000, limitUndistorted, limitDistorted;
  } cases[] = {{0, 2.081985, 2.081985},   {-50, 2.081985, 1.630750}, {100, 2.081985, 2.984456},
               {-200, 1.290951, 0.860663}, {-20000, 0.128960, 0.086066}};
  for (const auto& c : cases) {
    LensParams p;
    p.quadX1000 = c.quadX1000;
    auto lens = MakeLens(p);
    EXPECT_NEAR(lens->limitUndistorted, c.limitUndistorted, 1e-6) << c.quadX1000;
    EXPECT_NEAR(lens->limitDistorted, c.limitDistorted, 1e-6) << c.quadX1000;
  }
}

TEST(MonotonicLimitTest, RandomCoefficientsGiveAPositiveRefinedLimit) {
  // Within the slider ranges the limit is positive, P rises up to it, limitDistorted is P
  // there, and the finest pass leaves it within a few fine steps of where P stops rising.
  std::mt19937 rng(5);
  std::uniform_real_distribution<double> coefficient(-20000.0, 20000.0);
  std::uniform_real_distribution<double> small(-500.0, 500.0);
  for (int n = 0; n < 40; ++n) {
    LensParams p;
    p.quadX1000 = n % 2 ? coefficient(rng) : small(rng), p.cubeX1000 = n % 3 ? coefficient(rng) : 0.0,
    p.quarX1000 = n % 5 ? small(rng) : 0.0;
    auto lens = MakeLens(p);
    const auto ref = MakeRef(p);
    SCOPED_TRACE(testing::Message() << "k = " << p.quadX1000 << ", " << p.cubeX1000 << ", " << p.quarX1000);
    ASSERT_GT(lens->limitUndistorted, 0.0f);
    EXPECT_NEAR(lens->limitDistorted / ref.P(lens->limitUndistorted), 1.0, 1e-6);
    EXPECT_LE(lens->limitUndistorted, ref.uLimit + 0.002);
    EXPECT_GE(lens->limitUndistorted, ref.uLimit - 0.0006);
  }
}

TEST(LensParamTest, PointSizesRoundToNearestEven) {
  const struct {
    PF_Fixed v;
    int32_t pixels;
  } cases[] = {{0x00640000, 100}, {0x00008000, 0}, {0x00018000, 2},  {0x00028000, 2},
               {0x00028001, 3},   {-0x00018000, -2},
               // Converted to single precision first: 0x7FFFFFFF becomes 2^31.
               {0x7FFFFFFF, 32768}, {INT32_MIN, -32768}};
  for (const auto& c : cases) EXPECT_EQ(PointToPixels(c.v), c.pixels) << std::hex << c.v;
}

TEST(LensParamTest, StoresEachParameterInItsField) {
  VtAFXLensData lens{};
  auto store = [&](int index, auto set) {
    PF_ParamDef def;
    std::memset(&def, 0, sizeof(def)), set(def.u), StoreLensParam(lens, index, def);
  };
  store(kParamMode, [](auto& u) { u.pd.value = 2; });
  store(kParamFilter, [](auto& u) { u.pd.value = 6; });
  store(kParamDistortion, [](auto& u) { u.fs_d.value = -50.0; });
  store(kParamCubic, [](auto& u) { u.fs_d.value = 20000.0; });
  store(kParamQuartic, [](auto& u) { u.fs_d.value = 1234.5; });
  store(kParamZoom, [](auto& u) { u.fs_d.value = 2.5; });
  store(kParamPixelAspect, [](auto& u) { u.fs_d.value = 1.333; });
  // Heights 1080.5 and 1125.5: through PointToPixels, to 1080 and 1126.
  store(kParamDistortedSize, [](auto& u) { u.td.x_value = 1920 << 16, u.td.y_value = (1080 << 16) + 0x8000; });
  store(kParamUndistortedSize, [](auto& u) { u.td.x_value = 2000 << 16, u.td.y_value = (1125 << 16) + 0x8000; });

  EXPECT_EQ(std::make_tuple(lens.distortMode, lens.filterType, lens.distortedWidth, lens.distortedHeight,
                            lens.undistortedWidth, lens.undistortedHeight),
            std::make_tuple(2, 6, 1920, 1080, 2000, 1126));
  EXPECT_EQ(std::make_tuple(lens.quadratic, lens.cubic, lens.quartic, lens.zoom, lens.pixelAspect),
            std::make_tuple(-50.0 * 0.001, 20000.0 * 0.001, 1234.5 * 0.001, 2.5, 1.333));
}

}  // namespace
