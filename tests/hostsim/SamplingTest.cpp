#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "hostsim/Sampling.h"
#include "hostsim/World.h"

using hostsim::Depth;
using hostsim::World;

namespace {

// Bilinear reference in long double, written from the documented rule: outside [0, size)
// transparent, the neighbour past the last column or row is that edge pixel.
long double Reference(const World& w, int c, PF_Fixed fx, PF_Fixed fy) {
  const long double x = fx / 65536.0L, y = fy / 65536.0L;
  if (x < 0 || y < 0 || x >= w.width() || y >= w.height()) return 0;
  const int i = static_cast<int>(std::floor(x)), j = static_cast<int>(std::floor(y));
  const long double t = x - i, u = y - j;
  const int i1 = i + 1 < w.width() ? i + 1 : i, j1 = j + 1 < w.height() ? j + 1 : j;
  return (1 - t) * (1 - u) * w.Get(i, j, c) + t * (1 - u) * w.Get(i1, j, c) +
         (1 - t) * u * w.Get(i, j1, c) + t * u * w.Get(i1, j1, c);
}

void FillRandom(World* w, float max, std::mt19937* rng) {
  std::uniform_real_distribution<float> d(0.0f, max);
  for (int y = 0; y < w->height(); ++y)
    for (int x = 0; x < w->width(); ++x)
      for (int c = 0; c < 4; ++c) w->Set(x, y, c, d(*rng));
}

float Channel(const PF_Pixel& p, int c) {
  const A_u_char v[4] = {p.alpha, p.red, p.green, p.blue};
  return v[c];
}
float Channel(const PF_Pixel16& p, int c) {
  const A_u_short v[4] = {p.alpha, p.red, p.green, p.blue};
  return v[c];
}
float Channel(const PF_PixelFloat& p, int c) {
  const float v[4] = {p.alpha, p.red, p.green, p.blue};
  return v[c];
}

}  // namespace

TEST(BuiltInSampler, MatchesTheBilinearReferenceEverywhereAtEveryDepth) {
  std::mt19937 rng(7);
  World w8(Depth::k8, 5, 4, 0, 0, 12), w16(Depth::k16, 5, 4, 0, 0, 2), wf(Depth::kFloat, 5, 4);
  FillRandom(&w8, 255, &rng);
  FillRandom(&w16, 32768, &rng);
  FillRandom(&wf, 4, &rng);
  // Positions from two pixels before to two after the buffer, plus every edge exactly.
  std::uniform_int_distribution<PF_Fixed> px(-2 * 65536, 7 * 65536), py(-2 * 65536, 6 * 65536);
  std::vector<std::pair<PF_Fixed, PF_Fixed>> positions;
  for (int i = 0; i < 3000; ++i) positions.emplace_back(px(rng), py(rng));
  for (PF_Fixed e : {-1, 0, 1, 4 * 65536 - 1, 4 * 65536, 4 * 65536 + 32768, 5 * 65536 - 1,
                     5 * 65536}) {
    positions.emplace_back(e, 65536);
    positions.emplace_back(65536, e);
  }
  for (const auto& p : positions) {
    PF_Pixel o8;
    PF_Pixel16 o16;
    PF_PixelFloat of;
    hostsim::SampleBilinear8(*w8.effectWorld(), p.first, p.second, &o8);
    hostsim::SampleBilinear16(*w16.effectWorld(), p.first, p.second, &o16);
    hostsim::SampleBilinearFloat(*wf.effectWorld(), p.first, p.second, &of);
    for (int c = 0; c < 4; ++c) {
      // Integer depths: the long double sum is exact here, so rounding halves up must agree.
      EXPECT_EQ(Channel(o8, c), std::floor(Reference(w8, c, p.first, p.second) + 0.5L))
          << p.first << "," << p.second;
      EXPECT_EQ(Channel(o16, c), std::floor(Reference(w16, c, p.first, p.second) + 0.5L))
          << p.first << "," << p.second;
      const long double rf = Reference(wf, c, p.first, p.second);
      EXPECT_NEAR(Channel(of, c), static_cast<double>(rf), 1e-6 * (1 + std::fabs(rf)));
    }
  }
}

TEST(BuiltInSampler, EdgesTransparentOutsideAndLastColumnRepeated) {
  World w(Depth::k8, 3, 2);
  w.Fill(255, 200, 100, 50);
  w.Set(2, 0, 1, 90);  // last column, first row
  PF_Pixel p;
  hostsim::SampleBilinear8(*w.effectWorld(), 2 * 65536 + 40000, 0, &p);
  EXPECT_EQ(p.red, 90);  // between the last column and itself
  hostsim::SampleBilinear8(*w.effectWorld(), -1, 0, &p);
  EXPECT_EQ(p.alpha, 0);
  EXPECT_EQ(p.red, 0);
  hostsim::SampleBilinear8(*w.effectWorld(), 3 * 65536, 0, &p);
  EXPECT_EQ(p.alpha, 0);
  hostsim::SampleBilinear8(*w.effectWorld(), 0, 2 * 65536, &p);
  EXPECT_EQ(p.alpha, 0);
  hostsim::SampleBilinear8(*w.effectWorld(), 1 * 65536 + 65535, 1 * 65536 + 65535, &p);
  EXPECT_EQ(p.alpha, 255);  // bottom-right corner region still inside
  // Halfway between 200 and 90 is 145, exactly; between 11 and 20 rounds 15.5 up.
  hostsim::SampleBilinear8(*w.effectWorld(), 1 * 65536 + 32768, 0, &p);
  EXPECT_EQ(p.red, 145);
  w.Set(0, 1, 2, 11);
  w.Set(1, 1, 2, 20);
  hostsim::SampleBilinear8(*w.effectWorld(), 32768, 65536, &p);
  EXPECT_EQ(p.green, 16);
}

TEST(BuiltInSampler, NearestRoundsHalvesUpAndIsTransparentOutside) {
  World w(Depth::k16, 4, 1);
  for (int x = 0; x < 4; ++x) w.Set(x, 0, 1, 1000.0f * (x + 1));
  PF_Pixel16 p;
  hostsim::SampleNearest16(*w.effectWorld(), 2 * 65536 + 32768, 0, &p);
  EXPECT_EQ(p.red, 4000);
  hostsim::SampleNearest16(*w.effectWorld(), 2 * 65536 + 32767, 0, &p);
  EXPECT_EQ(p.red, 3000);
  hostsim::SampleNearest16(*w.effectWorld(), -32768, 0, &p);
  EXPECT_EQ(p.red, 1000);
  hostsim::SampleNearest16(*w.effectWorld(), -32769, 0, &p);
  EXPECT_EQ(p.red, 0);
}
