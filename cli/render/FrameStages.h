// One frame of `veltrisca render` in three steps, each of which a sequence runs on its own
// thread so that they overlap (cli/render/ShotPipeline.h): read (header, plan, pixels), render (the
// effect's passes), write (the output file, atomically).
#ifndef VT_CLI_RENDER_FRAMESTAGES_H
#define VT_CLI_RENDER_FRAMESTAGES_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "cli/shared/AtomicFile.h"
#include "cli/render/FrameFiles.h"
#include "cli/render/ChannelFilters.h"
#include "cli/image/ImageGeometry.h"
#include "cli/image/ImageIO.h"
#include "cli/lens/LensOptions.h"
#include "cli/image/OutputFile.h"
#include "cli/session/EffectSession.h"

namespace veltrisca {

// What a render command keeps for all its frames: its options, parsed and checked, and the
// loaded effect.
struct RenderJob {
  LensOptionText lens;    // as given (command line, --lens); a frame's recorded lens fills the rest
  LensSettings settings;  // as given; a file's pixel aspect is taken per frame
  int threads = 0;
  std::optional<PF_LRect> window;  // --window
  bool fit = false;
  bool desqueeze = false;
  std::string alpha;
  std::vector<ChannelFilterRule> channelFilters;
  bool addAlpha = false;
  OutputChoice output;
  bool verbose = false;
  bool quiet = false;
  bool pipelined = false;  // frames overlap: memory for one more input and output frame
  std::unique_ptr<hostsim::PluginModule> module;
};

// Remarks and warnings for stderr, each distinct text once per command: a sequence would
// otherwise repeat them for every frame. Safe to call from several threads.
class Notes {
 public:
  Notes(std::ostream& stream, bool quiet) : stream_(stream), quiet_(quiet) {}
  void operator()(const std::string& text);

 private:
  std::ostream& stream_;
  bool quiet_;
  std::mutex mutex_;
  std::set<std::string> said_;
};

// Everything decided from a frame's header, before its pixels are read.
struct FramePlan {
  LensSettings settings;  // with the file's pixel aspect
  LensSizes sizes;
  LayerPlacement frame;
  OutputLayout layout;
  std::vector<ChannelFilter> channelFilters;  // one per output channel
  std::vector<Pass> passes;
  OutputPlan outPlan;
  PF_LRect dataRect{};   // the data window in layer pixels
  PF_LRect layerRect{};  // the input layer: the data window and a black margin (LayerPixels)
  PF_LRect window{};     // the output rectangle rendered, layer pixels
  OutputWindows windows;
  hostsim::ParamValues params;
  double stretch = 1;  // --desqueeze: the result's width is resampled by this factor
  // The capacity of each of the frame's file buffers, input and output alike: one size for
  // both, so that any buffer the pool hands back fits either.
  uint64_t bufferBytes = 0;
  uint64_t peakBytes = 0;  // memory the frame needs at worst, buffers and worlds
  // What the render of this frame notes and warns about ("note: ...", "warning: ..."), said
  // once the frame is read: a frame skipped by --skip-existing says nothing.
  std::vector<std::string> notes;
  // What the output's header adds to the input's: the software, the lens it records and the
  // channels rendered with another filter than the lens's.
  OIIO::ParamValueList header;
  // -v only: the lens as rendered ("remove, BiLinear, sizes ...") and each channel's filter.
  std::string lensText, filtersText;
};

// What a frame's parameters and sizes decide before any pixel: the effect's lens record and
// output frame, and the share of the distorted frame beyond the radius the lens can invert.
struct PlannedOutput {
  PreRenderReadBack back;
  DefaultWindow frame;
  double lost = 0;
};

// The effect's output frame and lens centre for a set of parameters, from a pre-render on a
// host that supplies no input (no pixels needed); computed once per set of parameters and
// sizes, so that the frames of a shot share it.
class OutputFramePlanner {
 public:
  explicit OutputFramePlanner(const RenderJob& job) : job_(job) {}
  PlannedOutput Get(const hostsim::ParamValues& params, const LensSettings& settings,
                    const LensSizes& sizes, ImageSize frame);

