// Nearest, bilinear and kernel samplers: edge rules, rounding, clipping, renormalisation,
// the phase just below zero and non-finite positions, at every depth and on both routes.
#include "resample/ResampleTestSupport.h"

using namespace resample_test;

namespace {

const Px kZero{0, 0, 0, 0};

// A different value in every channel of every pixel, within 0..255 so it fits all depths;
// float red is negative and alpha above 1, which no sampler but the kernel one clips.
void FillDistinct(TestImage& image) {
  const float shift = image.depth == 32 ? 100.0f : 0.0f;
  for (int y = 0; y < image.height; ++y)
    for (int x = 0; x < image.width; ++x)
      image.Set(x, y, {200.0f, float(10 * x + y + 1) - shift, float(100 + 7 * y), float(3 * x + 1)});
}

// The kernel sampler's value of one channel, evaluated independently: the phase quantised
// down to 64ths, long-double weights of the inside taps, renormalised; before rounding and
// clipping.
double ReferenceKernelSample(TestImage& image, const Kernel& k, float x, float y, float Px::*ch) {
  const double fx = std::floor(double(x)), fy = std::floor(double(y));
  const long double phaseX = std::floor((x - fx) * 64.0) / 64.0L, phaseY = std::floor((y - fy) * 64.0) / 64.0L;
  long double sum = 0, weights = 0;
  for (int j = 0; j < k.taps; ++j) {
    const int row = int(fy) - k.tapOffset + j;
    for (int i = 0; i < k.taps; ++i) {
      const int col = int(fx) - k.tapOffset + i;
      if (row < 0 || row >= image.height || col < 0 || col >= image.width) continue;
      const long double w = ReferenceTapWeight(k, i, j, phaseX, phaseY);
      sum += w * (image.Get(col, row).*ch), weights += w;
    }
  }
  return weights == 0 ? 0.0 : double(sum / weights);
}

constexpr float Px::*kChannels[] = {&Px::a, &Px::r, &Px::g, &Px::b};

}  // namespace

// round(x) halves to even; the edge pixel repeats for one pixel outside, then 0.
TEST(NearSampler, PicksTheRoundedPixel) {
  std::vector<float> xs{2.5f, 3.5f, 4.2f, -0.5f, -1.4f, -1.6f, 7.4f, 7.6f, 2, 2, 2, 2};
  std::vector<float> ys{0, 0, 3.7f, 2, 3, 3, 3, 3, -1.4f, -1.6f, 6.4f, 6.6f};
  std::mt19937 rng(3);
  std::uniform_real_distribution<float> coord(-3.0f, 10.0f);
  while (xs.size() < 150) xs.push_back(coord(rng)), ys.push_back(coord(rng));
  ForEachDepthAndRoute([&](int depth) {
    TestImage image(7, 6, depth);
    FillDistinct(image);
    const std::vector<Px> got = RunSampler(&NearSampler, image.Record(), xs, ys);
    for (size_t k = 0; k < xs.size(); ++k) {
      const int col = int(std::nearbyint(xs[k])), row = int(std::nearbyint(ys[k]));
      const bool inside = col >= -1 && col <= 7 && row >= -1 && row <= 6;
      const Px expected = inside ? image.Get(std::clamp(col, 0, 6), std::clamp(row, 0, 5)) : kZero;
      EXPECT_EQ(got[k], expected) << "at (" << xs[k] << ", " << ys[k] << ")";
    }
  });
}

// Content where 0 <= x < width and 0 <= y < height (the last column and row repeat towards
// width and height), 0 beyond; integral positions give the pixel itself.
TEST(BiLinSampler, BlendsTheFourNeighbours) {
  std::vector<float> xs{-0.01f, 6.5f, 6.999f, 7, 3, 3, 3, 6.5f}, ys{3, 3, 3, 3, -0.01f, 4.5f, 5, 4.5f};
  for (int y = 0; y < 5; ++y)
    for (int x = 0; x < 7; ++x) xs.push_back(float(x)), ys.push_back(float(y));
  std::mt19937 rng(11);
  std::uniform_real_distribution<float> coord(0.0f, 6.99f);
  while (xs.size() < 150) xs.push_back(coord(rng)), ys.push_back(coord(rng) * 0.7f);
  ForEachDepthAndRoute([&](int depth) {
    TestImage image(7, 5, depth);
    FillDistinct(image);
    const std::vector<Px> got = RunSampler(&BiLinSampler, image.Record(), xs, ys);
    for (size_t k = 0; k < xs.size(); ++k) {
      SCOPED_TRACE(testing::Message() << "at (" << xs[k] << ", " << ys[k] << ")");
      if (!(xs[k] >= 0 && xs[k] < 7 && ys[k] >= 0 && ys[k] < 5)) {
        EXPECT_EQ(got[k], kZero);
        continue;
      }
      const int ix = int(std::floor(xs[k])), iy = int(std::floor(ys[k]));
      const double fx = xs[k] - ix, fy = ys[k] - iy;
      const int x1 = std::min(ix + 1, 6), y1 = std::min(iy + 1, 4);
      const double tol = fx == 0 && fy == 0 ? 0.0 : depth == 32 ? 1e-4 : 0.5 + 1e-3;
      for (float Px::*ch : kChannels) {
        const double top = (1 - fx) * (image.Get(ix, iy).*ch) + fx * (image.Get(x1, iy).*ch);
        const double bottom = (1 - fx) * (image.Get(ix, y1).*ch) + fx * (image.Get(x1, y1).*ch);
        EXPECT_NEAR(got[k].*ch, (1 - fy) * top + fy * bottom, tol);
      }
    }
  });
}

