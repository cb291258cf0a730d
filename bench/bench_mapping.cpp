// Cost of the run mapping per output pixel: Remove (forward polynomial), Apply through the
// inverse table, and Apply through the per-element Newton solver (table forced off).
//
// Each iteration maps one 1920-pixel row of a 1920 x 1080 frame in runs of 64, as the row
// callbacks do. The counter "time_per_pixel" is declared with kIsIterationInvariantRate |
// kInvert over the pixels of a row, so it reports seconds per pixel (printed with an SI
// prefix: "3.2n" is 3.2 ns per pixel).
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>

#include "gulp/CpuFeatures.h"
#include "gulp/FGulp.h"
#include "lens/InverseTable.h"
#include "lens/LensData.h"
#include "lens/RunMapping.h"

namespace {

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;

// A moderate lens with all three coefficients, so that Remove takes its longest case and
// the table is valid in Apply.
std::unique_ptr<VtAFXLensData> BenchLens(int mode) {
  auto lens = std::make_unique<VtAFXLensData>();
  std::memset(lens.get(), 0, sizeof(VtAFXLensData));
  lens->distortMode = mode;
  lens->filterType = 4;
  lens->quadratic = -0.05;
  lens->cubic = 0.01;
  lens->quartic = 0.002;
  lens->zoom = 1.1;
  lens->distortedWidth = lens->undistortedWidth = kWidth;
  lens->distortedHeight = lens->undistortedHeight = kHeight;
  lens->pixelAspect = 1.0;
  SetupLensData(*lens);
  BuildInverseTable(*lens);
  return lens;
}

void MapRows(benchmark::State& state, const VtAFXLensData& lens) {
  CheckCPUFeatures();
  int row = 0;
  for (auto _ : state) {
    FGulpPt out;
    FGulpPt in;
    for (int start = 0; start < kWidth; start += 64) {
      out.x.SetLen(kWidth, start);
      out.y.SetLen(kWidth, start);
      out.x.Iota(float(start), 1.0f);
      out.y.Constant(float(row));
      MapOutToInPt(&lens, out, in);
      benchmark::DoNotOptimize(in.x.storage);
      benchmark::DoNotOptimize(in.y.storage);
    }
    row = row + 37 < kHeight ? row + 37 : row + 37 - kHeight;  // visit rows across the frame
  }
  state.counters["time_per_pixel"] = benchmark::Counter(
      kWidth, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void BM_MapRemove(benchmark::State& state) {
  const auto lens = BenchLens(kModeRemove);
  MapRows(state, *lens);
}

void BM_MapApplyTable(benchmark::State& state) {
  const auto lens = BenchLens(kModeApply);
  if (lens->tableValid == 0) {
    state.SkipWithError("inverse table unexpectedly invalid");
    return;
  }
  MapRows(state, *lens);
}

void BM_MapApplySolver(benchmark::State& state) {
  const auto lens = BenchLens(kModeApply);
  lens->tableValid = 0;
  MapRows(state, *lens);
}

BENCHMARK(BM_MapRemove);
BENCHMARK(BM_MapApplyTable);
BENCHMARK(BM_MapApplySolver);

}  // namespace
