// render -v: where a frame's time went, per frame and summed over a shot.

#include <regex>

#include "../CliTestSupport.h"

namespace veltrisca {
namespace {

using namespace vt_cli_test;

TEST(StageTimes, VerboseShotReportsEachFrameAndTheSum) {
  ScratchDir dir;
  const std::vector<float> px(32 * 18, 0.5f);
  for (const char* f : {"1", "2", "3"}) {
    WriteImage(dir / (std::string("p.") + f + ".exr"), 32, 18, 1, OIIO::TypeDesc::HALF,
               OIIO::TypeDesc::FLOAT, px.data());
  }
  const std::string stages =
      "read [0-9.]+ s, to layer [0-9.]+ s, render [0-9.]+ s, from layer [0-9.]+ s, "
      "write [0-9.]+ s\n";
  const RunResult shot =
      RunOk({"render", dir / "p.@.exr", dir / "o.@.exr", "--distortion", "-20", "-v"});
  const std::regex frame("\n  times: " + stages);
  EXPECT_EQ(std::distance(std::sregex_iterator(shot.out.begin(), shot.out.end(), frame),
                          std::sregex_iterator()),
            3)
      << shot.out;
  EXPECT_TRUE(std::regex_search(shot.out, std::regex("\nshot: 3 frames, " + stages)))
      << shot.out;
  // One file: its own times and no sum; -q: nothing at all.
  const RunResult one = RunOk({"render", dir / "p.1.exr", dir / "o.exr", "--distortion", "-20",
                               "-v"});
  EXPECT_TRUE(std::regex_search(one.out, frame)) << one.out;
  EXPECT_EQ(one.out.find("shot:"), std::string::npos) << one.out;
  EXPECT_EQ(RunOk({"render", dir / "p.@.exr", dir / "q.@.exr", "--distortion", "-20", "-v", "-q"}).out, "");
}

}  // namespace
}  // namespace veltrisca
