// The nearest, bilinear and kernel samplers 8 lanes at a time (AVX2). Lane l of a position register
// holds pixel k + l of a block of 8; a pixel register holds two pixels' channels side by side
// (alpha, red, green, blue of one pixel in each 128-bit half). Every lane goes through exactly
// the operations of the 4-lane versions in Samplers.cpp, in the same order, each rounded on
// its own (this source is compiled with -mavx2 -mno-fma -ffp-contract=off), so the bytes are
// the same; rounding is the SSE4.1 route's round-to-integral instruction. A block that is
// not whole (the end of a run) and, in the bilinear and kernel samplers, a block with a pixel
// near an edge go to the 4-lane version. Everything here is file-local apart from WideRunSampler;
// of the shared headers only the records' plain fields and FGulp's element access are used,
// so no code built for AVX2 can stand in for the 4-lane sources' own.
#include <immintrin.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "resample/SamplersWide.h"

namespace {

using W = __m256;
using WI = __m256i;

constexpr int kLanes = 8;
constexpr float kPositionLimit = 1073741824.0f;  // 2^30, as in Samplers.cpp

inline W Splat(float s) { return _mm256_set1_ps(s); }
inline W Mask01(W mask) { return _mm256_and_ps(mask, Splat(1.0f)); }
// min(2^30, max(-2^30, v)); a NaN lane becomes -2^30 (maxps returns its second operand).
inline W IntoRange(W v) {
  return _mm256_min_ps(_mm256_max_ps(v, Splat(-kPositionLimit)), Splat(kPositionLimit));
}
inline W Clip(W lo, W v, W hi) { return _mm256_min_ps(hi, _mm256_max_ps(lo, v)); }
inline W InRangeLE(W lo, W v, W hi) {
  return Mask01(_mm256_and_ps(_mm256_cmp_ps(lo, v, _CMP_LE_OS), _mm256_cmp_ps(v, hi, _CMP_LE_OS)));
}
inline W Round(W v) { return _mm256_round_ps(v, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC); }
inline W Floor(W v) { return _mm256_round_ps(v, _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC); }

// y * rowStride + x * pixelStride of the truncated coordinates, wrapping in 32 bits.
inline WI Offsets(W x, W y, WI rowStride, WI pixelStride) {
  return _mm256_add_epi32(_mm256_mullo_epi32(_mm256_cvttps_epi32(y), rowStride),
                          _mm256_mullo_epi32(_mm256_cvttps_epi32(x), pixelStride));
}

bool ImageIsEmpty(const ResampleData* rd) {
  return rd->width <= 0 || rd->height <= 0 || rd->baseAddr == nullptr;
}

// As Samplers.cpp: neighbours may be addressed from the first pixel when no offset wraps.
bool TapsAddressable(const ResampleData* rd) {
  const int64_t rowBytes = rd->rowBytes < 0 ? -int64_t{rd->rowBytes} : rd->rowBytes;
  const int64_t span = rowBytes * rd->height + int64_t{rd->width} * rd->pixelBytes;
  return span < (int64_t{1} << 31) && rd->width <= (1 << 24);
}

int RunLength(const FGulpPt& pos) { return pos.x.len < pos.y.len ? pos.x.len : pos.y.len; }

// ---- Nearest ----

// The pixels of a block at the byte offsets `at`, kept where inside is 1.0 and zero where
// it is 0.0 (integer depths), or multiplied by it (float), stored from dst. The pixels are
// loaded one by one: the processor's gather instruction measured slower here.
template <int BitDepth>
struct NearCopy;

template <>
struct NearCopy<8> {
  static void Go(const char* base, WI at, W inside, char* dst) {
    const WI keep = _mm256_castps_si256(_mm256_cmp_ps(inside, _mm256_setzero_ps(), _CMP_GT_OS));
    alignas(32) int32_t lanes[kLanes];
    _mm256_store_si256(reinterpret_cast<WI*>(lanes), at);
    int32_t w[kLanes];
    for (int l = 0; l < kLanes; ++l) std::memcpy(&w[l], base + lanes[l], 4);
    const WI words = _mm256_loadu_si256(reinterpret_cast<const WI*>(w));
    _mm256_storeu_si256(reinterpret_cast<WI*>(dst), _mm256_and_si256(words, keep));
  }
};

template <>
struct NearCopy<16> {
  static void Go(const char* base, WI at, W inside, char* dst) {
    const WI keep = _mm256_castps_si256(_mm256_cmp_ps(inside, _mm256_setzero_ps(), _CMP_GT_OS));
    alignas(32) int32_t lanes[kLanes];
    _mm256_store_si256(reinterpret_cast<WI*>(lanes), at);
    int64_t w[kLanes];
    for (int l = 0; l < kLanes; ++l) std::memcpy(&w[l], base + lanes[l], 8);
    const WI low = _mm256_loadu_si256(reinterpret_cast<const WI*>(w));
    const WI high = _mm256_loadu_si256(reinterpret_cast<const WI*>(w + 4));
    const WI keepLow = _mm256_cvtepi32_epi64(_mm256_castsi256_si128(keep));
    const WI keepHigh = _mm256_cvtepi32_epi64(_mm256_extracti128_si256(keep, 1));
    _mm256_storeu_si256(reinterpret_cast<WI*>(dst), _mm256_and_si256(low, keepLow));
    _mm256_storeu_si256(reinterpret_cast<WI*>(dst + 32), _mm256_and_si256(high, keepHigh));
  }
};

template <>
struct NearCopy<32> {
  static void Go(const char* base, WI at, W inside, char* dst) {
    alignas(32) int32_t lanes[kLanes];
    _mm256_store_si256(reinterpret_cast<WI*>(lanes), at);
    float* out = reinterpret_cast<float*>(dst);
    for (int l = 0; l < kLanes; l += 2) {
      // Pixel l in the low half, pixel l + 1 in the high half, each times its own mask.
      const W pixels =
          _mm256_loadu2_m128(reinterpret_cast<const float*>(base + lanes[l + 1]),
                             reinterpret_cast<const float*>(base + lanes[l]));
      const W mask = _mm256_permutevar8x32_ps(
          inside, _mm256_setr_epi32(l, l, l, l, l + 1, l + 1, l + 1, l + 1));
      _mm256_storeu_ps(out + 4 * l, _mm256_mul_ps(pixels, mask));
    }
  }
};

template <int BitDepth>
void NearRunWide(ResampleData* rd, const FGulpPt& pos, void* dstVoid) {
  const int n = RunLength(pos);
  char* dst = static_cast<char*>(dstVoid);
  if (ImageIsEmpty(rd)) return StoreTransparentRun(rd, pos.x.len, dst);
  constexpr int kBytes = BitDepth / 2;  // 4, 8 or 16 bytes per pixel
  const W zero = _mm256_setzero_ps(), minusOne = Splat(-1.0f);
  const W xmax = Splat(static_cast<float>(rd->width - 1));
  const W ymax = Splat(static_cast<float>(rd->height - 1));
  const W xbeyond = _mm256_add_ps(xmax, Splat(1.0f));
  const W ybeyond = _mm256_add_ps(ymax, Splat(1.0f));
  const WI rowStride = _mm256_set1_epi32(rd->rowBytes);
  const WI pixelStride = _mm256_set1_epi32(rd->pixelBytes);
  const float* xs = pos.x.data();
  const float* ys = pos.y.data();
  int k = 0;
  for (; k + kLanes <= n; k += kLanes, dst += kLanes * kBytes) {
    W gx = Round(IntoRange(_mm256_load_ps(xs + k)));
    W gy = Round(IntoRange(_mm256_load_ps(ys + k)));
    const W insideX = InRangeLE(minusOne, gx, xbeyond);
    gx = Clip(zero, gx, xmax);
    const W insideY = InRangeLE(minusOne, gy, ybeyond);
    gy = Clip(zero, gy, ymax);
    NearCopy<BitDepth>::Go(rd->baseAddr, Offsets(gx, gy, rowStride, pixelStride),
                           _mm256_mul_ps(insideX, insideY), dst);
  }
  if (k < n) NarrowSpanSampler(SamplerKind::kNearest, BitDepth)(rd, xs + k, ys + k, n - k, dst);
}

// ---- Bilinear ----

// Two pixels and their right-hand neighbours, read as two adjacent pixels from each of a and
// b: lo = (pixel at a, pixel at b) and hi = (the pixel after a, the pixel after b), each pair
// as two pixel registers (channels a, r, g, b; the first pixel in the low half), converted
// as the one-pixel load converts them.
template <int BitDepth>
struct PixelPairs;

template <>
struct PixelPairs<8> {
  static void Load(const char* a, const char* b, W& lo, W& hi) {
    long long wa, wb;
    std::memcpy(&wa, a, 8);
    std::memcpy(&wb, b, 8);
    // Pixels [a, a+1, b, b+1] -> [a, b, a+1, b+1].
    const __m128i v = _mm_shuffle_epi32(_mm_set_epi64x(wb, wa), _MM_SHUFFLE(3, 1, 2, 0));
    lo = _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(v));
    hi = _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(_mm_unpackhi_epi64(v, v)));
  }
};
template <>
struct PixelPairs<16> {
  static void Load(const char* a, const char* b, W& lo, W& hi) {
    const __m128i va = _mm_loadu_si128(reinterpret_cast<const __m128i*>(a));
    const __m128i vb = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b));
    lo = _mm256_cvtepi32_ps(_mm256_cvtepu16_epi32(_mm_unpacklo_epi64(va, vb)));
    hi = _mm256_cvtepi32_ps(_mm256_cvtepu16_epi32(_mm_unpackhi_epi64(va, vb)));
  }
};
template <>
struct PixelPairs<32> {
  static void Load(const char* a, const char* b, W& lo, W& hi) {
    const W va = _mm256_loadu_ps(reinterpret_cast<const float*>(a));
    const W vb = _mm256_loadu_ps(reinterpret_cast<const float*>(b));
    lo = _mm256_permute2f128_ps(va, vb, 0x20);
    hi = _mm256_permute2f128_ps(va, vb, 0x31);
  }
};

