// Byte offsets of pixel positions, and the load and store of runs of pixels.
#include <smmintrin.h>

#include <cstring>

#include "gulp/CpuFeatures.h"
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

// Low bits of a value truncated toward zero (no clamp: the samplers deliver in-range values).
int32_t TruncateToInt(float v) { return _mm_cvtt_ss2si(_mm_set_ss(v)); }

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

void SamplePix(const ResampleData* rd, const FGulpPt& pt, RGBAGulp& out) {
  int32_t offsets[FGulp::kCapacity];
  const int n = pt.x.len;
  IndexCalcT(pt, rd->rowBytes, rd->pixelBytes, offsets);
  switch (rd->bitDepth) {
    case 8:
      for (int k = 0; k < n; ++k) {
        const unsigned char* p = reinterpret_cast<const unsigned char*>(rd->baseAddr + offsets[k]);
        out.a[k] = static_cast<float>(p[0]);
        out.r[k] = static_cast<float>(p[1]);
        out.g[k] = static_cast<float>(p[2]);
        out.b[k] = static_cast<float>(p[3]);
      }
      break;
    case 16:
      for (int k = 0; k < n; ++k) {
        const char* p = rd->baseAddr + offsets[k];
        uint16_t channels[4];
        std::memcpy(channels, p, sizeof(channels));
        out.a[k] = static_cast<float>(channels[0]);
        out.r[k] = static_cast<float>(channels[1]);
        out.g[k] = static_cast<float>(channels[2]);
        out.b[k] = static_cast<float>(channels[3]);
      }
      break;
    case 32:
      for (int k = 0; k < n; ++k) {
        const char* p = rd->baseAddr + offsets[k];
        std::memcpy(&out.a[k], p, sizeof(float));
        std::memcpy(&out.r[k], p + 4, sizeof(float));
        std::memcpy(&out.g[k], p + 8, sizeof(float));
        std::memcpy(&out.b[k], p + 12, sizeof(float));
      }
      break;
    default:
      break;
  }
}

void StorePix(const ResampleData* rd, const RGBAGulp& in, void* dst) {
  const int n = in.r.len;
  char* p = static_cast<char*>(dst);
  switch (rd->bitDepth) {
    case 8:
      for (int k = 0; k < n; ++k, p += 4) {
        const unsigned char channels[4] = {
            static_cast<unsigned char>(TruncateToInt(in.a[k])),
            static_cast<unsigned char>(TruncateToInt(in.r[k])),
            static_cast<unsigned char>(TruncateToInt(in.g[k])),
            static_cast<unsigned char>(TruncateToInt(in.b[k]))};
        std::memcpy(p, channels, sizeof(channels));
      }
      break;
    case 16:
      for (int k = 0; k < n; ++k, p += 8) {
        const uint16_t channels[4] = {static_cast<uint16_t>(TruncateToInt(in.a[k])),
                                      static_cast<uint16_t>(TruncateToInt(in.r[k])),
                                      static_cast<uint16_t>(TruncateToInt(in.g[k])),
                                      static_cast<uint16_t>(TruncateToInt(in.b[k]))};
        std::memcpy(p, channels, sizeof(channels));
      }
      break;
    case 32:
      for (int k = 0; k < n; ++k, p += 16) {
        std::memcpy(p, &in.a[k], sizeof(float));
        std::memcpy(p + 4, &in.r[k], sizeof(float));
        std::memcpy(p + 8, &in.g[k], sizeof(float));
        std::memcpy(p + 12, &in.b[k], sizeof(float));
      }
      break;
    default:
      break;
  }
}