TEST(BiLinSampler, MidpointsRoundHalvesToEven) {
  for (int depth : {8, 16}) {
    const float b = depth == 8 ? 10.0f : 1000.0f;
    TestImage image(4, 4, depth);
    image.Set(0, 1, {b, b, b + 1, b});
    image.Set(1, 1, {b + 1, b + 1, b + 2, b + 1});
    image.Set(2, 2, {b + 2, b + 1, b, b});
    image.Set(2, 3, {b + 1, b + 2, b + 1, b});
    ForEachRoute([&] {
      EXPECT_EQ(RunOne(&BiLinSampler, image.Record(), 0.5f, 1.0f), (Px{b, b, b + 2, b})) << depth;
      EXPECT_EQ(RunOne(&BiLinSampler, image.Record(), 2.0f, 2.5f), (Px{b + 2, b + 2, b, b})) << depth;
    });
  }
}

// At the integer depths the renormalised weights round back to the value exactly: a uniform
// image stays uniform to its edges and beyond, and Lanczos reproduces any image at integral
// positions.
TEST(KernelSampler, IntegerDepthsReproduceExactly) {
  std::vector<float> xs, ys, gridX, gridY;
  for (float y = -0.5f; y <= 4.5f; y += 0.37f)
    for (float x = -0.5f; x <= 5.5f; x += 0.29f) xs.push_back(x), ys.push_back(y);
  for (int y = 0; y < 5; ++y)
    for (int x = 0; x < 6; ++x) gridX.push_back(float(x)), gridY.push_back(float(y));
  std::mt19937 rng(5);
  for (int depth : {8, 16}) {
    const float m = ChannelMax(depth);
    TestImage uniform(6, 5, depth), random(6, 5, depth);
    uniform.Fill({m, 100, 37, 200});
    std::uniform_int_distribution<int> value(0, int(m));
    auto v = [&] { return float(value(rng)); };
    for (int y = 0; y < 5; ++y)
      for (int x = 0; x < 6; ++x) random.Set(x, y, {v(), v(), v(), v()});
    ForEachRoute([&] {
      for (const Kernel& k : kKernels) {
        SCOPED_TRACE(testing::Message() << k.name << " " << depth << "-bit");
        for (const Px& p : RunSampler(&Sampler, KernelRecord(uniform, k), xs, ys)) EXPECT_EQ(p, uniform.Get(0, 0));
        if (k.lobes == 0) continue;
        const std::vector<Px> got = RunSampler(&Sampler, KernelRecord(random, k), gridX, gridY);
        for (size_t n = 0; n < got.size(); ++n) EXPECT_EQ(got[n], random.Get(int(gridX[n]), int(gridY[n])));
      }
    });
  }
}

