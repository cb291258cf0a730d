// Internal to the effect: the two rounding routes of the run operations, as vector kernels
// that the run operations and the samplers' fused loops share, so that both round exactly
// alike. The route is chosen once per call from bit kCpuSSE41 of cpu_features.
#ifndef VT_GULP_ROUNDINGROUTES_H
#define VT_GULP_ROUNDINGROUTES_H

#include <smmintrin.h>

#include "gulp/CpuFeatures.h"

namespace rounding {

using V = __m128;

inline V Mask01(V mask) { return _mm_and_ps(mask, _mm_set1_ps(1.0f)); }  // true -> 1.0

// Route taken when the processor has SSE4.1: the round-to-integral instruction with the
// direction explicit and the inexact exception suppressed. Exact for every input.
struct InstructionRoute {
  static V Floor(V x) { return _mm_round_ps(x, _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC); }
  static V Ceil(V x) { return _mm_round_ps(x, _MM_FROUND_TO_POS_INF | _MM_FROUND_NO_EXC); }
  static V Round(V x) { return _mm_round_ps(x, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC); }
  static V Trunc(V x) { return _mm_round_ps(x, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC); }
  static V PhaseDown(V x) { return Floor(x); }
};

// Route without SSE4.1: convert to int32 and back. The conversion returns INT32_MIN for NaN
// and out-of-range values; zero results come back as +0.
struct ConversionRoute {
  static V Trunc(V x) { return _mm_cvtepi32_ps(_mm_cvttps_epi32(x)); }
  static V Floor(V x) {
    const V t = Trunc(x);
    const V fix = _mm_and_ps(_mm_cmpneq_ps(t, x), _mm_cmplt_ps(x, _mm_setzero_ps()));
    return _mm_sub_ps(t, Mask01(fix));
  }
  static V Ceil(V x) {
    const V t = Trunc(x);
    const V fix = _mm_and_ps(_mm_cmpneq_ps(t, x), _mm_cmpgt_ps(x, _mm_setzero_ps()));
    return _mm_add_ps(t, Mask01(fix));
  }
  // Current rounding mode, which the program leaves at nearest-even.
  static V Round(V x) { return _mm_cvtepi32_ps(_mm_cvtps_epi32(x)); }
  // The scaled fraction is never negative, so truncation rounds it down.
  static V PhaseDown(V x) { return Trunc(x); }
};

// Calls body(InstructionRoute{}) or body(ConversionRoute{}) as the feature word says.
template <class Body>
inline decltype(auto) WithRoute(Body body) {
  if (CpuHasSSE41()) return body(InstructionRoute{});
  return body(ConversionRoute{});
}

}  // namespace rounding

#endif  // VT_GULP_ROUNDINGROUTES_H
