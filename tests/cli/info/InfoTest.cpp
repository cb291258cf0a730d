// `veltrisca info` end to end: the options reach the effect, the pre-render's figures come back
// in the text and JSON forms, and info IMAGE reads the frame as render does. The figures
// themselves belong to the effect's own tests.

#include "../CliTestSupport.h"
#include "cli/lens/Fit.h"

namespace {

using namespace vt_cli_test;

Json Info(std::vector<std::string> args) {
  args.insert(args.begin(), {"info", "--json"});
  const auto r = RunOk(args);
  EXPECT_TRUE(r.err.empty()) << r.err;
  return Json::parse(r.out);
}

using Rect = std::vector<long long>;

// The documented example: DistortionX1000 -50, Remove, on a 1920 x 1080 layer.
TEST(Info, ReportsThePreRenderInTextAndJson) {
  const Json j = Info({"--distortion", "-50"});
  EXPECT_EQ(j["about"],
            "Veltrisca Distortion 1.2\r\rVeltrisca camera-matching lens distortion plugin.");
  EXPECT_EQ(j["inputRequest"].get<Rect>(), (Rect{149, 23, 1772, 1057}));
  EXPECT_EQ(j["maxResultRect"].get<Rect>(), (Rect{0, 0, 1921, 1081}));
  EXPECT_EQ(j["resultRect"].get<Rect>(), (Rect{0, 0, 1920, 1080}));
  EXPECT_FALSE(j.contains("inverseTable"));
  const auto text = RunOk({"info", "--distortion", "-50"});
  EXPECT_NE(text.out.find("Veltrisca Distortion 1.2"), std::string::npos) << text.out;
  EXPECT_NE(text.out.find("(149, 23, 1772, 1057)  1623 x 1034"), std::string::npos) << text.out;
  EXPECT_NE(text.out.find("(0, 0, 1921, 1081)"), std::string::npos) << text.out;
}

// Every option lands in its own parameter: each has a value no other has.
TEST(Info, EveryLensOptionReachesTheEffect) {
  const Json j = Info({"--mode", "apply", "--filter", "mitchell", "--distortion", "-150", "--cubic",
                       "10", "--quartic", "2", "--zoom", "1.25", "--pixel-aspect", "1", "--size",
                       "1400x800", "--distorted-size", "1280x720", "--request=-8,-6,1390,790"});
  EXPECT_EQ(Rect({j["distortMode"], j["filterType"], j["distortedWidth"], j["distortedHeight"],
                  j["undistortedWidth"], j["undistortedHeight"]}),
            (Rect{2, 6, 1280, 720, 1400, 800}));
  EXPECT_EQ(
      std::vector<double>({j["quadratic"], j["cubic"], j["quartic"], j["zoom"], j["pixelAspect"]}),
      (std::vector<double>{-150 * 0.001, 10 * 0.001, 2 * 0.001, 1.25, 1.0}));
  EXPECT_EQ(j["layerSize"].get<Rect>(), (Rect{1400, 800}));
  EXPECT_EQ(j["request"].get<Rect>(), (Rect{-8, -6, 1390, 790}));
}

TEST(Info, TableOnRequestAndNonFiniteValuesAsStrings) {
  Json j = Info({"--table"});
  ASSERT_EQ(j["inverseTable"].size(), 2050u);
  EXPECT_EQ(j["inverseTable"][0], 0.0);
  EXPECT_EQ(j["inverseTable"][2049], j["inverseTable"][2048]);
  j = Info({"--zoom", "0"});  // the slider allows 0: the reciprocal is infinite
  EXPECT_EQ(j["invZoom"], "Infinity");
}

// info IMAGE reads the frame as render does: in Apply an overscan data window is the
// undistorted frame and the display window the distorted one; the pixel aspect is the file's.
// Its --fit size has even margins and is the one render --fit writes, and the share of the
// plate beyond what the lens inverts is the one render warns of.
TEST(Info, ImageFrameAgreesWithRender) {
  ScratchDir dir;
  OIIO::ImageSpec spec(100, 60, 3, OIIO::TypeDesc::HALF);
  std::tie(spec.x, spec.y, spec.full_width, spec.full_height) = std::tuple(-10, -6, 80, 48);
  spec.attribute("PixelAspectRatio", 1.25f);
  const std::vector<float> px(100 * 60 * 3, 0.5f);
  WriteSpec(dir / "os.exr", spec, OIIO::TypeDesc::FLOAT, px.data());
  Json j = Info({dir / "os.exr", "--mode", "apply"});
  EXPECT_EQ(j["layerSize"].get<Rect>(), (Rect{100, 60}));
  // (Apply at a pixel aspect other than 1 hands the effect the undistorted size for both.)
  EXPECT_EQ(Rect({j["undistortedWidth"], j["undistortedHeight"], j["distortedWidth"],
                  j["distortedHeight"]}),
            (Rect{100, 60, 100, 60}));
  EXPECT_EQ(j["pixelAspect"], 1.25);
  EXPECT_EQ(j["image"], dir / "os.exr");

  // Remove: the display window is the plate, which equal sizes cannot hold under this lens.
  const Args lens = {dir / "os.exr", dir / "out.exr", "--distortion", "-60", "--pixel-aspect", "1"};
  j = Info({lens[0], lens[2], lens[3], lens[4], lens[5]});
  EXPECT_EQ(j["distortedWidth"], 80);
  const auto fit = j["fitUndistortedSize"].get<std::vector<int>>();
  ASSERT_EQ(fit.size(), 2u);
  EXPECT_GT(fit[1], 48);
  EXPECT_EQ((fit[0] - 80) % 2 + (fit[1] - 48) % 2, 0);
  const double beyond = j["beyondInvertible"];
  EXPECT_GT(beyond, 0.0);
  char share[64];
  std::snprintf(share, sizeof share, "warning: %.1f%% of the distorted frame", 100 * beyond);
  EXPECT_NE(RunOk(Cat({"render"}, lens)).err.find(share), std::string::npos) << share;
  RunOk(Cat({"render", "--fit"}, lens));
  const Image written = ReadImage(dir / "out.exr");
  EXPECT_EQ((std::vector<int>{written.width, written.height}), fit);
}

// The share is counted on at most about 512 columns and rows: on a frame 1024 wide or high,
// every second one. Here the radius is the column or the row (Apply reads the lens record's
// normalisation), so all but the first lie at or beyond the limit 1.
TEST(Info, TheShareBeyondTheInverseIsSampledOnAtMost512ColumnsAndRows) {
  VtAFXLensData lens{};
  lens.normScaleX = lens.normScaleY = 1;
  for (const PF_LRect& frame :
       {PF_LRect{0, 0, 1024, 1}, PF_LRect{0, 0, 1, 1024}, PF_LRect{0, 0, 512, 1}}) {
    EXPECT_EQ(veltrisca::UnreachableFraction(lens, 2, frame, 1.0), 511.0 / 512) << frame.right;
  }
  EXPECT_EQ(veltrisca::UnreachableFraction(lens, 2, PF_LRect{0, 0, 4, 1}, 1.0), 3.0 / 4);
}

}  // namespace
