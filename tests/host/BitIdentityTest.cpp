// Guards the rendered bytes against any change while the render path is tuned for speed.
//
// The whole frame: every filter renders at every depth in Remove, in Apply through the inverse
// table and in Apply through the per-pixel solver, through the real entry point and the
// substitute host, on a layer with odd sizes (so the last run of a row is partial), padded rows
// and output and input buffers whose origins are not (0, 0). The FNV-1a 64 hash of the output's
// pixel bytes must stay the value recorded from the straightforward (unoptimised) render.
//
// Both rounding routes must give those bytes: the plug-in renders on the route of this
// processor, the effect linked into this program also on the route without SSE4.1.
//
// The kernel sampler's fused loop, the most involved piece, is also compared with its steps
// written out as run operations (which load and store through SamplePix and StorePix), under
// both routes and in several rounding modes, on images that hold NaN and infinite floats.
#include <gtest/gtest.h>
#include <xmmintrin.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "HostTestSupport.h"
#include "gulp/CpuFeatures.h"
#include "gulp/FGulp.h"
#include "host/EntryPoint.h"
#include "resample/KernelTables.h"
#include "resample/ResampleData.h"
#include "resample/Samplers.h"

namespace {

using hostsim::Depth;
using hostsim::Host;
using hostsim::World;

constexpr int kLayerWidth = 333;
constexpr int kLayerHeight = 197;
// Inset from every side, so both the output and the checked-out input start away from (0, 0)
// and the output's rows end in a partial run (317 pixels in Remove, 287 in Apply). The
// solver's frame is twice the layer's size; its request cuts into the picture it covers.
constexpr PF_LRect kRequest = {11, 6, kLayerWidth - 5, kLayerHeight - 9};
constexpr PF_LRect kSolverRequest = {150, 40, 2 * kLayerWidth - 5, 2 * kLayerHeight - 9};
constexpr uint8_t kClearByte = 0x6B;
enum Lens { kRemove, kApplyTable, kApplySolver };

// Recorded from the unoptimised render, with 1 and with 2 threads alike; never to change.
// [depth 8, 16, float][lens][filter 1 Built-in .. 6 Mitchell-Netravali]
const uint64_t kExpected[3][3][6] = {
    {
        {0xb2142e86795324feull, 0x94271b60400fcddeull, 0x6a4495f64dca036eull,
         0x5db41b87494c38cdull, 0x836fc019b73a99a1ull, 0x09be364c4d706fdfull},
        {0x18c54c0f070f1efaull, 0xe625aa0a0f555028ull, 0x7d02319dd3c8eac0ull,
         0xb9fc1ff514c54ed4ull, 0x35d99027edab0eecull, 0xb8b5f1f3e071ae58ull},
        {0x854261d5d061d3b0ull, 0x58df21fa3aebbd00ull, 0x2fd495d8dc4e9623ull,
         0x8795c8e0482d0e22ull, 0xc1188393060ddb34ull, 0x4796d61381ff2b0full},
    },
    {
        {0xc428d5c35bc68a56ull, 0x77a9d68a4482fc10ull, 0x878b029cb6f7849eull,
         0xd571657f244ab13cull, 0xd9caa85c212db0c3ull, 0x20411db1eb1a450cull},
        {0xcd4ec1020269dc50ull, 0xbd585424c1569d91ull, 0xb6406b8dbd91d41bull,
         0x9c343d1422f3482dull, 0xaebd4d06976118feull, 0x4e6c937c07907d7full},
        {0x50eee61d30bba17aull, 0xf2cb1d34076dcc3aull, 0xc4fb0ad84fb31127ull,
         0xf5931111aed8b6baull, 0xb4740d562af21be1ull, 0xb61c4ad5aea6be89ull},
    },
    {
        {0x520b3817bb40f3c6ull, 0xbe0f7b8c97ae11ccull, 0x5eee636ba29044e1ull,
         0x5b978e87547f8a1cull, 0x5460f9ed79fe70a1ull, 0xb02ca04eb1b48adbull},
        {0x45f5570047b10bfcull, 0xc9eab2fca370356eull, 0x788b6ad11d670414ull,
         0xc66d02d75bcd35d2ull, 0xe24383a9b21e6047ull, 0x9f49c86534bd4438ull},
        {0xde5c09ce5ee7ca62ull, 0xc77e0e7ed2b9d32bull, 0xbef313d8d56a719dull,
         0x8af6f9beb129ec2aull, 0xdf5ce61c5bd06da2ull, 0xfe524d5f6a11aa88ull},
    },
};

// Full-range content from a well-mixed 32-bit value per (x, y, channel): 0..255, 0..32768,
// and floats from -0.5 to 1.5 (outside 0..1 on purpose).
std::unique_ptr<World> NoiseLayer(Depth depth) {
  auto layer = std::make_unique<World>(depth, kLayerWidth, kLayerHeight, 0, 0, 24);
  for (uint32_t y = 0; y < kLayerHeight; ++y) {
    for (uint32_t x = 0; x < kLayerWidth; ++x) {
      for (uint32_t c = 0; c < 4; ++c) {
        uint32_t h = x * 0x9E3779B1u ^ (y + 0x7F4A7C15u) * 0x85EBCA77u ^ (c + 1u) * 0xC2B2AE3Du;
        h ^= h >> 15;
        h *= 0x2C1B3C6Du;
        h ^= h >> 12;
        h *= 0x297A2D39u;
        h ^= h >> 15;
        const float v = depth == Depth::k8    ? static_cast<float>(h & 0xFF)
                        : depth == Depth::k16 ? static_cast<float>(h % 32769u)
                                              : static_cast<float>(h & 0xFFFF) / 32767.5f - 0.5f;
        layer->Set(static_cast<int>(x), static_cast<int>(y), static_cast<int>(c), v);
      }
    }
  }
  return layer;
}

// The plug-in renders from a padded copy of the input into a cleared output. `linked` is the
// effect linked into this program instead, which is handed the layer's own pixels and renders
// a second frame into the first one's uncleared buffer, spoilt first, so every pixel must be
// rendered anew.
void CheckFrame(const World& layer, Lens lens, int filter, bool linked, uint64_t expected) {
  std::unique_ptr<Host> host = hosttest::ReadyHost(&layer, linked ? EntryPointFunc : nullptr);
  ASSERT_TRUE(host);
  const bool solver = lens == kApplySolver;
  // The inverse table's accuracy is judged in pixels of the undistorted frame: at twice the
  // layer's size the steep inverse near the peak of the -200 lens fails, and Apply solves.
  host->params = hostsim::ParamValues{lens == kRemove ? 1 : 2, filter, solver ? -200.0 : -80.0,
                                      15.0, 4.0, 1.05, kLayerWidth, kLayerHeight, 1.0,
                                      solver ? 2 * kLayerWidth + 1.0 : kLayerWidth,
                                      solver ? 2 * kLayerHeight + 1.0 : kLayerHeight};
  host->outputClearByte = kClearByte;
  host->outputPaddingBytes = 20;
  host->inputPaddingBytes = 12;
  host->lendInputLayer = host->reuseOutput = linked;
  host->clearOutput = !linked;
  const PF_LRect request = solver ? kSolverRequest : kRequest;

  ASSERT_EQ(host->SmartPreRender(request), PF_Err_NONE);
  EXPECT_EQ(hosttest::LensOf(*host).tableValid, solver ? 0 : 1);  // the path meant
  std::unique_ptr<World> output;
  ASSERT_EQ(host->SmartRender(&output), PF_Err_NONE);
  ASSERT_TRUE(output);
  if (linked) {
    const World* first = output.get();
    output->FillBytes(0xEE);
    ASSERT_EQ(host->SmartPreRender(request), PF_Err_NONE);
    ASSERT_EQ(host->SmartRender(&output), PF_Err_NONE);
    EXPECT_EQ(output.get(), first);
  } else {
    for (uint8_t b : output->PaddingBytes()) ASSERT_EQ(b, kClearByte) << "row padding written";
  }
  uint64_t hash = 0xcbf29ce484222325ull;  // FNV-1a 64
  for (uint8_t b : output->PackedBytes()) hash = (hash ^ b) * 0x100000001b3ull;
  EXPECT_EQ(hash, expected) << "the rendered bytes changed";
}

// Every configuration through the plug-in, on the vector width this processor takes (the
// test is also run with GLIBC_TUNABLES=glibc.cpu.hwcaps=-AVX2, which keeps the plug-in on 4
// lanes); every configuration through the linked effect held on 4 lanes (or on 8 when the
// plug-in is not); every filter at every depth through the linked effect on the route
// without SSE4.1, the lenses taking turns.
TEST(BitIdentity, EveryFilterDepthLensRouteAndWidthGivesTheRecordedBytes) {
  CheckCPUFeatures();
  const int32_t features = cpu_features.load();
  const bool pluginWide = UseWideVectors();
  const int32_t wide = wide_vectors.load();
  const char* tunables = std::getenv("GLIBC_TUNABLES");
  if (tunables && std::strstr(tunables, "hwcaps=-AVX2")) {
    EXPECT_FALSE(pluginWide);
  }
  struct Path {
    bool linked;
    int32_t features;
    int32_t wide;
    bool every;  // every lens, or one lens per filter and depth
    const char* name;
  };
  const Path paths[] = {
      {false, features, wide, true, "plug-in"},
      {true, features, pluginWide ? 0 : 1, true,
       pluginWide ? "linked, 4 lanes" : "linked, 8 lanes"},
      {true, features & ~kCpuSSE41, wide, false, "linked, without SSE4.1"},
  };
  for (const Path& path : paths) {
    // The C library may hide AVX2 (the tunable); the compiler's own check does not.
    if (path.wide == 1 && !__builtin_cpu_supports("avx2")) continue;
    cpu_features.store(path.features);
    wide_vectors.store(path.wide);
    for (int d = 0; d < 3; ++d) {
      const std::unique_ptr<World> layer = NoiseLayer(hosttest::kDepths[d]);
      for (Lens lens : {kRemove, kApplyTable, kApplySolver}) {
        for (int filter = 1; filter <= 6; ++filter) {
          if (!path.every && lens != (d + filter) % 3) continue;
          SCOPED_TRACE(::testing::Message() << "depth " << d << " lens " << lens << " filter "
                                            << filter << ", " << path.name);
          CheckFrame(*layer, lens, filter, path.linked, kExpected[d][lens][filter - 1]);
        }
      }
    }
  }
  cpu_features.store(features);
  wide_vectors.store(wide);
}

// ---- The kernel sampler against its steps on runs ----

// The kernel sampler as the run operations give it, step by step.
void KernelByRun(const ResampleData* rd, const FGulpPt& pos, void* dst) {
  const float xmax = static_cast<float>(rd->width - 1), ymax = static_cast<float>(rd->height - 1);
  const float phases = rd->phasesPerPixel, limit = 1073741824.0f;  // 2^30
  FGulp x, y, firstX, firstY, phaseX, phaseY, cell, sums[5], insideRow, insideColumn, weight;
  x.fmax(pos.x, -limit).fmin(x, limit);
  y.fmax(pos.y, -limit).fmin(y, limit);
  phaseX.modfscaledoffs(x, phases, -static_cast<float>(rd->tapOffsetX), firstX);
  phaseY.modfscaledoffs(y, phases, -static_cast<float>(rd->tapOffsetY), firstY);
  phaseX.fmin(phaseX, phases - 1.0f);
  phaseY.fmin(phaseY, phases - 1.0f);
  cell.muladdmul(phases * rd->phaseStride, phaseY, rd->phaseStride, phaseX);
  for (FGulp& sum : sums) {
    sum.SetLen(pos.x.len, 0);
    sum.Constant(0.0f);
  }
  FGulpPt tap;
  RGBAGulp pixels, result;
  FGulp* const channels[] = {&pixels.r, &pixels.g, &pixels.b, &pixels.a};
  FGulp* const outs[] = {&result.r, &result.g, &result.b, &result.a};
  for (int j = 0; j < rd->tapsY; ++j) {
    tap.y.clipoffsLE(0.0f, firstY, static_cast<float>(j), ymax, insideRow);
    for (int i = 0; i < rd->tapsX; ++i) {
      tap.x.clipoffsLE(0.0f, firstX, static_cast<float>(i), xmax, insideColumn);
      SamplePix(rd, tap, pixels);
      weight.gatherLUT(rd->kernelTable + j * rd->tapsX + i, cell);
      weight.mulmul(weight, insideColumn, insideRow);
      for (int c = 0; c < 4; ++c) sums[c].muladd(weight, *channels[c], sums[c]);
      sums[4] += weight;
    }
  }
  FGulp norm;
  norm.recipCHKZ(sums[4]);
  for (int c = 0; c < 4; ++c) {
    const float max = c == 3 ? rd->alphaMax : rd->colorMax;
    if (rd->bitDepth == 32) outs[c]->mulclip(0.0f, norm, sums[c], max);
    else outs[c]->mulroundclip(0.0f, norm, sums[c], max);
  }
  StorePix(rd, result, dst);
}

// The same bytes, except that any two NaNs count as equal: when both operands of an operation
// are NaN, which one it passes on follows the operand order the compiler picks for a
// commutative instruction, in the run operations as much as in the fused loop.
std::string Hex(const std::vector<char>& bytes) {
  std::string text;
  for (char c : bytes) {
    static const char digits[] = "0123456789abcdef";
    text += {digits[(c >> 4) & 15], digits[c & 15], ' '};
  }
  return text;
}

bool SameOutput(const std::vector<char>& a, const std::vector<char>& b, int depth) {
  for (size_t i = 0; i < a.size(); i += 4) {
    float fa, fb;
    std::memcpy(&fa, &a[i], 4);
    std::memcpy(&fb, &b[i], 4);
    if (std::memcmp(&fa, &fb, 4) != 0 && !(depth == 32 && std::isnan(fa) && std::isnan(fb))) {
      return false;
    }
  }
  return true;
}

// Under both rounding routes and in modes a host may leave the processor in, at every depth,
// on images below, at and above the kernels' width whose floats hold NaN and infinities too,
// over runs of every length of positions inside, on and beside pixel centres, at and beyond
// the edges, far away and non-finite; nothing is written past the run.
TEST(BitIdentity, KernelSamplerGivesWhatItsStepsOnRunsGive) {
  CheckCPUFeatures();
  float* tables[3] = {};
  ASSERT_EQ(BuildSampleFilters(nullptr, tables[0], tables[1], tables[2]), PF_Err_NONE);
  const int32_t features = cpu_features.load();
  const unsigned rounding = _MM_GET_ROUNDING_MODE();
  const float inf = std::numeric_limits<float>::infinity(), nan = std::nanf("");
  const float specials[] = {nan, -nan, inf, -inf, 3e9f, -2e6f, 1e30f, -1e-10f};
  std::mt19937 rng(20261123);
  const auto random = [&rng](float lo, float hi) {
    return std::uniform_real_distribution<float>(lo, hi)(rng);
  };
  for (int depth : {8, 16, 32}) {
    for (int width : {1, 5, 37}) {
      const int height = width / 2 + 1, pixelBytes = depth / 2, rowBytes = width * pixelBytes + 12;
      std::vector<char> image(static_cast<size_t>(rowBytes) * height);  // padding too
      for (size_t i = 0; i < image.size(); i += depth / 8) {
        const uint8_t byte = static_cast<uint8_t>(rng());
        const uint16_t word = static_cast<uint16_t>(rng() % 32769);
        const float value = rng() % 10 == 0 ? specials[rng() % 4] : random(-0.5f, 1.5f);
        const void* channels[] = {&byte, &word, &value};
        std::memcpy(&image[i], channels[depth / 16], depth / 8);
      }
      for (int k = 0; k < 3; ++k) {
        const int taps = k == 1 ? 6 : 4;  // Lanczos-2, Lanczos-3, Mitchell-Netravali
        ResampleData rd{image.data(), rowBytes, pixelBytes, depth, width, height,
                              depth == 8 ? 255.0f : depth == 16 ? 32768.0f : 1e10f,
                              depth == 8 ? 255.0f : depth == 16 ? 32768.0f : 1.0f,
                              taps, taps, taps / 2 - 1, taps / 2 - 1, 64.0f,
                              taps == 6 ? 40.0f : 16.0f, tables[k]};
        for (unsigned mode : {_MM_ROUND_NEAREST, _MM_ROUND_TOWARD_ZERO, _MM_ROUND_UP}) {
          for (int32_t route : {features | kCpuSSE41, features & ~kCpuSSE41}) {
            for (int run = 0; run < 40; ++run) {
              const int n = run < 8 ? run + 1 : 1 + static_cast<int>(rng() % 64);
              FGulpPt pos;
              for (int i = 0; i < 64; ++i) {
                const float whole = static_cast<float>(static_cast<int>(rng() % (width + 9)) - 4);
                const float choices[] = {whole, whole + 0.5f, std::nextafter(whole, -1e9f),
                                         specials[rng() % 8], random(-3.0f, width + 3.0f)};
                pos.x[i] = choices[rng() % 5];
                pos.y[i] = choices[rng() % 5];
              }
              pos.x.SetLen(n, 0);
              pos.y.SetLen(n, 0);
              const size_t bytes = static_cast<size_t>(n) * pixelBytes;  // then 32 unwritten
              std::vector<char> fused(bytes + 32, 0x5A), byRun(bytes + 32, 0x5A);
              cpu_features.store(route);
              _MM_SET_ROUNDING_MODE(mode);
              Sampler(&rd, pos, fused.data());
              KernelByRun(&rd, pos, byRun.data());
              cpu_features.store(features);
              _MM_SET_ROUNDING_MODE(rounding);
              ASSERT_TRUE(SameOutput(fused, byRun, depth))
                  << Hex(fused) << " fused\n" << Hex(byRun) << " by run\n" << taps << " taps, depth " << depth << ", width " << width << ", route "
                  << route << ", mode " << mode << ", run of " << n;
            }
          }
        }
      }
    }
  }
}

}  // namespace
