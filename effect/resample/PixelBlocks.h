// Internal to the resampling code: pixels between memory and vectors, for each pixel depth:
// four pixels at a time as four channel vectors (lane l = pixel l), or one pixel as the
// vector of its channels (a, r, g, b). Used by SamplePix, StorePix and the samplers' fused
// loops.
//
// A load converts exactly as the one-pixel load does (integer channels to float unchanged,
// float channels copied bit for bit); a store truncates toward zero and keeps the low 8 or 16
// bits (an out-of-range or NaN value truncates to INT32_MIN, whose low bits are 0), or copies
// float bits. Shuffles move bits unchanged, so float pixels pass bit for bit.
#ifndef VT_RESAMPLE_PIXELBLOCKS_H
#define VT_RESAMPLE_PIXELBLOCKS_H

#include <smmintrin.h>

#include <cstdint>
#include <cstring>

#include "common/PixelDepth.h"

struct ChannelBlock {
  __m128 a, r, g, b;
};

template <int BitDepth>
struct PixelFormatOf;

template <>
struct PixelFormatOf<8> {
  static constexpr int kBytes = kPixelDepth8.bytes;

  // One pixel as the vector (a, r, g, b).
  static __m128 LoadOne(const char* p) {
    int32_t word;
    std::memcpy(&word, p, 4);
    return _mm_cvtepi32_ps(_mm_cvtepu8_epi32(_mm_cvtsi32_si128(word)));
  }

  static ChannelBlock Load(const char* p0, const char* p1, const char* p2, const char* p3) {
    int32_t w0, w1, w2, w3;
    std::memcpy(&w0, p0, 4);
    std::memcpy(&w1, p1, 4);
    std::memcpy(&w2, p2, 4);
    std::memcpy(&w3, p3, 4);
    // Byte 0 (alpha) is the low byte of each little-endian word.
    const __m128i v = _mm_setr_epi32(w0, w1, w2, w3);
    const __m128i low = _mm_set1_epi32(0xFF);
    return ChannelBlock{_mm_cvtepi32_ps(_mm_and_si128(v, low)),
                        _mm_cvtepi32_ps(_mm_and_si128(_mm_srli_epi32(v, 8), low)),
                        _mm_cvtepi32_ps(_mm_and_si128(_mm_srli_epi32(v, 16), low)),
                        _mm_cvtepi32_ps(_mm_srli_epi32(v, 24))};
  }

  static void Store(char* dst, const ChannelBlock& c) {
    const __m128i low = _mm_set1_epi32(0xFF);
    const __m128i a = _mm_and_si128(_mm_cvttps_epi32(c.a), low);
    const __m128i r = _mm_and_si128(_mm_cvttps_epi32(c.r), low);
    const __m128i g = _mm_and_si128(_mm_cvttps_epi32(c.g), low);
    const __m128i b = _mm_cvttps_epi32(c.b);  // its low byte is shifted to the top
    const __m128i words = _mm_or_si128(_mm_or_si128(a, _mm_slli_epi32(r, 8)),
                                       _mm_or_si128(_mm_slli_epi32(g, 16), _mm_slli_epi32(b, 24)));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), words);
  }
};

template <>
struct PixelFormatOf<16> {
  static constexpr int kBytes = kPixelDepth16.bytes;

