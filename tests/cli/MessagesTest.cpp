// What the tool says besides its refusals: -q and -v on every command, and the figures and
// types of its reports.
#include "CliTestSupport.h"

namespace {

using namespace vt_cli_test;

// Each command with a case that has something to note: -q leaves stderr empty, -v reports
// what was written (info and lens print their full report anyway and only take the flags).
TEST(Messages, EveryCommandTakesQuietAndVerbose) {
  ScratchDir dir;
  const auto px = NoiseBytes(48 * 27 * 4, 3);
  WriteImage(dir / "in.png", 48, 27, 4, OIIO::TypeDesc::UINT8, OIIO::TypeDesc::UINT8, px.data());
  const std::string in = dir / "in.png";
  const std::tuple<std::string, const char*, const char*> cases[] = {
      // command line (OUT: its output), what it notes without -q, what -v adds
      {"render IN OUT.png --undistorted-size 49x27", "note: ", "wrote OUT.png"},
      {"stmap OUT.exr --size 48x27 --undistorted-size 49x27", "note: ", "wrote OUT.exr: 49x27"},
      {"lens --from ffmpeg --k1 -0.1 --size 48x27 -o OUT.json", "", "wrote OUT.json, "},
      {"lens --from ffmpeg --k1 -0.1 --size 48x27", "position error", ""},
      {"chart OUT.png --size 48x27", "", "wrote OUT.png: 48x27, 4 channels, uint8 png"},
      {"info --size 48x27", "", ""},
  };
  for (const auto& [line, notes, verbose] : cases) {
    std::string expanded = line, said = verbose;
    for (std::string* text : {&expanded, &said}) {
      const size_t at = text->find("OUT");
      if (at != std::string::npos) text->replace(at, 3, dir / "out");
    }
    const RunResult plain = RunOk(Split(expanded, in));
    EXPECT_NE(plain.err.find(notes), std::string::npos) << line << ": " << plain.err;
    EXPECT_TRUE(RunOk(Cat(Split(expanded, in), {"-q"})).err.empty()) << line;
    const RunResult loud = RunOk(Cat(Split(expanded, in), {"-v"}));
    EXPECT_NE(loud.out.find(said), std::string::npos) << line << ": " << loud.out;
  }
}

// A lens file that cannot be written is not spoken of as an image.
TEST(Messages, AnUnwritableLensFileIsNoImage) {
  ScratchDir dir;
  const RunResult r = RunTool({"lens", "-o", dir.path().string()});
  ExpectRefusal(r, 2, dir.path().string(), "lens -o FOLDER");
  EXPECT_EQ(r.err.find("image"), std::string::npos) << r.err;
}

// A file whose channels have different sample types is reported as such, in and out.
TEST(Messages, VerboseNamesMixedSampleTypes) {
  ScratchDir dir;
  OIIO::ImageSpec spec(12, 8, 4, OIIO::TypeDesc::HALF);
  spec.channelnames = {"R", "G", "B", "Z"};
  spec.channelformats = {OIIO::TypeDesc::HALF, OIIO::TypeDesc::HALF, OIIO::TypeDesc::HALF,
                         OIIO::TypeDesc::FLOAT};
  spec.alpha_channel = -1;
  const std::vector<float> px(12 * 8 * 4, 0.5f);
  auto out = OIIO::ImageOutput::create(dir / "in.exr");
  ASSERT_TRUE(out && out->open(dir / "in.exr", spec) &&
              out->write_image(OIIO::TypeDesc::FLOAT, px.data()) && out->close());
  const RunResult r = RunOk({"render", dir / "in.exr", dir / "out.exr", "--alpha", "none", "-v"});
  for (const std::string line : {"read  ", "wrote "}) {
    const size_t at = r.out.find(line);
    ASSERT_NE(at, std::string::npos) << r.out;
    EXPECT_NE(r.out.find("mixed: half R,G,B; float Z openexr", at), std::string::npos) << r.out;
  }
}

// A share of the frame beyond the invertible radius too small for one decimal is given with
// two significant digits, never as "0.0%".
TEST(Messages, ASmallLossIsNotReportedAsNothing) {
  ScratchDir dir;
  const auto px = NoiseBytes(480 * 270 * 3, 8);
  WriteImage(dir / "in.png", 480, 270, 3, OIIO::TypeDesc::UINT8, OIIO::TypeDesc::UINT8,
             px.data());
  const RunResult r = RunOk({"render", dir / "in.png", dir / "out.png", "--distortion", "-36.5"});
  EXPECT_NE(r.err.find("warning: 0.044% of the distorted frame lies beyond"), std::string::npos)
      << r.err;
}

}  // namespace
