// Guards the rendered bytes against any change while the render path is tuned for speed.
//
// The whole frame: every filter renders at every depth in Remove, in Apply through the inverse table and in
// Apply through the per-pixel solver, through the real entry point and the substitute host,
// on a layer with odd sizes (so the last run of a row is partial), padded rows and output
// and input buffers whose origins are not (0, 0). The FNV-1a 64 hash of the output's pixel
// bytes is compared with a value recorded once from the straightforward (unoptimised) render
// that follows the operation order of the arithmetic step by step. Those values must never
// change: a differing hash means the optimised render no longer gives the same bits.
//
// The pieces: the samplers and the run mapping, whose fused loops must give exactly what the
// run operations give step by step, are compared with those steps written out on runs, under
// both rounding routes, at every depth, over runs of every length with positions inside,
// at and beyond the edges and non-finite, on images that hold NaN and infinite floats.
#include <gtest/gtest.h>
#include <xmmintrin.h>

#include <cinttypes>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "HostTestSupport.h"
#include "gulp/CpuFeatures.h"
#include "gulp/FGulp.h"
#include "lens/InverseTable.h"
#include "lens/LensData.h"
#include "lens/RunMapping.h"
#include "resample/KernelTables.h"
#include "resample/ResampleData.h"
#include "resample/Samplers.h"

