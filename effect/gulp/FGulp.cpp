// FGulp operations: 4-lane SSE single precision, blocks of 8 elements, aligned loads and
// stores at storage + offset. Every formula is evaluated operation by operation in the order
// written, one rounding each; nothing is fused (the build uses -ffp-contract=off).
#include "gulp/FGulp.h"

#include <smmintrin.h>

#include <algorithm>
#include <cstring>

#include "gulp/CpuFeatures.h"
#include "gulp/IotaGroups.h"
#include "gulp/RoundingRoutes.h"

namespace {

using rounding::ConversionRoute;
using rounding::InstructionRoute;
using rounding::Mask01;
using rounding::V;
using rounding::WithRoute;

inline V Splat(float s) { return _mm_set1_ps(s); }

inline int MinLen(int n) { return n; }
template <class... Rest>
inline int MinLen(int n, int m, Rest... rest) {
  return MinLen(std::min(n, m), rest...);
}

// Runs op over the result's blocks: each block of 8 is two aligned 4-lane vectors, and both
// halves of every operand are loaded before the block is stored, so the result may alias
// an operand. The result's len is the smallest operand len; len <= 0 stores nothing.
// The element pointers are taken once, before the loop: the vector stores may alias any
// object, so the compiler would otherwise reload every operand's offset per block.
template <class Op, class... Ptrs>
void MapBlocks(int n, float* out, Op op, const Ptrs*... in) {
  for (int i = 0; i < n; i += FGulp::kBlock) {
    const V lo = op(_mm_load_ps(in + i)...);
    const V hi = op(_mm_load_ps(in + i + 4)...);
    _mm_store_ps(out + i, lo);
    _mm_store_ps(out + i + 4, hi);
  }
}

template <class Op, class... Runs>
FGulp& Map(FGulp& result, Op op, const Runs&... runs) {
  const int n = MinLen(runs.len...);
  MapBlocks(n, result.data(), op, runs.data()...);
  result.len = n;
  return result;
}

// As Map, for the operations with a second output run; both outputs get the len of a.
struct VPair {
  V first;
  V second;
};
template <class Op>
FGulp& Map2(FGulp& result, FGulp& second, Op op, const FGulp& a) {
  const int n = a.len;
  float* out = result.data();
  float* out2 = second.data();
  const float* in = a.data();
  for (int i = 0; i < n; i += FGulp::kBlock) {
    const VPair lo = op(_mm_load_ps(in + i));
    const VPair hi = op(_mm_load_ps(in + i + 4));
    _mm_store_ps(out + i, lo.first);
    _mm_store_ps(out + i + 4, hi.first);
    _mm_store_ps(out2 + i, lo.second);
    _mm_store_ps(out2 + i + 4, hi.second);
  }
  result.len = n;
  second.len = n;
  return result;
}

// clip(v): lower limit first, then upper; a NaN v passes through (maxps/minps return their
// second operand when either is NaN).
inline V Clip(V lo, V v, V hi) { return _mm_min_ps(hi, _mm_max_ps(lo, v)); }

inline void CopyBits(float* dst, const float* src) { std::memcpy(dst, src, sizeof(float)); }

}  // namespace

// ---- Creation, copy, filling ----

FGulp::FGulp(const FGulp& src) : len(src.len), offset(AlignedOffset()) {
  // Exactly len elements; a negative len copies nothing.
  const int n = std::clamp(static_cast<int>(src.len), 0, kCapacity);
  std::memcpy(data(), src.data(), static_cast<size_t>(n) * sizeof(float));
}

FGulp& FGulp::operator=(const FGulp& src) {
  if (this == &src) return *this;
  len = src.len;
  offset = AlignedOffset();
  const int n = std::clamp(static_cast<int>(src.len), 0, kCapacity);
  std::memcpy(data(), src.data(), static_cast<size_t>(n) * sizeof(float));
  return *this;
}

void FGulp::SetLen(int total, int start) { len = std::min(kCapacity, total - start); }

void FGulp::Constant(float v) {
  const V value = Splat(v);
  float* out = data();
  for (int i = 0; i < len; i += kBlock) {
    _mm_store_ps(out + i, value);
    _mm_store_ps(out + i + 4, value);
  }
}

