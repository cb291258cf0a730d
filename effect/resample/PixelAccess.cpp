// Byte offsets of pixel positions, and the load and store of runs of pixels.
#include <smmintrin.h>

#include <cstring>

#include "gulp/CpuFeatures.h"
#include "resample/PixelBlocks.h"
#include "resample/ResampleData.h"

namespace {

// Offsets in whole blocks of 8 with the SSE4.1 32-bit multiply; Convert turns 4 floats into
// 4 int32 (truncating or rounding), exactly as the scalar route's conversion does.
template <__m128i (*Convert)(__m128)>
void IndexCalcBlocks(const FGulpPt& pt, int32_t rowStride, int32_t pixelStride, int32_t* out) {
  const int n = pt.x.len;
  const float* xs = pt.x.data();
  const float* ys = pt.y.data();
  const __m128i rowStrides = _mm_set1_epi32(rowStride);
  const __m128i pixelStrides = _mm_set1_epi32(pixelStride);
  for (int i = 0; i < n; i += FGulp::kBlock) {
    for (int half = 0; half < FGulp::kBlock; half += 4) {
      const __m128i x = Convert(_mm_load_ps(xs + i + half));
      const __m128i y = Convert(_mm_load_ps(ys + i + half));
      const __m128i offsets =
          _mm_add_epi32(_mm_mullo_epi32(y, rowStrides), _mm_mullo_epi32(x, pixelStrides));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i + half), offsets);
    }
  }
}

__m128i TruncateLanes(__m128 v) { return _mm_cvttps_epi32(v); }
__m128i RoundLanes(__m128 v) { return _mm_cvtps_epi32(v); }

// The conversion instructions give INT32_MIN for NaN and out-of-range values, like the vector
// lanes; the products wrap in unsigned arithmetic, as the vector multiply does.
int32_t TruncateScalar(float v) { return _mm_cvtt_ss2si(_mm_set_ss(v)); }
int32_t RoundScalar(float v) { return _mm_cvt_ss2si(_mm_set_ss(v)); }

template <int32_t (*Convert)(float)>
void IndexCalcScalar(const FGulpPt& pt, int32_t rowStride, int32_t pixelStride, int32_t* out) {
  const int n = pt.x.len;
  for (int k = 0; k < n; ++k) {
    const uint32_t y = static_cast<uint32_t>(Convert(pt.y[k]));
    const uint32_t x = static_cast<uint32_t>(Convert(pt.x[k]));
    out[k] = static_cast<int32_t>(y * static_cast<uint32_t>(rowStride) +
                                  x * static_cast<uint32_t>(pixelStride));
  }
}

}  // namespace

void IndexCalcT(const FGulpPt& pt, int32_t rowStride, int32_t pixelStride, int32_t* out) {
  if (CpuHasSSE41())
    IndexCalcBlocks<TruncateLanes>(pt, rowStride, pixelStride, out);
  else
    IndexCalcScalar<TruncateScalar>(pt, rowStride, pixelStride, out);
}

void IndexCalcR(const FGulpPt& pt, int32_t rowStride, int32_t pixelStride, int32_t* out) {
  if (CpuHasSSE41())
    IndexCalcBlocks<RoundLanes>(pt, rowStride, pixelStride, out);
  else
    IndexCalcScalar<RoundScalar>(pt, rowStride, pixelStride, out);
}

namespace {

// Whole groups of four pixels through the vector load or store, then the rest one by one.
template <int BitDepth>
void LoadRun(const char* base, const int32_t* offsets, int n, RGBAGulp& out) {
  int k = 0;
  for (; k + 4 <= n; k += 4) {
    const __m128i group = _mm_loadu_si128(reinterpret_cast<const __m128i*>(offsets + k));
    const ChannelBlock c = LoadFourPixels<BitDepth>(base, group);
    _mm_store_ps(out.a.data() + k, c.a);
    _mm_store_ps(out.r.data() + k, c.r);
    _mm_store_ps(out.g.data() + k, c.g);
    _mm_store_ps(out.b.data() + k, c.b);
  }
  for (; k < n; ++k) {
    const char* p = base + offsets[k];
    const ChannelBlock c = PixelFormatOf<BitDepth>::Load(p, p, p, p);
    out.a[k] = _mm_cvtss_f32(c.a);
    out.r[k] = _mm_cvtss_f32(c.r);
    out.g[k] = _mm_cvtss_f32(c.g);
    out.b[k] = _mm_cvtss_f32(c.b);
  }
}

template <int BitDepth>
void StoreRun(const RGBAGulp& in, int n, char* dst) {
  using Format = PixelFormatOf<BitDepth>;
  int k = 0;
  for (; k + 4 <= n; k += 4, dst += 4 * Format::kBytes) {
    Format::Store(dst, ChannelBlock{_mm_load_ps(in.a.data() + k), _mm_load_ps(in.r.data() + k),
                                    _mm_load_ps(in.g.data() + k), _mm_load_ps(in.b.data() + k)});
  }
  if (k < n) {
    // The last one to three pixels go through a full group on the stack.
    alignas(16) float a[4] = {}, r[4] = {}, g[4] = {}, b[4] = {};
    const int rest = n - k;
    for (int l = 0; l < rest; ++l) {
      a[l] = in.a[k + l];
      r[l] = in.r[k + l];
      g[l] = in.g[k + l];
      b[l] = in.b[k + l];
    }
    char group[4 * Format::kBytes];
    Format::Store(group, ChannelBlock{_mm_load_ps(a), _mm_load_ps(r), _mm_load_ps(g),
                                      _mm_load_ps(b)});
    std::memcpy(dst, group, static_cast<size_t>(rest) * Format::kBytes);
  }
}

}  // namespace

void SamplePix(const ResampleData* rd, const FGulpPt& pt, RGBAGulp& out) {
  int32_t offsets[FGulp::kCapacity];
  const int n = pt.x.len;
  IndexCalcT(pt, rd->rowBytes, rd->pixelBytes, offsets);
  ForPixelDepth(
      rd->bitDepth,
      [&](auto depth) { LoadRun<decltype(depth)::kBits>(rd->baseAddr, offsets, n, out); },
      [] {});
}

void StorePix(const ResampleData* rd, const RGBAGulp& in, void* dst) {
  const int n = in.r.len;
  char* p = static_cast<char*>(dst);
  ForPixelDepth(
      rd->bitDepth, [&](auto depth) { StoreRun<decltype(depth)::kBits>(in, n, p); }, [] {});
}
