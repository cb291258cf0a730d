// Kernel weight tables: agreement with an independent long-double evaluation of the kernels,
// normalisation, padding and cutoff zeros, one-time build (also under two racing first
// callers), the host's or the library's sine, and allocation failure.
#include "resample/ResampleTestSupport.h"

using namespace resample_test;

namespace {

struct Tables {
  float* table[3] = {};  // in the order of kKernels
  PF_Err err = -1;
};

// The three references start out pointing somewhere, so that a null shows.
Tables Build(PF_ANSICallbacksSuite1* ansi = nullptr) {
  static float marker;
  Tables t;
  for (float*& p : t.table) p = &marker;
  t.err = BuildSampleFilters(ansi, t.table[0], t.table[1], t.table[2]);
  return t;
}

const float* Cell(const float* table, const Kernel& k, int py, int px) { return table + (py * 64 + px) * k.cellFloats; }

// Every cell of a table: entries sum to 1 within the rounding of each entry, padding is
// zero, and the tap row/column at the cutoff distance is exactly zero for phase 0.
void ExpectWellFormed(const float* table, const Kernel& k) {
  const int n = k.taps;
  int failures = 0;
  auto check = [&](bool ok, int py, int px, const char* what) {
    if (!ok && ++failures <= 5) ADD_FAILURE() << k.name << ": " << what << " in cell (" << py << ", " << px << ")";
  };
  for (int py = 0; py < 64; ++py) {
    for (int px = 0; px < 64; ++px) {
      const float* cell = Cell(table, k, py, px);
      double sum = 0.0, magnitude = 0.0;
      for (int e = 0; e < n * n; ++e) sum += cell[e], magnitude += std::fabs(cell[e]);
      check(std::fabs(sum - 1.0) <= magnitude * std::ldexp(1.0, -24) + 1e-15, py, px, "sum is not 1");
      for (int e = n * n; e < k.cellFloats; ++e) check(cell[e] == 0.0f, py, px, "padding not 0");
      for (int t = 0; t < n; ++t) {
        check(py != 0 || cell[(n - 1) * n + t] == 0.0f, py, px, "row at the cutoff not 0");
        check(px != 0 || cell[t * n + (n - 1)] == 0.0f, py, px, "column at the cutoff not 0");
      }
    }
  }
}

// Allocation hook that fails on one chosen call and counts every call.
std::atomic<int> alloc_calls{0};
int fail_on_call = 0;
void* CountingAlloc(std::size_t bytes) { return ++alloc_calls == fail_on_call ? nullptr : std::malloc(bytes); }

struct ScopedAllocHook {
  explicit ScopedAllocHook(int failOn) : saved(kernel_table_alloc) {
    alloc_calls = 0, fail_on_call = failOn, kernel_table_alloc = &CountingAlloc;
  }
  ~ScopedAllocHook() { kernel_table_alloc = saved; }
  KernelTableAllocFunc saved;
};

std::atomic<int> sine_calls{0};
double CountingSine(double v) { return ++sine_calls, std::sin(v); }

}  // namespace

TEST(KernelTables, WellFormedAndAgreeWithLongDoubleReference) {
  const Tables t = Build();
  ASSERT_EQ(t.err, PF_Err_NONE);
  // Lanczos-2 at phase (0, 0) is the centre tap alone; at (0, 32) the half-way taps
  // (-1/16, 9/16, 9/16, -1/16), exact after rounding to float.
  EXPECT_EQ(Cell(t.table[0], kKernels[0], 0, 0)[5], 1.0f);
  const float halfRow[4] = {-0.0625f, 0.5625f, 0.5625f, -0.0625f};
  for (int i = 0; i < 4; ++i) EXPECT_EQ(Cell(t.table[0], kKernels[0], 0, 32)[4 + i], halfRow[i]);

  std::mt19937 rng(20240611);
  std::uniform_int_distribution<int> phase(0, 63);
  for (int kernel = 0; kernel < 3; ++kernel) {
    const Kernel& k = kKernels[kernel];
    ExpectWellFormed(t.table[kernel], k);
    for (int trial = 0; trial < 40; ++trial) {
      const int telling[][2] = {{0, 0}, {0, 32}, {32, 32}, {63, 63}};
      const int py = trial < 4 ? telling[trial][0] : phase(rng);
      const int px = trial < 4 ? telling[trial][1] : phase(rng);
      const int n = k.taps;
      long double w[6][6], sum = 0;
      for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) sum += w[j][i] = ReferenceTapWeight(k, i, j, px / 64.0L, py / 64.0L);
      const float* cell = Cell(t.table[kernel], k, py, px);
      for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
          const double ref = double(w[j][i] / sum);
          EXPECT_NEAR(cell[j * n + i], ref, std::fabs(ref) * std::ldexp(1.0, -24) * 1.01 + 1e-15)
              << k.name << " cell (" << py << ", " << px << ") tap " << j << "," << i;
        }
    }
  }
}