// The integer depths' final rounding, as Samplers.cpp chooses it per run: one conversion in
// the current mode when that is round-to-nearest-even, else the explicit round, then
// truncation.
struct ConvertInCurrentMode {
  static WI ToInt(W v) { return _mm256_cvtps_epi32(v); }
};
struct RoundThenTruncate {
  static WI ToInt(W v) { return _mm256_cvttps_epi32(Round(v)); }
};

// Eight finished pixels, as pairs (0, 1), (2, 3), (4, 5), (6, 7), packed as the 4-lane
// store packs them (the values are whole and within the depth's range, so the saturating
// packs keep them).
template <int BitDepth, class Rounder>
inline void StoreEight(char* dst, const W (&pairs)[4]) {
  if (BitDepth == 32) {
    float* out = reinterpret_cast<float*>(dst);
    for (int p = 0; p < 4; ++p) _mm256_storeu_ps(out + 8 * p, pairs[p]);
  } else if (BitDepth == 16) {
    for (int p = 0; p < 4; p += 2) {
      // [0 2 | 1 3] in 64-bit pixels, then in order.
      const WI packed =
          _mm256_packus_epi32(Rounder::ToInt(pairs[p]), Rounder::ToInt(pairs[p + 1]));
      _mm256_storeu_si256(reinterpret_cast<WI*>(dst + 32 * (p / 2)),
                          _mm256_permute4x64_epi64(packed, 0xD8));
    }
  } else {
    const WI w0123 = _mm256_packs_epi32(Rounder::ToInt(pairs[0]), Rounder::ToInt(pairs[1]));
    const WI w4567 = _mm256_packs_epi32(Rounder::ToInt(pairs[2]), Rounder::ToInt(pairs[3]));
    // Bytes of pixels [0 2 4 6 | 1 3 5 7], then in order.
    const WI bytes = _mm256_packus_epi16(w0123, w4567);
    _mm256_storeu_si256(reinterpret_cast<WI*>(dst),
                        _mm256_permutevar8x32_epi32(bytes, _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7)));
  }
}

