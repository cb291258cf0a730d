// The nearest and bilinear samplers 8 lanes at a time (AVX2). Lane l of a position register
// holds pixel k + l of a block of 8; a pixel register holds two pixels' channels side by side
// (alpha, red, green, blue of one pixel in each 128-bit half). Every lane goes through exactly
// the operations of the 4-lane versions in Samplers.cpp, in the same order, each rounded on
// its own (this source is compiled with -mavx2 -mno-fma -ffp-contract=off), so the bytes are
// the same; rounding is the SSE4.1 route's round-to-integral instruction. A block that is
// not whole (the end of a run) and, in the bilinear sampler, a block with a pixel near an
// edge go to the 4-lane version. Everything here is file-local apart from WideRunSampler;
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
    if (BitDepth == 32) {
      W gx = Round(IntoRange(_mm256_load_ps(xs + k)));
      W gy = Round(IntoRange(_mm256_load_ps(ys + k)));
      const W insideX = InRangeLE(minusOne, gx, xbeyond);
      gx = Clip(zero, gx, xmax);
      const W insideY = InRangeLE(minusOne, gy, ybeyond);
      gy = Clip(zero, gy, ymax);
      NearCopy<BitDepth>::Go(rd->baseAddr, Offsets(gx, gy, rowStride, pixelStride),
                             _mm256_mul_ps(insideX, insideY), dst);
    } else {
      // Integer pixels are copied or zeroed whole, so only whether both masks are 1.0
      // matters: that is the same for the position brought into range and for the position
      // itself (beyond 2^30 and NaN are outside either way), and the clip takes NaN to 0
      // (maxps returns its second operand), which keeps the load inside the image.
      W gx = Round(_mm256_load_ps(xs + k));
      W gy = Round(_mm256_load_ps(ys + k));
      const W insideX = _mm256_and_ps(_mm256_cmp_ps(minusOne, gx, _CMP_LE_OS),
                                      _mm256_cmp_ps(gx, xbeyond, _CMP_LE_OS));
      const W insideY = _mm256_and_ps(_mm256_cmp_ps(minusOne, gy, _CMP_LE_OS),
                                      _mm256_cmp_ps(gy, ybeyond, _CMP_LE_OS));
      const W inside = _mm256_and_ps(insideX, insideY);
      gx = _mm256_min_ps(_mm256_max_ps(gx, zero), xmax);
      gy = _mm256_min_ps(_mm256_max_ps(gy, zero), ymax);
      NearCopy<BitDepth>::Go(rd->baseAddr, Offsets(gx, gy, rowStride, pixelStride),
                             Mask01(inside), dst);
    }
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
                        _mm256_permutevar8x32_epi32(bytes,
                                                    _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7)));
  }
}

// A block whose pixels all have both neighbours of each axis inside the image: no coordinate
// is clipped, every mask is 1.0 and left out (a blend times 1.0 keeps its bits), the
// neighbours lie one pixel and one row on (each pair of neighbours read at once). Per pixel:
// top = c00 + (c10 - c00)*fx, bottom = c01 + (c11 - c01)*fx, out = top + (bottom - top)*fy.
template <int BitDepth, class Rounder>
inline void BiLinInterior(const char* base, W x, W y, W ix, W iy, WI rowStride, WI pixelStride,
                          std::ptrdiff_t down, char* dst) {
  const W fx = _mm256_sub_ps(x, ix), fy = _mm256_sub_ps(y, iy);
  alignas(32) int32_t at[kLanes];
  _mm256_store_si256(reinterpret_cast<WI*>(at), Offsets(ix, iy, rowStride, pixelStride));
  auto blend = [](W a, W b, W t) {
    return _mm256_add_ps(a, _mm256_mul_ps(_mm256_sub_ps(b, a), t));
  };
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

}  // namespace

ChosenSampler WideRunSampler(SamplerKind kind, int bitDepth) {
  const bool nearest = kind == SamplerKind::kNearest;
  if (!nearest && kind != SamplerKind::kBiLinear) return nullptr;
  switch (bitDepth) {
    case 8: return nearest ? NearRunWide<8> : BiLinSamplerWide<8>;
    case 16: return nearest ? NearRunWide<16> : BiLinSamplerWide<16>;
    case 32: return nearest ? NearRunWide<32> : BiLinSamplerWide<32>;
    default: return nullptr;
  }
}
