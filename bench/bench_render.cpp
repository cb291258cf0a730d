// Whole frames through the substitute host and the built plug-in: smart pre-render and smart
// render of a 1080p or 4K frame (input and output the same size, Remove, DistortionX1000 -50),
// as a host renders a clip frame after frame.
//
// The host hands the effect its layer's own pixels, does not clear the output and reuses the
// output buffer from frame to frame, as a real host's buffer pool does; what is timed is the
// effect's work plus the host's per-frame bookkeeping and its iterate threads.
//
// Counters:
//   ns_per_pixel         wall time per output pixel (the host's threads work in parallel)
//   cpu_ns_per_pixel     processor time of the whole process (every thread) per output
//                        pixel; with 2 threads it stays at the 1-thread figure when sharing
//                        the rows costs nothing, whatever else loads the machine
//   peak_rss_growth_MB   growth of the process's peak resident set from just before the
//                        first frame (the input layer resident, the allocator's free memory
//                        returned to the system) to the end; this includes the output image,
//                        allocated on the first frame, which is rendered before the clock
//                        starts
//   beyond_images_MB     peak_rss_growth_MB less the output image: what the render itself
//                        needs beyond the two images (stacks, tables, the host's books)
// Arguments: filter (2 Nearest .. 6 Mitchell-Netravali), depth (8, 16, 32), frame height
// (1080 or 2160), threads, cold.
//
// With cold 0 the same frame is rendered again and again, so at 1080p the input and output
// (17 MB in 8 bits) can stay in the processor's last-level cache from frame to frame while
// at 4K they cannot. With cold 1 a 96 MB buffer is written between frames (outside the
// timing), as when every frame of a clip arrives fresh from the decoder: both sizes then
// start from memory, and the time per pixel compares the render itself across sizes.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "hostsim/Host.h"
#include "hostsim/World.h"

namespace {

using hostsim::Depth;
using hostsim::Host;
using hostsim::World;

const hostsim::PluginModule& Plugin() {
  static const hostsim::PluginModule* module = new hostsim::PluginModule(VT_EFFECT_PATH);
  return *module;
}

// Kilobytes of a /proc/self/status field ("VmHWM", "VmRSS"), 0 when unreadable.
long StatusKiB(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  const std::string key = std::string(field) + ":";
  while (std::getline(status, line)) {
    if (line.compare(0, key.size(), key) == 0) return std::stol(line.substr(key.size()));
  }
  return 0;
}

// Lowers the recorded peak resident set to the current one (Linux 4.0 and later).
void ResetPeakRss() {
  std::ofstream clear("/proc/self/clear_refs");
  clear << "5";
}

// Processor time of the whole process, in seconds.
double ProcessCpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
}

void FillNoise(World& layer) {
  uint32_t state = 12345;
  for (int y = 0; y < layer.height(); ++y) {
    uint8_t* row = layer.Row(y);
    for (int x = 0; x < layer.width(); ++x) {
      for (int c = 0; c < 4; ++c) {
        state = state * 1664525u + 1013904223u;
        const uint32_t v = state >> 8;
        switch (layer.depth()) {
          case Depth::k8: row[x * 4 + c] = static_cast<uint8_t>(v); break;
          case Depth::k16: {
            const uint16_t s = static_cast<uint16_t>(v % 32769u);
            std::memcpy(row + x * 8 + c * 2, &s, 2);
            break;
          }
          case Depth::kFloat: {
            const float f = static_cast<float>(v & 0xFFFF) / 65535.0f;
            std::memcpy(row + x * 16 + c * 4, &f, 4);
            break;
          }
        }
      }
    }
  }
}