void FGulp::Iota(float start, float step) {
  IotaGroups groups = StartIota(start, step);
  float* out = data();
  for (int i = 0; i < len; i += kBlock) {
    _mm_store_ps(out + i, NextIotaGroup(groups));
    _mm_store_ps(out + i + 4, NextIotaGroup(groups));
  }
}

// ---- Element-wise arithmetic ----

FGulp& FGulp::add(const FGulp& a, const FGulp& b) {
  return Map(*this, [](V x, V y) { return _mm_add_ps(x, y); }, a, b);
}
FGulp& FGulp::sub(const FGulp& a, const FGulp& b) {
  return Map(*this, [](V x, V y) { return _mm_sub_ps(x, y); }, a, b);
}
FGulp& FGulp::mul(const FGulp& a, const FGulp& b) {
  return Map(*this, [](V x, V y) { return _mm_mul_ps(x, y); }, a, b);
}
FGulp& FGulp::div(const FGulp& a, const FGulp& b) {
  return Map(*this, [](V x, V y) { return _mm_div_ps(x, y); }, a, b);
}
FGulp& FGulp::divCHKZ(const FGulp& a, const FGulp& b) {
  // Where b == 0 (either sign; never NaN) the divisor becomes b + 1.0 = 1.0.
  return Map(*this, [](V x, V y) {
    const V divisor = _mm_add_ps(y, Mask01(_mm_cmpeq_ps(y, _mm_setzero_ps())));
    return _mm_div_ps(x, divisor);
  }, a, b);
}
FGulp& FGulp::fmin(const FGulp& a, const FGulp& b) {
  return Map(*this, [](V x, V y) { return _mm_min_ps(x, y); }, a, b);  // x < y ? x : y
}
FGulp& FGulp::fmax(const FGulp& a, const FGulp& b) {
  return Map(*this, [](V x, V y) { return _mm_max_ps(x, y); }, a, b);  // x > y ? x : y
}
FGulp& FGulp::sumsq(const FGulp& a, const FGulp& b) {
  return Map(*this, [](V x, V y) { return _mm_add_ps(_mm_mul_ps(x, x), _mm_mul_ps(y, y)); },
             a, b);
}
FGulp& FGulp::hypot(const FGulp& a, const FGulp& b) {
  return Map(*this, [](V x, V y) {
    return _mm_sqrt_ps(_mm_add_ps(_mm_mul_ps(x, x), _mm_mul_ps(y, y)));
  }, a, b);
}

FGulp& FGulp::add(const FGulp& a, float s) {
  const V vs = Splat(s);
  return Map(*this, [vs](V x) { return _mm_add_ps(x, vs); }, a);
}
FGulp& FGulp::sub(const FGulp& a, float s) {
  const V vs = Splat(s);
  return Map(*this, [vs](V x) { return _mm_sub_ps(x, vs); }, a);
}
FGulp& FGulp::mul(const FGulp& a, float s) {
  const V vs = Splat(s);
  return Map(*this, [vs](V x) { return _mm_mul_ps(x, vs); }, a);
}
FGulp& FGulp::div(const FGulp& a, float s) {
  const V vs = Splat(s);
  return Map(*this, [vs](V x) { return _mm_div_ps(x, vs); }, a);
}
FGulp& FGulp::fmin(const FGulp& a, float s) {
  const V vs = Splat(s);
  return Map(*this, [vs](V x) { return _mm_min_ps(x, vs); }, a);
}
FGulp& FGulp::fmax(const FGulp& a, float s) {
  const V vs = Splat(s);
  return Map(*this, [vs](V x) { return _mm_max_ps(x, vs); }, a);
}

// ---- Multiply-and-add family ----

