// Cost per output pixel of each sampler at each depth: runs of 64 positions from a mild
// barrel distortion over a 1920 x 1080 image, a full row of runs per iteration.
// The counter ns_per_pixel is the measured time divided by the pixels produced.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "gulp/CpuFeatures.h"
#include "gulp/FGulp.h"
#include "resample/KernelTables.h"
#include "resample/ResampleData.h"
#include "resample/Samplers.h"

namespace {

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;
constexpr int kRowsSampled = 64;  // rows whose positions are prepared, cycled through

enum class Filter { Nearest, BiLinear, Lanczos2, Lanczos3, Mitchell };

struct SourceImage {
  int depth;
  int pixelBytes;
  int rowBytes;
  std::vector<char> bytes;
};

SourceImage MakeImage(int depth) {
  SourceImage image;
  image.depth = depth;
  image.pixelBytes = depth == 8 ? 4 : depth == 16 ? 8 : 16;
  image.rowBytes = kWidth * image.pixelBytes + 64;  // padded rows, like a host world
  image.bytes.assign(static_cast<size_t>(image.rowBytes) * kHeight, 0);
  std::mt19937 rng(1);
  std::uniform_real_distribution<float> unit(0.0f, 1.0f);
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      char* p = image.bytes.data() + static_cast<size_t>(y) * image.rowBytes + x * image.pixelBytes;
      for (int c = 0; c < 4; ++c) {
        const float v = c == 0 ? 1.0f : unit(rng);
        if (depth == 8) {
          p[c] = static_cast<char>(static_cast<uint8_t>(v * 255.0f));
        } else if (depth == 16) {
          const uint16_t s = static_cast<uint16_t>(v * 32768.0f);
          std::memcpy(p + 2 * c, &s, 2);
        } else {
          std::memcpy(p + 4 * c, &v, 4);
        }
      }
    }
  }
  return image;
}

// Source positions of the output rows: a barrel distortion of a few percent at the corners.
std::vector<FGulpPt> MakeRuns() {
  std::vector<FGulpPt> runs;
  const float cx = kWidth / 2.0f, cy = kHeight / 2.0f;
  const float norm = 1.0f / (cx * cx + cy * cy);
  for (int r = 0; r < kRowsSampled; ++r) {
    const int y = r * kHeight / kRowsSampled;
    for (int x0 = 0; x0 < kWidth; x0 += 64) {
      FGulpPt run;
      run.x.SetLen(kWidth, x0);
      run.y.SetLen(kWidth, x0);
      for (int k = 0; k < run.x.len; ++k) {
        const float dx = x0 + k - cx, dy = y - cy;
        const float scale = 1.0f + 0.05f * (dx * dx + dy * dy) * norm;
        run.x[k] = cx + dx * scale;
        run.y[k] = cy + dy * scale;
      }
      runs.push_back(run);
    }
  }
  return runs;
}

void BenchSampler(benchmark::State& state, Filter filter, int depth) {
  CheckCPUFeatures();
  static const std::vector<FGulpPt> runs = MakeRuns();
  SourceImage image = MakeImage(depth);

  ResampleData rd;
  std::memset(&rd, 0, sizeof(rd));
  rd.baseAddr = image.bytes.data();
  rd.rowBytes = image.rowBytes;
  rd.pixelBytes = image.pixelBytes;
  rd.bitDepth = depth;
  rd.width = kWidth;
  rd.height = kHeight;
  rd.colorMax = depth == 8 ? 255.0f : depth == 16 ? 32768.0f : 1.0e10f;
  rd.alphaMax = depth == 8 ? 255.0f : depth == 16 ? 32768.0f : 1.0f;

  void (*sampler)(ResampleData*, const FGulpPt&, void*) = &Sampler;
  float *lanczos2 = nullptr, *lanczos3 = nullptr, *mitchell = nullptr;
  if (BuildSampleFilters(nullptr, lanczos2, lanczos3, mitchell) != PF_Err_NONE) {
    state.SkipWithError("kernel tables could not be built");
    return;
  }
  switch (filter) {
    case Filter::Nearest: sampler = &NearSampler; break;
    case Filter::BiLinear: sampler = &BiLinSampler; break;
    case Filter::Lanczos2:
    case Filter::Mitchell:
      rd.tapsX = rd.tapsY = 4;
      rd.tapOffsetX = rd.tapOffsetY = 1;
      rd.phasesPerPixel = 64.0f;
      rd.phaseStride = 16.0f;
      rd.kernelTable = filter == Filter::Lanczos2 ? lanczos2 : mitchell;
      break;
    case Filter::Lanczos3:
      rd.tapsX = rd.tapsY = 6;
      rd.tapOffsetX = rd.tapOffsetY = 2;
      rd.phasesPerPixel = 64.0f;
      rd.phaseStride = 40.0f;
      rd.kernelTable = lanczos3;
      break;
  }

  const size_t runsPerRow = runs.size() / kRowsSampled;
  std::vector<char> row(static_cast<size_t>(kWidth) * image.pixelBytes);
  size_t nextRow = 0;
  int64_t pixels = 0;
  double seconds = 0.0;
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    const FGulpPt* rowRuns = &runs[nextRow * runsPerRow];
    char* dst = row.data();
    for (size_t r = 0; r < runsPerRow; ++r) {
      sampler(&rd, rowRuns[r], dst);
      dst += 64 * image.pixelBytes;
    }
    benchmark::ClobberMemory();
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    state.SetIterationTime(elapsed.count());
    seconds += elapsed.count();
    pixels += kWidth;
    nextRow = (nextRow + 1) % kRowsSampled;
  }
  benchmark::DoNotOptimize(row.data());
  state.SetItemsProcessed(pixels);
  state.counters["ns_per_pixel"] = pixels > 0 ? seconds * 1e9 / static_cast<double>(pixels) : 0.0;
}

const int kRegistered = [] {
  const struct { const char* name; Filter filter; } filters[] = {
      {"Nearest", Filter::Nearest},   {"BiLinear", Filter::BiLinear}, {"Lanczos2", Filter::Lanczos2},
      {"Lanczos3", Filter::Lanczos3}, {"Mitchell", Filter::Mitchell}};
  for (const auto& f : filters) {
    for (int depth : {8, 16, 32}) {
      const std::string name = std::string("Sampler/") + f.name + "/" + std::to_string(depth) + "bit";
      const Filter filter = f.filter;
      benchmark::RegisterBenchmark(name.c_str(), [filter, depth](benchmark::State& state) {
        BenchSampler(state, filter, depth);
      })->UseManualTime()->Unit(benchmark::kMicrosecond);
    }
  }
  return 0;
}();

}  // namespace
