#include "StoredMap.h"

#include <atomic>
#include <cstring>
#include <thread>

#include "Common.h"
#include "common/EffectParams.h"
#include "gulp/CpuFeatures.h"
#include "lens/InverseTable.h"
#include "lens/LensData.h"
#include "lens/RunMapping.h"
#include "resample/KernelTables.h"
#include "resample/Samplers.h"

namespace compare {

namespace {

VtAFXLensData LensOf(int width, int height, bool apply) {
  VtAFXLensData lens{};
  lens.distortMode = apply ? kModeApply : kModeRemove;
  lens.quadratic = -0.05;
  lens.zoom = 1.0;
  lens.pixelAspect = 1.0;
  lens.distortedWidth = lens.undistortedWidth = width;
  lens.distortedHeight = lens.undistortedHeight = height;
  SetupLensData(lens);
  BuildInverseTable(lens);
  return lens;
}

struct Kernel {
  SamplerKind kind;
  int taps, tapOffset, cellFloats;
  float* table;
};

Kernel KernelOf(int filter, const VtAFXLensData& lens) {
  switch (filter) {
    case kFilterNearest: return {SamplerKind::kNearest, 0, 0, 0, nullptr};
    case kFilterLanczos2:
      return {SamplerKind::kKernel4x4, kLanczos2Taps, kLanczos2TapOffset, kLanczos2CellFloats,
              lens.lanczos2Kernel};
    case kFilterLanczos3:
      return {SamplerKind::kKernel6x6, kLanczos3Taps, kLanczos3TapOffset, kLanczos3CellFloats,
              lens.lanczos3Kernel};
    case kFilterMitchell:
      return {SamplerKind::kKernel4x4, kMitchellTaps, kMitchellTapOffset, kMitchellCellFloats,
              lens.mitchellKernel};
    default: return {SamplerKind::kBiLinear, 0, 0, 0, nullptr};
  }
}

}  // namespace

StoredMap BuildStoredMap(int width, int height, bool apply) {
  CheckCPUFeatures();
  const VtAFXLensData lens = LensOf(width, height, apply);
  StoredMap map;
  map.width = width;
  map.height = height;
  map.xs.resize(static_cast<size_t>(width) * height);
  map.ys.resize(map.xs.size());
  FGulpPt in;
  for (int y = 0; y < height; ++y) {
    for (int x0 = 0; x0 < width; x0 += FGulp::kCapacity) {
      const int len = width - x0 < FGulp::kCapacity ? width - x0 : FGulp::kCapacity;
      MapRowStepToBufferPt(&lens, RowStep{static_cast<float>(x0), static_cast<float>(y), len},
                           in, BufferOrigin{0.0f, 0.0f});
      const size_t at = static_cast<size_t>(y) * width + x0;
      std::memcpy(&map.xs[at], in.x.data(), len * sizeof(float));
      std::memcpy(&map.ys[at], in.y.data(), len * sizeof(float));
    }
  }
  return map;
}

double TimeStoredMapFrames(const StoredMap& map, const hostsim::World& layer, int filter,
                           int threads, double minSeconds) {
  VtAFXLensData lens = LensOf(map.width, map.height, false);
  BuildSampleFilters(nullptr, lens.lanczos2Kernel, lens.lanczos3Kernel, lens.mitchellKernel);
  const Kernel kernel = KernelOf(filter, lens);
  const PixelDepth& depth = PixelDepthOf(layer.depth());
  ResampleData rd{};
  rd.baseAddr = const_cast<char*>(reinterpret_cast<const char*>(layer.Row(0)));
  rd.rowBytes = layer.rowBytes();
  rd.pixelBytes = depth.bytes;
  rd.bitDepth = depth.bitDepth;
  rd.width = layer.width();
  rd.height = layer.height();
  rd.colorMax = depth.colorMax;
  rd.alphaMax = depth.alphaMax;
  rd.tapsX = rd.tapsY = kernel.taps;
  rd.tapOffsetX = rd.tapOffsetY = kernel.tapOffset;
  rd.phasesPerPixel = kernel.taps ? static_cast<float>(kKernelPhases) : 0.0f;
  rd.phaseStride = static_cast<float>(kernel.cellFloats);
  rd.kernelTable = kernel.table;
  const ChosenSampler sampler = ChooseRunSampler(kernel.kind, depth.bitDepth);
  const size_t rowBytes = static_cast<size_t>(map.width) * depth.bytes;
  std::vector<char> output(rowBytes * map.height);

  // Rows in blocks of 8, taken in turn by the threads, as a host's iterate shares them.
  auto frame = [&] {
    std::atomic<int> next{0};
    auto work = [&] {
      ResampleData local = rd;
      FGulpPt pos;
      for (int block; (block = next.fetch_add(8)) < map.height;) {
        for (int y = block; y < block + 8 && y < map.height; ++y) {
          char* out = output.data() + rowBytes * y;
          for (int x0 = 0; x0 < map.width; x0 += FGulp::kCapacity) {
            const int len = map.width - x0 < FGulp::kCapacity ? map.width - x0 : FGulp::kCapacity;
            const size_t at = static_cast<size_t>(y) * map.width + x0;
            pos.x.SetLen(len, 0);
            pos.y.SetLen(len, 0);
            std::memcpy(pos.x.data(), &map.xs[at], len * sizeof(float));
            std::memcpy(pos.y.data(), &map.ys[at], len * sizeof(float));
            sampler(&local, pos, out + static_cast<size_t>(x0) * depth.bytes);
          }
        }
      }
    };
    std::vector<std::thread> helpers;
    for (int t = 1; t < threads; ++t) helpers.emplace_back(work);
    work();
    for (std::thread& t : helpers) t.join();
  };
  double t0 = NowSeconds();
  frame();
  const double first = NowSeconds() - t0;
  const int frames = FramesFor(first, minSeconds);
  t0 = NowSeconds();
  for (int i = 0; i < frames; ++i) frame();
  return (NowSeconds() - t0) / frames;
}

}  // namespace compare
