// Nearest, bilinear and table-driven kernel resampling of one run of source positions.
//
// Each sampler makes one pass over groups of four pixels. Two register layouts are used:
// position registers, where lane l holds pixel k + l of the group (its x, its y, a mask, a
// weight), and pixel registers, where the four lanes are one pixel's channels in memory order
// (alpha, red, green, blue). All arithmetic is single-precision IEEE, each operation rounded
// to nearest-even on its own and in the order written (nothing is fused; -ffp-contract=off);
// a mask is 1.0 or 0.0 and multiplies, so it keeps NaN and signed zeros as a product does.
// Integer channels are loaded exactly (0..255 or 0..32768 as floats) and stored by truncation
// of values that are already whole. Integral values (floor, round) come from the rounding
// route chosen once per call from the processor's features; both routes agree on every
// position once it is brought into [-2^30, 2^30]. Pixel addresses are byte offsets
// y*rowBytes + x*pixelBytes in wrapping 32-bit integer arithmetic of the truncated
// coordinates.
#include "resample/Samplers.h"

#include <smmintrin.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <type_traits>

#include "gulp/RoundingRoutes.h"
#include "resample/PixelBlocks.h"
#include "resample/SamplersWide.h"

namespace {

// Positions are first brought into [-2^30, 2^30]: nothing inside that range changes, both
// rounding routes agree on every value in it, tap indices stay far from int32 overflow, and
// NaN (taken as -2^30) and infinities land outside every image.
constexpr float kPositionLimit = 1073741824.0f;  // 2^30

// The number of pixels of a run: the x and y runs have the same length; were they to differ,
// the element-wise operations would end at the shorter one.
int RunLength(const FGulpPt& pos) { return pos.x.len < pos.y.len ? pos.x.len : pos.y.len; }

// An image without pixels has nothing to clip the tap coordinates into.
bool ImageIsEmpty(const ResampleData* rd) {
  return rd->width <= 0 || rd->height <= 0 || rd->baseAddr == nullptr;
}

void StoreTransparent(const ResampleData* rd, int n, void* dst) {
  RGBAGulp zero;
  for (FGulp* channel : {&zero.r, &zero.g, &zero.b, &zero.a}) {
    channel->SetLen(n, 0);
    channel->Constant(0.0f);
  }
  StorePix(rd, zero, dst);
}

using rounding::Mask01;

// Four positions brought into range: lane l = min(2^30, max(-2^30, v[l])). maxps returns its
// second operand when either is NaN, so a NaN lane becomes -2^30 (as FGulp::fmax gives).
inline __m128 IntoRange(__m128 v) {
  return _mm_min_ps(_mm_max_ps(v, _mm_set1_ps(-kPositionLimit)), _mm_set1_ps(kPositionLimit));
}

// Lane l of v in every lane.
template <int Lane>
inline __m128 Broadcast(__m128 v) {
  return _mm_castsi128_ps(_mm_shuffle_epi32(_mm_castps_si128(v), Lane * 0x55));
}

// clip(lo, v, hi) and inrangeLE(lo, v, hi), four elements, with the run operations'
// instructions.
inline __m128 Clip(__m128 lo, __m128 v, __m128 hi) { return _mm_min_ps(hi, _mm_max_ps(lo, v)); }
inline __m128 InRangeLE(__m128 lo, __m128 v, __m128 hi) {
  return Mask01(_mm_and_ps(_mm_cmple_ps(lo, v), _mm_cmple_ps(v, hi)));
}

// Consecutive taps may be addressed from the first one (offset + i * pixelBytes) when no
// offset of the image can wrap in 32 bits and column indices are exact in single precision.
bool TapsAddressable(const ResampleData* rd) {
  const int64_t rowBytes = rd->rowBytes < 0 ? -int64_t{rd->rowBytes} : rd->rowBytes;
  const int64_t span = rowBytes * rd->height + int64_t{rd->width} * rd->pixelBytes;
  return span < (int64_t{1} << 31) && rd->width <= (1 << 24);
}

// The nearest sampler, per lane of a group: gx = round(x) (halves to even), the mask
// insideX = 1.0 where -1 <= gx <= (width - 1) + 1 (tested before the clip), gx clipped to
// 0 .. width - 1; the same for y; then the pixel at (gx, gy) times insideX * insideY.
//
// The product insideX * insideY is 1.0 or 0.0. An integer channel is a small whole number,
// so times 1.0 it stores back unchanged and times 0.0 as 0: the integer depths copy each
// pixel's bytes or zeros. Float channels are multiplied as the steps do (a negative or
// non-finite channel times 0.0 is not +0), one pixel's four channels by its own product.
template <int BitDepth>
struct NearCopy;

template <>
struct NearCopy<8> {
  static void Go(const char* base, __m128i at, __m128 inside, char* dst, int count) {
    int32_t w[4];
    for (int l = 0; l < 4; ++l) std::memcpy(&w[l], base + Lane(at, l), 4);
    const __m128i keep = _mm_castps_si128(_mm_cmpgt_ps(inside, _mm_setzero_ps()));
    const __m128i words = _mm_and_si128(_mm_setr_epi32(w[0], w[1], w[2], w[3]), keep);
    if (count >= 4) {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), words);
    } else {
      alignas(16) char group[16];
      _mm_store_si128(reinterpret_cast<__m128i*>(group), words);
      std::memcpy(dst, group, static_cast<size_t>(count) * 4);
    }
  }
  static int Lane(__m128i at, int l) {
    switch (l) {
      case 0: return _mm_cvtsi128_si32(at);
      case 1: return _mm_extract_epi32(at, 1);
      case 2: return _mm_extract_epi32(at, 2);
      default: return _mm_extract_epi32(at, 3);
    }
  }
};

