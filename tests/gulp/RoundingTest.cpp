// Rounding, clipping, range tests, table look-up and blending, under both rounding routes
// where the route matters.
#include "GulpTestSupport.h"

namespace {

const float kInt32Min = -2147483648.0f;

// Random finite values below 2^31 in magnitude, spread over all magnitudes, with halves
// and exact integers mixed in.
std::vector<float> RandomBelow2To31(unsigned seed, int count) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> exponent(-12.0f, 30.9f);
  std::uniform_int_distribution<int> kind(0, 5);
  std::vector<float> values;
  while (static_cast<int>(values.size()) < count) {
    float v = std::exp2(exponent(rng));
    if (kind(rng) == 0) v = std::floor(v) + 0.5f;
    if (kind(rng) == 1) v = std::floor(v);
    if (rng() & 1) v = -v;
    if (std::fabs(v) < 2147483648.0f) values.push_back(v);
  }
  return values;
}

using RoundingRoutes = BothRoutes;
VT_INSTANTIATE_BOTH_ROUTES(RoundingRoutes);

TEST_P(RoundingRoutes, ModfBelowZeroAndOverTheOperand) {
  FGulp a, frac, ipart;
  SetRun(a, {-1e-10f, 2.0f});
  ExpectRun(frac.modf(a, ipart), {1.0f, 0.0f});  // the fraction just below zero rounds to 1
  ExpectRun(ipart, {-1.0f, 2.0f});
  EXPECT_EQ(ipart.len, 2);
  // ... and the phase to s itself: no bound here.
  ExpectRun(frac.modfscaledoffs(a, 64.0f, -2.0f, ipart), {64.0f, 0.0f});
  ExpectRun(ipart, {-3.0f, 0.0f});
  // Either output written over the operand.
  SetRun(a, {-1.25f, 5.5f});
  FGulp x(a), y(a);
  ExpectRun(x.modf(x, ipart), {0.75f, 0.5f});
  ExpectRun(ipart, {-2.0f, 5.0f});
  ExpectRun(frac.modf(y, y), {0.75f, 0.5f});
  ExpectRun(y, {-2.0f, 5.0f});
}

// The conversion route gives -2^31 for NaN, infinities and magnitudes from 2^31 on, and +0
// for zero results; the instruction route is exact.
TEST_P(RoundingRoutes, OutOfRangeAndSignedZero) {
  FGulp a, b, r;
  auto expect = [&](const FGulp& got, std::initializer_list<float> instruction,
                    std::initializer_list<float> conversion) {
    ExpectRun(got, Instruction() ? instruction : conversion);
  };
  const float m = kInt32Min;
  SetRun(a, {3e9f, kNaN, -kInf, m, -0.5f});
  expect(r.floor(a), {3e9f, kNaN, -kInf, m, -1.0f}, {m, m, m, m, -1.0f});
  expect(r.ceil(a), {3e9f, kNaN, -kInf, m, -0.0f}, {m, m, m, m, 0.0f});
  expect(r.trunc(a), {3e9f, kNaN, -kInf, m, -0.0f}, {m, m, m, m, 0.0f});
  expect(r.round(a), {3e9f, kNaN, -kInf, m, -0.0f}, {m, m, m, m, 0.0f});
  SetRun(a, {kNaN, 1e10f, -1e10f, 7.5f});
  SetRun(b, {1.0f, 1.0f, 1.0f, 1.0f});
  expect(r.mulroundclip(-100.0f, a, b, 100.0f), {kNaN, 100.0f, -100.0f, 8.0f},
         {-100.0f, -100.0f, -100.0f, 8.0f});
}

// Both routes give the library's values on every input below 2^31 (halves to even); the
// instruction route gives its bits, signed zeros included.
TEST_P(RoundingRoutes, AgreeWithLibraryOnRandomInputs) {
  std::vector<float> values = RandomBelow2To31(GetParam() + 7, 64 * 40);
  const float edges[] = {-0.0f, -0.25f, 0.25f, 16777216.0f, -8388607.5f, 1e-40f, -1e-40f};
  for (size_t i = 0; i < std::size(edges); ++i) values[i * 3] = edges[i];
  auto same = [&](float got, float want) {
    return Instruction() ? Bits(got) == Bits(want) : got == want;
  };
  for (size_t first = 0; first < values.size(); first += 64) {
    FGulp a, fl, ce, ro, tr, frac, ipart, phase, tap, product, three;
    for (int k = 0; k < 64; ++k) a[k] = values[first + k];
    fl.floor(a), ce.ceil(a), ro.round(a), tr.trunc(a);
    frac.modf(a, ipart), phase.modfscaledoffs(a, 64.0f, -2.0f, tap);
    three.Constant(3.0f);
    product.mulround(a, three);
    for (int k = 0; k < 64; ++k) {
      const float x = values[first + k];
      const float f = std::floor(x);
      EXPECT_TRUE(same(fl[k], f)) << x;
      EXPECT_TRUE(same(ce[k], std::ceil(x))) << x;
      EXPECT_TRUE(same(ro[k], std::nearbyint(x))) << x;
      EXPECT_TRUE(same(tr[k], std::trunc(x))) << x;
      EXPECT_EQ(frac[k], x - f) << x;
      EXPECT_EQ(ipart[k], f) << x;
      EXPECT_EQ(phase[k], std::floor((x - f) * 64.0f)) << x;
      EXPECT_EQ(tap[k], f - 2.0f) << x;
      if (std::fabs(x * 3.0f) < 2147483648.0f) {
        EXPECT_EQ(product[k], std::nearbyint(x * 3.0f)) << x;
      }
    }
  }
}