namespace {

using hostsim::Depth;
using hostsim::Host;
using hostsim::World;

constexpr int kLayerWidth = 333;
constexpr int kLayerHeight = 197;
constexpr int kLayerPadding = 24;  // bytes of padding after every row of the layer
// Inset from every side, so both the output and the checked-out input start away from (0, 0)
// and the output's rows end in a partial run (317 pixels in Remove, 287 in Apply). The
// solver's frame is twice the layer's size; its request cuts into the picture it covers.
constexpr PF_LRect kRequest = {11, 6, kLayerWidth - 5, kLayerHeight - 9};
constexpr PF_LRect kSolverRequest = {150, 40, 2 * kLayerWidth - 5, 2 * kLayerHeight - 9};
constexpr uint8_t kClearByte = 0x6B;

enum class Lens { Remove, ApplyTable, ApplySolver };

const char* LensName(Lens lens) {
  switch (lens) {
    case Lens::Remove: return "Remove";
    case Lens::ApplyTable: return "ApplyTable";
    case Lens::ApplySolver: return "ApplySolver";
  }
  return "?";
}

const char* DepthName(Depth depth) {
  switch (depth) {
    case Depth::k8: return "8";
    case Depth::k16: return "16";
    case Depth::kFloat: return "float";
  }
  return "?";
}

uint64_t Fnv1a64(const std::vector<uint8_t>& bytes) {
  uint64_t h = 0xcbf29ce484222325ull;
  for (uint8_t b : bytes) {
    h ^= b;
    h *= 0x100000001b3ull;
  }
  return h;
}

// A well-mixed 32-bit value per (x, y, channel), so that every bit of every channel varies.
uint32_t Mix(uint32_t x, uint32_t y, uint32_t c) {
  uint32_t h = x * 0x9E3779B1u ^ (y + 0x7F4A7C15u) * 0x85EBCA77u ^ (c + 1u) * 0xC2B2AE3Du;
  h ^= h >> 15;
  h *= 0x2C1B3C6Du;
  h ^= h >> 12;
  h *= 0x297A2D39u;
  h ^= h >> 15;
  return h;
}

// Full-range content: 0..255, 0..32768, and floats from -0.5 to 1.5 (outside 0..1 on purpose).
void FillNoise(World& layer) {
  for (int y = 0; y < layer.height(); ++y) {
    for (int x = 0; x < layer.width(); ++x) {
      for (int c = 0; c < 4; ++c) {
        const uint32_t h = Mix(static_cast<uint32_t>(x), static_cast<uint32_t>(y),
                               static_cast<uint32_t>(c));
        switch (layer.depth()) {
          case Depth::k8:
            layer.Set(x, y, c, static_cast<float>(h & 0xFF));
            break;
          case Depth::k16:
            layer.Set(x, y, c, static_cast<float>(h % 32769u));
            break;
          case Depth::kFloat:
            layer.Set(x, y, c, static_cast<float>(h & 0xFFFF) / 32767.5f - 0.5f);
            break;
        }
      }
    }
  }
}

struct Expected {
  Lens lens;
  int filter;  // 1 Built-in .. 6 Mitchell-Netravali
  Depth depth;
  uint64_t hash;
};

// Recorded from the unoptimised render (the render path before any speed work), with 1 and
// with 2 threads alike. These values must never change.
const Expected kExpected[] = {
    {Lens::Remove, 1, Depth::k8, 0xb2142e86795324feull},
    {Lens::Remove, 2, Depth::k8, 0x94271b60400fcddeull},
    {Lens::Remove, 3, Depth::k8, 0x6a4495f64dca036eull},
    {Lens::Remove, 4, Depth::k8, 0x5db41b87494c38cdull},
    {Lens::Remove, 5, Depth::k8, 0x836fc019b73a99a1ull},
    {Lens::Remove, 6, Depth::k8, 0x09be364c4d706fdfull},
    {Lens::ApplyTable, 1, Depth::k8, 0x18c54c0f070f1efaull},
    {Lens::ApplyTable, 2, Depth::k8, 0xe625aa0a0f555028ull},
    {Lens::ApplyTable, 3, Depth::k8, 0x7d02319dd3c8eac0ull},
    {Lens::ApplyTable, 4, Depth::k8, 0xb9fc1ff514c54ed4ull},
    {Lens::ApplyTable, 5, Depth::k8, 0x35d99027edab0eecull},
    {Lens::ApplyTable, 6, Depth::k8, 0xb8b5f1f3e071ae58ull},
    {Lens::ApplySolver, 1, Depth::k8, 0x854261d5d061d3b0ull},
    {Lens::ApplySolver, 2, Depth::k8, 0x58df21fa3aebbd00ull},
    {Lens::ApplySolver, 3, Depth::k8, 0x2fd495d8dc4e9623ull},
    {Lens::ApplySolver, 4, Depth::k8, 0x8795c8e0482d0e22ull},
    {Lens::ApplySolver, 5, Depth::k8, 0xc1188393060ddb34ull},
    {Lens::ApplySolver, 6, Depth::k8, 0x4796d61381ff2b0full},
    {Lens::Remove, 1, Depth::k16, 0xc428d5c35bc68a56ull},
    {Lens::Remove, 2, Depth::k16, 0x77a9d68a4482fc10ull},
    {Lens::Remove, 3, Depth::k16, 0x878b029cb6f7849eull},
    {Lens::Remove, 4, Depth::k16, 0xd571657f244ab13cull},
    {Lens::Remove, 5, Depth::k16, 0xd9caa85c212db0c3ull},
    {Lens::Remove, 6, Depth::k16, 0x20411db1eb1a450cull},
    {Lens::ApplyTable, 1, Depth::k16, 0xcd4ec1020269dc50ull},
    {Lens::ApplyTable, 2, Depth::k16, 0xbd585424c1569d91ull},
    {Lens::ApplyTable, 3, Depth::k16, 0xb6406b8dbd91d41bull},
    {Lens::ApplyTable, 4, Depth::k16, 0x9c343d1422f3482dull},
    {Lens::ApplyTable, 5, Depth::k16, 0xaebd4d06976118feull},
    {Lens::ApplyTable, 6, Depth::k16, 0x4e6c937c07907d7full},
    {Lens::ApplySolver, 1, Depth::k16, 0x50eee61d30bba17aull},
    {Lens::ApplySolver, 2, Depth::k16, 0xf2cb1d34076dcc3aull},
    {Lens::ApplySolver, 3, Depth::k16, 0xc4fb0ad84fb31127ull},
    {Lens::ApplySolver, 4, Depth::k16, 0xf5931111aed8b6baull},
    {Lens::ApplySolver, 5, Depth::k16, 0xb4740d562af21be1ull},
    {Lens::ApplySolver, 6, Depth::k16, 0xb61c4ad5aea6be89ull},
    {Lens::Remove, 1, Depth::kFloat, 0x520b3817bb40f3c6ull},
    {Lens::Remove, 2, Depth::kFloat, 0xbe0f7b8c97ae11ccull},
    {Lens::Remove, 3, Depth::kFloat, 0x5eee636ba29044e1ull},
    {Lens::Remove, 4, Depth::kFloat, 0x5b978e87547f8a1cull},
    {Lens::Remove, 5, Depth::kFloat, 0x5460f9ed79fe70a1ull},
    {Lens::Remove, 6, Depth::kFloat, 0xb02ca04eb1b48adbull},
    {Lens::ApplyTable, 1, Depth::kFloat, 0x45f5570047b10bfcull},
    {Lens::ApplyTable, 2, Depth::kFloat, 0xc9eab2fca370356eull},
    {Lens::ApplyTable, 3, Depth::kFloat, 0x788b6ad11d670414ull},
    {Lens::ApplyTable, 4, Depth::kFloat, 0xc66d02d75bcd35d2ull},
    {Lens::ApplyTable, 5, Depth::kFloat, 0xe24383a9b21e6047ull},
    {Lens::ApplyTable, 6, Depth::kFloat, 0x9f49c86534bd4438ull},
    {Lens::ApplySolver, 1, Depth::kFloat, 0xde5c09ce5ee7ca62ull},
    {Lens::ApplySolver, 2, Depth::kFloat, 0xc77e0e7ed2b9d32bull},
    {Lens::ApplySolver, 3, Depth::kFloat, 0xbef313d8d56a719dull},
    {Lens::ApplySolver, 4, Depth::kFloat, 0x8af6f9beb129ec2aull},
    {Lens::ApplySolver, 5, Depth::kFloat, 0xdf5ce61c5bd06da2ull},
    {Lens::ApplySolver, 6, Depth::kFloat, 0xfe524d5f6a11aa88ull},
};

struct RenderResult {
  PF_Err err = PF_Err_NONE;
  uint64_t hash = 0;
  int tableValid = -1;
  bool paddingKept = false;
  bool reused = false;  // the second frame went into the first frame's buffer
  int width = 0, height = 0;
};

// Renders one frame. `lend` hands the effect the layer's own pixels, skips the output clear
// and renders a second frame into the first one's buffer (whose bytes are the result);
// otherwise the host copies the input into a padded world and clears the output.
RenderResult RenderFrame(const World& layer, Lens lens, int filter, bool lend) {
  RenderResult result;
  std::unique_ptr<Host> host = hosttest::ReadyHost(&layer);
  if (!host) {
    result.err = -1;
    return result;
  }
  host->threads = 2;
  host->params.filter = filter;
  host->params.mode = lens == Lens::Remove ? 1 : 2;
  host->params.distortion = lens == Lens::ApplySolver ? -200.0 : -80.0;
  host->params.cubic = 15.0;
  host->params.quartic = 4.0;
  host->params.zoom = 1.05;
  host->params.distortedWidth = kLayerWidth;
  host->params.distortedHeight = kLayerHeight;
  // The inverse table's accuracy is judged in pixels of the undistorted frame: at twice the
  // layer's size the steep inverse near the peak of the -200 lens fails the test, and Apply
  // takes the solver.
  const bool solver = lens == Lens::ApplySolver;
  host->params.undistortedWidth = solver ? 2 * kLayerWidth + 1 : kLayerWidth;
  host->params.undistortedHeight = solver ? 2 * kLayerHeight + 1 : kLayerHeight;
  host->params.pixelAspect = 1.0;
  host->outputClearByte = kClearByte;
  host->outputPaddingBytes = 20;
  if (lend) {
    host->lendInputLayer = true;
    host->clearOutput = false;
    host->reuseOutput = true;
  } else {
    host->inputPaddingBytes = 12;
  }

  result.err = host->SmartPreRender(solver ? kSolverRequest : kRequest);
  if (result.err != PF_Err_NONE) return result;
  result.tableValid = hosttest::LensOf(*host).tableValid;
  std::unique_ptr<World> output;
  result.err = host->SmartRender(&output);
  if (result.err != PF_Err_NONE || !output) return result;
  if (lend) {
    // A second frame into the same buffer, after spoiling it: every pixel is rendered anew.
    output->FillBytes(0xEE);
    const World* first = output.get();
    result.err = host->SmartPreRender(solver ? kSolverRequest : kRequest);
    if (result.err == PF_Err_NONE) result.err = host->SmartRender(&output);
    if (result.err != PF_Err_NONE || !output) return result;
    result.reused = output.get() == first;
  }
  result.hash = Fnv1a64(output->PackedBytes());
  result.width = output->width();
  result.height = output->height();
  result.paddingKept = true;
  if (!lend) {
    for (uint8_t b : output->PaddingBytes()) result.paddingKept &= (b == kClearByte);
  }
  return result;
}

std::unique_ptr<World> MakeLayer(Depth depth) {
  auto layer = std::make_unique<World>(depth, kLayerWidth, kLayerHeight, 0, 0, kLayerPadding);
  FillNoise(*layer);
  return layer;
}

void CheckEveryConfiguration(bool lend) {
  std::string recorded;  // paste-ready lines for any mismatch
  for (Depth depth : {Depth::k8, Depth::k16, Depth::kFloat}) {
    const std::unique_ptr<World> layer = MakeLayer(depth);
    for (Lens lens : {Lens::Remove, Lens::ApplyTable, Lens::ApplySolver}) {
      for (int filter = 1; filter <= 6; ++filter) {
        SCOPED_TRACE(std::string(LensName(lens)) + " filter " + std::to_string(filter) +
                     " depth " + DepthName(depth));
        const RenderResult r = RenderFrame(*layer, lens, filter, lend);
        ASSERT_EQ(r.err, PF_Err_NONE);
        // The three lenses must take the paths they are meant to cover.
        EXPECT_EQ(r.tableValid, lens == Lens::ApplySolver ? 0 : 1);
        // Several runs per row, the last one partial.
        EXPECT_GT(r.width, 128);
        EXPECT_NE(r.width % 64, 0);
        EXPECT_GT(r.height, 100);
        EXPECT_TRUE(r.paddingKept) << "the row padding of the output was written";
        EXPECT_EQ(r.reused, lend);
        const Expected* want = nullptr;
        for (const Expected& e : kExpected) {
          if (e.lens == lens && e.filter == filter && e.depth == depth) want = &e;
        }
        char line[160];
        std::snprintf(line, sizeof line, "    {Lens::%s, %d, Depth::%s, 0x%016" PRIx64 "ull},\n",
                      LensName(lens), filter,
                      depth == Depth::k8 ? "k8" : depth == Depth::k16 ? "k16" : "kFloat",
                      r.hash);
        if (want == nullptr || want->hash != r.hash) recorded += line;
        if (want == nullptr) {
          ADD_FAILURE() << "no recorded hash";
          continue;
        }
        EXPECT_EQ(r.hash, want->hash) << "the rendered bytes changed";
      }
    }
  }
  if (!recorded.empty()) std::printf("Measured hashes that differ:\n%s", recorded.c_str());
}

TEST(BitIdentity, CopiedPaddedInputAndClearedOutputGiveTheRecordedBytes) {
  CheckEveryConfiguration(false);
}

TEST(BitIdentity, LentInputAndReusedUnclearedOutputGiveTheSameBytes) {
  CheckEveryConfiguration(true);
}

// ---- The pieces against their steps on runs ----

constexpr float kLimit = 1073741824.0f;  // 2^30

void IntoRangeByRun(const FGulp& a, FGulp& out) {
  out.fmax(a, -kLimit);
  out.fmin(out, kLimit);
}

// The nearest sampler as its steps on runs.
void NearByRun(ResampleData* rd, const FGulpPt& pos, void* dst) {
  const float xmax = static_cast<float>(rd->width - 1), ymax = static_cast<float>(rd->height - 1);
  FGulpPt grid;
  IntoRangeByRun(pos.x, grid.x);
  IntoRangeByRun(pos.y, grid.y);
  grid.x.round(grid.x);
  grid.y.round(grid.y);
  FGulp insideX, insideY, inside;
  insideX.inrangeLE(-1.0f, grid.x, xmax + 1.0f);
  grid.x.clip(0.0f, grid.x, xmax);
  insideY.inrangeLE(-1.0f, grid.y, ymax + 1.0f);
  grid.y.clip(0.0f, grid.y, ymax);
  RGBAGulp pixels;
  SamplePix(rd, grid, pixels);
  inside.mul(insideX, insideY);
  pixels.r *= inside;
  pixels.g *= inside;
  pixels.b *= inside;
  pixels.a *= inside;
  StorePix(rd, pixels, dst);
}

// The bilinear sampler as its steps on runs.
void BiLinByRun(ResampleData* rd, const FGulpPt& pos, void* dst) {
  const float xmax = static_cast<float>(rd->width - 1), ymax = static_cast<float>(rd->height - 1);
  FGulp x, y, ix, iy, fx, fy;
  IntoRangeByRun(pos.x, x);
  IntoRangeByRun(pos.y, y);
  fx.modf(x, ix);
  fy.modf(y, iy);
  FGulpPt at00, at10, at01, at11;
  at00.x.clip(0.0f, ix, xmax);
  at00.y.clip(0.0f, iy, ymax);
  at11.x.clipoffs(0.0f, ix, 1.0f, xmax);
  at11.y.clipoffs(0.0f, iy, 1.0f, ymax);
  at10.x = at11.x;
  at10.y = at00.y;
  at01.x = at00.x;
  at01.y = at11.y;
  RGBAGulp p00, p10, p01, p11, result;
  SamplePix(rd, at00, p00);
  SamplePix(rd, at10, p10);
  SamplePix(rd, at01, p01);
  SamplePix(rd, at11, p11);
  FGulp insideX, insideY, inside, top, bottom;
  insideX.inrangeLE(0.0f, ix, xmax);
  insideY.inrangeLE(0.0f, iy, ymax);
  inside.mul(insideX, insideY);
  for (FGulp RGBAGulp::*ch : {&RGBAGulp::r, &RGBAGulp::g, &RGBAGulp::b, &RGBAGulp::a}) {
    top.blend(p00.*ch, p10.*ch, fx);
    bottom.blend(p01.*ch, p11.*ch, fx);
    FGulp& out = result.*ch;
    out.blend(top, bottom, fy);
    if (rd->bitDepth == 32) out.mul(out, inside);
    else out.mulround(out, inside);
  }
  StorePix(rd, result, dst);
}

// The kernel sampler as its steps on runs.
void KernelByRun(ResampleData* rd, const FGulpPt& pos, void* dst) {
  const int n = pos.x.len;
  const float xmax = static_cast<float>(rd->width - 1), ymax = static_cast<float>(rd->height - 1);
  const float phases = rd->phasesPerPixel, stride = rd->phaseStride;
  FGulp x, y, firstX, firstY, phaseX, phaseY, cell;
  IntoRangeByRun(pos.x, x);
  IntoRangeByRun(pos.y, y);
  phaseX.modfscaledoffs(x, phases, -static_cast<float>(rd->tapOffsetX), firstX);
  phaseY.modfscaledoffs(y, phases, -static_cast<float>(rd->tapOffsetY), firstY);
  phaseX.fmin(phaseX, phases - 1.0f);
  phaseY.fmin(phaseY, phases - 1.0f);
  cell.muladdmul(phases * stride, phaseY, stride, phaseX);
  FGulp red, green, blue, alpha, sum;
  for (FGulp* acc : {&red, &green, &blue, &alpha, &sum}) {
    acc->SetLen(n, 0);
    acc->Constant(0.0f);
  }
  FGulpPt tap;
  FGulp insideRow, insideColumn, weight;
  RGBAGulp pixels;
  for (int j = 0; j < rd->tapsY; ++j) {
    tap.y.clipoffsLE(0.0f, firstY, static_cast<float>(j), ymax, insideRow);
    for (int i = 0; i < rd->tapsX; ++i) {
      tap.x.clipoffsLE(0.0f, firstX, static_cast<float>(i), xmax, insideColumn);
      SamplePix(rd, tap, pixels);
      weight.gatherLUT(rd->kernelTable + j * rd->tapsX + i, cell);
      weight.mulmul(weight, insideColumn, insideRow);
      red.muladd(weight, pixels.r, red);
      green.muladd(weight, pixels.g, green);
      blue.muladd(weight, pixels.b, blue);
      alpha.muladd(weight, pixels.a, alpha);
      sum += weight;
    }
  }
  FGulp norm;
  norm.recipCHKZ(sum);
  RGBAGulp result;
  const bool isFloat = rd->bitDepth == 32;
  FGulp* const sums[] = {&red, &green, &blue, &alpha};
  FGulp* const outs[] = {&result.r, &result.g, &result.b, &result.a};
  for (int c = 0; c < 4; ++c) {
    const float max = c == 3 ? rd->alphaMax : rd->colorMax;
    if (isFloat) outs[c]->mulclip(0.0f, norm, *sums[c], max);
    else outs[c]->mulroundclip(0.0f, norm, *sums[c], max);
  }
  StorePix(rd, result, dst);
}

// The run mapping as its steps on runs.
void MapByRun(const VtAFXLensData& lens, const FGulpPt& out, FGulpPt& in) {
  FGulp xs, ys;
  if (lens.distortMode == kModeApply) {
    FGulp xn, yn, r, ratio;
    xn.muladd(out.x, lens.normScaleX, lens.normOffsetX);
    yn.muladd(out.y, lens.normScaleY, lens.normOffsetY);
    r.hypot(xn, yn);
    if (lens.tableValid != 0) {
      FGulp t, index, frac, lo, hi, u;
      t.LUTscale(r, lens.lutScale, 2048.0f);
      frac.modf(t, index);
      lo.gatherLUT(lens.inverseTable, index);
      hi.gatherLUT(lens.inverseTable + 1, index);
      u.blend(lo, hi, frac);
      ratio.divCHKZ(u, r);
    } else {
      SolveUndistortRatios(lens, r, ratio);
    }
    const float zoom = static_cast<float>(lens.zoom);
    xs.mulmul(zoom, xn, ratio);
    ys.mulmul(zoom, yn, ratio);
  } else {
    FGulp xn, yn, s2, f, t;
    xn.muladd(out.x, lens.normScaleX * lens.invZoom, lens.invZoom * lens.normOffsetX);
    yn.muladd(out.y, lens.normScaleY * lens.invZoom, lens.invZoom * lens.normOffsetY);
    s2.sumsq(xn, yn);
    const float k2 = lens.quadraticF, k3 = lens.cubicF, k4 = lens.quarticF;
    if (k3 != 0.0f) {
      t.sqrt(s2);
      t.muladd(t, k3, k2);
      if (k4 != 0.0f) t.muladd(k4, s2, t);
      f.muladd(t, s2, 1.0f);
    } else if (k4 != 0.0f) {
      t.muladd(k4, s2, k2);
      f.muladd(t, s2, 1.0f);
    } else {
      f.muladd(s2, k2, 1.0f);
    }
    xs.mul(xn, f);
    ys.mul(yn, f);
  }
  in.x.muladd(xs, lens.pixScaleX, lens.pixOffsetX);
  in.y.muladd(ys, lens.pixScaleY, lens.pixOffsetY);
}

// Sets or clears the SSE4.1 bit of the feature word for one scope.
struct Route {
  explicit Route(bool sse41) : saved(cpu_features.load()) {
    cpu_features.store(sse41 ? (saved | kCpuSSE41) : (saved & ~kCpuSSE41));
  }
  ~Route() { cpu_features.store(saved); }
  int32_t saved;
};

// A width x height image of random pixels in padded rows; float images also hold NaN and
// infinities, so that the order of every operand shows in the NaN that comes out.
std::vector<char> RandomImage(int depth, int width, int height, int rowBytes, std::mt19937& rng) {
  std::vector<char> bytes(static_cast<size_t>(rowBytes) * height, 0x33);
  std::uniform_int_distribution<int> byte(0, 255), word(0, 32768), pick(0, 40);
  std::uniform_real_distribution<float> value(-0.5f, 1.5f);
  const float specials[] = {std::numeric_limits<float>::quiet_NaN(),
                            -std::numeric_limits<float>::quiet_NaN(),
                            std::numeric_limits<float>::infinity(), 1e30f};
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      char* p = bytes.data() + static_cast<size_t>(y) * rowBytes + x * (depth / 2);
      for (int c = 0; c < 4; ++c) {
        if (depth == 8) {
          p[c] = static_cast<char>(byte(rng));
        } else if (depth == 16) {
          const uint16_t v = static_cast<uint16_t>(word(rng));
          std::memcpy(p + 2 * c, &v, 2);
        } else {
          const int k = pick(rng);
          const float v = k < 4 ? specials[k] : value(rng);
          std::memcpy(p + 4 * c, &v, 4);
        }
      }
    }
  }
  return bytes;
}