// A block whose pixels all have both neighbours of each axis inside the image: no coordinate
// is clipped, every mask is 1.0 and left out (a blend times 1.0 keeps its bits), the
// neighbours lie one pixel and one row on (each pair of neighbours read at once). Per pixel: top = c00 + (c10 - c00)*fx, bottom =
// c01 + (c11 - c01)*fx, out = top + (bottom - top)*fy.
template <int BitDepth, class Rounder>
inline void BiLinInterior(const char* base, W x, W y, W ix, W iy, WI rowStride, WI pixelStride,
                          std::ptrdiff_t down, char* dst) {
  const W fx = _mm256_sub_ps(x, ix), fy = _mm256_sub_ps(y, iy);
  alignas(32) int32_t at[kLanes];
  _mm256_store_si256(reinterpret_cast<WI*>(at), Offsets(ix, iy, rowStride, pixelStride));
  auto blend = [](W a, W b, W t) { return _mm256_add_ps(a, _mm256_mul_ps(_mm256_sub_ps(b, a), t)); };
  W pairs[4];
  for (int p = 0; p < 4; ++p) {
    const int l = 2 * p;
    const char* a = base + at[l];
    const char* b = base + at[l + 1];
    const WI halves = _mm256_setr_epi32(l, l, l, l, l + 1, l + 1, l + 1, l + 1);
    const W tx = _mm256_permutevar8x32_ps(fx, halves), ty = _mm256_permutevar8x32_ps(fy, halves);
    W c00, c10, c01, c11;
    PixelPairs<BitDepth>::Load(a, b, c00, c10);
    PixelPairs<BitDepth>::Load(a + down, b + down, c01, c11);
    pairs[p] = blend(blend(c00, c10, tx), blend(c01, c11, tx), ty);
  }
  StoreEight<BitDepth, Rounder>(dst, pairs);
}

