// Byte offsets of pixel positions and the load and store of runs of pixels.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>

#include "resample/ResampleData.h"
#include "resample/ResampleTestSupport.h"

using namespace resample_test;

namespace {

// Independent model of the offsets: a conversion that yields INT32_MIN outside the int32
// range (and for NaN), then arithmetic modulo 2^32.
int32_t ConvertLikeHardware(float v, bool rounded) {
  if (!(std::fabs(v) < 2147483648.0f)) return std::numeric_limits<int32_t>::min();
  return static_cast<int32_t>(rounded ? std::nearbyint(v) : std::trunc(v));
}
int32_t ModelOffset(float x, float y, int32_t rowStride, int32_t pixelStride, bool rounded) {
  const int64_t sum = int64_t(ConvertLikeHardware(y, rounded)) * rowStride +
                      int64_t(ConvertLikeHardware(x, rounded)) * pixelStride;
  return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(sum)));
}

using IndexCalc = void (*)(const FGulpPt&, int32_t, int32_t, int32_t*);

}  // namespace

TEST(IndexCalc, TruncatingAndRoundingOffsetsOfOnePosition) {
  ForEachRoute([] {
    FGulpPt pt;
    pt.x.SetLen(1, 0);
    pt.y.SetLen(1, 0);
    pt.x[0] = 2.9f;
    pt.y[0] = 1.5f;
    int32_t out[64];
    IndexCalcT(pt, 1000, 4, out);
    EXPECT_EQ(out[0], 1008);
    IndexCalcR(pt, 1000, 4, out);
    EXPECT_EQ(out[0], 2012);
  });
}

TEST(IndexCalc, BothRoutesMatchTheModelAndWriteTheirOwnExtent) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> coord(-5000.0f, 5000.0f);
  const float edgeValues[] = {0.5f, -0.5f, 1.5f, 2.5f, -2.5f, 3e9f, -3e9f, 1e6f, -0.0f,
                            std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity()};
  for (IndexCalc calc : {&IndexCalcT, &IndexCalcR}) {
    const bool rounded = calc == &IndexCalcR;
    SCOPED_TRACE(rounded ? "IndexCalcR" : "IndexCalcT");
    for (int len : {1, 7, 8, 13, 64}) {
      FGulpPt pt;
      for (int k = 0; k < 64; ++k) {  // the tail past len holds (1, 1)
        pt.x[k] = k < len ? (k < 11 ? edgeValues[k] : coord(rng)) : 1.0f;
        pt.y[k] = k < len ? (k < 11 ? edgeValues[10 - k] : coord(rng)) : 1.0f;
      }
      pt.x.SetLen(len, 0);
      pt.y.SetLen(len, 0);
      const int32_t rowStride = 123456, pixelStride = -16;
      int32_t scalar[64], vector[64];
      std::fill(scalar, scalar + 64, -7);
      std::fill(vector, vector + 64, -7);
      {
        ScopedSse41Route route(false);
        calc(pt, rowStride, pixelStride, scalar);
      }
      {
        ScopedSse41Route route(true);
        calc(pt, rowStride, pixelStride, vector);
      }
      const int blockEnd = (len + 7) / 8 * 8;
      for (int k = 0; k < 64; ++k) {
        if (k < len) {
          const int32_t expected = ModelOffset(pt.x[k], pt.y[k], rowStride, pixelStride, rounded);
          EXPECT_EQ(scalar[k], expected) << "len " << len << " k " << k;
          EXPECT_EQ(vector[k], expected) << "len " << len << " k " << k;
        } else {
          EXPECT_EQ(scalar[k], -7) << "scalar route wrote past len at " << k;
          EXPECT_EQ(vector[k], k < blockEnd ? rowStride + pixelStride : -7)
              << "vector route covers whole blocks only, k " << k;
        }
      }
    }
  }
}