FGulp& FGulp::muladd(const FGulp& a, const FGulp& b, const FGulp& d) {
  return Map(*this, [](V x, V y, V z) { return _mm_add_ps(_mm_mul_ps(x, y), z); }, a, b, d);
}
FGulp& FGulp::mulsub(const FGulp& a, const FGulp& b, const FGulp& d) {
  return Map(*this, [](V x, V y, V z) { return _mm_sub_ps(_mm_mul_ps(x, y), z); }, a, b, d);
}
FGulp& FGulp::muladd(const FGulp& a, const FGulp& b, float s) {
  const V vs = Splat(s);
  return Map(*this, [vs](V x, V y) { return _mm_add_ps(_mm_mul_ps(x, y), vs); }, a, b);
}
FGulp& FGulp::muladd(float s, const FGulp& a, const FGulp& b) {
  const V vs = Splat(s);
  return Map(*this, [vs](V x, V y) { return _mm_add_ps(_mm_mul_ps(vs, x), y); }, a, b);
}
FGulp& FGulp::mulsub(float s, const FGulp& a, const FGulp& b) {
  const V vs = Splat(s);
  return Map(*this, [vs](V x, V y) { return _mm_sub_ps(_mm_mul_ps(vs, x), y); }, a, b);
}
FGulp& FGulp::muladd(float s, const FGulp& a, float t) {
  const V vs = Splat(s), vt = Splat(t);
  return Map(*this, [vs, vt](V x) { return _mm_add_ps(_mm_mul_ps(vs, x), vt); }, a);
}
FGulp& FGulp::muladd(const FGulp& a, float s, const FGulp& b) {
  const V vs = Splat(s);
  return Map(*this, [vs](V x, V y) { return _mm_add_ps(_mm_mul_ps(x, vs), y); }, a, b);
}
FGulp& FGulp::mulsub(const FGulp& a, float s, const FGulp& b) {
  const V vs = Splat(s);
  return Map(*this, [vs](V x, V y) { return _mm_sub_ps(_mm_mul_ps(x, vs), y); }, a, b);
}
FGulp& FGulp::muladd(const FGulp& a, float s, float t) {
  const V vs = Splat(s), vt = Splat(t);
  return Map(*this, [vs, vt](V x) { return _mm_add_ps(_mm_mul_ps(x, vs), vt); }, a);
}
FGulp& FGulp::mulmul(const FGulp& a, const FGulp& b, const FGulp& d) {
  return Map(*this, [](V x, V y, V z) { return _mm_mul_ps(_mm_mul_ps(x, y), z); }, a, b, d);
}
FGulp& FGulp::mulmul(float s, const FGulp& a, const FGulp& b) {
  const V vs = Splat(s);
  return Map(*this, [vs](V x, V y) { return _mm_mul_ps(_mm_mul_ps(vs, x), y); }, a, b);
}
FGulp& FGulp::muladdmul(float s, const FGulp& a, float t, const FGulp& b) {
  const V vs = Splat(s), vt = Splat(t);
  return Map(*this, [vs, vt](V x, V y) {
    return _mm_add_ps(_mm_mul_ps(vs, x), _mm_mul_ps(vt, y));
  }, a, b);
}

// ---- Operators ----

FGulp FGulp::operator+(const FGulp& o) const { FGulp r; r.add(*this, o); return r; }
FGulp FGulp::operator-(const FGulp& o) const { FGulp r; r.sub(*this, o); return r; }
FGulp FGulp::operator*(const FGulp& o) const { FGulp r; r.mul(*this, o); return r; }
FGulp FGulp::operator/(const FGulp& o) const { FGulp r; r.div(*this, o); return r; }
FGulp FGulp::operator+(float s) const { FGulp r; r.add(*this, s); return r; }
FGulp FGulp::operator-(float s) const { FGulp r; r.sub(*this, s); return r; }
FGulp FGulp::operator*(float s) const { FGulp r; r.mul(*this, s); return r; }
// Scalar division multiplies by the single-precision reciprocal, formed once.
FGulp FGulp::operator/(float s) const { FGulp r; r.mul(*this, 1.0f / s); return r; }

