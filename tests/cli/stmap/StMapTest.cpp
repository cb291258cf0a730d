// veltrisca stmap: maps that another program (oiiotool --st_warp) turns into our renders, the
// channel layout of --both, the overscan windows, and refusals.

#include "../CliTestSupport.h"

namespace {

using namespace vt_cli_test;

std::string Quote(const std::string& s) { return "'" + s + "'"; }  // (no quotes in our paths)

// PSNR over the pixels at least `margin` from every edge, RGB, peak 1.
double InteriorPsnr(const Image& a, const Image& b, int margin) {
  double sum = 0;
  long long n = 0;
  for (int y = margin; y < a.height - margin; ++y) {
    for (int x = margin; x < a.width - margin; ++x) {
      for (int c = 0; c < 3; ++c) {
        const double d = a.pixels[(size_t(y) * a.width + x) * a.channels + c] -
                         b.pixels[(size_t(y) * b.width + x) * b.channels + c];
        sum += d * d;
        ++n;
      }
    }
  }
  return sum == 0 ? 999.0 : 10.0 * std::log10(n / sum);
}

// Lenses under which the warp only magnifies (oiiotool's warp keeps the source's frame, so the
// output frame is the chart's), so that oiiotool's triangle filter stays the bilinear
// interpolation our render does (where it minifies it widens the filter and blurs). One
// oiiotool run warps the chart with every map.
TEST(StMap, OiiotoolWarpWithOurMapReproducesTheBilinearRender) {
  const char* lenses[] = {"--distortion -50", "--mode apply --distortion 40 --quartic 15",
                          "--distortion -30 --cubic -10 --zoom 1.1"};
  ScratchDir dir;
  const std::string chart = dir / "chart.exr";
  RunOk({"chart", chart, "--size", "240x136", "--depth", "float"});
  std::string warp = "oiiotool";
  for (size_t k = 0; k < std::size(lenses); ++k) {
    const std::string n = std::to_string(k);
    RunOk(Cat({"render", chart, dir / ("render" + n + ".exr"), "--filter", "bilinear"},
              Split(lenses[k])));
    RunOk(Cat({"stmap", dir / ("map" + n + ".exr"), "--like", chart, "--filter", "bilinear"},
              Split(lenses[k])));
    warp += " " + Quote(chart) + " " + Quote(dir / ("map" + n + ".exr")) +
            " --st_warp:filter=triangle:flip_t=1 -o " + Quote(dir / ("warp" + n + ".exr"));
  }
  ASSERT_EQ(std::system(warp.c_str()), 0) << warp;
  for (size_t k = 0; k < std::size(lenses); ++k) {
    SCOPED_TRACE(lenses[k]);
    const std::string n = std::to_string(k);
    const Image ours = ReadImage(dir / ("render" + n + ".exr"));
    const Image theirs = ReadImage(dir / ("warp" + n + ".exr"));
    ASSERT_EQ(ours.width * 10000 + ours.height, theirs.width * 10000 + theirs.height);
    EXPECT_GE(InteriorPsnr(ours, theirs, 3), 60.0);
    // The map is float (half would be blocky), and its A is where the render shows the
    // (opaque) chart.
    const Image map = ReadImage(dir / ("map" + n + ".exr"));
    EXPECT_EQ(map.format, OIIO::TypeDesc::FLOAT);
    long long covered = 0;
    for (size_t i = 0; i < size_t(map.width) * map.height; ++i) {
      covered += map.pixels[i * 4 + 3] > 0;
      ASSERT_EQ(map.pixels[i * 4 + 3] > 0, ours.pixels[i * ours.channels + 3] > 0) << "pixel " << i;
    }
    EXPECT_GT(covered, map.width * map.height / 2);
  }
}

TEST(StMap, BothHoldsEachDirectionAndItsCoverage) {
  ScratchDir dir;
  const Args lens = Split("--size 80x45 --distortion -80 --cubic 20");
  RunOk(Cat({"stmap", dir / "remove.exr"}, lens));
  RunOk(Cat({"stmap", dir / "apply.exr", "--mode", "apply"}, lens));
  RunOk(Cat({"stmap", dir / "both.exr", "--both"}, lens));
  const Image remove = ReadImage(dir / "remove.exr"), apply = ReadImage(dir / "apply.exr");
  const Image both = ReadImage(dir / "both.exr");
  ASSERT_EQ(both.channels, 6);
  const std::vector<std::string>& names = both.spec.channelnames;
  const std::tuple<const Image*, int, const char*> picks[] = {
      {&remove, 0, "R"}, {&remove, 1, "G"}, {&remove, 3, "remove.A"},
      {&apply, 0, "B"},  {&apply, 1, "A"},  {&apply, 3, "apply.A"}};
  for (const auto& [single, channel, name] : picks) {
    const size_t c = std::find(names.begin(), names.end(), name) - names.begin();
    ASSERT_LT(c, names.size()) << name;
    for (size_t i = 0; i < size_t(both.width) * both.height; ++i) {
      ASSERT_EQ(both.pixels[i * 6 + c], single->pixels[i * 4 + channel]) << name << " " << i;
    }
  }
}

TEST(StMap, OverscanGoesIntoTheDataWindow) {
  ScratchDir dir;
  RunOk({"stmap", dir / "map.exr", "--size", "200x100", "--distortion", "-50",
         "--window=-10,-6,215,104"});
  const Image map = ReadImage(dir / "map.exr");
  const OIIO::ImageSpec& s = map.spec;
  EXPECT_EQ(
      (std::array{s.full_x, s.full_y, s.full_width, s.full_height, s.x, s.y, s.width, s.height}),
      (std::array{0, 0, 200, 100, -10, -6, 225, 110}));
  // The centre of the frame maps to itself: s, t of pixel (100, 50) at the lens centre.
  auto st = [&](int x, int y, int c) { return map.pixels[((y + 6) * 225 + x + 10) * 4 + c]; };
  EXPECT_FLOAT_EQ(st(100, 50, 0), 100.5f / 200);
  EXPECT_FLOAT_EQ(st(100, 50, 1), 1.0f - 50.5f / 100);
  // The lens is symmetric about its centre: pixels (x, y) and (200 - x, 100 - y) read positions
  // mirrored about it, whose s and t add up to 201 / 200 and 99 / 100, to the last row.
  for (int y = -3; y < 104; ++y) {
    for (int x = -10; x <= 210; ++x) {
      ASSERT_NEAR(st(x, y, 0) + st(200 - x, 100 - y, 0), 201.0 / 200, 1e-5) << x << "," << y;
      ASSERT_NEAR(st(x, y, 1) + st(200 - x, 100 - y, 1), 99.0 / 100, 1e-5) << x << "," << y;
    }
  }
}

TEST(StMap, RefusalsLeaveNoFile) {
  ScratchDir dir;
  const struct {
    std::vector<std::string> args;
    int exitCode;
    const char* mentions;
  } refusals[] = {
      {{"stmap", dir / "map.png"}, 1, "(.exr)"},
      {{"stmap", "m"}, 1, "(.exr)"},  // a name too short to end in .exr
      {{"stmap", dir / "map.exr", "--both", "--undistorted-size", "2000x1120"}, 1, "differ"},
      // an odd margin: the frames differ in their right edges alone
      {{"stmap", dir / "map.exr", "--both", "--undistorted-size", "1921x1080"}, 1, "differ"},
      {{"stmap", dir / "map.exr", "--like", dir / "none.exr"}, 2, "none.exr"},
  };
  for (const auto& r : refusals) {
    ExpectRefusal(RunTool(r.args), r.exitCode, r.mentions, r.args[1]);
    EXPECT_TRUE(fs::is_empty(dir.path()));
  }
  EXPECT_FALSE(fs::exists("m"));
}

}  // namespace