// Against the independent evaluation, clipped to 0 .. max (alpha 1 at float depth, colour
// 1e10): random images with positions at the corners, where the kernel is renormalised over
// the taps inside, and a sharp edge, where Lanczos rings and float colour overshoots. The
// integer depths may differ by one in the rounding.
TEST(KernelSampler, MatchesIndependentWeightsRenormalisedAndClipped) {
  std::mt19937 rng(17);
  std::uniform_real_distribution<float> cx(0.0f, 7.0f), cy(0.0f, 6.0f), unit(0.0f, 1.0f);
  std::vector<float> xs{0.3f, 0.0f, 6.9f}, ys{0.6f, 5.95f, 0.0f}, edgeX, edgeY;
  while (xs.size() < 80) xs.push_back(cx(rng)), ys.push_back(cy(rng));
  for (int s = 0; s <= 11 * 16; ++s) edgeX.push_back(s / 16.0f), edgeY.push_back(1.0f);
  ForEachDepthAndRoute([&](int depth) {
    const float m = ChannelMax(depth), colour = depth == 32 ? 5.0f : m;
    TestImage random(8, 7, depth), edge(12, 3, depth);
    auto value = [&] { return depth == 32 ? unit(rng) : std::floor(m * unit(rng)); };
    for (int y = 0; y < 7; ++y)
      for (int x = 0; x < 8; ++x) random.Set(x, y, {value(), value(), value(), value()});
    for (int y = 0; y < 3; ++y)
      for (int x = 6; x < 12; ++x) edge.Set(x, y, {m, colour, colour, colour});
    for (TestImage* image : {&random, &edge}) {
      const std::vector<float>& px = image == &edge ? edgeX : xs;
      const std::vector<float>& py = image == &edge ? edgeY : ys;
      for (const Kernel& k : kKernels) {
        const std::vector<Px> got = RunSampler(&Sampler, KernelRecord(*image, k), px, py);
        bool overshootSeen = false;
        for (size_t n = 0; n < got.size(); ++n) {
          for (float Px::*ch : kChannels) {
            const double raw = ReferenceKernelSample(*image, k, px[n], py[n], ch);
            const double upper = ch == &Px::a ? m : (depth == 32 ? 1e10 : m);
            const double expected = std::clamp(depth == 32 ? raw : std::nearbyint(raw), 0.0, upper);
            EXPECT_NEAR(got[n].*ch, expected, depth == 32 ? 2e-5 * std::max(1.0, expected) : 1.0)
                << k.name << " at (" << px[n] << ", " << py[n] << ")";
            overshootSeen |= got[n].r > colour;
          }
        }
        if (image != &edge) continue;
        EXPECT_TRUE(overshootSeen || depth != 32 || k.lobes == 0) << k.name << ": float colour clipped at 1";
        if (k.lobes == 2) {  // half-way taps (-1/16, 9/16, 9/16, -1/16) in front of and behind the edge
          EXPECT_EQ(got[4 * 16 + 8].r, 0.0f);
          EXPECT_EQ(got[6 * 16 + 8].a, m);
        }
      }
    }
  });
}

TEST(KernelSampler, FloatColourIsCappedAtTenBillion) {
  TestImage image(5, 5, 32);
  image.Fill({2.0f, 3e10f, 1e9f, -4.0f});
  for (const Kernel& k : kKernels) {
    const Px got = RunOne(&Sampler, KernelRecord(image, k), 2.3f, 2.6f);
    EXPECT_EQ(got, (Px{1.0f, 1e10f, got.g, 0.0f})) << k.name;
    EXPECT_NEAR(got.g, 1e9f, 1e3) << k.name;  // below the cap: passes, renormalised
  }
}

TEST(KernelSampler, CoordinateJustBelowZeroUsesTheLastPhase) {
  ForEachDepthAndRoute([](int depth) {
    TestImage image(6, 6, depth);
    FillDistinct(image);
    for (const Kernel& k : kKernels) {
      SCOPED_TRACE(k.name);
      const ResampleData rd = KernelRecord(image, k);
      const float lastPhase = -0.015625f;  // floor -1, phase 63
      for (float below : {-1e-30f, -std::ldexp(1.0f, -26), -1e-38f}) {
        EXPECT_EQ(RunOne(&Sampler, rd, below, 2.0f), RunOne(&Sampler, rd, lastPhase, 2.0f));
        EXPECT_EQ(RunOne(&Sampler, rd, 2.5f, below), RunOne(&Sampler, rd, 2.5f, lastPhase));
        EXPECT_EQ(RunOne(&Sampler, rd, below, below), RunOne(&Sampler, rd, lastPhase, lastPhase));
      }
    }
  });
}

// Non-finite and far positions are outside; an image without pixels gives 0 without a read.
TEST(Samplers, NonFiniteAndFarPositionsAndEmptyImagesGiveZero) {
  const float inf = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
  const std::vector<float> xs{nan, 2, nan, inf, -inf, 2, 2, 1e30f, -1e30f, 2, 3e9f, -3e9f, 40.0f, 0, -1};
  const std::vector<float> ys{2, nan, nan, 2, 2, inf, -inf, 2, 2, -1e30f, 3e9f, 2, 2, 0, 1};
  ForEachDepthAndRoute([&](int depth) {
    TestImage image(6, 5, depth), empty(0, 4, depth);  // empty: rows of padding only
    FillDistinct(image);
    for (TestImage* im : {&image, &empty}) {
      const size_t n = im == &image ? xs.size() - 2 : xs.size();  // (0, 0) and (-1, 1) are inside
      const std::vector<float> x(xs.begin(), xs.begin() + n), y(ys.begin(), ys.begin() + n);
      for (SamplerFunc s : {&NearSampler, &BiLinSampler})
        for (const Px& p : RunSampler(s, im->Record(), x, y)) EXPECT_EQ(p, kZero);
      for (const Kernel& k : kKernels)
        for (const Px& p : RunSampler(&Sampler, KernelRecord(*im, k), x, y)) EXPECT_EQ(p, kZero) << k.name;
    }
  });
}