template <>
struct NearCopy<16> {
  static void Go(const char* base, __m128i at, __m128 inside, char* dst, int count) {
    const __m128i keep = _mm_castps_si128(_mm_cmpgt_ps(inside, _mm_setzero_ps()));
    const __m128i keep01 = _mm_unpacklo_epi32(keep, keep), keep23 = _mm_unpackhi_epi32(keep, keep);
    auto load = [base](int offset) {
      return _mm_loadl_epi64(reinterpret_cast<const __m128i*>(base + offset));
    };
    const __m128i p01 = _mm_and_si128(
        _mm_unpacklo_epi64(load(_mm_cvtsi128_si32(at)), load(_mm_extract_epi32(at, 1))), keep01);
    const __m128i p23 = _mm_and_si128(
        _mm_unpacklo_epi64(load(_mm_extract_epi32(at, 2)), load(_mm_extract_epi32(at, 3))), keep23);
    if (count >= 4) {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), p01);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + 16), p23);
    } else {
      alignas(16) char group[32];
      _mm_store_si128(reinterpret_cast<__m128i*>(group), p01);
      _mm_store_si128(reinterpret_cast<__m128i*>(group + 16), p23);
      std::memcpy(dst, group, static_cast<size_t>(count) * 8);
    }
  }
};

template <>
struct NearCopy<32> {
  static void Go(const char* base, __m128i at, __m128 inside, char* dst, int count) {
    using Format = PixelFormatOf<32>;
    float* out = reinterpret_cast<float*>(dst);
    _mm_storeu_ps(out, _mm_mul_ps(Format::LoadOne(base + _mm_cvtsi128_si32(at)),
                                  Broadcast<0>(inside)));
    if (count < 2) return;
    _mm_storeu_ps(out + 4, _mm_mul_ps(Format::LoadOne(base + _mm_extract_epi32(at, 1)),
                                      Broadcast<1>(inside)));
    if (count < 3) return;
    _mm_storeu_ps(out + 8, _mm_mul_ps(Format::LoadOne(base + _mm_extract_epi32(at, 2)),
                                      Broadcast<2>(inside)));
    if (count < 4) return;
    _mm_storeu_ps(out + 12, _mm_mul_ps(Format::LoadOne(base + _mm_extract_epi32(at, 3)),
                                       Broadcast<3>(inside)));
  }
};

template <int BitDepth, class Route>
void NearRun(const ResampleData* rd, const float* xs, const float* ys, int n, char* dst) {
  const __m128 zero = _mm_setzero_ps(), minusOne = _mm_set1_ps(-1.0f);
  const __m128 xmax = _mm_set1_ps(static_cast<float>(rd->width - 1));
  const __m128 ymax = _mm_set1_ps(static_cast<float>(rd->height - 1));
  const __m128 xbeyond = _mm_add_ps(xmax, _mm_set1_ps(1.0f));  // xmax + 1.0, as a float sum
  const __m128 ybeyond = _mm_add_ps(ymax, _mm_set1_ps(1.0f));
  const __m128i rowStride = _mm_set1_epi32(rd->rowBytes);
  const __m128i pixelStride = _mm_set1_epi32(rd->pixelBytes);
  for (int k = 0; k < n; k += 4, dst += 4 * PixelFormatOf<BitDepth>::kBytes) {
    __m128 gx = Route::Round(IntoRange(_mm_load_ps(xs + k)));
    __m128 gy = Route::Round(IntoRange(_mm_load_ps(ys + k)));
    const __m128 insideX = InRangeLE(minusOne, gx, xbeyond);
    gx = Clip(zero, gx, xmax);
    const __m128 insideY = InRangeLE(minusOne, gy, ybeyond);
    gy = Clip(zero, gy, ymax);
    const __m128i at = FourOffsets(gx, gy, rowStride, pixelStride, n - k);
    NearCopy<BitDepth>::Go(rd->baseAddr, at, _mm_mul_ps(insideX, insideY), dst, n - k);
  }
}

// The final rounding of an integer channel and the store's conversion, fused: the route's
// round to the nearest integral value, then truncation to int32.
template <class Route>
struct RoundThenTruncate {
  static __m128i ToInt(__m128 v) { return _mm_cvttps_epi32(Route::Round(v)); }
};
// The same in one conversion in the current rounding mode. It gives the same integer when
// the mode is round-to-nearest-even (the instruction route's explicit direction), and always
// for the conversion route, whose Round is this conversion and back.
struct ConvertInCurrentMode {
  static __m128i ToInt(__m128 v) { return _mm_cvtps_epi32(v); }
};

