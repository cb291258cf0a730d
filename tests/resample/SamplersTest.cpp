// Nearest, bilinear and kernel samplers: edge rules, rounding, clipping, renormalisation,
// the phase just below zero and non-finite positions, at every depth and on both routes.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "resample/KernelTables.h"
#include "resample/ResampleTestSupport.h"
#include "resample/Samplers.h"

using namespace resample_test;

namespace {

const Px kZero{0, 0, 0, 0};

// A different value in every channel of every pixel, within 0..255 so it fits all depths.
Px Distinct(int x, int y) { return {200.0f, float(10 * x + y + 1), float(100 + 7 * y), float(3 * x + 1)}; }

void FillDistinct(TestImage& image) {
  for (int y = 0; y < image.height; ++y)
    for (int x = 0; x < image.width; ++x) image.Set(x, y, Distinct(x, y));
}

struct Kernel {
  const char* name;
  int lobes;  // 0: Mitchell-Netravali
  int taps, tapOffset;
  float stride;
};
const Kernel kKernels[] = {{"Lanczos-2", 2, 4, 1, 16.0f}, {"Lanczos-3", 3, 6, 2, 40.0f}, {"Mitchell", 0, 4, 1, 16.0f}};

ResampleData KernelRecord(TestImage& image, const Kernel& k) {
  float *lanczos2 = nullptr, *lanczos3 = nullptr, *mitchell = nullptr;
  EXPECT_EQ(BuildSampleFilters(nullptr, lanczos2, lanczos3, mitchell), PF_Err_NONE);
  ResampleData rd = image.Record();
  rd.tapsX = rd.tapsY = k.taps;
  rd.tapOffsetX = rd.tapOffsetY = k.tapOffset;
  rd.phasesPerPixel = 64.0f;
  rd.phaseStride = k.stride;
  rd.kernelTable = k.lobes == 2 ? lanczos2 : k.lobes == 3 ? lanczos3 : mitchell;
  return rd;
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
    if (row < 0 || row >= image.height) continue;
    for (int i = 0; i < k.taps; ++i) {
      const int col = int(fx) - k.tapOffset + i;
      if (col < 0 || col >= image.width) continue;
      const long double w = ReferenceKernel(k.lobes, std::fabs(j - k.tapOffset - phaseY)) *
                            ReferenceKernel(k.lobes, std::fabs(i - k.tapOffset - phaseX));
      sum += w * (image.Get(col, row).*ch);
      weights += w;
    }
  }
  return weights == 0 ? 0.0 : double(sum / weights);
}

constexpr float Px::*kChannels[] = {&Px::a, &Px::r, &Px::g, &Px::b};

}  // namespace

TEST(NearSampler, EdgeRulesAndHalvesToEven) {
  ForEachDepthAndRoute([](int depth) {
    TestImage image(6, 5, depth);
    FillDistinct(image);
    const ResampleData rd = image.Record();
    const float w = 6, h = 5;
    struct Case { float x, y; int col, row; };  // col -1: expect all channels 0
    const Case cases[] = {
        {2.5f, 0, 2, 0},    {3.5f, 0, 4, 0},     {4.2f, 3.7f, 4, 4},  {-0.5f, 2, 0, 2},
        {-1.4f, 3, 0, 3},   {-1.6f, 3, -1, 0},   {w + 0.4f, 3, 5, 3}, {w + 0.6f, 3, -1, 0},
        {2, -1.4f, 2, 0},   {2, -1.6f, -1, 0},   {2, h + 0.4f, 2, 4}, {2, h + 0.6f, -1, 0},
    };
    for (const Case& c : cases) {
      const Px expected = c.col < 0 ? kZero : image.Get(c.col, c.row);
      EXPECT_EQ(RunOne(&NearSampler, rd, c.x, c.y), expected) << "at (" << c.x << ", " << c.y << ")";
    }
  });
}