// Source positions: inside, on pixel centres and just beside them, at and beyond every
// edge, far away and non-finite.
float RandomPosition(float size, std::mt19937& rng) {
  std::uniform_int_distribution<int> kind(0, 9);
  std::uniform_real_distribution<float> inside(-3.0f, size + 3.0f);
  std::uniform_int_distribution<int> whole(-4, static_cast<int>(size) + 4);
  switch (kind(rng)) {
    case 0: return static_cast<float>(whole(rng));
    case 1: return static_cast<float>(whole(rng)) + 0.5f;
    case 2: return std::nextafter(static_cast<float>(whole(rng)), -1e9f);
    case 3: return -1e-10f;
    case 4: {
      const float far[] = {std::numeric_limits<float>::quiet_NaN(),
                           std::numeric_limits<float>::infinity(),
                           -std::numeric_limits<float>::infinity(), 3e9f, -3e9f, 1e20f, -2e6f};
      return far[std::uniform_int_distribution<int>(0, 6)(rng)];
    }
    default: return inside(rng);
  }
}

using SamplerFn = void (*)(ResampleData*, const FGulpPt&, void*);

// The same bytes, except that any two NaNs count as equal: when both operands of an
// operation are NaN, which one it passes on (its sign and payload) follows the operand order
// the compiler picks for a commutative instruction, in the run operations as much as in the
// fused loops; IEEE leaves that choice open.
bool SameOutput(const char* a, const char* b, int pixels, int depth) {
  const size_t bytes = static_cast<size_t>(pixels) * (depth / 2);
  if (depth != 32) return std::memcmp(a, b, bytes) == 0;
  for (size_t i = 0; i < bytes; i += 4) {
    float fa, fb;
    std::memcpy(&fa, a + i, 4);
    std::memcpy(&fb, b + i, 4);
    if (std::memcmp(&fa, &fb, 4) != 0 && !(std::isnan(fa) && std::isnan(fb))) return false;
  }
  return true;
}

