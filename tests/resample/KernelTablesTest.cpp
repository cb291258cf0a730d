// Kernel weight tables: the known cells, normalisation, padding and cutoff zeros, one-time
// build (also under two racing first callers), allocation failure, and agreement with an
// independent long-double evaluation of the kernels.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "resample/KernelTables.h"
#include "resample/KernelTablesInternal.h"
#include "resample/ResampleTestSupport.h"

using resample_test::ReferenceKernel;

namespace {

struct KernelInfo {
  const char* name;
  int taps, tapOffset, cellFloats;
  int lanczosLobes;  // 0 for Mitchell-Netravali
};
const KernelInfo kLanczos2{"Lanczos-2", 4, 1, 16, 2};
const KernelInfo kLanczos3{"Lanczos-3", 6, 2, 40, 3};
const KernelInfo kMitchell{"Mitchell", 4, 1, 16, 0};

struct Tables {
  float* lanczos2 = nullptr;
  float* lanczos3 = nullptr;
  float* mitchell = nullptr;
  PF_Err err = -1;
};

Tables Build(PF_ANSICallbacksSuite1* ansi = nullptr) {
  Tables t;
  t.err = BuildSampleFilters(ansi, t.lanczos2, t.lanczos3, t.mitchell);
  return t;
}

const float* Cell(const float* table, const KernelInfo& k, int py, int px) {
  return table + (py * 64 + px) * k.cellFloats;
}

// Stored weights agree with decimal figures given to 8 significant digits.
void ExpectFigure(float value, double figure) {
  EXPECT_NEAR(value, figure, std::fabs(figure) * 2e-7 + 1e-12);
}

// Checks every cell of a table: entries sum to 1 within the rounding of each entry, padding
// is zero, and the tap row/column at the cutoff distance is exactly zero for phase 0.
void ExpectWellFormed(const float* table, const KernelInfo& k) {
  SCOPED_TRACE(k.name);
  const int n = k.taps;
  int failures = 0;
  auto check = [&](bool ok, int py, int px, const char* what) {
    if (!ok && ++failures <= 5) ADD_FAILURE() << what << " in cell (" << py << ", " << px << ")";
  };
  for (int py = 0; py < 64; ++py) {
    for (int px = 0; px < 64; ++px) {
      const float* cell = Cell(table, k, py, px);
      double sum = 0.0, magnitude = 0.0;
      for (int e = 0; e < n * n; ++e) {
        sum += cell[e];
        magnitude += std::fabs(cell[e]);
      }
      check(std::fabs(sum - 1.0) <= magnitude * std::ldexp(1.0, -24) + 1e-15, py, px, "sum is not 1");
      for (int e = n * n; e < k.cellFloats; ++e) check(cell[e] == 0.0f, py, px, "padding not 0");
      for (int t = 0; t < n; ++t) {
        check(py != 0 || cell[(n - 1) * n + t] == 0.0f, py, px, "row at the cutoff not 0");
        check(px != 0 || cell[t * n + (n - 1)] == 0.0f, py, px, "column at the cutoff not 0");
      }
    }
  }
  EXPECT_EQ(failures, 0);
}

// Allocation hook that fails on one chosen call and counts every call.
std::atomic<int> alloc_calls{0};
int fail_on_call = 0;
void* CountingAlloc(std::size_t bytes) {
  const int call = ++alloc_calls;
  return call == fail_on_call ? nullptr : std::malloc(bytes);
}

struct ScopedAllocHook {
  explicit ScopedAllocHook(int failOn) : saved(kernel_table_alloc) {
    alloc_calls = 0;
    fail_on_call = failOn;
    kernel_table_alloc = &CountingAlloc;
  }
  ~ScopedAllocHook() { kernel_table_alloc = saved; }
  KernelTableAllocFunc saved;
};

std::atomic<int> sine_calls{0};
double CountingSine(double v) {
  ++sine_calls;
  return std::sin(v);
}

}  // namespace

