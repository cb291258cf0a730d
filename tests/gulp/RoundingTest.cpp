// Rounding, clipping, range tests, table look-up and blending, under both rounding routes
// where the route matters.
#include <cmath>
#include <iterator>
#include <limits>
#include <random>
#include <vector>

#include "GulpTestSupport.h"

namespace {

const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kInf = std::numeric_limits<float>::infinity();
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

// Loads values in runs of 64 and calls check(run, first index).
template <class Check>
void ForRuns(const std::vector<float>& values, Check check) {
  for (size_t first = 0; first + 64 <= values.size(); first += 64) {
    FGulp run;
    for (int k = 0; k < 64; ++k) run[k] = values[first + k];
    check(run, first);
  }
}

using RoundingRoutes = BothRoutes;
VT_INSTANTIATE_BOTH_ROUTES(RoundingRoutes);

TEST_P(RoundingRoutes, ModfTakesTheFloor) {
  FGulp a, frac, ipart;
  SetRun(a, {-1.25f, 2.0f, -1e-10f});
  frac.modf(a, ipart);
  EXPECT_EQ(frac[0], 0.75f);
  EXPECT_EQ(ipart[0], -2.0f);
  EXPECT_EQ(frac[1], 0.0f);
  EXPECT_EQ(ipart[1], 2.0f);
  EXPECT_EQ(frac[2], 1.0f);
  EXPECT_EQ(ipart[2], -1.0f);
  EXPECT_EQ(ipart.len, 3);
}

TEST_P(RoundingRoutes, ModfscaledoffsRoundsThePhaseDown) {
  FGulp a, phase, ipart;
  SetRun(a, {3.7f, -0.25f});
  phase.modfscaledoffs(a, 16.0f, -1.0f, ipart);
  EXPECT_EQ(phase[0], 11.0f);
  EXPECT_EQ(ipart[0], 2.0f);
  phase.modfscaledoffs(a, 16.0f, 0.0f, ipart);
  EXPECT_EQ(phase[1], 12.0f);
  EXPECT_EQ(ipart[1], -1.0f);
  // Just below zero the fraction rounds to 1.0 and the phase to s itself: no bound here.
  SetRun(a, {-1e-10f});
  phase.modfscaledoffs(a, 64.0f, -2.0f, ipart);
  EXPECT_EQ(phase[0], 64.0f);
  EXPECT_EQ(ipart[0], -3.0f);
}

TEST_P(RoundingRoutes, RoundHalvesToEven) {
  FGulp a, r;
  SetRun(a, {2.5f, 3.5f, -2.5f, 0.5f});
  r.round(a);
  EXPECT_EQ(r[0], 2.0f);
  EXPECT_EQ(r[1], 4.0f);
  EXPECT_EQ(r[2], -2.0f);
  EXPECT_EQ(r[3], 0.0f);
  FGulp b;
  SetRun(b, {2.0f, 2.0f, 2.0f, 2.0f});
  FGulp half;
  SetRun(half, {1.25f, 1.75f, -1.25f, 10.25f});
  r.mulround(half, b);  // products 2.5, 3.5, -2.5, 20.5
  EXPECT_EQ(r[0], 2.0f);
  EXPECT_EQ(r[1], 4.0f);
  EXPECT_EQ(r[2], -2.0f);
  EXPECT_EQ(r[3], 20.0f);
}

TEST_P(RoundingRoutes, OutOfRangeAndSignedZero) {
  FGulp a, r;
  SetRun(a, {3e9f, kNaN, -kInf, kInt32Min, -0.5f});
  const float big = Instruction() ? 3e9f : kInt32Min;
  r.floor(a);
  EXPECT_EQ(r[0], big);
  EXPECT_EQ(r[2], Instruction() ? -kInf : kInt32Min);
  EXPECT_EQ(r[3], kInt32Min);
  if (Instruction()) {
    EXPECT_TRUE(std::isnan(r[1]));
  } else {
    EXPECT_EQ(r[1], kInt32Min);
  }
  r.ceil(a);
  EXPECT_EQ(r[0], big);
  EXPECT_EQ(r[4], 0.0f);
  EXPECT_EQ(std::signbit(r[4]), Instruction());  // -0 only from the instruction
  r.trunc(a);
  EXPECT_EQ(r[0], big);
  r.round(a);
  EXPECT_EQ(r[0], big);
}

TEST_P(RoundingRoutes, MulroundclipOfNaNAndHugeProducts) {
  FGulp a, b, r;
  SetRun(a, {kNaN, 1e10f, -1e10f, 7.5f});
  SetRun(b, {1.0f, 1.0f, 1.0f, 1.0f});
  r.mulroundclip(-100.0f, a, b, 100.0f);
  if (Instruction()) {
    EXPECT_TRUE(std::isnan(r[0]));
    EXPECT_EQ(r[1], 100.0f);
    EXPECT_EQ(r[2], -100.0f);
  } else {
    EXPECT_EQ(r[0], -100.0f);
    EXPECT_EQ(r[1], -100.0f);
    EXPECT_EQ(r[2], -100.0f);
  }
  EXPECT_EQ(r[3], 8.0f);
}

TEST_P(RoundingRoutes, AgreeWithLibraryOnRandomInputs) {
  const std::vector<float> values = RandomBelow2To31(GetParam() + 7, 64 * 40);
  ForRuns(values, [&](const FGulp& a, size_t first) {
    FGulp fl, ce, ro, tr, frac, ipart, phase, tap, product;
    fl.floor(a);
    ce.ceil(a);
    ro.round(a);
    tr.trunc(a);
    frac.modf(a, ipart);
    phase.modfscaledoffs(a, 64.0f, -2.0f, tap);
    FGulp three;
    three.Constant(3.0f);
    product.mulround(a, three);
    for (int k = 0; k < 64; ++k) {
      const float x = values[first + k];
      const float f = std::floor(x);
      const float scaledFraction = (x - f) * 64.0f;
      EXPECT_EQ(fl[k], f) << x;
      EXPECT_EQ(ce[k], std::ceil(x)) << x;
      EXPECT_EQ(ro[k], std::nearbyint(x)) << x;
      EXPECT_EQ(tr[k], std::trunc(x)) << x;
      EXPECT_EQ(frac[k], x - f) << x;
      EXPECT_EQ(ipart[k], f) << x;
      EXPECT_EQ(phase[k], std::floor(scaledFraction)) << x;
      EXPECT_EQ(tap[k], f - 2.0f) << x;
      const float p = x * 3.0f;
      if (std::fabs(p) < 2147483648.0f) {
        EXPECT_EQ(product[k], std::nearbyint(p)) << x;
      }
    }
  });
}

TEST(RoundingInstruction, MatchesLibraryBitForBitOnEveryInput) {
  ScopedFeatureWord word(kCpuSSE41);
  std::vector<float> values = RandomBelow2To31(99, 64 * 8);
  const float extremes[] = {3e9f, -3e9f, 1e30f, -1e30f, kInf, -kInf, -0.0f, -0.25f, 0.25f,
                            8388608.5f, 16777216.0f, -8388607.5f, 1e-40f, -1e-40f};
  for (size_t i = 0; i < std::size(extremes); ++i) values[i * 3] = extremes[i];
  ForRuns(values, [&](const FGulp& a, size_t first) {
    FGulp fl, ce, ro, tr;
    fl.floor(a);
    ce.ceil(a);
    ro.round(a);
    tr.trunc(a);
    for (int k = 0; k < 64; ++k) {
      const float x = values[first + k];
      EXPECT_EQ(Bits(fl[k]), Bits(std::floor(x))) << x;
      EXPECT_EQ(Bits(ce[k]), Bits(std::ceil(x))) << x;
      EXPECT_EQ(Bits(ro[k]), Bits(std::nearbyint(x))) << x;
      EXPECT_EQ(Bits(tr[k]), Bits(std::trunc(x))) << x;
    }
  });
}

TEST(RoundingRoutesCompared, SameValuesBelow2To31) {
  const std::vector<float> values = RandomBelow2To31(2024, 64 * 40);
  ForRuns(values, [&](const FGulp& a, size_t first) {
    FGulp result[2][8];
    for (int route = 0; route < 2; ++route) {
      ScopedFeatureWord word(route ? kCpuSSE41 : 0);
      FGulp* r = result[route];
      r[0].floor(a);
      r[1].ceil(a);
      r[2].round(a);
      r[3].trunc(a);
      r[4].modf(a, r[5]);
      r[6].modfscaledoffs(a, 40.0f, 1.0f, r[7]);
    }
    for (int op = 0; op < 8; ++op)
      for (int k = 0; k < 64; ++k)
        EXPECT_EQ(result[0][op][k], result[1][op][k]) << "op " << op << " x " << values[first + k];
  });
}

TEST(Clipping, LowerLimitFirstThenUpper) {
  FGulp a, r;
  SetRun(a, {-kInf, -1.0f, 3.0f, 7.0f, kInf, kNaN});
  r.clip(5.0f, a, 2.0f);
  for (int k = 0; k < 5; ++k) EXPECT_EQ(r[k], 2.0f) << k;
  EXPECT_TRUE(std::isnan(r[5]));
  r.clip(0.0f, a, 1.0f);
  EXPECT_EQ(r[0], 0.0f);
  EXPECT_EQ(r[2], 1.0f);
  EXPECT_TRUE(std::isnan(r[5]));
  r.clipoffs(0.0f, a, 1.0f, 3.5f);
  EXPECT_EQ(r[1], 0.0f);
  EXPECT_EQ(r[2], 3.5f);
  FGulp half;
  SetRun(half, {0.5f, 0.5f, 0.5f, 0.5f, 0.5f, 0.5f});
  r.mulclip(0.0f, a, half, 3.0f);
  EXPECT_EQ(r[2], 1.5f);
  EXPECT_EQ(r[3], 3.0f);
  EXPECT_TRUE(std::isnan(r[5]));
}

TEST(Clipping, ClipoffsLEGivesIndexAndInsideMask) {
  FGulp a, r, inside;
  SetRun(a, {-2.0f, 3.0f, 8.5f, kNaN});
  r.clipoffsLE(0.0f, a, 1.0f, 9.0f, inside);
  EXPECT_EQ(r[0], 0.0f);
  EXPECT_EQ(r[1], 4.0f);
  EXPECT_EQ(r[2], 9.0f);
  EXPECT_TRUE(std::isnan(r[3]));
  const float mask[] = {0.0f, 1.0f, 0.0f, 0.0f};
  for (int k = 0; k < 4; ++k) EXPECT_EQ(Bits(inside[k]), Bits(mask[k])) << k;
  EXPECT_EQ(inside.len, 4);
  // Both outputs written over the operand.
  FGulp x(a), y(a);
  x.clipoffsLE(0.0f, x, 1.0f, 9.0f, inside);
  r.clipoffsLE(0.0f, y, 1.0f, 9.0f, y);
  EXPECT_EQ(x[1], 4.0f);
  EXPECT_EQ(inside[1], 1.0f);
  EXPECT_EQ(r[2], 9.0f);
  EXPECT_EQ(y[2], 0.0f);
}

TEST(Clipping, RangeTestsAreOrdered) {
  FGulp a, r;
  SetRun(a, {10.0f, 0.0f, -0.5f, kNaN, 9.5f});
  r.inrangeLT(0.0f, a, 10.0f);
  const float lt[] = {0.0f, 1.0f, 0.0f, 0.0f, 1.0f};
  for (int k = 0; k < 5; ++k) EXPECT_EQ(Bits(r[k]), Bits(lt[k])) << k;
  r.inrangeLE(0.0f, a, 10.0f);
  const float le[] = {1.0f, 1.0f, 0.0f, 0.0f, 1.0f};
  for (int k = 0; k < 5; ++k) EXPECT_EQ(Bits(r[k]), Bits(le[k])) << k;
}

TEST(Reciprocals, GuardedAndApproximate) {
  FGulp a, r;
  SetRun(a, {0.0f, -0.0f, 4.0f, kNaN});
  r.recipCHKZ(a);
  EXPECT_EQ(r[0], 1.0f);
  EXPECT_EQ(r[1], 1.0f);
  EXPECT_EQ(r[2], 0.25f);
  EXPECT_TRUE(std::isnan(r[3]));
  r.recip(a);
  EXPECT_EQ(r[0], kInf);
  EXPECT_EQ(r[1], -kInf);

  std::mt19937 rng(5);
  std::uniform_real_distribution<float> exponent(-60.0f, 60.0f);
  FGulp x, rs, rc, sq, exact;
  for (int k = 0; k < 64; ++k) x[k] = std::exp2(exponent(rng)) * (1.0f + (k % 13) / 13.0f);
  rs.rsqrt(x);
  rc.recipApprox(x);
  sq.sqrt(x);
  exact.recip(x);
  const long double bound = 1.5L * std::ldexp(1.0L, -12);
  for (int k = 0; k < 64; ++k) {
    const long double v = x[k];
    EXPECT_LE(std::fabs(rs[k] * std::sqrt(v) - 1.0L), bound) << v;
    EXPECT_LE(std::fabs(rc[k] * v - 1.0L), bound) << v;
    EXPECT_EQ(sq[k], static_cast<float>(std::sqrt(static_cast<double>(x[k])))) << v;
    EXPECT_EQ(exact[k], static_cast<float>(1.0 / static_cast<double>(x[k]))) << v;
  }
}

TEST(TableOps, LUTscaleClampsToTable) {
  FGulp a, r;
  SetRun(a, {-3.0f, 0.5f, 7.0f, kNaN});
  r.LUTscale(a, 2048.0f, 2048.0f);
  EXPECT_EQ(r[0], 0.0f);
  EXPECT_EQ(r[1], 1024.0f);
  EXPECT_EQ(r[2], 2048.0f);
  EXPECT_TRUE(std::isnan(r[3]));
}

TEST(TableOps, GatherLUTTruncatesAndCopiesBits) {
  float table[8];
  for (int i = 0; i < 8; ++i) table[i] = 100.0f + i;
  const uint32_t payloadNaN = 0x7fc12345u;
  std::memcpy(&table[6], &payloadNaN, 4);
  table[4] = -0.0f;
  FGulp a, r;
  SetRun(a, {0.0f, 1.5f, 2.9f, 3.0f, 4.99f, -0.5f, 6.2f});
  r.gatherLUT(table, a);
  EXPECT_EQ(r.len, 7);
  const int expectedEntry[] = {0, 1, 2, 3, 4, 0, 6};
  for (int k = 0; k < 7; ++k)
    EXPECT_EQ(Bits(r[k]), Bits(table[expectedEntry[k]])) << k;
  // The table advanced by one entry gives the upper neighbours, written over the indices.
  a.gatherLUT(table + 1, a);
  EXPECT_EQ(a[2], 103.0f);
  EXPECT_EQ(a[5], 101.0f);
}

TEST(TableOps, BlendInOrder) {
  FGulp a, b, t, r;
  SetRun(a, {1.0f, 0.1f, -3e38f, 5.0f});
  SetRun(b, {3.0f, 0.7f, 3e38f, 5.0f});
  SetRun(t, {0.25f, 0.0f, 0.0f, 123.0f});
  r.blend(a, b, t);
  EXPECT_EQ(r[0], 1.5f);
  EXPECT_EQ(Bits(r[1]), Bits(0.1f));
  EXPECT_TRUE(std::isnan(r[2]));  // (b - a) overflows, times 0 is NaN
  EXPECT_EQ(r[3], 5.0f);
  SetRun(t, {1.0f, 1.0f, 1.0f, 1.0f});
  r.blend(a, b, t);
  EXPECT_EQ(Bits(r[1]), Bits(0.1f + (0.7f - 0.1f)));
}

TEST(TableOps, ModfWrittenOverItsOperand) {
  FGulp a, x, ipart;
  SetRun(a, {-1.25f, 5.5f});
  x = a;
  x.modf(x, ipart);
  EXPECT_EQ(x[0], 0.75f);
  EXPECT_EQ(ipart[1], 5.0f);
  FGulp frac, y(a);
  frac.modf(y, y);  // integer part written over the operand
  EXPECT_EQ(frac[0], 0.75f);
  EXPECT_EQ(y[0], -2.0f);
}

}  // namespace