TEST(KernelTables, BuiltOnceWithTheHostSineOrTheLibrarySine) {
  // The first call builds with the host's sine; later calls build nothing and hand out the
  // same tables, whatever suite they pass.
  DiscardSampleFilters();
  PF_ANSICallbacksSuite1 ansi{};
  ansi.sin = &CountingSine;
  ScopedAllocHook hook(0);
  sine_calls = 0;
  const Tables first = Build(&ansi);
  ASSERT_EQ(first.err, PF_Err_NONE);
  EXPECT_EQ(alloc_calls, 3);
  EXPECT_GT(sine_calls, 0);
  EXPECT_TRUE(first.table[0] == flanc2_filter && first.table[1] == flanc3_filter && first.table[2] == fmitch2_filter);
  const std::vector<float> hostL3(first.table[1], first.table[1] + 64 * 64 * 40);
  sine_calls = 0;
  for (PF_ANSICallbacksSuite1* suite : {&ansi, static_cast<PF_ANSICallbacksSuite1*>(nullptr)}) {
    const Tables later = Build(suite);
    EXPECT_EQ(later.err, PF_Err_NONE);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(later.table[i], first.table[i]);
  }
  EXPECT_EQ(alloc_calls, 3);
  EXPECT_EQ(sine_calls, 0);

  // Without the suite or its sin entry, the library's sine gives the same tables.
  PF_ANSICallbacksSuite1 noSine{};
  for (PF_ANSICallbacksSuite1* suite : {static_cast<PF_ANSICallbacksSuite1*>(nullptr), &noSine}) {
    DiscardSampleFilters();
    const Tables fallback = Build(suite);
    ASSERT_EQ(fallback.err, PF_Err_NONE);
    EXPECT_EQ(std::memcmp(fallback.table[1], hostL3.data(), hostL3.size() * sizeof(float)), 0);
  }
}

TEST(KernelTables, RacingFirstCallersBothGetOneCompleteSet) {
  DiscardSampleFilters();
  ScopedAllocHook hook(0);
  // The first caller's build waits, at its first sine, until the second caller has started,
  // so that the second arrives while the tables are being built.
  static std::atomic<bool> building, secondStarted;
  building = secondStarted = false;
  PF_ANSICallbacksSuite1 slow{};
  slow.sin = [](double v) {
    if (!building.exchange(true)) {
      while (!secondStarted) std::this_thread::yield();
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return std::sin(v);
  };
  Tables results[2];
  auto caller = [&](int index) {
    results[index] = Build(&slow);
    // Checked before the other thread is joined: what a caller gets must already be complete.
    for (int k = 0; k < 3 && results[index].err == PF_Err_NONE; ++k)
      ExpectWellFormed(results[index].table[k], kKernels[k]);
  };
  std::thread first(caller, 0);
  while (!building) std::this_thread::yield();
  std::thread second([&] { secondStarted = true, caller(1); });
  first.join();
  second.join();
  for (const Tables& r : results) {
    EXPECT_EQ(r.err, PF_Err_NONE);
    for (int k = 0; k < 3; ++k) EXPECT_EQ(r.table[k], results[0].table[k]);
  }
  EXPECT_EQ(alloc_calls, 3);
}

TEST(KernelTables, AllocationFailureIsReportedAndALaterCallSucceeds) {
  for (int failOn = 1; failOn <= 3; ++failOn) {
    SCOPED_TRACE(failOn);
    DiscardSampleFilters();
    {
      ScopedAllocHook hook(failOn);
      const Tables failed = Build();
      EXPECT_EQ(failed.err, PF_Err_OUT_OF_MEMORY);
      EXPECT_EQ(alloc_calls, failOn);  // stops at the first failure
      for (float* p : failed.table) EXPECT_EQ(p, nullptr);
      EXPECT_TRUE(!flanc2_filter && !flanc3_filter && !fmitch2_filter);
    }
    const Tables retry = Build();
    ASSERT_EQ(retry.err, PF_Err_NONE);
    ASSERT_NE(retry.table[2], nullptr);
    EXPECT_EQ(Cell(retry.table[0], kKernels[0], 0, 32)[5], 0.5625f);
  }
}
