// The run mapping of a row step, 8 lanes at a time (AVX2). Lane l of a register holds
// element i + l of a block of 8, and every lane goes through exactly the operations of the
// 4-lane version in RunMapping.cpp, in the same order, each rounded on its own (this source
// is compiled with -mavx2 -mno-fma -ffp-contract=off): the same bits, one block per
// register instead of two halves. Rounding is the SSE4.1 route's round-to-integral
// instruction. Everything here is file-local apart from WideRowStepMapper; of the shared
// headers only the records' plain fields and FGulp's element access are used, so no code
// built for AVX2 can stand in for the 4-lane sources' own.
#include <immintrin.h>

#include <algorithm>
#include <cstdint>

#include "lens/RunMappingWide.h"

namespace {

using W = __m256;

inline W Splat(float s) { return _mm256_set1_ps(s); }
inline W MulAdd(W a, W s, W t) { return _mm256_add_ps(_mm256_mul_ps(a, s), t); }

int StepLength(const RowStep& step) { return std::max(0, std::min(step.len, 64)); }

// The x positions of a row step as FGulp::Iota(x0, 1) forms them: the first block is start,
// start+step, start+(step+step), start+3*step and those plus q = 4*step; each further block
// adds q+q to every lane.
struct IotaBlocks {
  W next, twoQ;
  explicit IotaBlocks(float start) {
    const float step = 1.0f;
    const float lane1 = start + step;
    const float lane2 = start + (step + step);
    const float lane3 = start + 3.0f * step;
    const float q = 4.0f * step;
    const __m128 low = _mm_setr_ps(start, lane1, lane2, lane3);
    const __m128 high = _mm_add_ps(low, _mm_set1_ps(q));
    next = _mm256_set_m128(high, low);
    twoQ = Splat(q + q);
  }
  W Next() {
    const W v = next;
    next = _mm256_add_ps(next, twoQ);
    return v;
  }
};

// in = xs * pixScale + pixOffset - origin, as the 4-lane PixelTransform.
struct PixelTransform {
  W scaleX, offsetX, scaleY, offsetY, originX, originY;
  PixelTransform(const VtAFXLensData& lens, const BufferOrigin& origin)
      : scaleX(Splat(lens.pixScaleX)),
        offsetX(Splat(lens.pixOffsetX)),
        scaleY(Splat(lens.pixScaleY)),
        offsetY(Splat(lens.pixOffsetY)),
        originX(Splat(origin.x)),
        originY(Splat(origin.y)) {}
  W X(W xs) const { return _mm256_sub_ps(MulAdd(xs, scaleX, offsetX), originX); }
  W Y(W ys) const { return _mm256_sub_ps(MulAdd(ys, scaleY, offsetY), originY); }
};

// The factor cases of Remove, as in RunMapping.cpp.
struct FactorK3K4 {
  static W Of(W s2, W k2, W k3, W k4, W one) {
    W t = _mm256_sqrt_ps(s2);
    t = MulAdd(t, k3, k2);
    t = _mm256_add_ps(_mm256_mul_ps(k4, s2), t);
    return MulAdd(t, s2, one);
  }
};
struct FactorK4 {
  static W Of(W s2, W k2, W, W k4, W one) { return MulAdd(MulAdd(k4, s2, k2), s2, one); }
};
struct FactorK3 {
  static W Of(W s2, W k2, W k3, W, W one) {
    return MulAdd(MulAdd(_mm256_sqrt_ps(s2), k3, k2), s2, one);
  }
};
struct FactorK2 {
  static W Of(W s2, W k2, W, W, W one) { return MulAdd(s2, k2, one); }
};

template <class Factor>
void RemoveStep(const VtAFXLensData* lensP, const RowStep& step, FGulpPt& in,
                const BufferOrigin& origin) {
  const VtAFXLensData& lens = *lensP;
  const int n = StepLength(step);
  const W scaleX = Splat(lens.normScaleX * lens.invZoom);
  const W offsetX = Splat(lens.invZoom * lens.normOffsetX);
  const W scaleY = Splat(lens.normScaleY * lens.invZoom);
  const W offsetY = Splat(lens.invZoom * lens.normOffsetY);
  const W k2 = Splat(lens.quadraticF), k3 = Splat(lens.cubicF), k4 = Splat(lens.quarticF);
  const W one = Splat(1.0f);
  const PixelTransform pix(lens, origin);
  IotaBlocks xs(step.x0);
  const W y = Splat(step.y);
  const W yn = MulAdd(y, scaleY, offsetY);  // the same for every lane of the step
  float* inX = in.x.data();
  float* inY = in.y.data();
  for (int i = 0; i < n; i += 8) {
    const W xn = MulAdd(xs.Next(), scaleX, offsetX);
    const W s2 = _mm256_add_ps(_mm256_mul_ps(xn, xn), _mm256_mul_ps(yn, yn));
    const W f = Factor::Of(s2, k2, k3, k4, one);
    _mm256_store_ps(inX + i, pix.X(_mm256_mul_ps(xn, f)));
    _mm256_store_ps(inY + i, pix.Y(_mm256_mul_ps(yn, f)));
  }
  in.x.len = n;
  in.y.len = n;
}

// Apply through the inverse table, as ApplyTableRun of RunMapping.cpp; the two entries of
// each lane are read one by one (a copy of their bits; the gather instruction measured
// slower), lanes past the step's end read entry 0.
void ApplyTableStep(const VtAFXLensData* lensP, const RowStep& step, FGulpPt& in,
                    const BufferOrigin& origin) {
  const VtAFXLensData& lens = *lensP;
  const int n = StepLength(step);
  const W scaleX = Splat(lens.normScaleX), offsetX = Splat(lens.normOffsetX);
  const W scaleY = Splat(lens.normScaleY), offsetY = Splat(lens.normOffsetY);
  const W lutScale = Splat(lens.lutScale), top = Splat(2048.0f), zero = _mm256_setzero_ps();
  const W one = Splat(1.0f);
  const W zoom = Splat(static_cast<float>(lens.zoom));
  const PixelTransform pix(lens, origin);
  const float* table = lens.inverseTable;
  const __m256i laneIndex = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
  IotaBlocks xs(step.x0);
  const W yn = MulAdd(Splat(step.y), scaleY, offsetY);
  float* inX = in.x.data();
  float* inY = in.y.data();
  for (int i = 0; i < n; i += 8) {
    const W xn = MulAdd(xs.Next(), scaleX, offsetX);
    const W r = _mm256_sqrt_ps(_mm256_add_ps(_mm256_mul_ps(xn, xn), _mm256_mul_ps(yn, yn)));
    const W t = _mm256_min_ps(top, _mm256_max_ps(zero, _mm256_mul_ps(r, lutScale)));
    const W whole = _mm256_round_ps(t, _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC);
    const W frac = _mm256_sub_ps(t, whole);
    __m256i index = _mm256_cvttps_epi32(whole);
    index = _mm256_and_si256(index, _mm256_cmpgt_epi32(_mm256_set1_epi32(n - i), laneIndex));
    alignas(32) int32_t at[8];
    _mm256_store_si256(reinterpret_cast<__m256i*>(at), index);
    const W lo = _mm256_setr_ps(table[at[0]], table[at[1]], table[at[2]], table[at[3]],
                                table[at[4]], table[at[5]], table[at[6]], table[at[7]]);
    const W hi = _mm256_setr_ps(table[at[0] + 1], table[at[1] + 1], table[at[2] + 1],
                                table[at[3] + 1], table[at[4] + 1], table[at[5] + 1],
                                table[at[6] + 1], table[at[7] + 1]);
    const W u = _mm256_add_ps(lo, _mm256_mul_ps(_mm256_sub_ps(hi, lo), frac));
    const W divisor =
        _mm256_add_ps(r, _mm256_and_ps(_mm256_cmp_ps(r, zero, _CMP_EQ_OQ), one));
    const W ratio = _mm256_div_ps(u, divisor);
    const W xsOut = _mm256_mul_ps(_mm256_mul_ps(zoom, xn), ratio);
    const W ysOut = _mm256_mul_ps(_mm256_mul_ps(zoom, yn), ratio);
    _mm256_store_ps(inX + i, pix.X(xsOut));
    _mm256_store_ps(inY + i, pix.Y(ysOut));
  }
  in.x.len = n;
  in.y.len = n;
}

}  // namespace

RowStepMapper WideRowStepMapper(const VtAFXLensData& lens) {
  if (lens.distortMode == kModeApply) return ApplyTableStep;
  if (lens.quarticF != 0.0f && lens.cubicF != 0.0f) return RemoveStep<FactorK3K4>;
  if (lens.quarticF != 0.0f) return RemoveStep<FactorK4>;
  if (lens.cubicF != 0.0f) return RemoveStep<FactorK3>;
  return RemoveStep<FactorK2>;
}
