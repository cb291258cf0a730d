// Helpers of the resampling tests: images with padded rows at every depth, running a sampler
// over a list of positions, and switching the rounding route.
#ifndef VT_TESTS_RESAMPLE_SUPPORT_H
#define VT_TESTS_RESAMPLE_SUPPORT_H

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <ostream>
#include <random>
#include <thread>
#include <vector>

#include "gulp/CpuFeatures.h"
#include "resample/KernelTables.h"
#include "resample/ResampleData.h"
#include "resample/Samplers.h"
#include "support/KernelTablesReset.h"

namespace resample_test {

struct Px {
  float a, r, g, b;
  bool operator==(const Px& o) const { return a == o.a && r == o.r && g == o.g && b == o.b; }
};
inline std::ostream& operator<<(std::ostream& os, const Px& p) {
  return os << "(a " << p.a << ", r " << p.r << ", g " << p.g << ", b " << p.b << ")";
}

inline int PixelBytesOf(int depth) { return depth == 8 ? 4 : depth == 16 ? 8 : 16; }
inline float ChannelMax(int depth) { return depth == 8 ? 255.0f : depth == 16 ? 32768.0f : 1.0f; }
constexpr uint8_t kPaddingByte = 0xA5;  // rows end in this, so a read of padding shows

// An image whose rows are longer than its pixels; the buffer is exactly rows * rowBytes, so a
// read before or after it is caught by the address sanitizer.
struct TestImage {
  int width, height, depth, pixelBytes, rowBytes;
  std::vector<char> bytes;

  TestImage(int w, int h, int bitDepth, int paddingBytes = 24)
      : width(w), height(h), depth(bitDepth), pixelBytes(PixelBytesOf(bitDepth)),
        rowBytes(w * PixelBytesOf(bitDepth) + paddingBytes),
        bytes(static_cast<size_t>(rowBytes) * h, static_cast<char>(kPaddingByte)) {
    Fill({0, 0, 0, 0});
  }

  char* At(int x, int y) { return bytes.data() + static_cast<size_t>(y) * rowBytes + x * pixelBytes; }

  // Channels in memory order: 8 and 16-bit unsigned integers (values converted), or floats.
  void Set(int x, int y, const Px& p) {
    const float ch[4] = {p.a, p.r, p.g, p.b};
    const uint8_t u8[4] = {uint8_t(ch[0]), uint8_t(ch[1]), uint8_t(ch[2]), uint8_t(ch[3])};
    const uint16_t u16[4] = {uint16_t(ch[0]), uint16_t(ch[1]), uint16_t(ch[2]), uint16_t(ch[3])};
    const void* src = depth == 8 ? static_cast<const void*>(u8) : depth == 16 ? static_cast<const void*>(u16) : ch;
    std::memcpy(At(x, y), src, pixelBytes);
  }
  Px Get(int x, int y) { return Decode(At(x, y), depth); }
  void Fill(const Px& p) {
    for (int y = 0; y < height; ++y)
      for (int x = 0; x < width; ++x) Set(x, y, p);
  }
  static Px Decode(const char* src, int depth) {
    uint8_t u8[4];
    uint16_t u16[4];
    float ch[4];
    void* dst = depth == 8 ? static_cast<void*>(u8) : depth == 16 ? static_cast<void*>(u16) : ch;
    std::memcpy(dst, src, PixelBytesOf(depth));
    for (int c = 0; c < 4 && depth != 32; ++c) ch[c] = depth == 8 ? u8[c] : u16[c];
    return {ch[0], ch[1], ch[2], ch[3]};
  }