// Whether ConvertInCurrentMode rounds as RoundThenTruncate<Route> does.
template <class Route>
inline bool CurrentModeRoundsAs() {
  return std::is_same<Route, rounding::ConversionRoute>::value ||
         (_mm_getcsr() & _MM_ROUND_MASK) == _MM_ROUND_NEAREST;
}

// Four whole pixels, each the vector (a, r, g, b) that its function returns, computed and
// stored in order two at a time; integer channels are rounded by Rounder and packed. An
// integer channel is then a whole number within the range of its depth (a blend never
// leaves the range of its ends), so packing converts it as the store's truncation does.
template <int BitDepth, class Rounder, class P0, class P1, class P2, class P3>
inline void StoreFourPixelPairs(char* dst, P0 p0, P1 p1, P2 p2, P3 p3) {
  if (BitDepth == 32) {
    float* out = reinterpret_cast<float*>(dst);
    _mm_storeu_ps(out, p0());
    _mm_storeu_ps(out + 4, p1());
    _mm_storeu_ps(out + 8, p2());
    _mm_storeu_ps(out + 12, p3());
  } else if (BitDepth == 8) {
    const __m128i w01 = _mm_packs_epi32(Rounder::ToInt(p0()), Rounder::ToInt(p1()));
    const __m128i w23 = _mm_packs_epi32(Rounder::ToInt(p2()), Rounder::ToInt(p3()));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), _mm_packus_epi16(w01, w23));
  } else {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst),
                     _mm_packus_epi32(Rounder::ToInt(p0()), Rounder::ToInt(p1())));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + 16),
                     _mm_packus_epi32(Rounder::ToInt(p2()), Rounder::ToInt(p3())));
  }
}

// Stores the first `count` (1 to 4) of four finished pixels, as StoreFourPixelPairs does.
template <int BitDepth, class Rounder>
inline void StoreFourPixelVectors(char* dst, __m128 p0, __m128 p1, __m128 p2, __m128 p3,
                                  int count) {
  auto value = [](__m128 p) { return [p] { return p; }; };
  if (count >= 4) {
    return StoreFourPixelPairs<BitDepth, Rounder>(dst, value(p0), value(p1), value(p2),
                                                  value(p3));
  }
  alignas(16) char group[4 * PixelFormatOf<BitDepth>::kBytes];
  StoreFourPixelPairs<BitDepth, Rounder>(group, value(p0), value(p1), value(p2), value(p3));
  std::memcpy(dst, group, static_cast<size_t>(count) * PixelFormatOf<BitDepth>::kBytes);
}

// One bilinear pixel of lane Lane of a group, with its four channels side by side: each
// channel goes through the same blends with its pixel's fractions, then (when Masked) the
// inside mask; the store rounds integer depths. p is the first neighbour, d the byte
// distances of the other three (right, below, below right).
template <int BitDepth, int Lane, bool Masked>
inline __m128 BiLinPixel(const char* p, const std::ptrdiff_t* d, __m128 fx, __m128 fy,
                         __m128 inside) {
  using Format = PixelFormatOf<BitDepth>;
  // blend(a, b, t) = a + (b - a) * t
  auto blend = [](__m128 a, __m128 b, __m128 t) {
    return _mm_add_ps(a, _mm_mul_ps(_mm_sub_ps(b, a), t));
  };
  const __m128 c00 = Format::LoadOne(p), c10 = Format::LoadOne(p + d[0]);
  const __m128 c01 = Format::LoadOne(p + d[1]), c11 = Format::LoadOne(p + d[2]);
  const __m128 tx = Broadcast<Lane>(fx), ty = Broadcast<Lane>(fy);
  __m128 out = blend(blend(c00, c10, tx), blend(c01, c11, tx), ty);
  if (Masked) out = _mm_mul_ps(out, Broadcast<Lane>(inside));
  return out;
}

