// Byte offsets of pixel positions and the load and store of runs of pixels.
#include "resample/ResampleTestSupport.h"

using namespace resample_test;

namespace {

// Independent model of the offsets: a conversion that yields INT32_MIN outside the int32
// range (and for NaN), then arithmetic modulo 2^32.
int32_t ModelOffset(float x, float y, int32_t rowStride, int32_t pixelStride, bool rounded) {
  auto convert = [rounded](float v) -> int64_t {
    if (!(std::fabs(v) < 2147483648.0f)) return std::numeric_limits<int32_t>::min();
    return static_cast<int32_t>(rounded ? std::nearbyint(v) : std::trunc(v));
  };
  const int64_t sum = convert(y) * rowStride + convert(x) * pixelStride;
  return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(sum)));
}

using IndexCalc = void (*)(const FGulpPt&, int32_t, int32_t, int32_t*);

}  // namespace

TEST(IndexCalc, BothRoutesMatchTheModelAndWriteTheirOwnExtent) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> coord(-5000.0f, 5000.0f);
  const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
  const float edgeValues[] = {2.9f, 0.5f, -0.5f, 1.5f, 2.5f, -2.5f, 3e9f, -3e9f, 1e6f, -0.0f, nan, inf};
  for (IndexCalc calc : {&IndexCalcT, &IndexCalcR}) {
    const bool rounded = calc == &IndexCalcR;
    SCOPED_TRACE(rounded ? "IndexCalcR" : "IndexCalcT");
    for (int len : {1, 7, 8, 13, 64}) {
      FGulpPt pt;
      for (int k = 0; k < 64; ++k) {  // the tail past len holds (1, 1)
        pt.x[k] = k < len ? (k < 12 ? edgeValues[k] : coord(rng)) : 1.0f;
        pt.y[k] = k < len ? (k < 12 ? edgeValues[(k + 4) % 12] : coord(rng)) : 1.0f;
      }
      pt.x.SetLen(len, 0);
      pt.y.SetLen(len, 0);
      const int32_t rowStride = 123456, pixelStride = -16;
      const int blockEnd = (len + 7) / 8 * 8;
      for (bool sse41 : {false, true}) {
        ScopedSse41Route route(sse41);
        int32_t out[64];
        std::fill(out, out + 64, -7);
        calc(pt, rowStride, pixelStride, out);
        for (int k = 0; k < 64; ++k) {
          // The vector route covers whole blocks only, the other exactly len.
          const int32_t expected = k < len ? ModelOffset(pt.x[k], pt.y[k], rowStride, pixelStride, rounded)
                                   : sse41 && k < blockEnd ? rowStride + pixelStride : -7;
          EXPECT_EQ(out[k], expected) << "len " << len << " k " << k << (sse41 ? " SSE4.1" : "");
        }
      }
    }
  }
}

// Scattered pixels loaded into runs of every length kind (whole groups of four and a tail),
// then stored consecutively: the pixels come back bit for bit, nothing past len is loaded
// into the runs or stored. Lanes past len point at a valid pixel, so a load past the end
// would show.
TEST(PixelAccess, LoadAndStoreRunsBitForBit) {
  const float nanBits = [] { uint32_t u = 0x7FC12345; float f; std::memcpy(&f, &u, 4); return f; }();
  for (int depth : {8, 16, 32}) {
    TestImage image(64, 3, depth);
    for (int x = 0; x < 64; ++x) image.Set(x, x % 3, {float(x % 2), float(x), float(63 - x), float(2 * x)});
    if (depth == 32) image.Set(63, 0, {-1e30f, 1e-40f, std::numeric_limits<float>::infinity(), nanBits});
    if (depth == 32) image.Set(62, 2, {1.0f, -0.25f, 3.75f, -0.0f});
    if (depth == 16) image.Set(63, 0, {65535, 32768, 256, 255});
    ResampleData rd = image.Record();
    for (int len : {64, 7, 6, 1}) {
      ForEachRoute([&] {
        SCOPED_TRACE(testing::Message() << depth << "-bit, len " << len);
        FGulpPt pt;
        for (int k = 0; k < 64; ++k) {
          pt.x[k] = k < len ? float(63 - k) : 1.0f;
          pt.y[k] = k < len ? float((63 - k) % 3) + 0.75f : 1.0f;  // truncated to the row
        }
        pt.x.SetLen(len, 0);
        pt.y.SetLen(len, 0);
        RGBAGulp loaded;
        FGulp* const channels[] = {&loaded.a, &loaded.r, &loaded.g, &loaded.b};
        for (FGulp* ch : channels) ch->Constant(-3.0f);
        SamplePix(&rd, pt, loaded);
        EXPECT_EQ(loaded.r.len, 64);  // lengths are left alone
        for (int k = len; k < 64; ++k)
          for (FGulp* ch : channels) ASSERT_EQ((*ch)[k], -3.0f) << "loaded past len at " << k;
        loaded.r.SetLen(len, 0);
        std::vector<char> out((len + 1) * rd.pixelBytes, 0x11);
        StorePix(&rd, loaded, out.data());
        for (int k = 0; k < len; ++k)
          EXPECT_EQ(std::memcmp(&out[k * rd.pixelBytes], image.At(63 - k, (63 - k) % 3), rd.pixelBytes), 0) << k;
        for (size_t b = len * rd.pixelBytes; b < out.size(); ++b) ASSERT_EQ(out[b], 0x11) << "stored past len";
      });
    }
  }
}

TEST(PixelAccess, IntegerStoresTruncateAndKeepLowBits) {
  RGBAGulp values;
  for (FGulp* ch : {&values.a, &values.r, &values.g, &values.b}) ch->SetLen(1, 0);
  values.a[0] = 254.9f, values.r[0] = 256.0f, values.g[0] = 65537.0f, values.b[0] = 32768.0f;
  ResampleData rd{};
  uint8_t px8[4];
  uint16_t px16[4];
  const uint16_t expected16[4] = {254, 256, 1, 32768};
  rd.bitDepth = 8;
  StorePix(&rd, values, px8);
  EXPECT_EQ(std::memcmp(px8, "\xFE\x00\x01\x00", 4), 0);  // 256: low 8 bits 0; 65537: 1
  rd.bitDepth = 16;
  StorePix(&rd, values, px16);
  EXPECT_EQ(std::memcmp(px16, expected16, 8), 0);
}