 private:
  const RenderJob& job_;
  std::mutex mutex_;
  // Keyed by the parameters and the files' sizes: the window is in the files' sizes, which
  // the parameters do not always hold (an anamorphic apply hands the effect one size).
  struct Known {
    hostsim::ParamValues params;
    LensSizes sizes;
    PlannedOutput result;
  };
  std::vector<Known> known_;
};


// Frame buffers handed back for the next frames: fresh memory costs a page fault for every
// 4 KiB on first touch, a noticeable share of a large frame's time. Safe from any thread.
class BufferPool {
 public:
  // A buffer of at least `bytes` capacity: one given back, else a new one.
  std::vector<uint8_t> Take(size_t bytes);
  void Give(std::vector<uint8_t> buffer);

 private:
  static constexpr size_t kMostKept = 4;  // the pipeline holds two inputs and two outputs
  std::mutex mutex_;
  std::vector<std::vector<uint8_t>> kept_;
};

// Where a frame's time went, in seconds of each stage's own thread: reading (header, plan and
// pixels), the file's channels into the host's layer, the effect's render, the result back
// into the file's channels, and writing. -v prints them per frame and summed over a shot.
struct StageTimes {
  double read = 0, toLayer = 0, render = 0, fromLayer = 0, write = 0;
  StageTimes& operator+=(const StageTimes& o);
};
std::string StageTimesText(const StageTimes& t);

struct ReadFrame {
  FrameFiles files;
  bool skipped = false;  // its output is already on disk (--skip-existing): nothing else read
  Clock::time_point started;
  StageTimes times;
  InputImage input;  // the header (its reader closed once the pixels are read)
  FramePlan plan;
  std::unique_ptr<TempOutputFile> temp;  // made before the pixels are read
  PixelBuffer pixels;
};

// Opens the input, plans the frame, checks memory and the output's folder, then reads the
// pixels. Throws CliError. With `skipExisting` (render --skip-existing), a frame whose output
// is already a whole image is skipped where that image records no lens, or the lens and
// channel filters the plan's header holds; an output that is not is noted as rendered again.
ReadFrame ReadFrameFiles(const RenderJob& job, OutputFramePlanner& planner, Notes& notes,
                         BufferPool& pool, const FrameFiles& files, bool skipExisting);

struct RenderedFrame {
  FrameFiles files;
  Clock::time_point started;
  StageTimes times;
  InputImage input;
  FramePlan plan;
  std::unique_ptr<TempOutputFile> temp;
  PixelBuffer result;
  int passes = 0;
};

// Renders frames through one effect instance: set up once and kept while the parameters stay
// the same, as a host renders the frames of a clip.
class FrameRenderer {
 public:
  explicit FrameRenderer(const RenderJob& job) : job_(job) {}
  // `rowProgress` is called on the render threads as rows are done.
  // The frame's input buffer goes back to `pool`, its output buffer comes from it.
  RenderedFrame Render(ReadFrame frame, Notes& notes, BufferPool& pool,
                       const std::function<void(int64_t, int64_t)>& rowProgress);
  void Finish();  // sequence setdown; throws CliError

 private:
  const RenderJob& job_;
  std::unique_ptr<EffectSession> session_;
  hostsim::ParamValues params_;
  std::unique_ptr<hostsim::World> layer_;   // the last pass's input layer and output, kept
  std::unique_ptr<hostsim::World> output_;  // for the next
};

// Writes the frame to its temporary file and renames it over the output; the -v report goes
// to `out`. The output buffer goes back to `pool`. Returns the frame's stage times.
StageTimes WriteFrame(const RenderJob& job, RenderedFrame frame, Notes& notes, BufferPool& pool,
                std::ostream& out);

}  // namespace veltrisca

#endif