// The bilinear sampler. Per lane of the position registers: ix = floor(x), fx = x - ix (exact),
// likewise iy, fy; inside = (0 <= ix <= width - 1 ? 1.0 : 0.0) * (0 <= iy <= height - 1 ?
// 1.0 : 0.0) on the unclipped floors; the neighbours c00, c10, c01, c11 at the floors and the
// floors + 1, each coordinate clipped into the image. Per pixel register (channels side by
// side, fx and fy broadcast from the pixel's lane): top = c00 + (c10 - c00)*fx, bottom =
// c01 + (c11 - c01)*fx, out = top + (bottom - top)*fy, three roundings per blend, then
// out*inside; integer depths round that to the nearest integer (halves to even).
//
// Each pixel is worked as the vector of its four channels. When all four pixels of a group
// have both neighbours of each axis inside the image, no coordinate is clipped, so the
// neighbours lie one pixel and one row on from the first, and are addressed from it (the
// image's offsets cannot wrap: TapsAddressable).
template <int BitDepth, class Route, class Rounder>
void BiLinRunWith(const ResampleData* rd, const float* xs, const float* ys, int n, char* dst) {
  using Format = PixelFormatOf<BitDepth>;
  const __m128 zero = _mm_setzero_ps(), one = _mm_set1_ps(1.0f);
  const __m128 xmax = _mm_set1_ps(static_cast<float>(rd->width - 1));
  const __m128 ymax = _mm_set1_ps(static_cast<float>(rd->height - 1));
  const __m128i rowStride = _mm_set1_epi32(rd->rowBytes);
  const __m128i pixelStride = _mm_set1_epi32(rd->pixelBytes);
  const bool addressable = TapsAddressable(rd);
  const std::ptrdiff_t right = rd->pixelBytes, down = rd->rowBytes;
  const char* base = rd->baseAddr;
  // The last coordinates whose right and lower neighbours are still inside.
  const __m128 xinner = _mm_set1_ps(static_cast<float>(rd->width - 2));
  const __m128 yinner = _mm_set1_ps(static_cast<float>(rd->height - 2));
  for (int k = 0; k < n; k += 4, dst += 4 * Format::kBytes) {
    const int count = n - k;
    if (addressable && count >= 4) {
      // A position whose floor lies in 0 .. width - 2 (and likewise down) is already in
      // range, so the steps from the unclamped position give the same values; NaN and
      // positions far outside fail the test and take the general path.
      const __m128 x = _mm_load_ps(xs + k), y = _mm_load_ps(ys + k);
      const __m128 ix = Route::Floor(x), iy = Route::Floor(y);
      const __m128 interior =
          _mm_and_ps(_mm_and_ps(_mm_cmple_ps(zero, ix), _mm_cmple_ps(ix, xinner)),
                     _mm_and_ps(_mm_cmple_ps(zero, iy), _mm_cmple_ps(iy, yinner)));
      if (_mm_movemask_ps(interior) == 0xF) {
        // No coordinate is clipped, every mask is 1.0, and a blend (the result of an add, so
        // never a signalling NaN) times 1.0 keeps its bits: the mask product is left out.
        const __m128 fx = _mm_sub_ps(x, ix), fy = _mm_sub_ps(y, iy);
        const __m128i at = FourOffsets(ix, iy, rowStride, pixelStride, 4);
        const std::ptrdiff_t d[3] = {right, down, down + right};
        // Each pair of pixels is finished and packed before the next is started, which keeps
        // the working values within the sixteen vector registers.
        auto pixel = [&](auto lane) {
          constexpr int l = decltype(lane)::value;
          const int offset = l == 0 ? _mm_cvtsi128_si32(at) : _mm_extract_epi32(at, l);
          return BiLinPixel<BitDepth, l, false>(base + offset, d, fx, fy, one);
        };
        StoreFourPixelPairs<BitDepth, Rounder>(
            dst, [&] { return pixel(std::integral_constant<int, 0>{}); },
            [&] { return pixel(std::integral_constant<int, 1>{}); },
            [&] { return pixel(std::integral_constant<int, 2>{}); },
            [&] { return pixel(std::integral_constant<int, 3>{}); });
        continue;
      }
    }
    const __m128 x = IntoRange(_mm_load_ps(xs + k));
    const __m128 y = IntoRange(_mm_load_ps(ys + k));
    const __m128 ix = Route::Floor(x), iy = Route::Floor(y);
    const __m128 fx = _mm_sub_ps(x, ix), fy = _mm_sub_ps(y, iy);
    const __m128 ix1 = _mm_add_ps(ix, one), iy1 = _mm_add_ps(iy, one);
    const __m128 insideX = _mm_and_ps(_mm_cmple_ps(zero, ix), _mm_cmple_ps(ix, xmax));
    const __m128 insideY = _mm_and_ps(_mm_cmple_ps(zero, iy), _mm_cmple_ps(iy, ymax));
    const __m128 inside = _mm_mul_ps(Mask01(insideX), Mask01(insideY));
    const __m128 x0 = Clip(zero, ix, xmax), y0 = Clip(zero, iy, ymax);
    const __m128 x1 = Clip(zero, ix1, xmax), y1 = Clip(zero, iy1, ymax);
    alignas(16) int32_t at[4][4];
    _mm_store_si128(reinterpret_cast<__m128i*>(at[0]),
                    FourOffsets(x0, y0, rowStride, pixelStride, count));
    _mm_store_si128(reinterpret_cast<__m128i*>(at[1]),
                    FourOffsets(x1, y0, rowStride, pixelStride, count));
    _mm_store_si128(reinterpret_cast<__m128i*>(at[2]),
                    FourOffsets(x0, y1, rowStride, pixelStride, count));
    _mm_store_si128(reinterpret_cast<__m128i*>(at[3]),
                    FourOffsets(x1, y1, rowStride, pixelStride, count));
    std::ptrdiff_t d[4][3];
    for (int l = 0; l < 4; ++l) {
      d[l][0] = std::ptrdiff_t{at[1][l]} - at[0][l];
      d[l][1] = std::ptrdiff_t{at[2][l]} - at[0][l];
      d[l][2] = std::ptrdiff_t{at[3][l]} - at[0][l];
    }
    StoreFourPixelVectors<BitDepth, Rounder>(
        dst, BiLinPixel<BitDepth, 0, true>(base + at[0][0], d[0], fx, fy, inside),
        BiLinPixel<BitDepth, 1, true>(base + at[0][1], d[1], fx, fy, inside),
        BiLinPixel<BitDepth, 2, true>(base + at[0][2], d[2], fx, fy, inside),
        BiLinPixel<BitDepth, 3, true>(base + at[0][3], d[3], fx, fy, inside), count);
  }
}

