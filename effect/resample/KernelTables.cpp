// Builds the Lanczos-2, Lanczos-3 and Mitchell-Netravali weight tables once per process.
#include "resample/KernelTables.h"

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "resample/KernelTablesInternal.h"

float* flanc2_filter = nullptr;
float* flanc3_filter = nullptr;
float* fmitch2_filter = nullptr;

KernelTableAllocFunc kernel_table_alloc = &std::malloc;
// Set, with release ordering, only after the three table pointers are stored; a caller that
// sees it set reads finished tables without taking the lock.
std::atomic<bool> did_this{false};
// Held for the whole first build, so that a second first render waits for it instead of
// building a second set or reading half-written tables.
std::mutex build_lock;

namespace {

constexpr double kPi = 3.141592653589793;
constexpr double kPiHalf = 1.5707963267948966;
constexpr double kPiThird = 1.0471975511965976;
constexpr double kPiSquared = 9.869604401089358;

double LibrarySine(double v) { return std::sin(v); }

enum class KernelKind { Lanczos2, Lanczos3, Mitchell };

double KernelWeight(KernelKind kind, double d, SineFunc sine) {
  switch (kind) {
    case KernelKind::Lanczos2: return Lanczos2Weight(d, sine);
    case KernelKind::Lanczos3: return Lanczos3Weight(d, sine);
    case KernelKind::Mitchell: return MitchellWeight(d);
  }
  return 0.0;
}

// One table of 64 x 64 cells of cellFloats floats; null when the allocation fails.
float* BuildKernelTable(KernelKind kind, int taps, int tapOffset, int cellFloats, bool zeroFill,
                        SineFunc sine) {
  const std::size_t floatCount =
      static_cast<std::size_t>(kKernelPhases) * kKernelPhases * static_cast<std::size_t>(cellFloats);
  float* table = static_cast<float*>(kernel_table_alloc(floatCount * sizeof(float)));
  if (table == nullptr) return nullptr;
  // The Lanczos-3 cells carry 4 floats of padding that no tap writes.
  if (zeroFill) std::memset(table, 0, floatCount * sizeof(float));

  double rowWeight[6];
  double columnWeight[6];
  for (int py = 0; py < kKernelPhases; ++py) {
    for (int px = 0; px < kKernelPhases; ++px) {
      // Distances are whole 64ths of a pixel, so they are formed exactly in integers first.
      for (int j = 0; j < taps; ++j)
        rowWeight[j] = KernelWeight(kind, std::abs(64 * (j - tapOffset) - py) * 0.015625, sine);
      for (int i = 0; i < taps; ++i)
        columnWeight[i] = KernelWeight(kind, std::abs(64 * (i - tapOffset) - px) * 0.015625, sine);

      double sum = 0.0;
      for (int j = 0; j < taps; ++j)
        for (int i = 0; i < taps; ++i) sum += rowWeight[j] * columnWeight[i];
      const double q = 1.0 / sum;

      float* cell = table + (static_cast<std::size_t>(py) * kKernelPhases + px) * cellFloats;
      for (int j = 0; j < taps; ++j)
        for (int i = 0; i < taps; ++i)
          cell[j * taps + i] = static_cast<float>(rowWeight[j] * columnWeight[i] * q);
    }
  }
  return table;
}

}  // namespace

double Lanczos2Weight(double d, SineFunc sine) {
  if (d >= 2.0) return 0.0;
  if (d == 0.0) return 1.0;
  return 2.0 * sine(d * kPi) * sine(d * kPiHalf) / (d * kPiSquared * d);
}

double Lanczos3Weight(double d, SineFunc sine) {
  if (d >= 3.0) return 0.0;
  if (d == 0.0) return 1.0;
  return 3.0 * sine(d * kPi) * sine(d * kPiThird) / (d * kPiSquared * d);
}

// Mitchell-Netravali with B = C = 1/3, both pieces in Horner form.
double MitchellWeight(double d) {
  if (d >= 2.0) return 0.0;
  if (d < 1.0) return ((7.0 * d + -12.0) * d * d + 5.333333333333333) * 0.16666666666666666;
  return (((-2.3333333333333335 * d + 12.0) * d + -20.0) * d + 10.666666666666666) *
         0.16666666666666666;
}

PF_Err BuildSampleFilters(PF_ANSICallbacksSuite1* ansi, float*& lanczos2, float*& lanczos3,
                          float*& mitchell) {
  if (did_this.load(std::memory_order_acquire)) {
    lanczos2 = flanc2_filter;
    lanczos3 = flanc3_filter;
    mitchell = fmitch2_filter;
    return PF_Err_NONE;
  }

  std::lock_guard<std::mutex> guard(build_lock);
  PF_Err err = PF_Err_NONE;
  if (!did_this.load(std::memory_order_relaxed)) {
    // Both sines are double precision; the tables keep single-precision results.
    const SineFunc sine = (ansi != nullptr && ansi->sin != nullptr) ? ansi->sin : &LibrarySine;
    float* lanczos2Table = BuildKernelTable(KernelKind::Lanczos2, kLanczos2Taps, kLanczos2TapOffset,
                                            kLanczos2CellFloats, true, sine);
    float* lanczos3Table =
        lanczos2Table ? BuildKernelTable(KernelKind::Lanczos3, kLanczos3Taps, kLanczos3TapOffset,
                                         kLanczos3CellFloats, true, sine)
                      : nullptr;
    float* mitchellTable =
        lanczos3Table ? BuildKernelTable(KernelKind::Mitchell, kMitchellTaps, kMitchellTapOffset,
                                         kMitchellCellFloats, false, sine)
                      : nullptr;
    if (mitchellTable == nullptr) {
      // Keep nothing of a partial build: the next render starts over.
      std::free(lanczos2Table);
      std::free(lanczos3Table);
      err = PF_Err_OUT_OF_MEMORY;
    } else {
      // Published only once all three are complete.
      flanc2_filter = lanczos2Table;
      flanc3_filter = lanczos3Table;
      fmitch2_filter = mitchellTable;
      did_this.store(true, std::memory_order_release);
    }
  }
  // Still under the lock: a failed build hands out the null pointers it left.
  lanczos2 = flanc2_filter;
  lanczos3 = flanc3_filter;
  mitchell = fmitch2_filter;
  return err;
}
