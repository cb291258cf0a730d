// Pieces shared by the comparison's timing programs: a test pattern, a clock, the result
// line format and the few command-line options they have in common.
#ifndef VT_BENCH_COMPARE_COMMON_H
#define VT_BENCH_COMPARE_COMMON_H

#include <cstdint>
#include <string>
#include <vector>

namespace compare {

// A deterministic RGBA test picture: a grid chart over smooth gradients with fine noise, so
// that every filter sees edges, ramps and texture. Channel 3 is alpha (mostly opaque).
// Returns a value in [0, 1].
float PatternValue(int x, int y, int channel, int width, int height);

double NowSeconds();  // a monotonic clock

// A configuration's first frame warms up (caches, thread pools, the code path) and is thrown
// away, unless it took at least this long: then those effects are lost in it and it is the
// measurement.
constexpr double kKeepFirstFrameSeconds = 0.5;

// How many frames to time after the warm-up so that a run lasts at least minSeconds.
int FramesFor(double warmupSeconds, double minSeconds, int maxFrames = 50);

// One result line on stdout, tab-separated:
//   tool filter class mode depth threads WxH metric seconds_per_frame
// `class` is nearest, bilinear, cubic4 (4x4 kernel), lanczos or copy.
void PrintResult(const std::string& tool, const std::string& filter, const std::string& cls,
                 const std::string& mode, const std::string& depth, int threads, int width,
                 int height, const std::string& metric, double secondsPerFrame);

// A configuration that could not be measured: the metric is "n/a" and the last field gives
// the reason instead of a time.
void PrintNotAvailable(const std::string& tool, const std::string& filter,
                       const std::string& cls, const std::string& mode, const std::string& depth,
                       int threads, int width, int height, const std::string& reason);

struct CommonOptions {
  int width = 1920, height = 1080;
  std::vector<std::string> depths{"8", "16", "float"};
  std::vector<std::string> modes{"remove", "apply"};
  std::vector<int> threads{1, 2};
  std::vector<std::string> filters;  // program-specific names; empty = all
  double minSeconds = 0.2;           // minimum timed span per configuration and run
  std::string plugin;                // compare_ours only: the effect's library
  std::string description;           // compare_ours only: its .plugin file, when not beside it
};

// Parses --size WxH, --depths a,b --modes a,b --threads 1,2 --filters a,b --min-time S
// --plugin PATH --description PATH. Prints the problem and returns false on a bad option.
bool ParseCommonOptions(int argc, char** argv, CommonOptions* options);

std::vector<std::string> SplitList(const std::string& text);

// Keeps the heap's large blocks mapped between frames: a host or an application keeps its
// frame buffers in a pool, so page-faulting fresh memory every frame would measure the
// kernel rather than the work. Every in-process program calls this first.
void KeepLargeBlocksMapped();

}  // namespace compare

#endif