template <int BitDepth, class Rounder>
void BiLinRunWide(const ResampleData* rd, const float* xs, const float* ys, int n, char* dst) {
  constexpr int kBytes = BitDepth / 2;
  const SpanSampler narrow = NarrowSpanSampler(SamplerKind::kBiLinear, BitDepth);
  // Neighbours are addressed from the first pixel, a pair of them read at once.
  if (!TapsAddressable(rd) || rd->pixelBytes != kBytes) return narrow(rd, xs, ys, n, dst);
  const W zero = _mm256_setzero_ps();
  const W xinner = Splat(static_cast<float>(rd->width - 2));
  const W yinner = Splat(static_cast<float>(rd->height - 2));
  const WI rowStride = _mm256_set1_epi32(rd->rowBytes);
  const WI pixelStride = _mm256_set1_epi32(rd->pixelBytes);
  const std::ptrdiff_t down = rd->rowBytes;
  int k = 0;
  for (; k + kLanes <= n; k += kLanes, dst += kLanes * kBytes) {
    const W x = _mm256_load_ps(xs + k), y = _mm256_load_ps(ys + k);
    const W ix = Floor(x), iy = Floor(y);
    const W interior = _mm256_and_ps(
        _mm256_and_ps(_mm256_cmp_ps(zero, ix, _CMP_LE_OS), _mm256_cmp_ps(ix, xinner, _CMP_LE_OS)),
        _mm256_and_ps(_mm256_cmp_ps(zero, iy, _CMP_LE_OS), _mm256_cmp_ps(iy, yinner, _CMP_LE_OS)));
    if (_mm256_movemask_ps(interior) == 0xFF) {
      BiLinInterior<BitDepth, Rounder>(rd->baseAddr, x, y, ix, iy, rowStride, pixelStride, down,
                                       dst);
    } else {
      narrow(rd, xs + k, ys + k, kLanes, dst);
    }
  }
  if (k < n) narrow(rd, xs + k, ys + k, n - k, dst);
}

