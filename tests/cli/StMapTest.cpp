// veltrisca stmap: maps that another program (oiiotool --st_warp) turns into our renders, the
// channel layout of --both, the overscan windows, and refusals.
#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "CliTestSupport.h"

namespace {

using vt_cli_test::Image;
using vt_cli_test::ReadImage;
using vt_cli_test::RunVeltrisca;
using vt_cli_test::ScratchDir;
using vt_cli_test::ShellQuote;

void Tool(const std::vector<std::string>& args) {
  const auto r = RunVeltrisca(args);
  ASSERT_EQ(r.exitCode, 0) << r.err;
}

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
// output frame is the chart's), so that oiiotool's triangle filter stays the
// bilinear interpolation our render does (where it minifies it widens the filter and blurs).
struct WarpCase {
  const char* name;
  std::vector<std::string> lens;
};

TEST(StMap, OiiotoolWarpWithOurMapReproducesTheBilinearRender) {
  const WarpCase cases[] = {
      {"remove barrel", {"--distortion", "-50"}},
      {"apply pincushion", {"--mode", "apply", "--distortion", "40", "--quartic", "15"}},
      {"remove with cubic and zoom", {"--distortion", "-30", "--cubic", "-10", "--zoom", "1.1"}},
  };
  ScratchDir dir;
  const std::string chart = dir / "chart.exr";
  Tool({"chart", chart, "--size", "480x270", "--depth", "float"});
  for (const WarpCase& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<std::string> render = {"render", chart, dir / "render.exr", "--filter",
                                       "bilinear"};
    std::vector<std::string> stmap = {"stmap", dir / "map.exr", "--like", chart, "--filter",
                                      "bilinear"};
    render.insert(render.end(), c.lens.begin(), c.lens.end());
    stmap.insert(stmap.end(), c.lens.begin(), c.lens.end());
    Tool(render);
    Tool(stmap);
    const std::string warp = "oiiotool " + ShellQuote(chart) + " " + ShellQuote(dir / "map.exr") +
                             " --st_warp:filter=triangle:flip_t=1 -o " +
                             ShellQuote(dir / "warp.exr");
    ASSERT_EQ(std::system(warp.c_str()), 0) << warp;
    const Image ours = ReadImage(dir / "render.exr");
    const Image theirs = ReadImage(dir / "warp.exr");
    ASSERT_EQ(ours.width, theirs.width);
    ASSERT_EQ(ours.height, theirs.height);
    EXPECT_GE(InteriorPsnr(ours, theirs, 3), 60.0);
    // The map is float (half would be blocky), and its A is where the render shows the
    // (opaque) chart.
    const Image map = ReadImage(dir / "map.exr");
    EXPECT_EQ(map.format, OIIO::TypeDesc::FLOAT);
    const Image& withAlpha = ours;
    long long covered = 0;
    for (size_t i = 0; i < size_t(map.width) * map.height; ++i) {
      covered += map.pixels[i * 4 + 3] > 0;
      ASSERT_EQ(map.pixels[i * 4 + 3] > 0, withAlpha.pixels[i * withAlpha.channels + 3] > 0)
          << "pixel " << i;
    }
    EXPECT_GT(covered, map.width * map.height / 2);
  }
}

TEST(StMap, BothHoldsEachDirectionAndItsCoverage) {
  ScratchDir dir;
  const std::vector<std::string> lens = {"--size", "320x180", "--distortion", "-80", "--cubic",
                                         "20"};
  auto with = [&](std::vector<std::string> args) {
    args.insert(args.end(), lens.begin(), lens.end());
    return args;
  };
  Tool(with({"stmap", dir / "remove.exr"}));
  Tool(with({"stmap", dir / "apply.exr", "--mode", "apply"}));
  Tool(with({"stmap", dir / "both.exr", "--both"}));
  const Image remove = ReadImage(dir / "remove.exr");
  const Image apply = ReadImage(dir / "apply.exr");
  const Image both = ReadImage(dir / "both.exr");
  ASSERT_EQ(both.channels, 6);
  const std::vector<std::string>& names = both.spec.channelnames;
  auto index = [&](const std::string& name) {
    for (size_t i = 0; i < names.size(); ++i) {
      if (names[i] == name) return int(i);
    }
    ADD_FAILURE() << "no channel " << name;
    return 0;
  };
  struct Pick {
    const Image* single;
    int singleChannel;
    const char* bothChannel;
  };
  const Pick picks[] = {{&remove, 0, "R"}, {&remove, 1, "G"}, {&remove, 3, "remove.A"},
                        {&apply, 0, "B"},  {&apply, 1, "A"},  {&apply, 3, "apply.A"}};
  for (const Pick& p : picks) {
    const int c = index(p.bothChannel);
    for (size_t i = 0; i < size_t(both.width) * both.height; ++i) {
      ASSERT_EQ(both.pixels[i * 6 + c], p.single->pixels[i * 4 + p.singleChannel])
          << p.bothChannel << " pixel " << i;
    }
  }
}

TEST(StMap, OverscanGoesIntoTheDataWindow) {
  ScratchDir dir;
  Tool({"stmap", dir / "map.exr", "--size", "200x100", "--distortion", "-50",
       "--window=-10,-6,215,104"});
  const Image map = ReadImage(dir / "map.exr");
  EXPECT_EQ(map.spec.full_x, 0);
  EXPECT_EQ(map.spec.full_y, 0);
  EXPECT_EQ(map.spec.full_width, 200);
  EXPECT_EQ(map.spec.full_height, 100);
  EXPECT_EQ(map.spec.x, -10);
  EXPECT_EQ(map.spec.y, -6);
  EXPECT_EQ(map.width, 225);
  EXPECT_EQ(map.height, 110);
  // The centre of the frame maps to itself: s, t of pixel (100, 50) at the lens centre.
  const size_t centre = (size_t(50 + 6) * map.width + (100 + 10)) * 4;
  EXPECT_FLOAT_EQ(map.pixels[centre], 100.5f / 200);
  EXPECT_FLOAT_EQ(map.pixels[centre + 1], 1.0f - 50.5f / 100);
}

TEST(StMap, RefusalsLeaveNoFile) {
  struct Refusal {
    const char* name;
    std::vector<std::string> args;
    int exitCode;
  };
  ScratchDir dir;
  const Refusal refusals[] = {
      {"not exr", {"stmap", dir / "map.png"}, 1},
      {"frames differ", {"stmap", dir / "map.exr", "--both", "--undistorted-size", "2000x1120"}, 1},
      {"missing like", {"stmap", dir / "map.exr", "--like", dir / "none.exr"}, 2},
  };
  for (const Refusal& r : refusals) {
    SCOPED_TRACE(r.name);
    const auto result = RunVeltrisca(r.args);
    EXPECT_EQ(result.exitCode, r.exitCode) << result.err;
    EXPECT_NE(result.err.find("veltrisca: "), std::string::npos);
    EXPECT_TRUE(dir.Entries().empty());
  }
}

}  // namespace