TEST(PixelAccess, LoadAndStoreRoundTripAtEveryDepth) {
  const float kNaNBits = [] { uint32_t u = 0x7FC12345; float f; std::memcpy(&f, &u, 4); return f; }();
  struct Case { int depth; Px pixel; };
  const Case cases[] = {
      {8, {255, 10, 20, 30}},
      {8, {0, 1, 254, 128}},
      {16, {32768, 0, 1, 12345}},
      {16, {65535, 32767, 256, 255}},
      {32, {1.0f, -0.25f, 3.75f, -0.0f}},
      {32, {-1e30f, 1e-40f, std::numeric_limits<float>::infinity(), kNaNBits}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.depth << "-bit " << c.pixel);
    ForEachRoute([&] {
      TestImage image(5, 4, c.depth);
      image.Set(3, 2, c.pixel);
      ResampleData rd = image.Record();
      FGulpPt pt;
      pt.x.SetLen(1, 0);
      pt.y.SetLen(1, 0);
      pt.x[0] = 3.0f;
      pt.y[0] = 2.0f;
      RGBAGulp loaded;
      SamplePix(&rd, pt, loaded);
      EXPECT_EQ(loaded.r.len, 64);  // lengths are left alone
      const float expected[4] = {c.pixel.a, c.pixel.r, c.pixel.g, c.pixel.b};
      const float got[4] = {loaded.a[0], loaded.r[0], loaded.g[0], loaded.b[0]};
      for (int ch = 0; ch < 4; ++ch) {
        if (c.depth == 32) {
          EXPECT_EQ(std::memcmp(&got[ch], &expected[ch], 4), 0) << ch;
        } else {
          EXPECT_EQ(got[ch], expected[ch]) << ch;
        }
      }

      loaded.r.SetLen(1, 0);
      char out[3 * 16];
      std::memset(out, 0x33, sizeof(out));
      StorePix(&rd, loaded, out);
      EXPECT_EQ(std::memcmp(out, image.At(3, 2), rd.pixelBytes), 0);
      for (size_t b = rd.pixelBytes; b < sizeof(out); ++b) ASSERT_EQ(out[b], 0x33) << "wrote past one pixel";
    });
  }
}

TEST(PixelAccess, FullRunLoadsScatteredPixelsAndStoresExactly64) {
  for (int depth : {8, 16, 32}) {
    SCOPED_TRACE(depth);
    TestImage image(64, 3, depth);
    for (int x = 0; x < 64; ++x) image.Set(x, x % 3, {float(x % 2), float(x), float(63 - x), float(2 * x)});
    ResampleData rd = image.Record();
    FGulpPt pt;
    for (int k = 0; k < 64; ++k) {
      pt.x[k] = float(63 - k);
      pt.y[k] = float((63 - k) % 3) + 0.75f;  // truncated to the row
    }
    RGBAGulp loaded;
    SamplePix(&rd, pt, loaded);
    std::vector<char> out(65 * rd.pixelBytes, 0x11);
    StorePix(&rd, loaded, out.data());
    for (int k = 0; k < 64; ++k) EXPECT_EQ(TestImage::Decode(&out[k * rd.pixelBytes], depth), image.Get(63 - k, (63 - k) % 3));
    for (size_t b = 64 * rd.pixelBytes; b < out.size(); ++b) ASSERT_EQ(out[b], 0x11);
  }
}

TEST(PixelAccess, IntegerStoresTruncateAndKeepLowBits) {
  RGBAGulp values;
  for (FGulp* ch : {&values.a, &values.r, &values.g, &values.b}) ch->SetLen(1, 0);
  values.a[0] = 254.9f;
  values.r[0] = 256.0f;   // low 8 bits: 0
  values.g[0] = 65537.0f; // low 16 bits: 1
  values.b[0] = 32768.0f;
  ResampleData rd{};
  rd.bitDepth = 8;
  uint8_t px8[4];
  StorePix(&rd, values, px8);
  EXPECT_EQ(px8[0], 254);
  EXPECT_EQ(px8[1], 0);
  EXPECT_EQ(px8[2], 1);
  EXPECT_EQ(px8[3], 0);
  rd.bitDepth = 16;
  uint16_t px16[4];
  StorePix(&rd, values, px16);
  EXPECT_EQ(px16[0], 254);
  EXPECT_EQ(px16[1], 256);
  EXPECT_EQ(px16[2], 1);
  EXPECT_EQ(px16[3], 32768);
}