  // The record as the row callbacks fill it, without a kernel.
  ResampleData Record() {
    ResampleData rd{};
    rd.baseAddr = bytes.data();
    rd.rowBytes = rowBytes, rd.pixelBytes = pixelBytes, rd.bitDepth = depth;
    rd.width = width, rd.height = height;
    rd.colorMax = depth == 32 ? 1.0e10f : ChannelMax(depth), rd.alphaMax = ChannelMax(depth);
    return rd;
  }
};

using SamplerFunc = void (*)(ResampleData*, const FGulpPt&, void*);

// Runs a sampler over the positions (in runs of up to 64) and returns the pixels it wrote;
// checks that nothing is written past the run.
inline std::vector<Px> RunSampler(SamplerFunc sampler, ResampleData rd, const std::vector<float>& xs,
                                  const std::vector<float>& ys) {
  std::vector<Px> result;
  for (size_t start = 0; start < xs.size(); start += 64) {
    const int n = static_cast<int>(std::min<size_t>(64, xs.size() - start));
    FGulpPt pos;
    pos.x.SetLen(n, 0);
    pos.y.SetLen(n, 0);
    for (int k = 0; k < n; ++k) pos.x[k] = xs[start + k], pos.y[k] = ys[start + k];
    std::vector<char> out(static_cast<size_t>(n + 2) * rd.pixelBytes, 0x5A);
    sampler(&rd, pos, out.data());
    for (size_t b = static_cast<size_t>(n) * rd.pixelBytes; b < out.size(); ++b)
      EXPECT_EQ(out[b], 0x5A) << "byte written past the run at " << b;
    for (int k = 0; k < n; ++k) result.push_back(TestImage::Decode(out.data() + k * rd.pixelBytes, rd.bitDepth));
  }
  return result;
}

inline Px RunOne(SamplerFunc sampler, const ResampleData& rd, float x, float y) {
  return RunSampler(sampler, rd, {x}, {y}).at(0);
}

// Sets or clears the SSE4.1 bit of the feature word for one scope.
struct ScopedSse41Route {
  explicit ScopedSse41Route(bool on) : saved(cpu_features.load()) {
    cpu_features.store(on ? (saved | kCpuSSE41) : (saved & ~kCpuSSE41));
  }
  ~ScopedSse41Route() { cpu_features.store(saved); }
  int32_t saved;
};

template <class Body>
void ForEachRoute(Body body) {
  for (bool sse41 : {false, true}) {
    SCOPED_TRACE(sse41 ? "SSE4.1 route" : "conversion route");
    ScopedSse41Route route(sse41);
    body();
  }
}

template <class Body>
void ForEachDepthAndRoute(Body body) {
  for (int depth : {8, 16, 32}) {
    SCOPED_TRACE(testing::Message() << depth << "-bit");
    ForEachRoute([&] { body(depth); });
  }
}

// Independent kernels for expectations: normalised sinc products and the general B, C cubic
// with B = C = 1/3, in long double with the true pi. lobes 2 or 3 is Lanczos, 0 Mitchell.
inline long double ReferenceKernel(int lobes, long double d) {
  const long double pi = 3.141592653589793238462643383279502884L;
  auto sinc = [&](long double v) { return v == 0 ? 1.0L : std::sin(pi * v) / (pi * v); };
  if (lobes != 0) return d < lobes ? sinc(d) * sinc(d / lobes) : 0.0L;
  const long double B = 1.0L / 3, C = 1.0L / 3;
  if (d < 1) return ((12 - 9 * B - 6 * C) * d * d * d + (-18 + 12 * B + 6 * C) * d * d + (6 - 2 * B)) / 6;
  if (d < 2)
    return ((-B - 6 * C) * d * d * d + (6 * B + 30 * C) * d * d + (-12 * B - 48 * C) * d + (8 * B + 24 * C)) / 6;
  return 0.0L;
}

// The three kernels as the tables and the sampler's record describe them.
struct Kernel {
  const char* name;
  int lobes;  // 0: Mitchell-Netravali
  int taps, tapOffset, cellFloats;
};
constexpr Kernel kKernels[] = {{"Lanczos-2", 2, 4, 1, 16}, {"Lanczos-3", 3, 6, 2, 40}, {"Mitchell", 0, 4, 1, 16}};

// The image's record with the kernel k and the process's table of it.
inline ResampleData KernelRecord(TestImage& image, const Kernel& k) {
  float* tables[3] = {};
  EXPECT_EQ(BuildSampleFilters(nullptr, tables[0], tables[1], tables[2]), PF_Err_NONE);
  ResampleData rd = image.Record();
  rd.tapsX = rd.tapsY = k.taps, rd.tapOffsetX = rd.tapOffsetY = k.tapOffset;
  rd.phasesPerPixel = 64.0f, rd.phaseStride = float(k.cellFloats);
  rd.kernelTable = tables[k.lobes == 2 ? 0 : k.lobes == 3 ? 1 : 2];  // by kind, not address
  return rd;
}

// The unnormalised weight of tap (i, j) at the sub-pixel phase (phaseX, phaseY), in pixels.
inline long double ReferenceTapWeight(const Kernel& k, int i, int j, long double phaseX, long double phaseY) {
  return ReferenceKernel(k.lobes, std::fabs(j - k.tapOffset - phaseY)) *
         ReferenceKernel(k.lobes, std::fabs(i - k.tapOffset - phaseX));
}

}  // namespace resample_test

#endif
