#include <cmath>
#include <random>

#include "FakeEffect.h"
#include "hostsim/Sampling.h"

using namespace hostsim_test;

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

template <typename Pixel>
float Channel(const Pixel& p, int c) {
  const float v[4] = {static_cast<float>(p.alpha), static_cast<float>(p.red),
                      static_cast<float>(p.green), static_cast<float>(p.blue)};
  return v[c];
}

}  // namespace

// Sizes of one column and one row too: their only pixel is its own neighbour.
TEST(BuiltInSampler, MatchesTheBilinearReferenceEverywhereAtEveryDepth) {
  std::mt19937 rng(7);
  const std::pair<int, int> sizes[] = {{5, 4}, {1, 3}, {3, 1}};
  for (const auto& [width, height] : sizes) {
    SCOPED_TRACE(testing::Message() << width << "x" << height);
    World w8(Depth::k8, width, height, 0, 0, 12), w16(Depth::k16, width, height, 0, 0, 2),
        wf(Depth::kFloat, width, height);
    const std::pair<World*, float> ranges[] = {{&w8, 255}, {&w16, 32768}, {&wf, 4}};
    for (const auto& [w, max] : ranges) {
      std::uniform_real_distribution<float> d(0.0f, max);
      for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
          for (int c = 0; c < 4; ++c) w->Set(x, y, c, d(rng));
    }
    // Random positions from two pixels before to two after the buffer, every half pixel (where
    // integer depths round halves up) and every edge exactly.
    std::uniform_int_distribution<PF_Fixed> px(-2 * 65536, (width + 2) * 65536),
        py(-2 * 65536, (height + 2) * 65536);
    std::vector<std::pair<PF_Fixed, PF_Fixed>> positions;
    for (int i = 0; i < 1000; ++i) positions.emplace_back(px(rng), py(rng));
    for (PF_Fixed x = -32768; x <= width * 65536; x += 32768)
      for (PF_Fixed y = -32768; y <= height * 65536; y += 32768) positions.emplace_back(x, y);
    for (PF_Fixed e : {-1, 1, width * 65536 - 1, height * 65536 - 1}) {
      positions.insert(positions.end(), {{e, 0}, {0, e}});
    }
    for (const auto& [x, y] : positions) {
      PF_Pixel o8;
      PF_Pixel16 o16;
      PF_PixelFloat of;
      hostsim::SampleBilinear8(*w8.effectWorld(), x, y, &o8);
      hostsim::SampleBilinear16(*w16.effectWorld(), x, y, &o16);
      hostsim::SampleBilinearFloat(*wf.effectWorld(), x, y, &of);
      for (int c = 0; c < 4; ++c) {
        // Integer depths: the long double sum is exact here, so rounding halves up must agree.
        EXPECT_EQ(Channel(o8, c), std::floor(Reference(w8, c, x, y) + 0.5L)) << x << "," << y;
        EXPECT_EQ(Channel(o16, c), std::floor(Reference(w16, c, x, y) + 0.5L)) << x << "," << y;
        const long double rf = Reference(wf, c, x, y);
        EXPECT_NEAR(Channel(of, c), static_cast<double>(rf), 1e-6 * (1 + std::fabs(rf)));
      }
    }
  }
}

TEST(BuiltInSampler, NearestRoundsHalvesUpAndIsTransparentOutside) {
  World w(Depth::k16, 4, 1);
  for (int x = 0; x < 4; ++x) w.Set(x, 0, 1, 1000.0f * (x + 1));
  const std::pair<PF_Fixed, int> cases[] = {
      {2 * 65536 + 32768, 4000}, {2 * 65536 + 32767, 3000}, {-32768, 1000}, {-32769, 0}};
  PF_Pixel16 p;
  for (const auto& [x, red] : cases) {
    hostsim::SampleNearest16(*w.effectWorld(), x, 0, &p);
    EXPECT_EQ(p.red, red) << x;
  }
}