TEST(KernelTables, TellingCellsMatchTheirKnownValues) {
  const Tables t = Build();
  ASSERT_EQ(t.err, PF_Err_NONE);

  // Lanczos-2 at phase (0, 0): the centre tap alone.
  const float* c = Cell(t.lanczos2, kLanczos2, 0, 0);
  for (int e = 0; e < 16; ++e) {
    if (e == 5) {
      EXPECT_EQ(c[e], 1.0f);
    } else {
      EXPECT_LT(std::fabs(c[e]), 1e-16f) << e;
    }
  }
  // Lanczos-2 at (0, 32): half-way taps, exact after rounding to float.
  c = Cell(t.lanczos2, kLanczos2, 0, 32);
  const float halfRow[4] = {-0.0625f, 0.5625f, 0.5625f, -0.0625f};
  for (int i = 0; i < 4; ++i) EXPECT_EQ(c[4 + i], halfRow[i]) << i;
  // Lanczos-2 at (32, 32): the separable product of that row with itself.
  c = Cell(t.lanczos2, kLanczos2, 32, 32);
  for (int j = 0; j < 4; ++j)
    for (int i = 0; i < 4; ++i) ExpectFigure(c[j * 4 + i], double(halfRow[j]) * halfRow[i]);

  c = Cell(t.lanczos3, kLanczos3, 0, 32);
  const double l3Row[6] = {0.024456521, -0.13586956, 0.61141306, 0.61141306, -0.13586956, 0.024456521};
  for (int i = 0; i < 6; ++i) ExpectFigure(c[12 + i], l3Row[i]);

  c = Cell(t.mitchell, kMitchell, 0, 0);
  const double mRows[4][4] = {{0.0030864198, 0.049382716, 0.0030864198, 0},
                              {0.049382716, 0.79012346, 0.049382716, 0},
                              {0.0030864198, 0.049382716, 0.0030864198, 0},
                              {0, 0, 0, 0}};
  for (int j = 0; j < 4; ++j)
    for (int i = 0; i < 4; ++i) ExpectFigure(c[j * 4 + i], mRows[j][i]);
  c = Cell(t.mitchell, kMitchell, 0, 32);
  const double mHalf[4] = {-0.030864198, 0.47530866, 0.47530866, -0.030864198};
  for (int i = 0; i < 4; ++i) ExpectFigure(c[4 + i], mHalf[i]);
}

TEST(KernelTables, UnnormalisedLanczos2HalfRowSumMatchesFigure) {
  // The row whose normalisation the (0, 32) cell undoes.
  double sum = 0.0;
  for (int i = 0; i < 4; ++i) sum += Lanczos2Weight(std::fabs(i - 1 - 0.5), &CountingSine);
  EXPECT_NEAR(sum, 1.0189496, 1e-7);
}

TEST(KernelTables, EveryCellIsNormalisedPaddedAndCutOff) {
  const Tables t = Build();
  ASSERT_EQ(t.err, PF_Err_NONE);
  ExpectWellFormed(t.lanczos2, kLanczos2);
  ExpectWellFormed(t.lanczos3, kLanczos3);
  ExpectWellFormed(t.mitchell, kMitchell);
}

TEST(KernelTables, AgreeWithLongDoubleReferenceInRandomCells) {
  const Tables t = Build();
  ASSERT_EQ(t.err, PF_Err_NONE);
  std::mt19937 rng(20240611);
  std::uniform_int_distribution<int> phase(0, 63);
  for (const KernelInfo* k : {&kLanczos2, &kLanczos3, &kMitchell}) {
    SCOPED_TRACE(k->name);
    const float* table = k == &kLanczos2 ? t.lanczos2 : k == &kLanczos3 ? t.lanczos3 : t.mitchell;
    for (int trial = 0; trial < 40; ++trial) {
      const int py = trial == 0 ? 63 : phase(rng), px = trial == 0 ? 63 : phase(rng);
      const int n = k->taps;
      long double w[6][6], sum = 0;
      for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
          w[j][i] = ReferenceKernel(k->lanczosLobes, std::fabs(j - k->tapOffset - py / 64.0L)) *
                    ReferenceKernel(k->lanczosLobes, std::fabs(i - k->tapOffset - px / 64.0L));
          sum += w[j][i];
        }
      const float* cell = Cell(table, *k, py, px);
      for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
          const long double ref = w[j][i] / sum;
          EXPECT_NEAR(cell[j * n + i], double(ref), std::fabs(double(ref)) * std::ldexp(1.0, -24) * 1.01 + 1e-15)
              << "cell (" << py << ", " << px << ") tap " << j << "," << i;
        }
    }
  }
}