template <int BitDepth, class Route>
void BiLinRun(const ResampleData* rd, const float* xs, const float* ys, int n, char* dst) {
  // The processor's rounding mode belongs to the calling thread, so it is read per run.
  if (BitDepth != 32 && CurrentModeRoundsAs<Route>()) {
    return BiLinRunWith<BitDepth, Route, ConvertInCurrentMode>(rd, xs, ys, n, dst);
  }
  BiLinRunWith<BitDepth, Route, RoundThenTruncate<Route>>(rd, xs, ys, n, dst);
}

}  // namespace

namespace {

// The widest kernel has 6 taps per axis; the plan keeps every tap column and row.
constexpr int kMaxTaps = 6;

// One tap column (or row) of a run: the inside mask and the byte-offset term of the clipped
// source coordinate, trunc(coordinate) * stride, as IndexCalcT forms it; computed once per
// tap column and once per tap row instead of once per tap.
struct TapLine {
  alignas(16) int32_t offset[FGulp::kCapacity];
  alignas(16) float inside[FGulp::kCapacity];
};

// What the kernel sampler works from, for a whole run: the table position of each pixel's
// phase cell and every tap column and tap row.
struct TapPlan {
  alignas(16) int32_t cellIndex[FGulp::kCapacity];
  TapLine columns[kMaxTaps];
  TapLine rows[kMaxTaps];
  // Per group of four: every tap column of all four pixels lies inside the image, so the
  // columns are unclipped and each pixel's taps of one tap row are consecutive pixels.
  bool columnsInside[FGulp::kCapacity / 4];
};

// One tap column (or row) for the groups of four from `from` to `to` (exclusive), per lane:
// v = firstTap + tap (a float sum of whole numbers, exact); inside = 1.0 where 0 <= v <=
// maxIndex (false for NaN), else 0.0; clipped = min(maxIndex, max(0, v)); the offset term
// trunc(clipped) * stride in 32-bit integers. Offsets of lanes past the run's end (arbitrary coordinates) are
// masked to 0: pixel (0, 0).
inline void MakeTapLine(const float* firstTap, const __m128i* laneMasks, float tap, float maxIndex,
                        int32_t stride, int from, int to, TapLine& line) {
  const __m128 zero = _mm_setzero_ps(), vtap = _mm_set1_ps(tap), hi = _mm_set1_ps(maxIndex);
  const __m128i strides = _mm_set1_epi32(stride);
  for (int k = from; k < to; k += 4) {
    const __m128 v = _mm_add_ps(_mm_load_ps(firstTap + k), vtap);
    _mm_store_ps(line.inside + k, InRangeLE(zero, v, hi));
    const __m128i offset = _mm_mullo_epi32(_mm_cvttps_epi32(Clip(zero, v, hi)), strides);
    _mm_store_si128(reinterpret_cast<__m128i*>(line.offset + k),
                    _mm_and_si128(offset, laneMasks[k / 4]));
  }
}

// The kernel sampler's plan, per lane of each group (P phases per pixel, S floats per cell):
// a = the position brought into range; the first tap floor(a) - tapOffset (exact); the
// phase floor((a - floor(a)) * P) (the product rounded, then rounded down), held at P - 1;
// the cell index (P*S)*py + S*px, two products and a sum of whole numbers below 2^24, so
// exact, truncated to an integer; then every tap row and column (MakeTapLine). The middle
// tap columns are only needed for groups with a column outside the image: elsewhere every
// column is inside, unclipped and one pixel after the previous one.
template <class Route>
void PlanTaps(const ResampleData* rd, const FGulpPt& pos, int n, TapPlan& plan) {
  const float phases = rd->phasesPerPixel;
  const float stride = rd->phaseStride;
  const __m128 vphases = _mm_set1_ps(phases), lastPhase = _mm_set1_ps(phases - 1.0f);
  const __m128 offsX = _mm_set1_ps(-static_cast<float>(rd->tapOffsetX));
  const __m128 offsY = _mm_set1_ps(-static_cast<float>(rd->tapOffsetY));
  const __m128 cellRow = _mm_set1_ps(phases * stride), cellColumn = _mm_set1_ps(stride);
  const float xmax = static_cast<float>(rd->width - 1);
  const float ymax = static_cast<float>(rd->height - 1);
  const float* xs = pos.x.data();
  const float* ys = pos.y.data();
  alignas(16) float firstTapX[FGulp::kCapacity];
  alignas(16) float firstTapY[FGulp::kCapacity];
  __m128i laneMasks[FGulp::kCapacity / 4];
  for (int k = 0; k < n; k += 4) {
    laneMasks[k / 4] = FirstLanes(n - k);
    const __m128 x = IntoRange(_mm_load_ps(xs + k));
    const __m128 y = IntoRange(_mm_load_ps(ys + k));
    const __m128 floorX = Route::Floor(x), floorY = Route::Floor(y);
    __m128 phaseX = Route::PhaseDown(_mm_mul_ps(_mm_sub_ps(x, floorX), vphases));
    __m128 phaseY = Route::PhaseDown(_mm_mul_ps(_mm_sub_ps(y, floorY), vphases));
    _mm_store_ps(firstTapX + k, _mm_add_ps(floorX, offsX));
    _mm_store_ps(firstTapY + k, _mm_add_ps(floorY, offsY));
    // A coordinate just below an integer has the fraction 1.0 in single precision, giving
    // phase P, one past the table's last cell; it is read as the last phase instead.
    phaseX = _mm_min_ps(phaseX, lastPhase);
    phaseY = _mm_min_ps(phaseY, lastPhase);
    // Integers below 2^24, so exact. Lanes past the end read cell 0.
    const __m128 cell = _mm_add_ps(_mm_mul_ps(cellRow, phaseY), _mm_mul_ps(cellColumn, phaseX));
    _mm_store_si128(reinterpret_cast<__m128i*>(plan.cellIndex + k),
                    _mm_and_si128(_mm_cvttps_epi32(cell), laneMasks[k / 4]));
  }
  for (int j = 0; j < rd->tapsY; ++j) {
    MakeTapLine(firstTapY, laneMasks, static_cast<float>(j), ymax, rd->rowBytes, 0, n,
                plan.rows[j]);
  }
  const int taps = rd->tapsX;
  MakeTapLine(firstTapX, laneMasks, 0.0f, xmax, rd->pixelBytes, 0, n, plan.columns[0]);
  MakeTapLine(firstTapX, laneMasks, static_cast<float>(taps - 1), xmax, rd->pixelBytes, 0, n,
              plan.columns[taps - 1]);
  const bool addressable = TapsAddressable(rd);
  const __m128 one = _mm_set1_ps(1.0f);
  for (int k = 0; k < n; k += 4) {
    // The first and the last column inside means every column is (they are consecutive
    // integers).
    const bool inside =
        addressable && n - k >= 4 &&
        _mm_movemask_ps(_mm_and_ps(
            _mm_cmpeq_ps(_mm_load_ps(plan.columns[0].inside + k), one),
            _mm_cmpeq_ps(_mm_load_ps(plan.columns[taps - 1].inside + k), one))) == 0xF;
    plan.columnsInside[k / 4] = inside;
    if (!inside) {
      for (int i = 1; i < taps - 1; ++i) {
        MakeTapLine(firstTapX, laneMasks, static_cast<float>(i), xmax, rd->pixelBytes, k, k + 4,
                    plan.columns[i]);
      }
    }
  }
}

// The kernel-table weights of tap row `row` for the four pixels of a group: w[i] holds tap
// column i, lane l the weight from the cell of pixel l (a copy of the table's bits, as
// gatherLUT makes). The rows of the four cells are loaded and transposed.
template <int Taps>
struct WeightRow {
  static void Fetch(const float* const cells[4], int row, __m128* w) {
    const int first = row * Taps;
    __m128 w0 = _mm_loadu_ps(cells[0] + first), w1 = _mm_loadu_ps(cells[1] + first);
    __m128 w2 = _mm_loadu_ps(cells[2] + first), w3 = _mm_loadu_ps(cells[3] + first);
    _MM_TRANSPOSE4_PS(w0, w1, w2, w3);
    w[0] = w0;
    w[1] = w1;
    w[2] = w2;
    w[3] = w3;
    if (Taps == 6) {
      // Columns 4 and 5: two floats of each cell's row.
      const __m128 p01 = _mm_unpacklo_ps(
          _mm_castpd_ps(_mm_load_sd(reinterpret_cast<const double*>(cells[0] + first + 4))),
          _mm_castpd_ps(_mm_load_sd(reinterpret_cast<const double*>(cells[1] + first + 4))));
      const __m128 p23 = _mm_unpacklo_ps(
          _mm_castpd_ps(_mm_load_sd(reinterpret_cast<const double*>(cells[2] + first + 4))),
          _mm_castpd_ps(_mm_load_sd(reinterpret_cast<const double*>(cells[3] + first + 4))));
      w[4] = _mm_movelh_ps(p01, p23);
      w[5] = _mm_movehl_ps(p23, p01);
    }
  }
};

// The kernel sampler's taps and its final steps, four pixels at a time. weight and weightSum
// are position registers (lane l = pixel l); pixel0..3 are pixel registers holding each
// pixel's channel sums (a, r, g, b). Tap rows outer, tap columns inner, every tap: weight =
// (w * insideColumn) * insideRow, weightSum = weightSum + weight, and per pixel sum = weight
// (its lane broadcast) * pixel + sum, the product rounded before the sum. After the last tap
// the sums are transposed to one register per channel (lane l = pixel l); q = 1 / weightSum
// (1 / 1 where the sum is +-0, when every sum is 0 too); each channel is q * sum, at the
// integer depths rounded to the nearest integer (halves to even), then clipped to 0 .. max
// (alphaMax for alpha, colorMax for colour). Taps is tapsX = tapsY (4 or 6).
template <int BitDepth, int Taps, class Route>
void KernelRun(const ResampleData* rd, const TapPlan& plan, int n, char* dst) {
  using Format = PixelFormatOf<BitDepth>;
  constexpr int tapsX = Taps;
  constexpr int tapsY = Taps;
  const char* base = rd->baseAddr;
  const float* table = rd->kernelTable;
  const __m128 zero = _mm_setzero_ps(), one = _mm_set1_ps(1.0f);
  const __m128 colorMax = _mm_set1_ps(rd->colorMax), alphaMax = _mm_set1_ps(rd->alphaMax);
  for (int k = 0; k < n; k += 4, dst += 4 * Format::kBytes) {
    const int32_t* cellIndex = plan.cellIndex + k;
    const float* const cells[4] = {table + cellIndex[0], table + cellIndex[1],
                                   table + cellIndex[2], table + cellIndex[3]};
    __m128 pixel0 = zero, pixel1 = zero, pixel2 = zero, pixel3 = zero, weightSum = zero;
    if (plan.columnsInside[k / 4]) {
      // The same operations; only the pixel addresses are formed once per tap row (the
      // first column's) and stepped by one pixel per tap column.
      const __m128i firstColumn =
          _mm_load_si128(reinterpret_cast<const __m128i*>(plan.columns[0].offset + k));
      for (int j = 0; j < tapsY; ++j) {
        const TapLine& row = plan.rows[j];
        const __m128 insideRow = _mm_load_ps(row.inside + k);
        const __m128i start = _mm_add_epi32(
            _mm_load_si128(reinterpret_cast<const __m128i*>(row.offset + k)), firstColumn);
        const char* p0 = base + _mm_cvtsi128_si32(start);
        const char* p1 = base + _mm_extract_epi32(start, 1);
        const char* p2 = base + _mm_extract_epi32(start, 2);
        const char* p3 = base + _mm_extract_epi32(start, 3);
        __m128 w[Taps];
        WeightRow<Taps>::Fetch(cells, j, w);
        for (int i = 0; i < tapsX; ++i) {
          // insideColumn is 1.0 for every column here.
          const __m128 weight = _mm_mul_ps(_mm_mul_ps(w[i], one), insideRow);
          weightSum = _mm_add_ps(weightSum, weight);
          const int step = i * Format::kBytes;
          pixel0 = _mm_add_ps(_mm_mul_ps(Broadcast<0>(weight), Format::LoadOne(p0 + step)), pixel0);
          pixel1 = _mm_add_ps(_mm_mul_ps(Broadcast<1>(weight), Format::LoadOne(p1 + step)), pixel1);
          pixel2 = _mm_add_ps(_mm_mul_ps(Broadcast<2>(weight), Format::LoadOne(p2 + step)), pixel2);
          pixel3 = _mm_add_ps(_mm_mul_ps(Broadcast<3>(weight), Format::LoadOne(p3 + step)), pixel3);
        }
      }
    } else {
    for (int j = 0; j < tapsY; ++j) {
      const TapLine& row = plan.rows[j];
      const __m128 insideRow = _mm_load_ps(row.inside + k);
      const __m128i rowOffset = _mm_load_si128(reinterpret_cast<const __m128i*>(row.offset + k));
      __m128 w[Taps];
      WeightRow<Taps>::Fetch(cells, j, w);
      for (int i = 0; i < tapsX; ++i) {
        const TapLine& column = plan.columns[i];
        const __m128i offset = _mm_add_epi32(
            rowOffset, _mm_load_si128(reinterpret_cast<const __m128i*>(column.offset + k)));
        const __m128 weight = _mm_mul_ps(_mm_mul_ps(w[i], _mm_load_ps(column.inside + k)),
                                         insideRow);
        weightSum = _mm_add_ps(weightSum, weight);
        pixel0 = _mm_add_ps(_mm_mul_ps(Broadcast<0>(weight),
                                       Format::LoadOne(base + _mm_cvtsi128_si32(offset))),
                            pixel0);
        pixel1 = _mm_add_ps(_mm_mul_ps(Broadcast<1>(weight),
                                       Format::LoadOne(base + _mm_extract_epi32(offset, 1))),
                            pixel1);
        pixel2 = _mm_add_ps(_mm_mul_ps(Broadcast<2>(weight),
                                       Format::LoadOne(base + _mm_extract_epi32(offset, 2))),
                            pixel2);
        pixel3 = _mm_add_ps(_mm_mul_ps(Broadcast<3>(weight),
                                       Format::LoadOne(base + _mm_extract_epi32(offset, 3))),
                            pixel3);
      }
    }
    }
    _MM_TRANSPOSE4_PS(pixel0, pixel1, pixel2, pixel3);  // now alpha, red, green, blue
    // recipCHKZ: where the sum is +-0 the divisor becomes 1 and q = 1 (the channels are 0).
    const __m128 q =
        _mm_div_ps(one, _mm_add_ps(weightSum, Mask01(_mm_cmpeq_ps(weightSum, zero))));
    auto finish = [&](__m128 sum, __m128 max) {
      const __m128 scaled = _mm_mul_ps(q, sum);
      return Clip(zero, BitDepth == 32 ? scaled : Route::Round(scaled), max);
    };
    StorePixels<BitDepth>(dst,
                          ChannelBlock{finish(pixel0, alphaMax), finish(pixel1, colorMax),
                                       finish(pixel2, colorMax), finish(pixel3, colorMax)},
                          n - k);
  }
}

// The kernels have 4 by 4 (Lanczos-2, Mitchell-Netravali) or 6 by 6 taps (Lanczos-3).
bool KnownKernel(const ResampleData* rd, int taps) {
  return rd->tapsX == taps && rd->tapsY == taps;
}

// Taps outside the image weigh nothing; their clipped coordinates only keep the load inside
// the image. The kernel is renormalised over the inside taps.
template <int BitDepth, int Taps, class Route>
void KernelRunOf(ResampleData* rd, const FGulpPt& pos, void* dst) {
  if (ImageIsEmpty(rd) || rd->kernelTable == nullptr || !KnownKernel(rd, Taps)) {
    return StoreTransparent(rd, pos.x.len, dst);
  }
  const int n = RunLength(pos);
  TapPlan plan;
  PlanTaps<Route>(rd, pos, n, plan);
  KernelRun<BitDepth, Taps, Route>(rd, plan, n, static_cast<char*>(dst));
}

// The nearest and bilinear samplers of one depth and route, on runs.
template <int BitDepth, class Route>
void NearRunOf(ResampleData* rd, const FGulpPt& pos, void* dst) {
  if (ImageIsEmpty(rd)) return StoreTransparent(rd, pos.x.len, dst);
  NearRun<BitDepth, Route>(rd, pos.x.data(), pos.y.data(), RunLength(pos),
                           static_cast<char*>(dst));
}
template <int BitDepth, class Route>
void BiLinRunOf(ResampleData* rd, const FGulpPt& pos, void* dst) {
  if (ImageIsEmpty(rd)) return StoreTransparent(rd, pos.x.len, dst);
  BiLinRun<BitDepth, Route>(rd, pos.x.data(), pos.y.data(), RunLength(pos),
                            static_cast<char*>(dst));
}

template <int BitDepth, class Route>
ChosenSampler NarrowRunSampler(SamplerKind kind) {
  switch (kind) {
    case SamplerKind::kNearest: return NearRunOf<BitDepth, Route>;
    case SamplerKind::kBiLinear: return BiLinRunOf<BitDepth, Route>;
    case SamplerKind::kKernel4x4: return KernelRunOf<BitDepth, 4, Route>;
    case SamplerKind::kKernel6x6: return KernelRunOf<BitDepth, 6, Route>;
  }
  return nullptr;
}

void NothingToSample(ResampleData*, const FGulpPt&, void*) {}

}  // namespace