void BM_Render(benchmark::State& state) {
  const int filter = static_cast<int>(state.range(0));
  const Depth depth = static_cast<Depth>(state.range(1));
  const int height = static_cast<int>(state.range(2));
  const int width = height * 16 / 9;
  const int threads = static_cast<int>(state.range(3));
  const bool cold = state.range(4) != 0;
  std::vector<uint8_t> evict(cold ? size_t{96} << 20 : 0);

  World layer(depth, width, height);
  FillNoise(layer);
  Host host(Plugin());
  host.SetInputLayer(&layer);
  host.threads = threads;
  host.lendInputLayer = true;
  host.clearOutput = false;
  host.reuseOutput = true;
  host.params.mode = 1;
  host.params.filter = filter;
  host.params.distortion = -50.0;
  host.params.distortedWidth = host.params.undistortedWidth = width;
  host.params.distortedHeight = host.params.undistortedHeight = height;
  if (host.GlobalSetup() != PF_Err_NONE || host.ParamsSetup() != PF_Err_NONE ||
      host.SequenceSetup() != PF_Err_NONE) {
    state.SkipWithError("effect setup failed");
    return;
  }
  const PF_LRect frame{0, 0, width, height};
  std::unique_ptr<World> output;

  // Free memory the allocator keeps from earlier runs would hide the output's allocation.
  malloc_trim(0);
  ResetPeakRss();
  const long rssBefore = StatusKiB("VmRSS");
  // One frame before the clock starts: the output buffer is allocated and first touched then
  // (first touches of fresh pages are slow, and a host keeps its buffers from frame to frame).
  if (host.SmartPreRender(frame) != PF_Err_NONE || host.SmartRender(&output) != PF_Err_NONE) {
    state.SkipWithError("render failed");
    return;
  }
  double seconds = 0.0, cpuSeconds = 0.0;
  int64_t frames = 0;
  for (auto _ : state) {
    if (cold) {
      std::memset(evict.data(), static_cast<int>(frames & 0xFF), evict.size());
      benchmark::DoNotOptimize(evict.data());
    }
    const double cpuStart = ProcessCpuSeconds();
    const auto start = std::chrono::steady_clock::now();
    const PF_Err pre = host.SmartPreRender(frame);
    const PF_Err err = pre != PF_Err_NONE ? pre : host.SmartRender(&output);
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    cpuSeconds += ProcessCpuSeconds() - cpuStart;
    if (err != PF_Err_NONE || !output) {
      state.SkipWithError("render failed");
      return;
    }
    seconds += elapsed.count();
    ++frames;
  }
  const long peakGrowthKiB = StatusKiB("VmHWM") - rssBefore;
  const double pixels = static_cast<double>(width) * height;
  const double outputMB = static_cast<double>(output->rowBytes()) * height / (1024.0 * 1024.0);
  state.counters["ns_per_pixel"] = frames ? seconds * 1e9 / (pixels * frames) : 0.0;
  state.counters["cpu_ns_per_pixel"] = frames ? cpuSeconds * 1e9 / (pixels * frames) : 0.0;
  state.counters["peak_rss_growth_MB"] = peakGrowthKiB / 1024.0;
  state.counters["beyond_images_MB"] = peakGrowthKiB / 1024.0 - outputMB;
  state.SetItemsProcessed(static_cast<int64_t>(pixels) * frames);
}

// Every filter and depth at 1080p; every filter at 4K in 8 bits and float; 1 and 2 threads;
// then every filter at both sizes in 8 bits and float with cold caches, 1 thread.
void Arguments(benchmark::internal::Benchmark* b) {
  for (int threads : {1, 2}) {
    for (int filter = 2; filter <= 6; ++filter) {
      for (int depth : {8, 16, 32}) b->Args({filter, depth, 1080, threads, 0});
      for (int depth : {8, 32}) b->Args({filter, depth, 2160, threads, 0});
    }
  }
  for (int filter = 2; filter <= 6; ++filter) {
    for (int depth : {8, 32}) {
      for (int height : {1080, 2160}) b->Args({filter, depth, height, 1, 1});
    }
  }
}

BENCHMARK(BM_Render)
    ->ArgNames({"filter", "depth", "height", "threads", "cold"})
    ->Apply(Arguments)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->MinTime(0.5);

}  // namespace