FGulp& FGulp::operator+=(const FGulp& o) { return add(*this, o); }
FGulp& FGulp::operator-=(const FGulp& o) { return sub(*this, o); }
FGulp& FGulp::operator*=(const FGulp& o) { return mul(*this, o); }
FGulp& FGulp::operator/=(const FGulp& o) { return div(*this, o); }
FGulp& FGulp::operator+=(float s) { return add(*this, s); }
FGulp& FGulp::operator-=(float s) { return sub(*this, s); }
FGulp& FGulp::operator*=(float s) { return mul(*this, s); }
FGulp& FGulp::operator/=(float s) { return mul(*this, 1.0f / s); }

// ---- Rounding ----

FGulp& FGulp::floor(const FGulp& a) {
  return WithRoute([&](auto route) -> FGulp& {
    return Map(*this, [](V x) { return decltype(route)::Floor(x); }, a);
  });
}
FGulp& FGulp::ceil(const FGulp& a) {
  return WithRoute([&](auto route) -> FGulp& {
    return Map(*this, [](V x) { return decltype(route)::Ceil(x); }, a);
  });
}
FGulp& FGulp::round(const FGulp& a) {
  return WithRoute([&](auto route) -> FGulp& {
    return Map(*this, [](V x) { return decltype(route)::Round(x); }, a);
  });
}
FGulp& FGulp::trunc(const FGulp& a) {
  return WithRoute([&](auto route) -> FGulp& {
    return Map(*this, [](V x) { return decltype(route)::Trunc(x); }, a);
  });
}

FGulp& FGulp::sqrt(const FGulp& a) {
  return Map(*this, [](V x) { return _mm_sqrt_ps(x); }, a);
}
FGulp& FGulp::rsqrt(const FGulp& a) {
  return Map(*this, [](V x) { return _mm_rsqrt_ps(x); }, a);
}
FGulp& FGulp::recipApprox(const FGulp& a) {
  return Map(*this, [](V x) { return _mm_rcp_ps(x); }, a);
}
FGulp& FGulp::recip(const FGulp& a) {
  return Map(*this, [](V x) { return _mm_div_ps(_mm_set1_ps(1.0f), x); }, a);
}
FGulp& FGulp::recipCHKZ(const FGulp& a) {
  return Map(*this, [](V x) {
    const V divisor = _mm_add_ps(x, Mask01(_mm_cmpeq_ps(x, _mm_setzero_ps())));
    return _mm_div_ps(_mm_set1_ps(1.0f), divisor);
  }, a);
}

// ---- Clipping and range tests ----

FGulp& FGulp::clip(float lo, const FGulp& a, float hi) {
  const V vlo = Splat(lo), vhi = Splat(hi);
  return Map(*this, [vlo, vhi](V x) { return Clip(vlo, x, vhi); }, a);
}
FGulp& FGulp::mulclip(float lo, const FGulp& a, const FGulp& b, float hi) {
  const V vlo = Splat(lo), vhi = Splat(hi);
  return Map(*this, [vlo, vhi](V x, V y) { return Clip(vlo, _mm_mul_ps(x, y), vhi); }, a, b);
}
FGulp& FGulp::mulround(const FGulp& a, const FGulp& b) {
  return WithRoute([&](auto route) -> FGulp& {
    return Map(*this, [](V x, V y) { return decltype(route)::Round(_mm_mul_ps(x, y)); }, a, b);
  });
}
FGulp& FGulp::mulroundclip(float lo, const FGulp& a, const FGulp& b, float hi) {
  const V vlo = Splat(lo), vhi = Splat(hi);
  return WithRoute([&](auto route) -> FGulp& {
    return Map(*this, [vlo, vhi](V x, V y) {
      return Clip(vlo, decltype(route)::Round(_mm_mul_ps(x, y)), vhi);
    }, a, b);
  });
}
FGulp& FGulp::clipoffs(float lo, const FGulp& a, float off, float hi) {
  const V vlo = Splat(lo), voff = Splat(off), vhi = Splat(hi);
  return Map(*this, [vlo, voff, vhi](V x) { return Clip(vlo, _mm_add_ps(x, voff), vhi); }, a);
}
FGulp& FGulp::clipoffsLE(float lo, const FGulp& a, float off, float hi, FGulp& inside) {
  const V vlo = Splat(lo), voff = Splat(off), vhi = Splat(hi);
  return Map2(*this, inside, [vlo, voff, vhi](V x) {
    const V v = _mm_add_ps(x, voff);
    const V in = _mm_and_ps(_mm_cmple_ps(vlo, v), _mm_cmple_ps(v, vhi));  // ordered: NaN -> 0
    return VPair{Clip(vlo, v, vhi), Mask01(in)};
  }, a);
}
FGulp& FGulp::inrangeLT(float lo, const FGulp& a, float hi) {
  const V vlo = Splat(lo), vhi = Splat(hi);
  return Map(*this, [vlo, vhi](V x) {
    return Mask01(_mm_and_ps(_mm_cmple_ps(vlo, x), _mm_cmplt_ps(x, vhi)));
  }, a);
}
FGulp& FGulp::inrangeLE(float lo, const FGulp& a, float hi) {
  const V vlo = Splat(lo), vhi = Splat(hi);
  return Map(*this, [vlo, vhi](V x) {
    return Mask01(_mm_and_ps(_mm_cmple_ps(vlo, x), _mm_cmple_ps(x, vhi)));
  }, a);
}