  static __m128 LoadOne(const char* p) {
    return _mm_cvtepi32_ps(
        _mm_cvtepu16_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p))));
  }

  static ChannelBlock Load(const char* p0, const char* p1, const char* p2, const char* p3) {
    // [a0 r0 g0 b0 a1 r1 g1 b1] and [a2 .. b3], then interleaved down to one channel per half.
    const __m128i v01 = _mm_unpacklo_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p0)),
                                           _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p1)));
    const __m128i v23 = _mm_unpacklo_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p2)),
                                           _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p3)));
    const __m128i t0 = _mm_unpacklo_epi16(v01, v23);  // a0 a2 r0 r2 g0 g2 b0 b2
    const __m128i t1 = _mm_unpackhi_epi16(v01, v23);  // a1 a3 r1 r3 g1 g3 b1 b3
    const __m128i ar = _mm_unpacklo_epi16(t0, t1);    // a0 a1 a2 a3 r0 r1 r2 r3
    const __m128i gb = _mm_unpackhi_epi16(t0, t1);    // g0 g1 g2 g3 b0 b1 b2 b3
    const __m128i zero = _mm_setzero_si128();
    return ChannelBlock{_mm_cvtepi32_ps(_mm_unpacklo_epi16(ar, zero)),
                        _mm_cvtepi32_ps(_mm_unpackhi_epi16(ar, zero)),
                        _mm_cvtepi32_ps(_mm_unpacklo_epi16(gb, zero)),
                        _mm_cvtepi32_ps(_mm_unpackhi_epi16(gb, zero))};
  }

  static void Store(char* dst, const ChannelBlock& c) {
    const __m128i low = _mm_set1_epi32(0xFFFF);
    const __m128i a = _mm_and_si128(_mm_cvttps_epi32(c.a), low);
    const __m128i r = _mm_cvttps_epi32(c.r);
    const __m128i g = _mm_and_si128(_mm_cvttps_epi32(c.g), low);
    const __m128i b = _mm_cvttps_epi32(c.b);
    const __m128i ar = _mm_or_si128(a, _mm_slli_epi32(r, 16));  // one word per pixel: a | r << 16
    const __m128i gb = _mm_or_si128(g, _mm_slli_epi32(b, 16));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), _mm_unpacklo_epi32(ar, gb));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + 16), _mm_unpackhi_epi32(ar, gb));
  }
};

template <>
struct PixelFormatOf<32> {
  static constexpr int kBytes = kPixelDepthFloat.bytes;

  static __m128 LoadOne(const char* p) { return _mm_loadu_ps(reinterpret_cast<const float*>(p)); }

  static ChannelBlock Load(const char* p0, const char* p1, const char* p2, const char* p3) {
    __m128 a = _mm_loadu_ps(reinterpret_cast<const float*>(p0));
    __m128 r = _mm_loadu_ps(reinterpret_cast<const float*>(p1));
    __m128 g = _mm_loadu_ps(reinterpret_cast<const float*>(p2));
    __m128 b = _mm_loadu_ps(reinterpret_cast<const float*>(p3));
    _MM_TRANSPOSE4_PS(a, r, g, b);
    return ChannelBlock{a, r, g, b};
  }

  static void Store(char* dst, const ChannelBlock& c) {
    __m128 p0 = c.a, p1 = c.r, p2 = c.g, p3 = c.b;
    _MM_TRANSPOSE4_PS(p0, p1, p2, p3);
    float* out = reinterpret_cast<float*>(dst);
    _mm_storeu_ps(out, p0);
    _mm_storeu_ps(out + 4, p1);
    _mm_storeu_ps(out + 8, p2);
    _mm_storeu_ps(out + 12, p3);
  }
};

// All ones in lanes 0 .. count - 1, zeros in the others.
inline __m128i FirstLanes(int count) {
  return _mm_cmpgt_epi32(_mm_set1_epi32(count), _mm_setr_epi32(0, 1, 2, 3));
}

// Byte offsets of four pixels, y * rowStride + x * pixelStride in wrapping 32-bit arithmetic
// with the coordinates truncated, exactly as IndexCalcT forms them; lanes from `count` on
// (past the end of a run, where the coordinates are arbitrary) get offset 0.
inline __m128i FourOffsets(__m128 x, __m128 y, __m128i rowStride, __m128i pixelStride,
                           int count) {
  const __m128i offsets = _mm_add_epi32(_mm_mullo_epi32(_mm_cvttps_epi32(y), rowStride),
                                        _mm_mullo_epi32(_mm_cvttps_epi32(x), pixelStride));
  return count >= 4 ? offsets : _mm_and_si128(offsets, FirstLanes(count));
}

// Stores the first `count` (1 to 4) pixels of a group.
template <int BitDepth>
inline void StorePixels(char* dst, const ChannelBlock& c, int count) {
  using Format = PixelFormatOf<BitDepth>;
  if (count >= 4) return Format::Store(dst, c);
  char group[4 * Format::kBytes];
  Format::Store(group, c);
  std::memcpy(dst, group, static_cast<size_t>(count) * Format::kBytes);
}

// The four pixels at base + the four byte offsets.
template <int BitDepth>
inline ChannelBlock LoadFourPixels(const char* base, __m128i offsets) {
  return PixelFormatOf<BitDepth>::Load(base + _mm_cvtsi128_si32(offsets),
                                       base + _mm_extract_epi32(offsets, 1),
                                       base + _mm_extract_epi32(offsets, 2),
                                       base + _mm_extract_epi32(offsets, 3));
}

#endif  // VT_RESAMPLE_PIXELBLOCKS_H