template <int BitDepth>
void BiLinSamplerWide(ResampleData* rd, const FGulpPt& pos, void* dst) {
  const int n = RunLength(pos);
  char* out = static_cast<char*>(dst);
  if (ImageIsEmpty(rd)) return StoreTransparentRun(rd, pos.x.len, dst);
  // The rounding mode belongs to the calling thread, so it is read per run.
  if (BitDepth != 32 && (_mm_getcsr() & _MM_ROUND_MASK) == _MM_ROUND_NEAREST) {
    return BiLinRunWide<BitDepth, ConvertInCurrentMode>(rd, pos.x.data(), pos.y.data(), n, out);
  }
  BiLinRunWide<BitDepth, RoundThenTruncate>(rd, pos.x.data(), pos.y.data(), n, out);
}

// ---- Kernel ----

// Two separate pixels (a, r, g, b each), the first in the low half, converted as the
// one-pixel load converts them.
template <int BitDepth>
struct TwoPixels;

template <>
struct TwoPixels<8> {
  static W Load(const char* a, const char* b) {
    int32_t wa, wb;
    std::memcpy(&wa, a, 4);
    std::memcpy(&wb, b, 4);
    return _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(_mm_setr_epi32(wa, wb, 0, 0)));
  }
};
template <>
struct TwoPixels<16> {
  static W Load(const char* a, const char* b) {
    long long wa, wb;
    std::memcpy(&wa, a, 8);
    std::memcpy(&wb, b, 8);
    return _mm256_cvtepi32_ps(_mm256_cvtepu16_epi32(_mm_set_epi64x(wb, wa)));
  }
};
template <>
struct TwoPixels<32> {
  static W Load(const char* a, const char* b) {
    return _mm256_loadu2_m128(reinterpret_cast<const float*>(b),
                              reinterpret_cast<const float*>(a));
  }
};

// Within each 128-bit half, rows r0..r3 become columns (what _MM_TRANSPOSE4_PS does to four
// 4-lane registers, done to both halves at once).
inline void TransposeHalves(W& r0, W& r1, W& r2, W& r3) {
  const W t0 = _mm256_unpacklo_ps(r0, r1), t1 = _mm256_unpacklo_ps(r2, r3);
  const W t2 = _mm256_unpackhi_ps(r0, r1), t3 = _mm256_unpackhi_ps(r2, r3);
  r0 = _mm256_shuffle_ps(t0, t1, _MM_SHUFFLE(1, 0, 1, 0));
  r1 = _mm256_shuffle_ps(t0, t1, _MM_SHUFFLE(3, 2, 3, 2));
  r2 = _mm256_shuffle_ps(t2, t3, _MM_SHUFFLE(1, 0, 1, 0));
  r3 = _mm256_shuffle_ps(t2, t3, _MM_SHUFFLE(3, 2, 3, 2));
}

// The table weights of tap row `row` for the eight pixels of a block: w[i] is tap column i,
// lane l the weight from pixel l's cell (a copy of the table's bits).
template <int Taps>
inline void FetchWeights(const float* const cells[kLanes], int row, W* w) {
  const int first = row * Taps;
  W r[4];
  for (int l = 0; l < 4; ++l) {
    r[l] = _mm256_set_m128(_mm_loadu_ps(cells[l + 4] + first), _mm_loadu_ps(cells[l] + first));
  }
  TransposeHalves(r[0], r[1], r[2], r[3]);
  for (int i = 0; i < 4; ++i) w[i] = r[i];
  for (int i = 4; i < Taps; ++i) {
    w[i] = _mm256_setr_ps(cells[0][first + i], cells[1][first + i], cells[2][first + i],
                          cells[3][first + i], cells[4][first + i], cells[5][first + i],
                          cells[6][first + i], cells[7][first + i]);
  }
}

// Stores eight finished pixels given as channel registers (lane l = pixel l), as the 4-lane
// store does: integer channels truncated and their low bits packed, float bits copied.
template <int BitDepth>
struct StoreChannels;