TEST(NearSampler, RandomPositionsPickTheRoundedPixel) {
  std::mt19937 rng(3);
  std::uniform_real_distribution<float> coord(-3.0f, 10.0f);
  std::vector<float> xs(150), ys(150);
  for (size_t k = 0; k < xs.size(); ++k) xs[k] = coord(rng), ys[k] = coord(rng);
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

TEST(BiLinSampler, EdgeRulesAndIntegralPositions) {
  ForEachDepthAndRoute([](int depth) {
    TestImage image(6, 5, depth);
    FillDistinct(image);
    const ResampleData rd = image.Record();
    const float w = 6, h = 5;
    EXPECT_EQ(RunOne(&BiLinSampler, rd, -0.01f, 3), kZero);
    EXPECT_EQ(RunOne(&BiLinSampler, rd, w - 0.5f, 3), image.Get(5, 3));
    EXPECT_EQ(RunOne(&BiLinSampler, rd, w - 0.001f, 3), image.Get(5, 3));
    EXPECT_EQ(RunOne(&BiLinSampler, rd, w, 3), kZero);
    EXPECT_EQ(RunOne(&BiLinSampler, rd, 3, -0.01f), kZero);
    EXPECT_EQ(RunOne(&BiLinSampler, rd, 3, h - 0.5f), image.Get(3, 4));
    EXPECT_EQ(RunOne(&BiLinSampler, rd, 3, h), kZero);
    EXPECT_EQ(RunOne(&BiLinSampler, rd, w - 0.5f, h - 0.5f), image.Get(5, 4));
    for (int y = 0; y < 5; ++y)
      for (int x = 0; x < 6; ++x) EXPECT_EQ(RunOne(&BiLinSampler, rd, float(x), float(y)), image.Get(x, y));
  });
}

TEST(BiLinSampler, InteriorPositionsBlendTheFourNeighbours) {
  std::mt19937 rng(11);
  std::uniform_real_distribution<float> coord(0.0f, 6.99f);
  std::vector<float> xs(100), ys(100);
  for (size_t k = 0; k < xs.size(); ++k) xs[k] = coord(rng), ys[k] = coord(rng) * 0.7f;
  ForEachDepthAndRoute([&](int depth) {
    TestImage image(7, 5, depth);
    FillDistinct(image);
    const std::vector<Px> got = RunSampler(&BiLinSampler, image.Record(), xs, ys);
    for (size_t k = 0; k < xs.size(); ++k) {
      const int ix = int(std::floor(xs[k])), iy = int(std::floor(ys[k]));
      const double fx = xs[k] - ix, fy = ys[k] - iy;
      const int x1 = std::min(ix + 1, 6), y1 = std::min(iy + 1, 4);
      for (float Px::*ch : kChannels) {
        const double top = (1 - fx) * (image.Get(ix, iy).*ch) + fx * (image.Get(x1, iy).*ch);
        const double bottom = (1 - fx) * (image.Get(ix, y1).*ch) + fx * (image.Get(x1, y1).*ch);
        const double expected = (1 - fy) * top + fy * bottom;
        EXPECT_NEAR(got[k].*ch, expected, depth == 32 ? 1e-4 : 0.5 + 1e-3) << "at (" << xs[k] << ", " << ys[k] << ")";
      }
    }
  });
}

TEST(BiLinSampler, MidpointsRoundHalvesToEven) {
  for (int depth : {8, 16}) {
    SCOPED_TRACE(depth);
    ForEachRoute([&] {
      const float base = depth == 8 ? 10.0f : 1000.0f;
      TestImage image(4, 4, depth);
      image.Set(0, 1, {base, base, base + 1, base});
      image.Set(1, 1, {base + 1, base + 1, base + 2, base + 1});
      image.Set(2, 2, {base + 2, base + 1, base, base});
      image.Set(2, 3, {base + 1, base + 2, base + 1, base});
      const ResampleData rd = image.Record();
      EXPECT_EQ(RunOne(&BiLinSampler, rd, 0.5f, 1.0f), (Px{base, base, base + 2, base}));
      EXPECT_EQ(RunOne(&BiLinSampler, rd, 2.0f, 2.5f), (Px{base + 2, base + 2, base, base}));
    });
  }
}

TEST(NearAndBiLinSamplers, FloatValuesPassUnclipped) {
  ForEachRoute([] {
    TestImage image(3, 2, 32);
    image.Set(0, 0, {3.0f, -2.0f, 1e12f, -0.5f});
    image.Set(1, 0, {-1.0f, 4.0f, 1e12f, 2.5f});
    const ResampleData rd = image.Record();
    EXPECT_EQ(RunOne(&NearSampler, rd, 0, 0), image.Get(0, 0));
    EXPECT_EQ(RunOne(&NearSampler, rd, 1.2f, -0.8f), image.Get(1, 0));
    EXPECT_EQ(RunOne(&BiLinSampler, rd, 0, 0), image.Get(0, 0));
    EXPECT_EQ(RunOne(&BiLinSampler, rd, 0.5f, 0), (Px{1.0f, 1.0f, 1e12f, 1.0f}));
  });
}

TEST(KernelSampler, LanczosReproducesTheSourceAtIntegralPositions) {
  std::mt19937 rng(5);
  for (int depth : {8, 16}) {
    std::uniform_int_distribution<int> value(0, depth == 8 ? 255 : 32768);
    TestImage image(7, 5, depth);
    for (int y = 0; y < 5; ++y)
      for (int x = 0; x < 7; ++x) image.Set(x, y, {float(value(rng)), float(value(rng)), float(value(rng)), float(value(rng))});
    for (const Kernel& k : kKernels) {
      if (k.lobes == 0) continue;
      SCOPED_TRACE(testing::Message() << k.name << " " << depth << "-bit");
      ForEachRoute([&] {
        const ResampleData rd = KernelRecord(image, k);
        for (int y = 0; y < 5; ++y)
          for (int x = 0; x < 7; ++x) EXPECT_EQ(RunOne(&Sampler, rd, float(x), float(y)), image.Get(x, y));
      });
    }
  }
}

TEST(KernelSampler, UniformImageStaysUniformToTheEdges) {
  std::vector<float> xs, ys;
  for (float y = -0.5f; y <= 4.5f; y += 0.37f)
    for (float x = -0.5f; x <= 5.5f; x += 0.29f) xs.push_back(x), ys.push_back(y);
  ForEachDepthAndRoute([&](int depth) {
    const float m = ChannelMax(depth);
    const Px uniform = depth == 32 ? Px{1.0f, 0.7f, 0.25f, 3.0f} : Px{m, 100, 37, 200};
    TestImage image(6, 5, depth);
    image.Fill(uniform);
    for (const Kernel& k : kKernels) {
      SCOPED_TRACE(k.name);
      const std::vector<Px> got = RunSampler(&Sampler, KernelRecord(image, k), xs, ys);
      for (size_t n = 0; n < got.size(); ++n) {
        SCOPED_TRACE(testing::Message() << "at (" << xs[n] << ", " << ys[n] << ")");
        if (depth != 32) {
          EXPECT_EQ(got[n], uniform);
        } else {
          EXPECT_LE(got[n].a, 1.0f);
          EXPECT_NEAR(got[n].a, 1.0f, 1e-6);
          for (float Px::*ch : {&Px::r, &Px::g, &Px::b}) EXPECT_NEAR(got[n].*ch, uniform.*ch, 1e-6 * uniform.*ch);
        }
      }
    }
  });
}

TEST(KernelSampler, FloatMatchesIndependentWeightsIncludingRenormalisedEdges) {
  std::mt19937 rng(17);
  std::uniform_real_distribution<float> value(0.0f, 1.0f);
  TestImage image(8, 7, 32);
  for (int y = 0; y < 7; ++y)
    for (int x = 0; x < 8; ++x) image.Set(x, y, {value(rng), value(rng), value(rng), value(rng)});
  std::uniform_real_distribution<float> cx(0.0f, 7.0f), cy(0.0f, 6.0f);
  std::vector<float> xs{0.3f, 0.0f, 6.9f}, ys{0.6f, 5.95f, 0.0f};  // corners first
  while (xs.size() < 120) xs.push_back(cx(rng)), ys.push_back(cy(rng));
  for (const Kernel& k : kKernels) {
    SCOPED_TRACE(k.name);
    ForEachRoute([&] {
      const std::vector<Px> got = RunSampler(&Sampler, KernelRecord(image, k), xs, ys);
      for (size_t n = 0; n < xs.size(); ++n) {
        for (float Px::*ch : kChannels) {
          const double upper = ch == &Px::a ? 1.0 : 1.0e10;
          const double expected = std::clamp(ReferenceKernelSample(image, k, xs[n], ys[n], ch), 0.0, upper);
          EXPECT_NEAR(got[n].*ch, expected, 2e-5) << "at (" << xs[n] << ", " << ys[n] << ")";
        }
      }
    });
  }
}

TEST(KernelSampler, RingingAtASharpEdgeIsClipped) {
  std::vector<float> xs, ys;
  for (int s = 0; s <= 11 * 16; ++s) xs.push_back(s / 16.0f), ys.push_back(1.0f);
  ForEachDepthAndRoute([&](int depth) {
    const float m = ChannelMax(depth);
    const float colour = depth == 32 ? 5.0f : m;
    TestImage image(12, 3, depth);
    for (int y = 0; y < 3; ++y)
      for (int x = 6; x < 12; ++x) image.Set(x, y, {m, colour, colour, colour});
    for (const Kernel& k : kKernels) {
      SCOPED_TRACE(k.name);
      const std::vector<Px> got = RunSampler(&Sampler, KernelRecord(image, k), xs, ys);
      bool overshootSeen = false;
      for (size_t n = 0; n < got.size(); ++n) {
        for (float Px::*ch : kChannels) {
          const double raw = ReferenceKernelSample(image, k, xs[n], ys[n], ch);
          const double upper = ch == &Px::a ? m : (depth == 32 ? 1e10 : m);
          if (depth == 32) {
            EXPECT_NEAR(got[n].*ch, std::clamp(raw, 0.0, upper), 1e-4) << "at x " << xs[n];
            EXPECT_GE(got[n].*ch, 0.0f);
            if (ch == &Px::a) {
              EXPECT_LE(got[n].a, 1.0f);
            }
            overshootSeen |= got[n].r > colour;
          } else {
            EXPECT_NEAR(got[n].*ch, std::clamp(std::nearbyint(raw), 0.0, upper), 1.0) << "at x " << xs[n];
          }
        }
      }
      if (depth == 32 && k.lobes != 0) {
        EXPECT_TRUE(overshootSeen) << "float colour is not clipped at 1";
      }
      // Half-way taps (-1/16, 9/16, 9/16, -1/16) in front of and behind the edge.
      if (k.lobes == 2) {
        EXPECT_EQ(got[4 * 16 + 8].r, 0.0f);
        EXPECT_EQ(got[6 * 16 + 8].a, m);
      }
    }
  });
}

TEST(KernelSampler, FloatColourIsCappedAtTenBillion) {
  TestImage image(5, 5, 32);
  image.Fill({2.0f, 3e10f, 1e9f, -4.0f});
  for (const Kernel& k : kKernels) {
    SCOPED_TRACE(k.name);
    const Px got = RunOne(&Sampler, KernelRecord(image, k), 2.3f, 2.6f);
    EXPECT_EQ(got.a, 1.0f);
    EXPECT_EQ(got.r, 1e10f);
    EXPECT_NEAR(got.g, 1e9f, 1e3);  // below the cap: passes, renormalised
    EXPECT_EQ(got.b, 0.0f);
  }
}

TEST(KernelSampler, MitchellBlursAnIsolatedPixel) {
  ForEachDepthAndRoute([](int depth) {
    const float m = ChannelMax(depth);
    TestImage image(7, 7, depth);
    image.Set(3, 3, {m, m, m, m});
    const Px got = RunOne(&Sampler, KernelRecord(image, kKernels[2]), 3.0f, 3.0f);
    const double centre = 64.0 / 81.0;  // (8/9)^2, the centre weight at phase 0
    if (depth == 8) {
      EXPECT_EQ(got, (Px{201, 201, 201, 201}));
    }
    const float expected = depth == 32 ? float(centre) : float(std::nearbyint(centre * m));
    for (float Px::*ch : kChannels) EXPECT_NEAR(got.*ch, expected, depth == 32 ? 1e-6 : 0.0);
  });
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

TEST(Samplers, NonFiniteAndFarPositionsGiveZero) {
  const float inf = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
  const std::vector<float> xs{nan, 2, nan, inf, -inf, 2, 2, 1e30f, -1e30f, 2, 3e9f, -3e9f, 40.0f};
  const std::vector<float> ys{2, nan, nan, 2, 2, inf, -inf, 2, 2, -1e30f, 3e9f, 2, 2};
  ForEachDepthAndRoute([&](int depth) {
    TestImage image(6, 5, depth);
    image.Fill({1, 1, 1, 1});
    FillDistinct(image);
    for (SamplerFunc s : {&NearSampler, &BiLinSampler}) {
      for (const Px& p : RunSampler(s, image.Record(), xs, ys)) EXPECT_EQ(p, kZero);
    }
    for (const Kernel& k : kKernels) {
      for (const Px& p : RunSampler(&Sampler, KernelRecord(image, k), xs, ys)) EXPECT_EQ(p, kZero) << k.name;
    }
  });
}

TEST(Samplers, ImageWithoutPixelsGivesZeroWithoutReading) {
  for (int depth : {8, 16, 32}) {
    TestImage empty(0, 4, depth);  // rows of padding only
    const std::vector<float> xs{0, -1, 2}, ys{0, 1, 1};
    for (SamplerFunc s : {&NearSampler, &BiLinSampler})
      for (const Px& p : RunSampler(s, empty.Record(), xs, ys)) EXPECT_EQ(p, kZero);
    for (const Px& p : RunSampler(&Sampler, KernelRecord(empty, kKernels[0]), xs, ys)) EXPECT_EQ(p, kZero);
  }
}
