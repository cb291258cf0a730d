// Image sequences: frame patterns and lists, and `render` over a shot as a farm runs it.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>

#include "CliTestSupport.h"
#include "cli/CliError.h"
#include "cli/FramePattern.h"

namespace veltrisca {
namespace {

using vt_cli_test::RunVeltrisca;
using vt_cli_test::ScratchDir;
using vt_cli_test::Slurp;

std::string UsageRefusal(const std::string& option, const std::string& path) {
  try {
    ParseFramePattern(option, path, true);
  } catch (const CliError& e) {
    EXPECT_EQ(e.exitCode(), kExitUsage);
    return e.what();
  }
  return "";
}

TEST(FramePatterns, EachConventionWritesItsFrameNumbers) {
  struct Case {
    const char* path;
    int frame;
    const char* written;
  };
  const Case cases[] = {
      {"plate.#.exr", 7, "plate.0007.exr"},       {"plate.####.exr", 1001, "plate.1001.exr"},
      {"plate.##.exr", 7, "plate.07.exr"},        {"plate.@@@.exr", 42, "plate.042.exr"},
      {"plate.@.exr", 1234, "plate.1234.exr"},    {"plate.%04d.exr", 5, "plate.0005.exr"},
      {"plate.%d.exr", 5, "plate.5.exr"},         {"shot#1/p.#.exr", 3, "shot#1/p.0003.exr"},
      {"50%.#.exr", 12, "50%.0012.exr"},          {"shot10#.exr", 1, "shot100001.exr"},
      {"p.1001-1003#.exr", 1002, "p.1002.exr"},
  };
  for (const Case& c : cases) {
    const auto pattern = ParseFramePattern("IN", c.path, true);
    ASSERT_TRUE(pattern) << c.path;
    EXPECT_EQ(FramePath(*pattern, c.frame), c.written) << c.path;
  }
  EXPECT_FALSE(ParseFramePattern("IN", "plate.exr", true));
  EXPECT_EQ(ParseFramePattern("IN", "p.1001-1003#.exr", true)->inlineFrames,
            (std::vector<int>{1001, 1002, 1003}));
  // Without inline lists (OUT), the digits belong to the name.
  EXPECT_EQ(FramePath(*ParseFramePattern("OUT", "p.1-3#.exr", false), 2), "p.1-30002.exr");

  EXPECT_NE(UsageRefusal("IN", "a.#.b.#.exr").find("two frame numbers"), std::string::npos);
  EXPECT_NE(UsageRefusal("IN", "a.%4d.exr").find("%0Nd"), std::string::npos);
  EXPECT_NE(UsageRefusal("IN", "a.%09d.exr").find("1 to 8"), std::string::npos);
  EXPECT_NE(UsageRefusal("IN", "a.5-1#.exr").find("backwards"), std::string::npos);
}

TEST(FrameLists, ParseInOrderOnceEachAndRefuseTheRest) {
  EXPECT_EQ(ParseFrameList("--frames", "1001-1004"), (std::vector<int>{1001, 1002, 1003, 1004}));
  EXPECT_EQ(ParseFrameList("--frames", "1-7x3"), (std::vector<int>{1, 4, 7}));
  EXPECT_EQ(ParseFrameList("--frames", "9,3-4,3"), (std::vector<int>{9, 3, 4}));
  EXPECT_EQ(ParseFrameList("--frames", "0"), (std::vector<int>{0}));
  for (const char* bad : {"", "a", "1-", "-5", "5-1", "1-5x0", "1x2", "1,,2", " 1", "1-99999999",
                          "123456789"}) {
    EXPECT_THROW(ParseFrameList("--frames", bad), CliError) << bad;
  }
  EXPECT_EQ(FrameListText({1, 2, 3, 5, 7, 8}), "1-3,5,7-8");
}

// A short sequence of distinct frames, named plate.NNNN.exr.
class Shot : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(RunVeltrisca({"chart", dir / "chart.exr", "--size", "96x54"}).exitCode, 0);
    const vt_cli_test::Image chart = vt_cli_test::ReadImage(dir / "chart.exr");
    for (int f = 1; f <= 5; ++f) {
      std::vector<float> px = chart.pixels;
      for (size_t i = 0; i < px.size(); i += 7) px[i] *= 0.2f * f;  // frames differ
      vt_cli_test::WriteImage(Plate(f), chart.width, chart.height, chart.channels,
                              OIIO::TypeDesc::HALF, OIIO::TypeDesc::FLOAT, px.data());
    }
  }
  std::string Plate(int f) const { return dir / ("plate.000" + std::to_string(f) + ".exr"); }
  std::string Out(int f) const { return dir / ("out.000" + std::to_string(f) + ".exr"); }
  bool Exists(const std::string& path) const {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
  }
  vt_cli_test::RunResult Render(std::vector<std::string> extra) {
    std::vector<std::string> args = {"render", dir / "plate.####.exr", dir / "out.%04d.exr",
                                     "--distortion", "-40", "--filter", "lanczos3"};
    args.insert(args.end(), extra.begin(), extra.end());
    return RunVeltrisca(args);
  }
  ScratchDir dir;
};

