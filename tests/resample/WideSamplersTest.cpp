// The 8-lane nearest and bilinear samplers against the 4-lane ones: the same
// bytes for every depth, on positions well inside, at and beyond every edge, non-finite and
// huge, for run lengths that end in partial blocks, in both rounding modes a host may leave
// set.
#include <xmmintrin.h>

#include "resample/ResampleTestSupport.h"

using namespace resample_test;

namespace {

// Positions well inside (whole blocks take the 8-lane interior path), or a mixture of
// positions inside, around the edges and special values.
std::vector<float> Positions(std::mt19937& rng, int count, int size, bool wellInside) {
  if (wellInside) {
    std::uniform_real_distribution<float> inner(3.0f, static_cast<float>(size - 4));
    std::vector<float> v(static_cast<size_t>(count));
    for (float& p : v) p = inner(rng);
    return v;
  }
  const float specials[] = {std::numeric_limits<float>::quiet_NaN(),
                            std::numeric_limits<float>::infinity(),
                            -std::numeric_limits<float>::infinity(), -1.5f, -0.5f, -0.0f,
                            static_cast<float>(size) - 0.5f, static_cast<float>(size),
                            3.0e9f, -3.0e9f};
  std::uniform_real_distribution<float> inside(0.0f, static_cast<float>(size - 1));
  std::uniform_real_distribution<float> around(-3.0f, static_cast<float>(size + 3));
  std::vector<float> v;
  for (int i = 0; i < count; ++i) {
    const int pick = static_cast<int>(rng() % 16);
    if (pick < 9) v.push_back(inside(rng));
    else if (pick < 14) v.push_back(around(rng));
    else v.push_back(specials[rng() % (sizeof specials / sizeof specials[0])]);
  }
  return v;
}

std::vector<char> Sampled(SamplerFunc sampler, ResampleData rd, const std::vector<float>& xs,
                          const std::vector<float>& ys, int n) {
  FGulpPt pos;
  pos.x.SetLen(n, 0);
  pos.y.SetLen(n, 0);
  for (int k = 0; k < n; ++k) pos.x[k] = xs[k], pos.y[k] = ys[k];
  std::vector<char> out(static_cast<size_t>(n + 2) * rd.pixelBytes, 0x5A);
  sampler(&rd, pos, out.data());
  return out;
}

TEST(WideSamplers, GiveTheBytesOfTheFourLaneSamplers) {
  if (!__builtin_cpu_supports("avx2")) GTEST_SKIP() << "no AVX2 on this processor";
  CheckCPUFeatures();
  ScopedSse41Route route(true);
  const int32_t savedWide = wide_vectors.load();
  const unsigned savedCsr = _mm_getcsr();
  std::mt19937 rng(20);
  const struct {
    const char* name;
    SamplerFunc sampler;
  } samplers[] = {{"nearest", &NearSampler}, {"bilinear", &BiLinSampler}};
  for (int depth : {8, 16, 32}) {
    TestImage image(37, 23, depth);
    std::uniform_int_distribution<int> channel(0, depth == 8 ? 255 : 32768);
    for (int y = 0; y < image.height; ++y) {
      for (int x = 0; x < image.width; ++x) {
        Px p{float(channel(rng)), float(channel(rng)), float(channel(rng)), float(channel(rng))};
        if (depth == 32) p = {p.a / 3.0f, -p.r, p.g * 1.0e30f, (x + y) % 7 ? p.b : NAN};
        image.Set(x, y, p);
      }
    }
    for (const auto& s : samplers) {
      for (unsigned mode : {unsigned(_MM_ROUND_NEAREST), unsigned(_MM_ROUND_DOWN)}) {
        for (int n : {64, 61, 9, 8, 7, 1}) {
          SCOPED_TRACE(testing::Message() << s.name << ", " << depth << "-bit, run of " << n
                                          << (mode == _MM_ROUND_DOWN ? ", rounding down" : ""));
          for (int trial = 0; trial < 40; ++trial) {
            const bool wellInside = trial % 2 == 0;
            const std::vector<float> xs = Positions(rng, n, image.width, wellInside);
            const std::vector<float> ys = Positions(rng, n, image.height, wellInside);
            std::vector<char> byWidth[2];
            for (int wide : {0, 1}) {
              wide_vectors.store(wide);
              _mm_setcsr((savedCsr & ~_MM_ROUND_MASK) | mode);
              byWidth[wide] = Sampled(s.sampler, image.Record(), xs, ys, n);
              _mm_setcsr(savedCsr);
            }
            ASSERT_EQ(byWidth[1], byWidth[0]) << "trial " << trial;
          }
        }
      }
    }
  }
  wide_vectors.store(savedWide);
}

}  // namespace