TEST(KernelTables, LaterCallsBuildNothingAndReturnTheSamePointers) {
  DiscardSampleFiltersForTesting();
  PF_ANSICallbacksSuite1 ansi{};
  ansi.sin = &CountingSine;
  ScopedAllocHook hook(0);
  sine_calls = 0;
  const Tables first = Build(&ansi);
  ASSERT_EQ(first.err, PF_Err_NONE);
  EXPECT_EQ(alloc_calls, 3);
  EXPECT_GT(sine_calls, 0);  // the host's sine is the one used
  EXPECT_EQ(first.lanczos2, flanc2_filter);
  EXPECT_EQ(first.lanczos3, flanc3_filter);
  EXPECT_EQ(first.mitchell, fmitch2_filter);

  sine_calls = 0;
  for (int call = 0; call < 3; ++call) {
    Tables later;
    later.lanczos2 = later.lanczos3 = later.mitchell = reinterpret_cast<float*>(&later);
    later.err = BuildSampleFilters(call == 0 ? &ansi : nullptr, later.lanczos2, later.lanczos3, later.mitchell);
    EXPECT_EQ(later.err, PF_Err_NONE);
    EXPECT_EQ(later.lanczos2, first.lanczos2);
    EXPECT_EQ(later.lanczos3, first.lanczos3);
    EXPECT_EQ(later.mitchell, first.mitchell);
  }
  EXPECT_EQ(alloc_calls, 3);
  EXPECT_EQ(sine_calls, 0);
}

TEST(KernelTables, MissingHostSineFallsBackToLibrarySineWithSameTables) {
  PF_ANSICallbacksSuite1 ansi{};
  ansi.sin = &CountingSine;
  DiscardSampleFiltersForTesting();
  const Tables viaHost = Build(&ansi);
  ASSERT_EQ(viaHost.err, PF_Err_NONE);
  const std::vector<float> hostL3(viaHost.lanczos3, viaHost.lanczos3 + 64 * 64 * 40);

  PF_ANSICallbacksSuite1 noSine{};
  for (PF_ANSICallbacksSuite1* suite : {static_cast<PF_ANSICallbacksSuite1*>(nullptr), &noSine}) {
    DiscardSampleFiltersForTesting();
    const Tables fallback = Build(suite);
    ASSERT_EQ(fallback.err, PF_Err_NONE);
    EXPECT_EQ(std::memcmp(fallback.lanczos3, hostL3.data(), hostL3.size() * sizeof(float)), 0);
  }
}

TEST(KernelTables, RacingFirstCallersBothGetOneCompleteSet) {
  DiscardSampleFiltersForTesting();
  ScopedAllocHook hook(0);
  // The first caller signals from inside its build; only then does the second one start, so
  // the second is sure to arrive while the tables are being built.
  static std::atomic<bool> building;
  building = false;
  PF_ANSICallbacksSuite1 slow{};
  slow.sin = [](double v) {
    building = true;
    std::this_thread::yield();
    return std::sin(v);
  };
  Tables results[2];
  auto caller = [&](int index) {
    results[index] = Build(&slow);
    // Checked before the other thread is joined: what a caller gets must already be complete.
    if (results[index].err == PF_Err_NONE) {
      ExpectWellFormed(results[index].lanczos2, kLanczos2);
      ExpectWellFormed(results[index].lanczos3, kLanczos3);
      ExpectWellFormed(results[index].mitchell, kMitchell);
    }
  };
  std::thread first(caller, 0);
  while (!building) std::this_thread::yield();
  std::thread second(caller, 1);
  first.join();
  second.join();
  for (const Tables& r : results) {
    EXPECT_EQ(r.err, PF_Err_NONE);
    EXPECT_EQ(r.lanczos2, results[0].lanczos2);
    EXPECT_EQ(r.lanczos3, results[0].lanczos3);
    EXPECT_EQ(r.mitchell, results[0].mitchell);
  }
  EXPECT_EQ(alloc_calls, 3);
}

TEST(KernelTables, AllocationFailureIsReportedAndALaterCallSucceeds) {
  for (int failOn = 1; failOn <= 3; ++failOn) {
    SCOPED_TRACE(failOn);
    DiscardSampleFiltersForTesting();
    {
      ScopedAllocHook hook(failOn);
      Tables failed;
      failed.lanczos2 = failed.lanczos3 = failed.mitchell = reinterpret_cast<float*>(&failed);
      failed.err = BuildSampleFilters(nullptr, failed.lanczos2, failed.lanczos3, failed.mitchell);
      EXPECT_EQ(failed.err, PF_Err_OUT_OF_MEMORY);
      EXPECT_EQ(alloc_calls, failOn);  // stops at the first failure
      EXPECT_EQ(failed.lanczos2, nullptr);
      EXPECT_EQ(failed.lanczos3, nullptr);
      EXPECT_EQ(failed.mitchell, nullptr);
      EXPECT_EQ(flanc2_filter, nullptr);
      EXPECT_EQ(flanc3_filter, nullptr);
      EXPECT_EQ(fmitch2_filter, nullptr);
    }
    const Tables retry = Build();
    ASSERT_EQ(retry.err, PF_Err_NONE);
    ASSERT_NE(retry.mitchell, nullptr);
    EXPECT_EQ(Cell(retry.lanczos2, kLanczos2, 0, 32)[5], 0.5625f);
  }
}