TEST_F(Shot, OneCommandWritesWhatSingleRendersWriteAndReportsEachFrame) {
  const auto run = Render({"--progress", "lines"});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  for (int f = 1; f <= 5; ++f) {
    const std::string single = dir / ("single." + std::to_string(f) + ".exr");
    ASSERT_EQ(RunVeltrisca({"render", Plate(f), single, "--distortion", "-40", "--filter",
                            "lanczos3"})
                  .exitCode,
              0);
    EXPECT_EQ(Slurp(Out(f)), Slurp(single)) << "frame " << f;
    EXPECT_NE(run.out.find("frame " + std::to_string(f) + "  "), std::string::npos);
  }
  EXPECT_NE(run.out.find("plate.0003.exr -> " + Out(3)), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("5 frames written, 0 skipped, 0 failed"), std::string::npos);

  // A re-queued task leaves what is there.
  const auto again = Render({"--skip-existing", "--progress", "lines"});
  ASSERT_EQ(again.exitCode, 0) << again.err;
  EXPECT_NE(again.out.find("0 frames written, 5 skipped"), std::string::npos) << again.out;
}

TEST_F(Shot, ChunksPastTheEndRenderWhatExistsAndGapsAreErrors) {
  auto run = Render({"--frames", "4-8", "--progress", "none"});
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_TRUE(Exists(Out(4)) && Exists(Out(5)));
  EXPECT_FALSE(Exists(Out(3)));
  EXPECT_NE(run.err.find("frames 6-8 lie outside the sequence on disk (1-5); skipped"),
            std::string::npos)
      << run.err;

  run = Render({"--frames", "7-9"});
  EXPECT_EQ(run.exitCode, 2);
  EXPECT_NE(run.err.find("none of the frames 7-9"), std::string::npos) << run.err;

  std::remove(Plate(3).c_str());
  std::remove(Out(4).c_str());
  run = Render({});
  EXPECT_EQ(run.exitCode, 2);
  EXPECT_NE(run.err.find("frame 3 is missing"), std::string::npos) << run.err;
  EXPECT_FALSE(Exists(Out(1)) || Exists(Out(4)));  // refused before any work

  run = Render({"--frames", "1-5", "--keep-going", "--progress", "none"});
  EXPECT_EQ(run.exitCode, 2);
  EXPECT_TRUE(Exists(Out(1)) && Exists(Out(2)) && Exists(Out(4)));
  EXPECT_NE(run.err.find("1 of 5 frames failed: 3"), std::string::npos) << run.err;
}

TEST_F(Shot, ADamagedFrameStopsTheRunUnlessKeepGoing) {
  const std::string data = Slurp(Plate(3));
  std::ofstream(Plate(3), std::ios::binary) << data.substr(0, data.size() / 2);
  auto run = Render({"--progress", "none"});
  EXPECT_EQ(run.exitCode, 2);
  EXPECT_NE(run.err.find("veltrisca: frame 3: "), std::string::npos) << run.err;
  EXPECT_TRUE(Exists(Out(1)) && Exists(Out(2)));  // the frames before it are written
  EXPECT_FALSE(Exists(Out(3)) || Exists(Out(4)) || Exists(Out(5)));

  run = Render({"--keep-going", "--progress", "openjd"});
  EXPECT_EQ(run.exitCode, 2);
  EXPECT_TRUE(Exists(Out(4)) && Exists(Out(5)));
  EXPECT_FALSE(Exists(Out(3)));
  EXPECT_NE(run.err.find("1 of 5 frames failed: 3"), std::string::npos) << run.err;
  // Progress for an Open Job Description action: rising whole percentages from 0 to 100, the
  // rows of a frame counted in (a single file reports its rows alone).
  const auto single = RunVeltrisca({"render", Plate(1), dir / "single.exr", "--progress", "openjd"});
  for (const std::string& out : {run.out, single.out}) {
    std::istringstream lines(out);
    std::vector<int> percents;
    for (std::string line; std::getline(lines, line);) {
      ASSERT_EQ(line.rfind("openjd_progress: ", 0), 0u) << line;
      percents.push_back(std::stoi(line.substr(17)));
    }
    ASSERT_GT(percents.size(), 5u) << out;
    EXPECT_TRUE(std::is_sorted(percents.begin(), percents.end()) &&
                std::adjacent_find(percents.begin(), percents.end()) == percents.end());
    EXPECT_EQ(percents.front(), 0);
    EXPECT_EQ(percents.back(), 100);
  }
  // Nothing half-written is left behind.
  for (const auto& name : dir.Entries()) EXPECT_NE(name[0], '.') << name;
}

TEST_F(Shot, PatternsThatDoNotFitTogetherAreRefused) {
  const struct {
    std::vector<std::string> args;
    const char* says;
  } cases[] = {
      {{"render", dir / "plate.####.exr", dir / "out.exr"}, "OUT needs a frame number"},
      {{"render", Plate(1), dir / "out.#.exr"}, "is a single file"},
      {{"render", Plate(1), dir / "out.exr", "--frames", "1"}, "--frames needs a frame number"},
      {{"render", dir / "plate.1-2#.exr", dir / "o.#.exr", "--frames", "1"}, "give one"},
      {{"render", dir / "plate.#.exr", dir / "o.#.exr", "--progress", "fancy"}, "--progress"},
      {{"render", dir / "none.#.exr", dir / "o.#.exr"}, "no frame of"},
  };
  for (const auto& c : cases) {
    const auto run = RunVeltrisca(c.args);
    EXPECT_NE(run.exitCode, 0);
    EXPECT_NE(run.err.find(c.says), std::string::npos) << run.err;
  }
}

}  // namespace
}  // namespace veltrisca