template <>
struct StoreChannels<8> {
  static void Go(char* dst, W a, W r, W g, W b) {
    const WI low = _mm256_set1_epi32(0xFF);
    const WI ia = _mm256_and_si256(_mm256_cvttps_epi32(a), low);
    const WI ir = _mm256_and_si256(_mm256_cvttps_epi32(r), low);
    const WI ig = _mm256_and_si256(_mm256_cvttps_epi32(g), low);
    const WI ib = _mm256_cvttps_epi32(b);
    const WI words = _mm256_or_si256(_mm256_or_si256(ia, _mm256_slli_epi32(ir, 8)),
                                     _mm256_or_si256(_mm256_slli_epi32(ig, 16), _mm256_slli_epi32(ib, 24)));
    _mm256_storeu_si256(reinterpret_cast<WI*>(dst), words);
  }
};
template <>
struct StoreChannels<16> {
  static void Go(char* dst, W a, W r, W g, W b) {
    const WI low = _mm256_set1_epi32(0xFFFF);
    const WI ar = _mm256_or_si256(_mm256_and_si256(_mm256_cvttps_epi32(a), low),
                                  _mm256_slli_epi32(_mm256_cvttps_epi32(r), 16));
    const WI gb = _mm256_or_si256(_mm256_and_si256(_mm256_cvttps_epi32(g), low),
                                  _mm256_slli_epi32(_mm256_cvttps_epi32(b), 16));
    // [pixels 0 1 | 4 5] and [2 3 | 6 7], then in order.
    const WI lo = _mm256_unpacklo_epi32(ar, gb), hi = _mm256_unpackhi_epi32(ar, gb);
    _mm256_storeu_si256(reinterpret_cast<WI*>(dst), _mm256_permute2x128_si256(lo, hi, 0x20));
    _mm256_storeu_si256(reinterpret_cast<WI*>(dst + 32), _mm256_permute2x128_si256(lo, hi, 0x31));
  }
};
template <>
struct StoreChannels<32> {
  static void Go(char* dst, W a, W r, W g, W b) {
    TransposeHalves(a, r, g, b);  // [pixel 0 | 4], [1 | 5], [2 | 6], [3 | 7]
    float* out = reinterpret_cast<float*>(dst);
    _mm256_storeu_ps(out, _mm256_permute2f128_ps(a, r, 0x20));
    _mm256_storeu_ps(out + 8, _mm256_permute2f128_ps(g, b, 0x20));
    _mm256_storeu_ps(out + 16, _mm256_permute2f128_ps(a, r, 0x31));
    _mm256_storeu_ps(out + 24, _mm256_permute2f128_ps(g, b, 0x31));
  }
};

