// Times our effect frame by frame, in process, through the substitute host: parameter and
// layer checkout, smart pre-render and smart render of a whole frame, with no file I/O. The
// host lends the layer's pixels and reuses its output buffer, as a host rendering a sequence.
// One line per configuration (see Common.h); in Remove also our samplers alone, fed from
// the frame's position map stored beforehand (StoredMap.h, metric "remap"). Each depth starts with an untimed frame; each
// configuration's first frame is a warm-up unless it is long (kKeepFirstFrameSeconds).
//
//   compare_ours --plugin VeltriscaDistortion.so --size 3840x2160
//                [--filters builtin,nearest,...] [--depths 8,16,float] [--modes remove,apply]
//                [--threads 1,2] [--min-time 0.2] [--description VeltriscaDistortion.plugin]
//
// The lens: DistortionX1000 -50, the other coefficients 0, zoom 1, pixel aspect 1, both
// image sizes equal to the frame.
#include <dlfcn.h>

#include <cstdio>
#include <exception>
#include <memory>
#include <string>

#include "Common.h"
#include "StoredMap.h"
#include "hostsim/Host.h"
#include "hostsim/World.h"

namespace {

struct FilterInfo {
  int popupValue;
  const char* name;
  const char* cls;
};

// The FilterType popup, with the comparison class of each entry. "Built-in" is the host's
// own sub-pixel sampler, a bilinear one in the substitute host.
const FilterInfo kFilters[] = {
    {1, "builtin", "bilinear"}, {2, "nearest", "nearest"},  {3, "bilinear", "bilinear"},
    {4, "lanczos2", "cubic4"},  {5, "lanczos3", "lanczos"}, {6, "mitchell", "cubic4"},
};

hostsim::Depth DepthOf(const std::string& name) {
  if (name == "8") return hostsim::Depth::k8;
  if (name == "16") return hostsim::Depth::k16;
  return hostsim::Depth::kFloat;
}

// The test pattern in the host's layout (alpha first) and units.
std::unique_ptr<hostsim::World> MakeLayer(hostsim::Depth depth, int width, int height) {
  auto world = std::make_unique<hostsim::World>(depth, width, height);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const float a = compare::PatternValue(x, y, 3, width, height);
      const float r = compare::PatternValue(x, y, 0, width, height);
      const float g = compare::PatternValue(x, y, 1, width, height);
      const float b = compare::PatternValue(x, y, 2, width, height);
      // Integer depths: the value scaled to the depth's maximum and rounded.
      const float scale = depth == hostsim::Depth::kFloat ? 1.0f : PixelDepthOf(depth).colorMax;
      const float values[4] = {a, r, g, b};
      for (int c = 0; c < 4; ++c) world->Set(x, y, c, values[c] * scale);
    }
  }
  return world;
}

void PrintNotAvailable(const FilterInfo& f, const std::string& mode, const std::string& depth,
                       int threads, int width, int height, const std::string& reason) {
  compare::PrintNotAvailable("ours", f.name, f.cls, mode, depth, threads, width, height, reason);
}

// One frame as the host renders it, into the caller's output world when it still fits (the
// host's buffer pool). Returns an empty string on success, else what went wrong. With `coverage`, also checks the
// output and stores the share of the frame it covers: in Apply the effect delivers only the
// rectangle the distorted picture lands in (the host shows the rest as transparent).
std::string RenderFrame(hostsim::Host& host, int width, int height,
                        std::unique_ptr<hostsim::World>& output, double* coverage) {
  PF_Err err = host.SmartPreRender(PF_LRect{0, 0, width, height});
  if (err != PF_Err_NONE) return "smart pre-render returned " + std::to_string(err);
  err = host.SmartRender(&output);
  if (err != PF_Err_NONE) return "smart render returned " + std::to_string(err);
  if (!output) return "smart render produced no output";
  if (coverage) {
    const int cx = width / 2 - output->originX(), cy = height / 2 - output->originY();
    if (output->width() > width || output->height() > height || cx < 0 || cy < 0 ||
        cx >= output->width() || cy >= output->height()) {
      return "output rectangle does not hold the frame centre";
    }
    // The lens keeps the centre in place and the pattern is opaque there.
    if (!(output->Get(cx, cy, 0) > 0.0f)) return "output centre is empty";
    *coverage = static_cast<double>(output->width()) * output->height() /
                (static_cast<double>(width) * height);
  }
  return "";
}

}  // namespace

