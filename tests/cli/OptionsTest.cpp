// Option parsing and validation, size defaulting per mode, and the default output windows.
#include <gtest/gtest.h>

#include <sstream>

#include "cli/CliError.h"
#include "cli/Commands.h"
#include "cli/Memory.h"
#include "cli/Options.h"

namespace veltrisca {
namespace {

// The message of the CliError a call throws, with its exit code checked.
template <typename Call>
std::string Refusal(Call call, int exitCode = kExitUsage) {
  try {
    call();
  } catch (const CliError& e) {
    EXPECT_EQ(e.exitCode(), exitCode) << e.what();
    return e.what();
  }
  ADD_FAILURE() << "nothing was refused";
  return "";
}

TEST(SliderOptions, AcceptTheRangeEndsAndRefuseJustBeyond) {
  EXPECT_EQ(ParseSlider("--distortion", "-20000", kCoefficientRange), -20000.0);
  EXPECT_EQ(ParseSlider("--distortion", "20000", kCoefficientRange), 20000.0);
  EXPECT_EQ(ParseSlider("--zoom", "0", kZoomRange), 0.0);
  EXPECT_EQ(ParseSlider("--zoom", "10", kZoomRange), 10.0);
  EXPECT_EQ(ParseSlider("--pixel-aspect", "0.1", kPixelAspectRange), 0.1);
  EXPECT_EQ(ParseSlider("--cubic", "-1.5e3", kCoefficientRange), -1500.0);

  const std::string coef = Refusal([] { ParseSlider("--cubic", "20000.001", kCoefficientRange); });
  EXPECT_NE(coef.find("--cubic"), std::string::npos) << coef;
  EXPECT_NE(coef.find("-20000..20000"), std::string::npos) << coef;
  EXPECT_NE(Refusal([] { ParseSlider("--zoom", "-0.001", kZoomRange); }).find("0..10"),
            std::string::npos);
  EXPECT_NE(Refusal([] { ParseSlider("--pixel-aspect", "0.0999", kPixelAspectRange); })
                .find("0.1..10"),
            std::string::npos);
  Refusal([] { ParseSlider("--pixel-aspect", "10.000001", kPixelAspectRange); });
}

TEST(SliderOptions, RefuseTextThatIsNotOneFiniteNumber) {
  for (const char* bad : {"", "abc", "1e", "5 ", " 5", "1,5", "0x", "--5"}) {
    const std::string m = Refusal([&] { ParseSlider("--quartic", bad, kCoefficientRange); });
    EXPECT_NE(m.find("--quartic"), std::string::npos) << bad << ": " << m;
  }
  for (const char* nonFinite : {"inf", "-inf", "nan", "1e400", "-1e999"}) {
    const std::string m = Refusal([&] { ParseSlider("--zoom", nonFinite, kZoomRange); });
    EXPECT_NE(m.find("0..10"), std::string::npos) << nonFinite << ": " << m;
  }
}

TEST(SizeAndRectOptions, ParseStrictly) {
  const ImageSize s = ParseSize("--size", "1920x1080");
  EXPECT_EQ(s.width, 1920);
  EXPECT_EQ(s.height, 1080);
  EXPECT_EQ(ParseSize("--size", "7X3").width, 7);
  EXPECT_EQ(ParseSize("--size", "32767x32767").height, 32767);
  for (const char* bad : {"0x10", "10x0", "-5x10", "32768x10", "19.5x10", "1920", "1920x",
                          "x1080", "1920x1080x3", "axb", "1e3x10"}) {
    Refusal([&] { ParseSize("--undistorted-size", bad); });
  }

  const PF_LRect r = ParseRect("--window", "-40,-20,1960,1100");
  EXPECT_EQ(r.left, -40);
  EXPECT_EQ(r.top, -20);
  EXPECT_EQ(r.right, 1960);
  EXPECT_EQ(r.bottom, 1100);
  const PF_LRect extreme = ParseRect("--request", "-2147483648,0,2147483647,0");
  EXPECT_EQ(extreme.left, INT32_MIN);
  EXPECT_EQ(extreme.right, INT32_MAX);
  for (const char* bad : {"1,2,3", "1,2,3,4,5", "1,2,,4", "2147483648,0,1,1", "a,b,c,d",
                          "1.5,0,2,2", ""}) {
    Refusal([&] { ParseRect("--window", bad); });
  }
}

TEST(ChoiceOptions, NameEveryModeAndFilter) {
  EXPECT_EQ(ParseMode("remove"), 1);
  EXPECT_EQ(ParseMode("Apply"), 2);
  const char* filters[] = {"builtin", "nearest", "bilinear", "lanczos2", "lanczos3", "MITCHELL"};
  for (int i = 0; i < 6; ++i) EXPECT_EQ(ParseFilter(filters[i]), i + 1) << filters[i];
  EXPECT_NE(Refusal([] { ParseMode("undistort"); }).find("remove or apply"), std::string::npos);
  Refusal([] { ParseFilter("lanczos4"); });
  Refusal([] { ParseFilter("4"); });
  EXPECT_EQ(ParseInt("--threads", "2", 0, kMaxThreads), 2);
  Refusal([] { ParseInt("--threads", "-1", 0, kMaxThreads); });
  Refusal([] { ParseInt("--threads", "two", 0, kMaxThreads); });
}

TEST(SizeDefaults, FollowTheLayerOnTheSideTheModeReads) {
  const ImageSize layer{1920, 1080};
  LensSettings s;  // Remove: the layer is the distorted plate
  LensSizes z = ResolveSizes(s, layer);
  EXPECT_EQ(z.distorted.width, 1920);
  EXPECT_EQ(z.undistorted.height, 1080);

  s.undistortedSize = ImageSize{2000, 1120};
  z = ResolveSizes(s, layer);
  EXPECT_EQ(z.distorted.width, 1920);
  EXPECT_EQ(z.undistorted.width, 2000);

  s.undistortedSize.reset();
  s.distortedSize = ImageSize{1280, 720};  // given: the undistorted size follows it
  z = ResolveSizes(s, layer);
  EXPECT_EQ(z.distorted.width, 1280);
  EXPECT_EQ(z.undistorted.width, 1280);
  EXPECT_EQ(z.undistorted.height, 720);

  LensSettings a;
  a.mode = kModeApply;  // the layer is the undistorted image
  a.distortedSize = ImageSize{1920, 1080};
  z = ResolveSizes(a, ImageSize{2000, 1120});
  EXPECT_EQ(z.undistorted.width, 2000);
  EXPECT_EQ(z.undistorted.height, 1120);
  EXPECT_EQ(z.distorted.width, 1920);
  a.distortedSize.reset();
  z = ResolveSizes(a, ImageSize{2000, 1120});
  EXPECT_EQ(z.distorted.width, 2000);
  EXPECT_EQ(z.distorted.height, 1120);

  // A layer too wide for the size parameters needs the size given explicitly.
  const std::string m = Refusal([&] { ResolveSizes(s = LensSettings{}, ImageSize{40000, 100}); },
                                kExitIo);
  EXPECT_NE(m.find("--distorted-size"), std::string::npos) << m;
  s.distortedSize = ImageSize{1920, 1080};
  EXPECT_EQ(ResolveSizes(s, ImageSize{40000, 100}).undistorted.width, 1920);
}

TEST(DefaultWindows, RemoveDropsTheExtraColumnAndRow) {
  const LensSizes same{{1920, 1080}, {1920, 1080}};
  DefaultWindow w = RemoveWindow(PF_LRect{0, 0, 1921, 1081}, same);
  EXPECT_EQ(RectText(w.rect), "0,0,1920,1080");
  EXPECT_FALSE(w.halfPixelX || w.halfPixelY);

  const LensSizes overscan{{1920, 1080}, {2000, 1120}};
  w = RemoveWindow(PF_LRect{-40, -20, 1961, 1101}, overscan);
  EXPECT_EQ(RectText(w.rect), "-40,-20,1960,1100");
  EXPECT_FALSE(w.halfPixelX || w.halfPixelY);

  // 1925 - 1920 is odd: -2.5 truncated to -2, half a pixel right of centred.
  const LensSizes odd{{1920, 1080}, {1925, 1080}};
  w = RemoveWindow(PF_LRect{-2, 0, 1924, 1081}, odd);
  EXPECT_EQ(RectText(w.rect), "-2,0,1923,1080");
  EXPECT_TRUE(w.halfPixelX);
  EXPECT_FALSE(w.halfPixelY);
}

TEST(DefaultWindows, ApplyCentresTheDistortedSizeOnTheLensCentre) {
  DefaultWindow w = ApplyWindow(1000.0f, 560.0f, ImageSize{1920, 1080});
  EXPECT_EQ(RectText(w.rect), "40,20,1960,1100");
  EXPECT_FALSE(w.halfPixelX || w.halfPixelY);

  w = ApplyWindow(1000.0f, 562.5f, ImageSize{1919, 1080});  // margins 81 and 45
  EXPECT_EQ(RectText(w.rect), "40,22,1959,1102");
  EXPECT_TRUE(w.halfPixelX);
  EXPECT_TRUE(w.halfPixelY);

  // A distorted size larger than the layer: the window starts left of it, rounded down.
  w = ApplyWindow(960.0f, 540.0f, ImageSize{2001, 1080});
  EXPECT_EQ(RectText(w.rect), "-41,0,1960,1080");
  EXPECT_TRUE(w.halfPixelX);
}

TEST(MemoryCheck, RefusesWorkThatDoesNotFit) {
  EXPECT_NO_THROW(CheckMemory(100, 100, "x"));
  const std::string m = Refusal([] { CheckMemory(3ull << 30, 1ull << 30, "rendering a.exr"); },
                                kExitIo);
  EXPECT_NE(m.find("rendering a.exr"), std::string::npos) << m;
  EXPECT_NE(m.find("3.0 GiB"), std::string::npos) << m;
  EXPECT_GT(AvailableMemoryBytes(), 0u);
}

// The command line itself: usage errors exit with 1 and one line on stderr, before any plug-in
// is loaded (so these run without one).
TEST(CommandLine, UsageErrorsExitWithOneAndOneLine) {
  struct Case {
    std::vector<std::string> args;
    const char* mentions;
  };
  const Case cases[] = {
      {{"info", "--distortion", "30000"}, "-20000..20000"},
      {{"info", "--zoom", "nan"}, "0..10"},
      {{"info", "--pixel-aspect", "0.05"}, "0.1..10"},
      {{"info", "--size", "0x1080"}, "--size"},
      {{"info", "--filter", "cubic"}, "--filter"},
      {{"info", "--no-such-option"}, "no-such-option"},
      {{"render", "only-one-file.png"}, "OUT"},
      {{"render", "a.png", "b.png", "--window", "10,10,10,20"}, "empty"},
      {{"render", "a.png", "b.png", "--threads", "x"}, "--threads"},
      {{}, "subcommand"},
      {{"foo"}, "unknown command 'foo'"},
      {{"--plugin", "x.so", "rendr", "a.png"}, "unknown command 'rendr'"},
  };
  for (const Case& c : cases) {
    std::ostringstream out, err;
    EXPECT_EQ(RunCli(c.args, out, err), kExitUsage) << err.str();
    const std::string e = err.str();
    EXPECT_NE(e.find(c.mentions), std::string::npos) << e;
    EXPECT_EQ(e.find('\n'), e.size() - 1) << "more than one line: " << e;
    EXPECT_TRUE(out.str().empty());
  }
}

TEST(CommandLine, VersionAndHelp) {
  std::ostringstream out, err;
  EXPECT_EQ(RunCli({"--version"}, out, err), 0);
  EXPECT_EQ(out.str(), "1.2\n");
  for (const char* sub : {"info", "render", "chart"}) {
    std::ostringstream o, e;
    EXPECT_EQ(RunCli({sub, "--help"}, o, e), 0);
    EXPECT_NE(o.str().find("--"), std::string::npos) << sub;
  }
  std::ostringstream o, e;
  EXPECT_EQ(RunCli({"--help"}, o, e), 0);
  EXPECT_NE(o.str().find("Exit codes"), std::string::npos);
}

}  // namespace
}  // namespace veltrisca