// ---- Table operations ----

FGulp& FGulp::LUTscale(const FGulp& a, float s, float top) {
  // m = 0 > p ? 0 : p; result = top < m ? top : m. A NaN product passes through.
  const V vs = Splat(s), vtop = Splat(top);
  return Map(*this, [vs, vtop](V x) {
    return _mm_min_ps(vtop, _mm_max_ps(_mm_setzero_ps(), _mm_mul_ps(x, vs)));
  }, a);
}

FGulp& FGulp::modf(const FGulp& a, FGulp& ipart) {
  // The integer part is the floor, so the fraction is never negative (and rounds to 1.0 for
  // tiny negative a).
  return WithRoute([&](auto route) -> FGulp& {
    return Map2(*this, ipart, [](V x) {
      const V f = decltype(route)::Floor(x);
      return VPair{_mm_sub_ps(x, f), f};
    }, a);
  });
}

FGulp& FGulp::modfscaledoffs(const FGulp& a, float s, float offs, FGulp& ipart) {
  // Result: the phase floor((a - floor(a)) * s); ipart: floor(a) + offs. The phase is not
  // bounded here: a fraction that rounds to 1.0 gives the phase s.
  const V vs = Splat(s), voffs = Splat(offs);
  return WithRoute([&](auto route) -> FGulp& {
    using Route = decltype(route);
    return Map2(*this, ipart, [vs, voffs](V x) {
      const V f = Route::Floor(x);
      const V phase = Route::PhaseDown(_mm_mul_ps(_mm_sub_ps(x, f), vs));
      return VPair{phase, _mm_add_ps(f, voffs)};
    }, a);
  });
}

FGulp& FGulp::gatherLUT(const float* table, const FGulp& a) {
  // Groups of 4 indices converted at once (truncation toward zero), then single elements;
  // exactly len entries are written. Indices are trusted to lie inside the table.
  const int n = a.len;
  const float* src = a.data();
  float* out = data();
  int i = 0;
  for (; i + 4 <= n; i += 4) {
    const __m128i idx = _mm_cvttps_epi32(_mm_load_ps(src + i));
    const int i0 = _mm_cvtsi128_si32(idx);
    const int i1 = _mm_extract_epi32(idx, 1);
    const int i2 = _mm_extract_epi32(idx, 2);
    const int i3 = _mm_extract_epi32(idx, 3);
    CopyBits(out + i, table + i0);
    CopyBits(out + i + 1, table + i1);
    CopyBits(out + i + 2, table + i2);
    CopyBits(out + i + 3, table + i3);
  }
  for (; i < n; ++i) CopyBits(out + i, table + _mm_cvttss_si32(_mm_load_ss(src + i)));
  len = n;
  return *this;
}

FGulp& FGulp::blend(const FGulp& a, const FGulp& b, const FGulp& t) {
  return Map(*this, [](V x, V y, V w) {
    return _mm_add_ps(x, _mm_mul_ps(_mm_sub_ps(y, x), w));
  }, a, b, t);
}