// Sets the processor's rounding mode for a scope.
class RoundingModeScope {
 public:
  explicit RoundingModeScope(unsigned mode) : saved_(_MM_GET_ROUNDING_MODE()) {
    _MM_SET_ROUNDING_MODE(mode);
  }
  ~RoundingModeScope() { _MM_SET_ROUNDING_MODE(saved_); }

 private:
  unsigned saved_;
};

TEST(BitIdentity, SamplersGiveWhatTheirStepsOnRunsGive) {
  CheckCPUFeatures();
  float *lanczos2 = nullptr, *lanczos3 = nullptr, *mitchell = nullptr;
  ASSERT_EQ(BuildSampleFilters(nullptr, lanczos2, lanczos3, mitchell), PF_Err_NONE);
  struct Filter {
    const char* name;
    SamplerFn fused, byRun;
    int taps, tapOffset;
    float phaseStride;
    float* table;
  };
  const Filter filters[] = {{"nearest", NearSampler, NearByRun, 0, 0, 0.0f, nullptr},
                            {"bilinear", BiLinSampler, BiLinByRun, 0, 0, 0.0f, nullptr},
                            {"lanczos-2", Sampler, KernelByRun, 4, 1, 16.0f, lanczos2},
                            {"lanczos-3", Sampler, KernelByRun, 6, 2, 40.0f, lanczos3},
                            {"mitchell", Sampler, KernelByRun, 4, 1, 16.0f, mitchell}};
  std::mt19937 rng(20261123);
  for (int depth : {8, 16, 32}) {
    // Sizes below, at and above the kernels' width, the rows padded.
    const int sizes[][2] = {{1, 1}, {5, 3}, {37, 23}};
    for (const auto& wh : sizes) {
      const int width = wh[0], height = wh[1];
      const int pixelBytes = depth / 2;
      const int rowBytes = width * pixelBytes + 12;
      std::vector<char> image = RandomImage(depth, width, height, rowBytes, rng);
      for (const Filter& f : filters) {
        ResampleData rd;
        std::memset(&rd, 0, sizeof rd);
        rd.baseAddr = image.data();
        rd.rowBytes = rowBytes;
        rd.pixelBytes = pixelBytes;
        rd.bitDepth = depth;
        rd.width = width;
        rd.height = height;
        rd.colorMax = depth == 8 ? 255.0f : depth == 16 ? 32768.0f : 1.0e10f;
        rd.alphaMax = depth == 8 ? 255.0f : depth == 16 ? 32768.0f : 1.0f;
        rd.tapsX = rd.tapsY = f.taps;
        rd.tapOffsetX = rd.tapOffsetY = f.tapOffset;
        rd.phasesPerPixel = f.taps ? 64.0f : 0.0f;
        rd.phaseStride = f.phaseStride;
        rd.kernelTable = f.table;
        // The host may leave the processor in another rounding mode; conversions in the
        // current mode must still round as the run operations do.
        for (unsigned mode : {_MM_ROUND_NEAREST, _MM_ROUND_TOWARD_ZERO, _MM_ROUND_UP})
        for (bool sse41 : {true, false}) {
          Route route(sse41);
          RoundingModeScope rounding(mode);
          for (int run = 0; run < 40; ++run) {
            const int n = run < 8 ? run + 1 : std::uniform_int_distribution<int>(1, 64)(rng);
            FGulpPt pos;
            for (int k = 0; k < 64; ++k) {
              pos.x[k] = RandomPosition(static_cast<float>(width), rng);
              pos.y[k] = RandomPosition(static_cast<float>(height), rng);
            }
            pos.x.SetLen(n, 0);
            pos.y.SetLen(n, 0);
            const size_t bytes = static_cast<size_t>(n) * pixelBytes;
            std::vector<char> fused(bytes + 32, 0x5A), byRun(bytes + 32, 0x5A);
            f.fused(&rd, pos, fused.data());
            f.byRun(&rd, pos, byRun.data());
            SCOPED_TRACE(std::string(f.name) + " depth " + std::to_string(depth) + " size " +
                         std::to_string(width) + "x" + std::to_string(height) +
                         (sse41 ? " SSE4.1 route" : " conversion route") + " rounding mode " +
                         std::to_string(mode) + " run of " + std::to_string(n));
            ASSERT_TRUE(SameOutput(fused.data(), byRun.data(), n, depth));
            for (size_t b = bytes; b < fused.size(); ++b) {
              ASSERT_EQ(fused[b], 0x5A) << "written past the run";
            }
          }
        }
      }
    }
  }
}

