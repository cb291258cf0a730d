// The command line: what each value parser takes, the sizes each mode defaults to, the default
// output windows, and the one table of refused command lines.
#include <optional>

#include "CliTestSupport.h"
#include "cli/shared/Errors.h"
#include "cli/image/ImageGeometry.h"
#include "cli/lens/LensOptions.h"

namespace veltrisca {
namespace {

using namespace vt_cli_test;

TEST(OptionValues, ParsersTakeTheWholeRangeExactly) {
  EXPECT_EQ(ParseSlider("--distortion", "-20000", kCoefficientRange), -20000.0);
  EXPECT_EQ(ParseSlider("--distortion", "20000", kCoefficientRange), 20000.0);
  EXPECT_EQ(ParseSlider("--cubic", "-1.5e3", kCoefficientRange), -1500.0);
  EXPECT_EQ(ParseSlider("--zoom", "0", kZoomRange), 0.0);
  EXPECT_EQ(ParseSlider("--zoom", "10", kZoomRange), 10.0);
  EXPECT_EQ(ParseSlider("--pixel-aspect", "0.1", kPixelAspectRange), 0.1);
  EXPECT_EQ(ParseSize("--size", "1920x1080").width, 1920);
  EXPECT_EQ(ParseSize("--size", "1920x1080").height, 1080);
  EXPECT_EQ(ParseSize("--size", "7X3").width, 7);
  EXPECT_EQ(ParseSize("--size", "32767x32767").height, 32767);
  EXPECT_EQ(RectText(ParseRect("--window", "-40,-20,1960,1100")), "-40,-20,1960,1100");
  EXPECT_EQ(RectText(ParseRect("--request", "-2147483648,0,2147483647,0")),
            "-2147483648,0,2147483647,0");
  EXPECT_EQ(ParseMode("remove"), 1);
  EXPECT_EQ(ParseMode("Apply"), 2);
  const char* filters[] = {"builtin", "nearest", "bilinear", "lanczos2", "lanczos3", "MITCHELL"};
  for (int i = 0; i < 6; ++i) EXPECT_EQ(ParseFilter(filters[i]), i + 1) << filters[i];
  EXPECT_EQ(ParseInt("--threads", "2", 0, kMaxThreads), 2);
}

TEST(SizeDefaults, FollowTheLayerOnTheSideTheModeReads) {
  // Mode, the sizes given, the layer's, and the distorted and undistorted sizes.
  const std::tuple<int, std::optional<ImageSize>, std::optional<ImageSize>, ImageSize, const char*>
      cases[] = {
          {kModeRemove, {}, {}, {1920, 1080}, "1920x1080 1920x1080"},
          {kModeRemove, {}, ImageSize{2000, 1120}, {1920, 1080}, "1920x1080 2000x1120"},
          // A given distorted size: the undistorted size follows it, not the layer (which may be
          // too wide for the size parameters).
          {kModeRemove, ImageSize{1280, 720}, {}, {1920, 1080}, "1280x720 1280x720"},
          {kModeRemove, ImageSize{1920, 1080}, {}, {40000, 100}, "1920x1080 1920x1080"},
          // Apply: the layer is the undistorted image.
          {kModeApply, ImageSize{1920, 1080}, {}, {2000, 1120}, "1920x1080 2000x1120"},
          {kModeApply, {}, {}, {2000, 1120}, "2000x1120 2000x1120"},
      };
  auto text = [](ImageSize s) { return std::to_string(s.width) + "x" + std::to_string(s.height); };
  for (const auto& [mode, distorted, undistorted, layer, want] : cases) {
    LensSettings s;
    std::tie(s.mode, s.distortedSize, s.undistortedSize) = std::tie(mode, distorted, undistorted);
    const LensSizes z = ResolveSizes(s, layer);
    EXPECT_EQ(text(z.distorted) + " " + text(z.undistorted), want) << text(layer);
  }
}

// An anamorphic remove hands the effect the undistorted width in square units: at pixel aspect
// 7, 4681 file pixels are exactly the 32767 the size parameters hold, one more is refused.
TEST(SizeDefaults, AnamorphicRemoveHandsSquareUnitsUpToTheParametersLimit) {
  LensSettings s;
  s.mode = kModeRemove;
  s.pixelAspect = 7;
  const LensSizes handed = EffectSizes(s, LensSizes{{1000, 100}, {4681, 100}});
  EXPECT_EQ(handed.undistorted.width, kMaxImageSide);
  EXPECT_EQ(handed.distorted.width, 1000);
  EXPECT_NE(Refusal(kExitIo, [&] { EffectSizes(s, LensSizes{{1000, 100}, {4682, 100}}); })
                .find("32774 square pixels, more than the 32767"),
            std::string::npos);
}

// The half-pixel flags: a margin of odd width cannot be split evenly.
TEST(DefaultWindows, RemoveDropsTheExtraColumnAndRowAndApplyCentresOnTheLens) {
  const std::tuple<DefaultWindow, const char*, bool, bool> cases[] = {
      {RemoveWindow(PF_LRect{0, 0, 1921, 1081}, {{1920, 1080}, {1920, 1080}}), "0,0,1920,1080",
       false, false},
      {RemoveWindow(PF_LRect{-40, -20, 1961, 1101}, {{1920, 1080}, {2000, 1120}}),
       "-40,-20,1960,1100", false, false},
      // 1925 - 1920 is odd: -2.5 truncated to -2, half a pixel right of centred.
      {RemoveWindow(PF_LRect{-2, 0, 1924, 1081}, {{1920, 1080}, {1925, 1080}}), "-2,0,1923,1080",
       true, false},
      {ApplyWindow(1000.0f, 560.0f, ImageSize{1920, 1080}), "40,20,1960,1100", false, false},
      {ApplyWindow(1000.0f, 562.5f, ImageSize{1919, 1080}), "40,22,1959,1102", true, true},
      // Larger than the layer: the window starts left of it, rounded down.
      {ApplyWindow(960.0f, 540.0f, ImageSize{2001, 1080}), "-41,0,1960,1080", true, false},
      {ApplyWindow(960.0f, 540.0f, ImageSize{2002, 1080}), "-41,0,1961,1080", false, false},
  };
  for (const auto& [w, rect, halfX, halfY] : cases) {
    EXPECT_EQ(RectText(w.rect), rect);
    EXPECT_EQ(w.halfPixelX, halfX) << rect;
    EXPECT_EQ(w.halfPixelY, halfY) << rect;
  }
}

// Every refused command line: its exit code, one line naming the reason, and the folder left
// exactly as it was (an earlier OUT included).
TEST(CommandLine, RefusalsSayWhyOnOneLineAndTouchNoFile) {
  ScratchDir dir;
  const auto px = NoiseBytes(8 * 6 * 4, 7);
  WriteImage(dir / "in.png", 8, 6, 4, OIIO::TypeDesc::UINT8, OIIO::TypeDesc::UINT8, px.data());
  const std::vector<float> five(8 * 6 * 5, 0.25f);
  WriteImage(dir / "five.tif", 8, 6, 5, OIIO::TypeDesc::UINT8, OIIO::TypeDesc::FLOAT, five.data());
  Write(dir / "out.png", "the previous result");
  const std::string in = dir / "in.png", out = dir / "out.png";

  // Each option with the values of its kind that it refuses, given as --option=value (so that
  // "-1" is a value), and given empty: an empty value is no value, never the default.
  struct Option {
    const char* command;
    std::string option, mentions;  // mentions: the range, where the message gives one
    std::vector<std::string> bad;
  };
  const std::vector<std::string> notANumber = {"abc", "1e",  "1,5",  " 5",  "5 ",    "0x",
                                               "--5", "inf", "-inf", "nan", "1e400", "-1e999"};
  const std::vector<std::string> badSizes = {"0x6",   "8x0", "32768x6", "-8x6",
                                             "8",     "8x",  "x6",      "8.5x6",
                                             "8x6x1", "axb", "1e3x10",  "99999999999999999999x6"};
  const std::vector<std::string> badRects = {"1,2,3",     "1,2,3,4,5", "1,2,,4",          "a,b,c,d",
                                             "1.5,0,8,6", "0,0,1e3,5", "0,0,2147483648,1"};
  const Option options[] = {
      {"render IN OUT", "--distortion", "-20000..20000", Cat(notANumber, {"-20000.5", "30000"})},
      {"render IN OUT", "--cubic", "-20000..20000", Cat(notANumber, {"20000.001"})},
      {"render IN OUT", "--quartic", "-20000..20000", Cat(notANumber, {"-20001"})},
      {"render IN OUT", "--zoom", "0..10", Cat(notANumber, {"-0.001", "10.5"})},
      {"render IN OUT", "--pixel-aspect", "0.1..10", Cat(notANumber, {"0.0999", "10.000001"})},
      {"render IN OUT", "--distorted-size", "--distorted-size", badSizes},
      {"render IN OUT", "--undistorted-size", "--undistorted-size", badSizes},
      {"render IN OUT", "--threads", "--threads", {"-1", "1025", "two", "2.5", "1e2", "0x10"}},
      {"render IN OUT", "--window", "--window", Cat(badRects, {"0,0,0,6", "5,5,1,1"})},
      {"render IN OUT", "--mode", "remove or apply", {"distort", "1", "undistort"}},
      {"render IN OUT", "--filter", "--filter", {"cubic", "lanczos4", "0", "7"}},
      {"info", "--size", "--size", badSizes},
      {"info", "--request", "--request", badRects},
      {"chart OUT", "--size", "--size", badSizes},
      {"chart OUT", "--depth", "--depth", {"12", "double"}},
  };
  const Snapshot before = Take(dir.path());
  for (const Option& o : options) {
    for (const std::string& value : o.bad) {
      auto args = Split(o.command, in, out);
      args.push_back(o.option + "=" + value);
      const auto r = RunTool(args);
      ExpectRefusal(r, kExitUsage, o.mentions, o.option + "=" + value);
      EXPECT_NE(r.err.find(o.option), std::string::npos) << r.err;
    }
    auto args = Split(o.command, in, out);
    args.push_back(o.option + "=");
    ExpectRefusal(RunTool(args), kExitUsage, o.option, o.option + "=");
  }

  const std::tuple<std::string, int, const char*> lines[] = {
      // command line, exit, mentions
      {"", kExitUsage, "subcommand"},
      {"foo", kExitUsage, "unknown command 'foo'"},
      {"rendr IN", kExitUsage, "unknown command 'rendr'"},
      {"info --no-such-option", kExitUsage, "unknown option '--no-such-option' (see"},
      {"render IN OUT --distorsion -50", kExitUsage, "'--distorsion'; did you mean '--distortion'?"},
      // Two edits in ten letters: as far as a suggestion reaches.
      {"render IN OUT --distrtin -50", kExitUsage, "'--distrtin'; did you mean '--distortion'?"},
      {"render IN OUT --undist 8x6", kExitUsage, "did you mean '--undistorted-size'?"},
      {"render IN OUT --dis -5", kExitUsage, "unknown option '--dis' (see veltrisca render"},
      {"stmap OUT -qx", kExitUsage, "unknown option '-x' in '-qx'"},
      // A value that reads as an option is a missing value, not a channel named "--threads=2";
      // "--distortion=" gives no value, so -50 must not become one.
      {"render IN OUT --alpha --threads=2", kExitUsage, "--alpha: missing value"},
      {"render IN OUT -d -v", kExitUsage, "-d: missing value"},
      {"render IN OUT --distortion= -50", kExitUsage, "--distortion: an empty value"},
      {"info --lens " + dir / "missing.json", kExitIo, "No such file or directory"},
      {"render IN", kExitUsage, "OUT"},
      // The separated form reads a negative value as the value, not as another option.
      {"render IN OUT --distortion -30000", kExitUsage, "-20000..20000"},
      {"render IN OUT --mode apply --fit", kExitUsage, "--fit"},
      {"render IN OUT --mode apply --desqueeze", kExitUsage, "--desqueeze"},
      {"render IN " + dir / "o.exr" + " --compression lzw", kExitUsage, "piz"},
      // A window that parses but whose image no buffer can hold.
      {"render IN OUT --window=-2147483648,0,2147483647,1", kExitIo, "4.0 GiB"},
      {"render IN OUT --alpha Z", kExitIo, "R, G, B, A"},
      {"render IN OUT -d half", kExitIo, "cannot hold half"},
      {"render IN " + dir / "o.jpg", kExitIo, "alpha"},
      {"render IN " + dir / "o.xyz", kExitIo, "o.xyz"},
      {"render " + dir / "five.tif" + " OUT", kExitIo, "hold 1, 2, 3 or 4 channels"},
      {"render IN OUT --plugin " + dir / "nope.so", kExitEffect, "nope.so"},
      {"info --plugin " + dir / "nope.so", kExitEffect, "nope.so"},
  };
  for (const auto& [line, exitCode, mentions] : lines) {
    ExpectRefusal(RunTool(Split(line, in, out)), exitCode, mentions, line);
  }
  EXPECT_EQ(Take(dir.path()), before);
}

TEST(CommandLine, VersionAndHelp) {
  EXPECT_EQ(RunTool({"--version"}).out, "1.2\n");
  EXPECT_NE(RunTool({"--help"}).out.find("Exit codes"), std::string::npos);
  for (const char* sub : {"info", "render", "chart", "stmap", "lens"}) {
    const auto r = RunTool({sub, "--help"});
    EXPECT_EQ(r.exitCode, 0) << sub;
    EXPECT_NE(r.out.find("--"), std::string::npos) << sub;
  }
}

}  // namespace
}  // namespace veltrisca
