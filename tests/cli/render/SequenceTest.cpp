// Image sequences: frame patterns and lists, which frames a render takes, what it reports
// while it runs, and `render` over a shot as a farm runs it.

#include "../CliTestSupport.h"
#include "cli/shared/Errors.h"
#include "cli/render/FramePattern.h"
#include "cli/render/Progress.h"
#include "cli/render/ShotPipeline.h"

namespace veltrisca {
namespace {

using namespace vt_cli_test;

TEST(FramePatterns, EachConventionWritesItsFrameNumbers) {
  struct Case {
    const char* path;
    int frame;
    const char* written;
  };
  const Case cases[] = {
      {"plate.#.exr", 7, "plate.0007.exr"},     {"plate.####.exr", 1001, "plate.1001.exr"},
      {"plate.##.exr", 7, "plate.07.exr"},      {"plate.@@@.exr", 42, "plate.042.exr"},
      {"plate.@.exr", 1234, "plate.1234.exr"},  {"plate.%04d.exr", 5, "plate.0005.exr"},
      {"plate.%d.exr", 5, "plate.5.exr"},       {"shot#1/p.#.exr", 3, "shot#1/p.0003.exr"},
      {"50%.#.exr", 12, "50%.0012.exr"},        {"shot10#.exr", 1, "shot100001.exr"},
      {"p.1001-1003#.exr", 1002, "p.1002.exr"}, {"@@@@@.exr", 42, "00042.exr"},
  };
  for (const Case& c : cases) {
    const auto pattern = ParseFramePattern("IN", c.path, true);
    ASSERT_TRUE(pattern) << c.path;
    EXPECT_EQ(FramePath(*pattern, c.frame), c.written) << c.path;
  }
  EXPECT_FALSE(ParseFramePattern("IN", "plate.exr", true));
  EXPECT_EQ(ParseFramePattern("IN", "p.1001-1003#.exr", true)->inlineFrames,
            (std::vector<int>{1001, 1002, 1003}));
  // OUT takes no inline list; digits that do not parse as one belong to the name.
  EXPECT_THROW(ParseFramePattern("OUT", "p.1-3#.exr", false), CliError);
  EXPECT_EQ(FramePath(*ParseFramePattern("OUT", "p.v2-#.exr", false), 2), "p.v2-0002.exr");
}

TEST(FrameLists, ParseInOrderOnceEachAndRefuseTheRest) {
  EXPECT_EQ(ParseFrameList("--frames", "1001-1004"), (std::vector<int>{1001, 1002, 1003, 1004}));
  EXPECT_EQ(ParseFrameList("--frames", "1-7x3"), (std::vector<int>{1, 4, 7}));
  EXPECT_EQ(ParseFrameList("--frames", "9,3-4,3"), (std::vector<int>{9, 3, 4}));
  EXPECT_EQ(ParseFrameList("--frames", "0"), (std::vector<int>{0}));
  for (const char* bad :
       {"", "a", "1-", "-5", "5-1", "1-5x0", "1x2", "1,,2", " 1", "1-99999999", "123456789"}) {
    EXPECT_THROW(ParseFrameList("--frames", bad), CliError) << bad;
  }
  EXPECT_EQ(FrameListText({1, 2, 3, 5, 7, 8}), "1-3,5,7-8");
}

// Frames 1 to 3 on disk (what they hold does not matter to the selection).
TEST(FrameSelection, TakesTheFramesOnDiskAndSetsAsideTheOthers) {
  ScratchDir dir;
  for (int f = 1; f <= 3; ++f) Write(dir / ("p.000" + std::to_string(f) + ".exr"), "");
  const std::string in = dir / "p.####.exr", out = dir / "o.#.exr";
  auto frames = [](const FrameSelection& s) {  // "2?" for a missing frame 2
    std::string text;
    for (const auto& e : s.frames)
      text += std::to_string(*e.files.frame) + (e.missing ? "? " : " ");
    return text;
  };
  FrameSelection s = SelectFrames(in, out, "");
  EXPECT_TRUE(s.numbered);
  EXPECT_EQ(frames(s), "1 2 3 ");
  EXPECT_EQ(s.frames[1].files.input, dir / "p.0002.exr");
  EXPECT_EQ(s.frames[1].files.output, dir / "o.0002.exr");
  // Before the first frame and past the last: set aside, not missing.
  s = SelectFrames(in, out, "4,0-2");
  EXPECT_EQ(frames(s), "1 2 ");
  EXPECT_EQ(s.outside, (std::vector<int>{0, 4}));
  // A hole inside the sequence is a missing frame.
  fs::remove(dir / "p.0002.exr");
  s = SelectFrames(in, out, "");
  EXPECT_EQ(frames(s), "1 2? 3 ");
  EXPECT_TRUE(s.outside.empty());

  const std::string single = dir / "p.0001.exr";
  const std::tuple<std::string, std::string, const char*, int, const char*> bad[] = {
      {in, out, "7-9", kExitIo, "none of the frames 7-9"},
      {in, dir / "o.exr", "", kExitUsage, "OUT needs a frame number"},
      {single, out, "", kExitUsage, "is a single file"},
      {single, dir / "o.exr", "1", kExitUsage, "--frames needs a frame number"},
      {dir / "p.1-2#.exr", out, "1", kExitUsage, "give one"},
      {dir / "none.#.exr", out, "", kExitIo, "no frame of"},
      {dir / "a.#.b.#.exr", out, "", kExitUsage, "two frame numbers"},
      {dir / "a.%4d.exr", out, "", kExitUsage, "%0Nd"},
      {dir / "a.%09d.exr", out, "", kExitUsage, "1 to 8"},
      {dir / "a.5-1#.exr", out, "", kExitUsage, "backwards"},
      {in, dir / "o.1001-1003#.exr", "", kExitUsage, "only IN takes one"},
      {in, out, "1-123456789", kExitUsage, "largest frame number, 99999999"},
      {dir / "a.100000000-100000001#.exr", out, "", kExitUsage, "largest frame number"},
  };
  for (const auto& [input, output, frames, exitCode, says] : bad) {
    const std::string m = Refusal(exitCode, SelectFrames, input, output, frames);
    EXPECT_NE(m.find(says), std::string::npos) << m;
  }
  EXPECT_NE(Refusal(kExitUsage, ParseProgressStyle, "fancy", false).find("--progress"),
            std::string::npos);
}

TEST(Progress, TheBarCountsFramesAndOpenJdCountsRows) {
  const FrameFiles one{1, "in.1.exr", "out.1.exr"}, two{2, "in.2.exr", "out.2.exr"};
  std::ostringstream out, err;
  {
    Progress bar(ProgressStyle::kBar, 2, false, out, err);
    bar.Started(one);
    bar.Done(one, Progress::Outcome::kWritten);
    EXPECT_NE(err.str().find("\r1/2 frames"), std::string::npos) << err.str();
    bar.Started(two);
    bar.Done(two, Progress::Outcome::kFailed, "frame 2: broken");  // the bar's line cleared
    EXPECT_NE(err.str().find("\r\x1b[Kveltrisca: frame 2: broken\n"), std::string::npos);
  }
  EXPECT_TRUE(out.str().empty()) << out.str();

  std::ostringstream jd;
  Progress openjd(ProgressStyle::kOpenJd, 2, false, jd, err);
  openjd.Started(one);
  openjd.Rows(1, 0);  // a pass without rows counts nothing
  openjd.Rows(1, 2);
  openjd.Done(one, Progress::Outcome::kWritten);
  EXPECT_EQ(jd.str(), "openjd_progress: 0\nopenjd_progress: 25\nopenjd_progress: 50\n");
}

// A short sequence of distinct frames, named plate.NNNN.exr.
class Shot : public ::testing::Test {
 protected:
  void SetUp() override {
    RunOk({"chart", dir / "chart.exr", "--size", "64x36"});
    const vt_cli_test::Image chart = ReadImage(dir / "chart.exr");
    for (int f = 1; f <= 3; ++f) {
      std::vector<float> px = chart.pixels;
      for (size_t i = 0; i < px.size(); i += 7) px[i] *= 0.2f * f;  // frames differ
      WriteImage(Plate(f), chart.width, chart.height, chart.channels, OIIO::TypeDesc::HALF,
                 OIIO::TypeDesc::FLOAT, px.data());
    }
  }
  std::string Plate(int f) const { return dir / ("plate.000" + std::to_string(f) + ".exr"); }
  std::string Out(int f) const { return dir / ("out.000" + std::to_string(f) + ".exr"); }
  bool Exists(int f) const { return fs::exists(Out(f)); }
  RunResult Render(const std::vector<std::string>& extra) {
    return RunTool(Cat({"render", dir / "plate.####.exr", dir / "out.%04d.exr", "--distortion",
                        "-40", "--filter", "lanczos3"},
                       extra));
  }
  ScratchDir dir;
};

TEST_F(Shot, OneCommandWritesWhatSingleRendersWriteAndReportsEachFrame) {
  const auto run = Render({"--progress", "lines"});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  for (int f = 1; f <= 3; ++f) {
    const std::string single = dir / ("single." + std::to_string(f) + ".exr");
    RunOk({"render", Plate(f), single, "--distortion", "-40", "--filter", "lanczos3"});
    EXPECT_EQ(Slurp(Out(f)), Slurp(single)) << "frame " << f;
    EXPECT_NE(run.out.find("frame " + std::to_string(f) + "  "), std::string::npos);
  }
  EXPECT_NE(run.out.find("plate.0003.exr -> " + Out(3)), std::string::npos) << run.out;
  // The rate is frames over the run's time, however short the run (time printed to 0.05 s).
  const std::string summary = "3 frames written, 0 skipped, 0 failed in ";
  const size_t at = run.out.find(summary);
  ASSERT_NE(at, std::string::npos) << run.out;
  double seconds = 0, fps = 0;
  ASSERT_EQ(std::sscanf(&run.out[at + summary.size()], "%lf s (%lf fps)", &seconds, &fps), 2);
  EXPECT_GE(fps, 3 / (seconds + 0.05));
  if (seconds > 0.05) {
    EXPECT_LE(fps, 3 / (seconds - 0.05));
  }
  // A re-queued task leaves what is there.
  const auto again = Render({"--skip-existing", "--progress", "lines"});
  ASSERT_EQ(again.exitCode, 0) << again.err;
  EXPECT_NE(again.out.find("0 frames written, 3 skipped"), std::string::npos) << again.out;
}

TEST_F(Shot, FramesPastTheEndAreSkippedAndHolesAreErrors) {
  auto run = Render({"--frames", "2-5", "--progress", "none"});
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_TRUE(Exists(2) && Exists(3) && !Exists(1));
  EXPECT_NE(run.err.find("frames 4-5 lie outside the sequence on disk (1-3); skipped"),
            std::string::npos)
      << run.err;
  fs::remove(Plate(2));
  fs::remove(Out(3));
  run = Render({});
  EXPECT_EQ(run.exitCode, 2);
  EXPECT_NE(run.err.find("frame 2 is missing"), std::string::npos) << run.err;
  EXPECT_FALSE(Exists(1) || Exists(3));  // refused before any work
  run = Render({"--keep-going", "--progress", "none"});
  EXPECT_EQ(run.exitCode, 2);
  EXPECT_TRUE(Exists(1) && Exists(3));
  EXPECT_NE(run.err.find("1 of 3 frames failed: 2"), std::string::npos) << run.err;
}

TEST_F(Shot, ADamagedFrameStopsTheRunUnlessKeepGoing) {
  const std::string data = Slurp(Plate(2));
  Write(Plate(2), data.substr(0, data.size() / 2));
  auto run = Render({"--progress", "none"});
  EXPECT_EQ(run.exitCode, 2);
  EXPECT_NE(run.err.find("veltrisca: frame 2: "), std::string::npos) << run.err;
  EXPECT_TRUE(Exists(1));  // the frames before it are written
  EXPECT_FALSE(Exists(2) || Exists(3));

  run = Render({"--keep-going", "--progress", "openjd"});
  EXPECT_EQ(run.exitCode, 2);
  EXPECT_TRUE(Exists(3));
  EXPECT_FALSE(Exists(2));
  EXPECT_NE(run.err.find("1 of 3 frames failed: 2"), std::string::npos) << run.err;
  // Progress for an Open Job Description action: rising whole percentages from 0 to 100, the
  // rows of a frame counted in (a single file reports its rows alone).
  const auto single = RunOk({"render", Plate(1), dir / "single.exr", "--progress", "openjd"});
  for (const std::string& out : {run.out, single.out}) {
    std::istringstream lines(out);
    std::vector<int> percents;  // -1 for a line of another kind
    for (std::string line; std::getline(lines, line);) {
      percents.push_back(line.rfind("openjd_progress: ", 0) == 0 ? std::stoi(line.substr(17)) : -1);
    }
    ASSERT_GT(percents.size(), 5u) << out;
    EXPECT_TRUE(percents.front() == 0 && percents.back() == 100 &&
                std::adjacent_find(percents.begin(), percents.end(), std::greater_equal<>()) ==
                    percents.end())
        << out;
  }
  // Nothing half-written is left behind.
  for (const auto& e : fs::directory_iterator(dir.path())) {
    EXPECT_NE(e.path().filename().string()[0], '.') << e.path();
  }
}

}  // namespace
}  // namespace veltrisca