TEST(Clipping, LowerLimitFirstThenUpperAndNaNPasses) {
  FGulp a, half, r, inside;
  SetRun(a, {-kInf, -1.0f, 3.0f, 7.0f, kInf, kNaN});
  SetRun(half, {0.5f, 0.5f, 0.5f, 0.5f, 0.5f, 0.5f});
  ExpectRun(r.clip(5.0f, a, 2.0f), {2.0f, 2.0f, 2.0f, 2.0f, 2.0f, kNaN});  // crossed limits
  ExpectRun(r.clipoffs(0.0f, a, 1.0f, 3.5f), {0.0f, 0.0f, 3.5f, 3.5f, 3.5f, kNaN});
  ExpectRun(r.mulclip(0.0f, a, half, 3.0f), {0.0f, 0.0f, 1.5f, 3.0f, 3.0f, kNaN});
  ExpectRun(r.clipoffsLE(0.0f, a, 1.0f, 4.0f, inside), {0.0f, 0.0f, 4.0f, 4.0f, 4.0f, kNaN});
  ExpectRun(inside, {0.0f, 1.0f, 1.0f, 0.0f, 0.0f, 0.0f});  // ordered: NaN is outside
  EXPECT_EQ(inside.len, 6);
  // Both outputs written over the operand.
  FGulp x(a), y(a);
  x.clipoffsLE(0.0f, x, 1.0f, 9.0f, inside);
  r.clipoffsLE(0.0f, y, 1.0f, 9.0f, y);
  EXPECT_EQ(x[2], 4.0f);
  EXPECT_EQ(r[2], 4.0f);
  EXPECT_EQ(y[3], 1.0f);
  // The range tests are ordered too.
  SetRun(a, {10.0f, 0.0f, -0.5f, kNaN, 9.5f});
  ExpectRun(r.inrangeLT(0.0f, a, 10.0f), {0.0f, 1.0f, 0.0f, 0.0f, 1.0f});
  ExpectRun(r.inrangeLE(0.0f, a, 10.0f), {1.0f, 1.0f, 0.0f, 0.0f, 1.0f});
}

TEST(Reciprocals, GuardedExactAndApproximate) {
  FGulp a, r;
  SetRun(a, {0.0f, -0.0f, 4.0f, kNaN});
  ExpectRun(r.recipCHKZ(a), {1.0f, 1.0f, 0.25f, kNaN});
  ExpectRun(r.recip(a), {kInf, -kInf, 0.25f, kNaN});

  std::mt19937 rng(5);
  std::uniform_real_distribution<float> exponent(-60.0f, 60.0f);
  FGulp x, rs, rc, sq, exact;
  for (int k = 0; k < 64; ++k) x[k] = std::exp2(exponent(rng)) * (1.0f + (k % 13) / 13.0f);
  rs.rsqrt(x), rc.recipApprox(x), sq.sqrt(x), exact.recip(x);
  const long double bound = 1.5L * std::ldexp(1.0L, -12);  // the approximations' error
  for (int k = 0; k < 64; ++k) {
    const double v = x[k];
    EXPECT_LE(std::fabs(rs[k] * std::sqrt(v) - 1.0L), bound) << v;
    EXPECT_LE(std::fabs(rc[k] * v - 1.0L), bound) << v;
    EXPECT_EQ(sq[k], float(std::sqrt(v))) << v;
    EXPECT_EQ(exact[k], float(1.0 / v)) << v;
  }
}

TEST(TableOps, LUTscaleAndBlend) {
  FGulp a, b, t, r;
  SetRun(a, {-3.0f, 0.5f, 7.0f, kNaN});
  ExpectRun(r.LUTscale(a, 2048.0f, 2048.0f), {0.0f, 1024.0f, 2048.0f, kNaN});
  SetRun(a, {1.0f, 0.1f, -3e38f, 5.0f});
  SetRun(b, {3.0f, 0.7f, 3e38f, 5.0f});
  SetRun(t, {0.25f, 0.0f, 0.0f, 123.0f});
  // a + (b - a)*t in that order: (b - a) overflows, times 0 is NaN.
  ExpectRun(r.blend(a, b, t), {1.5f, 0.1f, kNaN, 5.0f});
  SetRun(t, {1.0f, 1.0f, 1.0f, 1.0f});
  EXPECT_EQ(Bits(r.blend(a, b, t)[1]), Bits(0.1f + (0.7f - 0.1f)));
}

TEST(TableOps, GatherLUTTruncatesAndCopiesBits) {
  float table[8] = {100.0f, 101.0f, 102.0f, 103.0f, -0.0f, 105.0f, 0.0f, 107.0f};
  const uint32_t payloadNaN = 0x7fc12345u;
  std::memcpy(&table[6], &payloadNaN, 4);
  FGulp a, r;
  SetRun(a, {0.0f, 1.5f, 2.9f, 3.0f, 4.99f, -0.5f, 6.2f});
  r.gatherLUT(table, a);
  EXPECT_EQ(r.len, 7);
  const int expectedEntry[] = {0, 1, 2, 3, 4, 0, 6};
  for (int k = 0; k < 7; ++k) EXPECT_EQ(Bits(r[k]), Bits(table[expectedEntry[k]])) << k;
  // The table advanced by one entry gives the upper neighbours, written over the indices.
  a.gatherLUT(table + 1, a);
  EXPECT_EQ(a[2], 103.0f);
  EXPECT_EQ(a[5], 101.0f);
}

}  // namespace