int main(int argc, char** argv) {
  compare::KeepLargeBlocksMapped();
  compare::CommonOptions options;
  if (!compare::ParseCommonOptions(argc, argv, &options)) return 2;
  if (options.plugin.empty()) {
    std::fprintf(stderr, "compare_ours: --plugin is required\n");
    return 2;
  }
  const int width = options.width, height = options.height;

  std::unique_ptr<hostsim::PluginModule> plugin;
  std::unique_ptr<hostsim::Host> host;
  try {
    plugin = std::make_unique<hostsim::PluginModule>(options.plugin, options.description);
    // The effect's kernel tables live as long as the process, as in a host that keeps a
    // plug-in loaded until it quits: the library must stay mapped so that they stay owned.
    dlopen(options.plugin.c_str(), RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
    host = std::make_unique<hostsim::Host>(*plugin);
    // As a host that renders a sequence: the effect reads the layer's own pixels and writes
    // into an output buffer kept from frame to frame, which it overwrites whole.
    host->lendInputLayer = true;
    host->reuseOutput = true;
    host->clearOutput = false;
    hostsim::ParamValues& p = host->params;
    p.distortion = -50;
    p.cubic = p.quartic = 0;
    p.zoom = 1;
    p.pixelAspect = 1;
    p.distortedWidth = p.undistortedWidth = width;
    p.distortedHeight = p.undistortedHeight = height;
    PF_Err err = host->GlobalSetup();
    if (err == PF_Err_NONE) err = host->ParamsSetup();
    if (err == PF_Err_NONE) err = host->SequenceSetup();
    if (err != PF_Err_NONE) {
      std::fprintf(stderr, "compare_ours: effect setup failed with error %d\n", err);
      return 1;
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "compare_ours: %s\n", e.what());
    return 1;
  }

  for (const std::string& depthName : options.depths) {
    const hostsim::Depth depth = DepthOf(depthName);
    std::unique_ptr<hostsim::World> layer = MakeLayer(depth, width, height);
    host->SetInputLayer(layer.get());

    // One frame of the depth first, so that the host's buffers of this size are in place.
    host->params.mode = 1;
    host->params.filter = 2;
    host->threads = 1;
    std::unique_ptr<hostsim::World> output;
    try {
      RenderFrame(*host, width, height, output, nullptr);
    } catch (const std::exception&) {
      // Reported per configuration below.
    }

    compare::StoredMap storedMap;  // Remove's, built on first use
    for (const std::string& mode : options.modes) {
      host->params.mode = mode == "apply" ? 2 : 1;
      for (const FilterInfo& f : kFilters) {
        if (!options.filters.empty()) {
          bool wanted = false;
          for (const std::string& name : options.filters) wanted |= name == f.name;
          if (!wanted) continue;
        }
        host->params.filter = f.popupValue;
        for (int threads : options.threads) {
          host->threads = threads;
          // The first frame warms up (caches, the pool's threads, this filter's code); when it
          // is long, such effects are lost in it and it is kept as the measurement.
          std::string problem;
          double first = 0.0, coverage = 0.0;
          try {
            const double t0 = compare::NowSeconds();
            problem = RenderFrame(*host, width, height, output, &coverage);
            first = compare::NowSeconds() - t0;
          } catch (const std::exception& e) {
            problem = e.what();
          }
          if (!problem.empty()) {
            PrintNotAvailable(f, mode, depthName, threads, width, height, problem);
            continue;
          }
          if (first >= compare::kKeepFirstFrameSeconds) {
            compare::PrintResult("ours", f.name, f.cls, mode, depthName, threads, width, height,
                                 "total", first);
            compare::PrintResult("ours", f.name, f.cls, mode, depthName, threads, width, height,
                                 "coverage", coverage);
            continue;
          }
          const int frames = compare::FramesFor(first, options.minSeconds);
          const double t0 = compare::NowSeconds();
          for (int i = 0; i < frames && problem.empty(); ++i) {
            problem = RenderFrame(*host, width, height, output, nullptr);
          }
          const double perFrame = (compare::NowSeconds() - t0) / frames;
          if (!problem.empty()) {
            PrintNotAvailable(f, mode, depthName, threads, width, height, problem);
          } else {
            compare::PrintResult("ours", f.name, f.cls, mode, depthName, threads, width, height,
                                 "total", perFrame);
            compare::PrintResult("ours", f.name, f.cls, mode, depthName, threads, width, height,
                                 "coverage", coverage);
          }
          // Our samplers alone, from the frame's map stored beforehand (Remove, our own
          // filters): what keeping the run mapping for the next frames could at best give.
          if (mode == "remove" && f.popupValue != 1) {
            if (storedMap.xs.empty()) storedMap = compare::BuildStoredMap(width, height, false);
            compare::PrintResult("ours", f.name, f.cls, mode, depthName, threads, width, height,
                                 "remap",
                                 compare::TimeStoredMapFrames(storedMap, *layer, f.popupValue,
                                                              threads, options.minSeconds));
          }
        }
      }
    }
    host->SetInputLayer(nullptr);
  }
  host->SequenceSetdown();
  return 0;
}
