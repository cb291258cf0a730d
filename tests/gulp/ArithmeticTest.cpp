// Element-wise arithmetic: special operands (NaN, signed zeros, a denormal, overflow), and
// agreement with a plain scalar loop on random data, with the length rule and results
// written over an operand.
#include "GulpTestSupport.h"

namespace {

TEST(Arithmetic, SpecialOperands) {
  FGulp a, b, r;
  SetRun(a, {3.0f, kNaN, 1.0f, -0.0f, 1e20f});
  SetRun(b, {0.0f, 1.0f, kNaN, 0.0f, 1e-40f});
  // A NaN divisor is not treated as zero, a denormal one is used as it is.
  ExpectRun(r.divCHKZ(a, b), {3.0f, kNaN, kNaN, -0.0f, kInf});
  // min and max return the second operand unless the first is strictly smaller / larger.
  ExpectRun(r.fmin(a, b), {0.0f, 1.0f, kNaN, 0.0f, 1e-40f});
  ExpectRun(r.fmax(a, b), {3.0f, 1.0f, kNaN, 0.0f, 1e20f});
  ExpectRun(r.fmin(a, 0.5f), {0.5f, 0.5f, 0.5f, -0.0f, 0.5f});
  ExpectRun(r.hypot(a, b), {3.0f, kNaN, kNaN, 0.0f, kInf});  // unscaled: the square overflows
}

// Every arithmetic operation against a scalar loop over the same random elements, with the
// result stored into a separate run, over the first operand and over the second. Of the
// operators, which call these, the ones with rules of their own: a new run of the shorter
// length, compound assignment lowering the length, and scalar division by the reciprocal.
TEST(Arithmetic, AgreesWithScalarReference) {
  struct Case {
    const char* name;
    int runs;  // how many of a, b, d the operation takes (in that order)
    std::function<void(FGulp& r, const FGulp& a, const FGulp& b, const FGulp& d, float s, float t)> apply;
    std::function<float(float a, float b, float d, float s, float t)> ref;
  };
#define RUN_OP(expr) [](FGulp& r, const FGulp& a, const FGulp& b, const FGulp& d, float s, \
                        float t) { (void)a; (void)b; (void)d; (void)s; (void)t; expr; }
#define REF(expr) [](float a, float b, float d, float s, float t) { \
    (void)a; (void)b; (void)d; (void)s; (void)t; return expr; }
  const Case cases[] = {
      {"add", 2, RUN_OP(r.add(a, b)), REF(a + b)},
      {"sub", 2, RUN_OP(r.sub(a, b)), REF(a - b)},
      {"mul", 2, RUN_OP(r.mul(a, b)), REF(a * b)},
      {"div", 2, RUN_OP(r.div(a, b)), REF(a / b)},
      {"divCHKZ", 2, RUN_OP(r.divCHKZ(a, b)), REF(b == 0.0f ? a : a / b)},
      {"fmin", 2, RUN_OP(r.fmin(a, b)), REF(a < b ? a : b)},
      {"fmax", 2, RUN_OP(r.fmax(a, b)), REF(a > b ? a : b)},
      {"sumsq", 2, RUN_OP(r.sumsq(a, b)), REF(a * a + b * b)},
      {"hypot", 2, RUN_OP(r.hypot(a, b)), REF(std::sqrt(a * a + b * b))},
      {"add s", 1, RUN_OP(r.add(a, s)), REF(a + s)},
      {"sub s", 1, RUN_OP(r.sub(a, s)), REF(a - s)},
      {"mul s", 1, RUN_OP(r.mul(a, s)), REF(a * s)},
      {"div s", 1, RUN_OP(r.div(a, s)), REF(a / s)},
      {"fmin s", 1, RUN_OP(r.fmin(a, s)), REF(a < s ? a : s)},
      {"fmax s", 1, RUN_OP(r.fmax(a, s)), REF(a > s ? a : s)},
      {"muladd abd", 3, RUN_OP(r.muladd(a, b, d)), REF(a * b + d)},
      {"mulsub abd", 3, RUN_OP(r.mulsub(a, b, d)), REF(a * b - d)},
      {"muladd abs", 2, RUN_OP(r.muladd(a, b, s)), REF(a * b + s)},
      {"muladd sab", 2, RUN_OP(r.muladd(s, a, b)), REF(s * a + b)},
      {"mulsub sab", 2, RUN_OP(r.mulsub(s, a, b)), REF(s * a - b)},
      {"muladd sat", 1, RUN_OP(r.muladd(s, a, t)), REF(s * a + t)},
      {"muladd asb", 2, RUN_OP(r.muladd(a, s, b)), REF(a * s + b)},
      {"mulsub asb", 2, RUN_OP(r.mulsub(a, s, b)), REF(a * s - b)},
      {"muladd ast", 1, RUN_OP(r.muladd(a, s, t)), REF(a * s + t)},
      {"mulmul abd", 3, RUN_OP(r.mulmul(a, b, d)), REF((a * b) * d)},
      {"mulmul sab", 2, RUN_OP(r.mulmul(s, a, b)), REF((s * a) * b)},
      {"muladdmul", 2, RUN_OP(r.muladdmul(s, a, t, b)), REF(s * a + t * b)},
      {"operator+", 2, RUN_OP(r = a + b), REF(a + b)},
      {"operator/ s", 1, RUN_OP(r = a / s), REF(a * (1.0f / s))},
      {"operator+=", 2, RUN_OP(r = a; r += b), REF(a + b)},
      {"operator-= s", 1, RUN_OP(r = a; r -= s), REF(a - s)},
      {"operator/= s", 1, RUN_OP(r = a; r /= s), REF(a * (1.0f / s))},
  };
#undef RUN_OP
#undef REF

  std::mt19937 rng(12345);
  std::uniform_real_distribution<float> value(-1000.0f, 1000.0f);
  for (int trial = 0; trial < 20; ++trial) {
    FGulp a, b, d;
    for (int k = 0; k < 64; ++k)  // with zeros of both signs for divCHKZ
      a[k] = value(rng), b[k] = (k % 7 == 3) ? (k % 2 ? -0.0f : 0.0f) : value(rng), d[k] = value(rng);
    a.len = 64 - trial, b.len = 61 - trial, d.len = 57 - trial;
    const float s = value(rng), t = value(rng);
    for (const Case& c : cases) {
      const int lens[] = {a.len, b.len, d.len};
      int expectedLen = 64;
      for (int i = 0; i < c.runs; ++i) expectedLen = std::min(expectedLen, lens[i]);
      // The compound operators first copy a into the result, so b cannot be the result.
      const bool canOverwriteB = c.runs >= 2 && std::strchr(c.name, '=') == nullptr;
      FGulp separate, overA(a), overB(b);
      c.apply(separate, a, b, d, s, t);
      c.apply(overA, overA, b, d, s, t);  // result written over the first operand
      if (canOverwriteB) c.apply(overB, a, overB, d, s, t);
      ASSERT_EQ(separate.len, expectedLen) << c.name;
      ASSERT_EQ(overA.len, expectedLen) << c.name;
      for (int k = 0; k < expectedLen; ++k) {
        const uint32_t want = Bits(c.ref(a[k], b[k], d[k], s, t));
        EXPECT_EQ(Bits(separate[k]), want) << c.name << " element " << k;
        EXPECT_EQ(Bits(overA[k]), want) << c.name << " over a, element " << k;
        EXPECT_TRUE(!canOverwriteB || Bits(overB[k]) == want) << c.name << " over b, element " << k;
      }
    }
  }
}

}  // namespace