// A block of eight pixels whose tap columns all lie inside the image (the plan's
// columnsInside for both its groups of four), as the 4-lane sampler's taps and final steps:
// per tap (rows outer, columns inner) weight = (w * 1.0) * insideRow, weightSum += weight,
// sum = weight * pixel + sum for each pixel's four channels (two pixels per register); then
// q = 1 / weightSum (1 / 1 where it is +-0), each channel q * sum, rounded to the nearest
// integer (halves to even) at the integer depths, clipped to 0 .. alphaMax or colorMax.
template <int BitDepth, int Taps>
void KernelBlock(const ResampleData* rd, const TapPlan& plan, int k, char* dst) {
  constexpr int kBytes = BitDepth / 2;
  const W zero = _mm256_setzero_ps(), one = Splat(1.0f);
  const float* table = rd->kernelTable;
  const float* cells[kLanes];
  for (int l = 0; l < kLanes; ++l) cells[l] = table + plan.cellIndex[k + l];
  const WI firstColumn =
      _mm256_loadu_si256(reinterpret_cast<const WI*>(plan.columns[0].offset + k));
  W pairs[4] = {zero, zero, zero, zero};
  W weightSum = zero;
  for (int j = 0; j < Taps; ++j) {
    const TapLine& row = plan.rows[j];
    const W insideRow = _mm256_loadu_ps(row.inside + k);
    alignas(32) int32_t start[kLanes];
    _mm256_store_si256(reinterpret_cast<WI*>(start),
                       _mm256_add_epi32(_mm256_loadu_si256(reinterpret_cast<const WI*>(row.offset + k)),
                                        firstColumn));
    W w[Taps];
    FetchWeights<Taps>(cells, j, w);
    for (int i = 0; i < Taps; ++i) {
      const W weight = _mm256_mul_ps(_mm256_mul_ps(w[i], one), insideRow);
      weightSum = _mm256_add_ps(weightSum, weight);
      const int step = i * kBytes;
      for (int p = 0; p < 4; ++p) {
        const int l = 2 * p;
        const W spread = _mm256_permutevar8x32_ps(
            weight, _mm256_setr_epi32(l, l, l, l, l + 1, l + 1, l + 1, l + 1));
        const W pixels = TwoPixels<BitDepth>::Load(rd->baseAddr + start[l] + step,
                                                   rd->baseAddr + start[l + 1] + step);
        pairs[p] = _mm256_add_ps(_mm256_mul_ps(spread, pixels), pairs[p]);
      }
    }
  }
  // [pixel 0 | 4], [1 | 5], [2 | 6], [3 | 7], then channels: lane l = pixel l.
  W alpha = _mm256_permute2f128_ps(pairs[0], pairs[2], 0x20);
  W red = _mm256_permute2f128_ps(pairs[0], pairs[2], 0x31);
  W green = _mm256_permute2f128_ps(pairs[1], pairs[3], 0x20);
  W blue = _mm256_permute2f128_ps(pairs[1], pairs[3], 0x31);
  TransposeHalves(alpha, red, green, blue);
  const W q = _mm256_div_ps(
      one, _mm256_add_ps(weightSum, Mask01(_mm256_cmp_ps(weightSum, zero, _CMP_EQ_OQ))));
  const W colorMax = Splat(rd->colorMax), alphaMax = Splat(rd->alphaMax);
  auto finish = [&](W sum, W max) {
    const W scaled = _mm256_mul_ps(q, sum);
    return Clip(zero, BitDepth == 32 ? scaled : Round(scaled), max);
  };
  StoreChannels<BitDepth>::Go(dst, finish(alpha, alphaMax), finish(red, colorMax),
                              finish(green, colorMax), finish(blue, colorMax));
}

template <int BitDepth, int Taps>
void KernelRunWide(ResampleData* rd, const FGulpPt& pos, void* dstVoid) {
  if (!KernelRecordIsUsable(rd, Taps)) return StoreTransparentRun(rd, pos.x.len, dstVoid);
  constexpr int kBytes = BitDepth / 2;
  const int n = RunLength(pos);
  char* dst = static_cast<char*>(dstVoid);
  TapPlan plan;
  PlanKernelTaps(rd, pos, n, plan);
  const KernelSpan narrow = NarrowKernelSpan(BitDepth, Taps);
  const bool wholePixels = rd->pixelBytes == kBytes;
  for (int k = 0; k < n; k += kLanes, dst += kLanes * kBytes) {
    if (wholePixels && k + kLanes <= n && plan.columnsInside[k / 4] &&
        plan.columnsInside[k / 4 + 1]) {
      KernelBlock<BitDepth, Taps>(rd, plan, k, dst);
    } else {
      narrow(rd, plan, k, k + kLanes < n ? k + kLanes : n, dst);
    }
  }
}

}  // namespace

namespace {

template <int BitDepth>
ChosenSampler WideOfDepth(SamplerKind kind) {
  switch (kind) {
    case SamplerKind::kNearest: return NearRunWide<BitDepth>;
    case SamplerKind::kBiLinear: return BiLinSamplerWide<BitDepth>;
    case SamplerKind::kKernel4x4: return KernelRunWide<BitDepth, 4>;
    case SamplerKind::kKernel6x6: return KernelRunWide<BitDepth, 6>;
  }
  return nullptr;
}

}  // namespace

ChosenSampler WideRunSampler(SamplerKind kind, int bitDepth) {
  switch (bitDepth) {
    case 8: return WideOfDepth<8>(kind);
    case 16: return WideOfDepth<16>(kind);
    case 32: return WideOfDepth<32>(kind);
    default: return nullptr;
  }
}