void StoreTransparentRun(const ResampleData* rd, int n, void* dst) {
  StoreTransparent(rd, n, dst);
}

SpanSampler NarrowSpanSampler(SamplerKind kind, int bitDepth) {
  using Route = rounding::InstructionRoute;
  return ForPixelDepth(
      bitDepth,
      [kind](auto depth) -> SpanSampler {
        constexpr int bits = decltype(depth)::kBits;
        if (kind == SamplerKind::kNearest) return NearRun<bits, Route>;
        if (kind == SamplerKind::kBiLinear) return BiLinRun<bits, Route>;
        return nullptr;
      },
      []() -> SpanSampler { return nullptr; });
}

ChosenSampler ChooseRunSampler(SamplerKind kind, int bitDepth) {
  if (UseWideVectors()) {
    if (const ChosenSampler wide = WideRunSampler(kind, bitDepth)) return wide;
  }
  const ChosenSampler chosen = rounding::WithRoute([&](auto route) {
    return ForPixelDepth(
        bitDepth,
        [kind](auto depth) {
          return NarrowRunSampler<decltype(depth)::kBits, decltype(route)>(kind);
        },
        []() -> ChosenSampler { return nullptr; });
  });
  // An unknown depth loads and stores nothing.
  return chosen != nullptr ? chosen : NothingToSample;
}

void NearSampler(ResampleData* rd, const FGulpPt& pos, void* dst) {
  ChooseRunSampler(SamplerKind::kNearest, rd->bitDepth)(rd, pos, dst);
}

void BiLinSampler(ResampleData* rd, const FGulpPt& pos, void* dst) {
  ChooseRunSampler(SamplerKind::kBiLinear, rd->bitDepth)(rd, pos, dst);
}

void Sampler(ResampleData* rd, const FGulpPt& pos, void* dst) {
  if (!KnownKernel(rd, 4) && !KnownKernel(rd, 6)) return StoreTransparent(rd, pos.x.len, dst);
  const SamplerKind kind = rd->tapsX == 4 ? SamplerKind::kKernel4x4 : SamplerKind::kKernel6x6;
  ChooseRunSampler(kind, rd->bitDepth)(rd, pos, dst);
}