TEST(BitIdentity, RunMappingGivesWhatItsStepsOnRunsGive) {
  CheckCPUFeatures();
  struct LensCase {
    const char* name;
    int mode;
    double quadratic, cubic, quartic;
    bool forceSolver;
  };
  const LensCase cases[] = {{"remove k2", 1, -0.08, 0, 0, false},
                            {"remove k2 k3", 1, -0.08, 0.015, 0, false},
                            {"remove k2 k4", 1, 0.05, 0, 0.004, false},
                            {"remove k2 k3 k4", 1, -0.08, 0.015, 0.004, false},
                            {"remove folding", 1, -20.0, 0, 0, false},
                            {"apply table", 2, -0.08, 0.015, 0.004, false},
                            {"apply solver", 2, -0.2, 0, 0, true}};
  std::mt19937 rng(7);
  for (const LensCase& c : cases) {
    VtAFXLensData lens;
    std::memset(&lens, 0, sizeof lens);
    lens.distortMode = c.mode;
    lens.filterType = 4;
    lens.quadratic = c.quadratic;
    lens.cubic = c.cubic;
    lens.quartic = c.quartic;
    lens.zoom = 1.05;
    lens.pixelAspect = 1.0;
    lens.distortedWidth = lens.undistortedWidth = 1001;
    lens.distortedHeight = lens.undistortedHeight = 563;
    SetupLensData(lens);
    BuildInverseTable(lens);
    if (c.forceSolver) lens.tableValid = 0;
    if (c.mode == 2 && !c.forceSolver) {
      ASSERT_EQ(lens.tableValid, 1) << c.name;
    }
    for (bool sse41 : {true, false}) {
      Route route(sse41);
      for (int run = 0; run < 60; ++run) {
        const int n = run < 8 ? run + 1 : std::uniform_int_distribution<int>(1, 64)(rng);
        FGulpPt out;
        out.x.SetLen(n, 0);
        out.y.SetLen(n, 0);
        if (run % 2 == 0) {
          // As the row callbacks build them: a ramp along a row, inside and around the frame.
          const int x0 = std::uniform_int_distribution<int>(-200, 1200)(rng);
          out.x.Iota(static_cast<float>(x0), 1.0f);
          out.y.Constant(static_cast<float>(std::uniform_int_distribution<int>(-100, 700)(rng)));
        } else {
          std::uniform_real_distribution<float> any(-3000.0f, 3000.0f);
          for (int k = 0; k < 64; ++k) {
            out.x[k] = any(rng);
            out.y[k] = any(rng);
          }
          out.x[0] = 500.5f;  // the frame's centre
          out.y[0] = 281.5f;
        }
        FGulpPt fused, byRun;
        MapOutToInPt(&lens, out, fused);
        MapByRun(lens, out, byRun);
        SCOPED_TRACE(std::string(c.name) + (sse41 ? " SSE4.1 route" : " conversion route") +
                     " run of " + std::to_string(n));
        ASSERT_EQ(fused.x.len, byRun.x.len);
        ASSERT_EQ(fused.y.len, byRun.y.len);
        ASSERT_EQ(std::memcmp(fused.x.data(), byRun.x.data(), n * sizeof(float)), 0);
        ASSERT_EQ(std::memcmp(fused.y.data(), byRun.y.data(), n * sizeof(float)), 0);
      }
    }
  }
}

}  // namespace
