// The smart render as the host sees it: which suites it takes and gives back, which iterate
// it runs, what it returns on every failure, and the pixels it writes.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "HostTestSupport.h"
#include "common/EffectParams.h"
#include "host/EntryPoint.h"
#include "support/KernelTablesReset.h"

namespace {

using hostsim::Depth;
using hostsim::Host;
using hostsim::HostCall;
using hosttest::kClear;
using hosttest::kDepths;
using hosttest::Scene;

// Each depth renders through its own iterate suite, one call per row, and the identity lens
// reproduces the input with every filter that samples no kernel.
TEST(SmartRender, EachDepthIteratesItsRowsAndTheIdentityLensReproducesTheInput) {
  const char* iterateSuites[] = {"PF Iterate8 Suite", "PF iterate16 Suite",
                                 "PF iterateFloat Suite"};
  std::vector<int> rows(64);
  for (int y = 0; y < 64; ++y) rows[y] = y;
  for (int d = 0; d < 3; ++d) {
    for (int filter : {1 /* Built-in */, 2 /* Nearest */, 3 /* BiLinear */}) {
      SCOPED_TRACE(::testing::Message() << "depth " << d << " filter " << filter);
      Scene s(kDepths[d], 256, 64, kModeRemove, filter);
      s.host->FailCall(HostCall::ReleaseSuite, 1, 99);  // the effect ignores release results
      ASSERT_EQ(s.Run(), PF_Err_NONE);
      ASSERT_TRUE(s.output);
      EXPECT_EQ(s.output->PackedBytes(), s.layer.PackedBytes());
      Host& host = *s.host;
      for (int other = 0; other < 3; ++other) {
        EXPECT_EQ(host.AcquireCount(iterateSuites[other], 1), other == d ? 1 : 0);
      }
      for (const char* suite : {"PF Sampling8 Suite", "PF Sampling16 Suite",
                                "PF SamplingFloat Suite", "PF ANSI Suite", "PF Pixel Data Suite"}) {
        EXPECT_EQ(host.AcquireCount(suite, 1), 1) << suite;
      }
      EXPECT_EQ(host.AcquireCount("PF World Suite", 2), 1);
      EXPECT_EQ(host.UnheldReleaseCount(), 0);  // nothing released that was not acquired
      const hostsim::IterateRecord it = host.lastIterate();
      EXPECT_EQ(it.depthBits, static_cast<int>(kDepths[d]));
      EXPECT_FALSE(it.hadSource);
      EXPECT_EQ(it.progressBase, 0);
      EXPECT_EQ(it.progressFinal, 64);
      EXPECT_TRUE(it.area.left == 0 && it.area.top == 0 && it.area.right == 1 &&
                  it.area.bottom == 64);  // one column: one call per row
      EXPECT_EQ(host.iteratedRows(), rows);
    }
  }
}

// Each fault is set up between the pre-render and the render.
TEST(SmartRender, FailuresReturnTheirErrorWriteNothingAndReleaseEverything) {
  constexpr PF_Err kBad = PF_Err_BAD_CALLBACK_PARAM, kOutOfMemory = PF_Err_OUT_OF_MEMORY;
  const struct {
    const char* name;
    void (*fault)(Host&);
    PF_Err err;
  } failures[] = {
      {"unknown pixel format", [](Host& h) { h.OverrideInputPixelFormat(0x41424344); }, kBad},
      // This host writes no format when the query fails, so the preset "invalid" stands.
      {"failed format query", [](Host& h) { h.FailCall(HostCall::GetPixelFormat, 1, 1); }, kBad},
      {"no Sampling8", [](Host& h) { h.RemoveSuite("PF Sampling8 Suite"); }, kBad},
      {"no Sampling16", [](Host& h) { h.RemoveSuite("PF Sampling16 Suite"); }, kBad},
      {"no SamplingFloat", [](Host& h) { h.RemoveSuite("PF SamplingFloat Suite"); }, kBad},
      {"no Iterate8", [](Host& h) { h.RemoveSuite("PF Iterate8 Suite"); }, kBad},
      {"failed iterate", [](Host& h) { h.FailCall(HostCall::Iterate, 1, kOutOfMemory); },
       kOutOfMemory},
      // No sequence data is 512 even when a host suite is missing too (the host frees the
      // handle left behind).
      {"no sequence data", [](Host& h) { h.inData().sequence_data = nullptr; },
       PF_Err_INTERNAL_STRUCT_DAMAGED},
      {"no sequence data nor World suite",
       [](Host& h) {
         h.inData().sequence_data = nullptr;
         h.RemoveSuite("PF World Suite");
       },
       PF_Err_INTERNAL_STRUCT_DAMAGED},
      // These two return before any suite is acquired.
      {"failed input checkout",
       [](Host& h) { h.FailCall(HostCall::CheckoutLayerPixels, 1, PF_Err_INVALID_CALLBACK); },
       PF_Err_INVALID_CALLBACK},
      {"failed output checkout",
       [](Host& h) { h.FailCall(HostCall::CheckoutOutput, 1, PF_Err_INVALID_CALLBACK); },
       PF_Err_INVALID_CALLBACK},
  };
  for (const auto& f : failures) {
    SCOPED_TRACE(f.name);
    Scene s(Depth::k8, 64, 32);
    ASSERT_EQ(s.PreRender(), PF_Err_NONE);
    f.fault(*s.host);
    EXPECT_EQ(s.Render(), f.err);
    EXPECT_TRUE(!s.output || s.OutputUntouched());
    EXPECT_EQ(s.host->CallCount(HostCall::Iterate), f.err == kOutOfMemory ? 1 : 0);
    EXPECT_EQ(s.host->CallCount(HostCall::AcquireSuite) == 0, f.err == PF_Err_INVALID_CALLBACK);
    EXPECT_TRUE(s.host->AllSuitesReleased());
  }
}

TEST(SmartRender, MissingWorldSuiteStopsBeforeTheOtherHostSuites) {
  Scene s(Depth::k8, 64, 32);
  s.host->RemoveSuite("PF World Suite");
  EXPECT_EQ(s.Run(), PF_Err_BAD_CALLBACK_PARAM);
  EXPECT_EQ(s.host->ReturnMessage(), "Couldn't load suite.");
  EXPECT_NE(s.host->outData().out_flags & PF_OutFlag_DISPLAY_ERROR_MESSAGE, 0);
  EXPECT_EQ(s.host->AcquireCount("PF ANSI Suite"), 0);
  EXPECT_EQ(s.host->AcquireCount("PF Pixel Data Suite"), 0);
  EXPECT_EQ(s.host->AcquireCount("PF Sampling8 Suite"), 1);  // requested all the same
  EXPECT_EQ(s.host->CallCount(HostCall::Iterate), 0);
  EXPECT_TRUE(s.OutputUntouched());
  EXPECT_TRUE(s.host->AllSuitesReleased());
  // All three host suites are released whether or not they were had; the host refuses the
  // three it never handed out, and the message stays the load failure's.
  EXPECT_EQ(s.host->UnheldReleaseCount(), 3);
}

// A failed pixel address call leaves its row and returns the error. Without input pixels every
// output pixel lies outside any input: transparent. At every depth.
TEST(SmartRender, FailedPixelAddressLeavesItsRowAndNoInputGivesTransparentOutput) {
  for (Depth depth : kDepths) {
    SCOPED_TRACE(static_cast<int>(depth));
    Scene s(depth, 64, 32);
    s.host->threads = 1;
    s.host->FailCall(HostCall::GetPixelData, 5, PF_Err_OUT_OF_MEMORY);
    EXPECT_EQ(s.Run(), PF_Err_OUT_OF_MEMORY);
    ASSERT_TRUE(s.output);
    // Rows 0..3 were rendered; row 4, whose address call failed, is untouched.
    const int rowBytes = 64 * hostsim::PixelBytes(depth);
    for (int y = 0; y < 4; ++y) {
      EXPECT_EQ(std::memcmp(s.output->Row(y), s.layer.Row(y), rowBytes), 0) << y;
    }
    for (int i = 0; i < rowBytes; ++i) ASSERT_EQ(s.output->Row(4)[i], kClear);
    EXPECT_TRUE(s.host->AllSuitesReleased());

    s.host->OverrideSuppliedRect(PF_LRect{0, 0, 0, 0});
    EXPECT_EQ(s.Run(), PF_Err_NONE);
    ASSERT_TRUE(s.output);
    for (uint8_t byte : s.output->PackedBytes()) ASSERT_EQ(byte, 0);
    EXPECT_EQ(s.host->CallCount(HostCall::Iterate), 1);  // only the first frame's
    EXPECT_TRUE(s.host->AllSuitesReleased());
  }
}

// The effect linked into this program (not loaded from the plug-in), so that the kernel
// tables' allocator can be made to fail.
void* NoMemory(std::size_t) { return nullptr; }

TEST(SmartRender, KernelTableAllocationFailureIsOutOfMemory) {
  hostsim::World layer(Depth::k8, 32, 32);
  std::unique_ptr<Host> host = hosttest::ReadyHost(&layer, EntryPointFunc);
  host->params.distortedWidth = host->params.undistortedWidth = 32;
  host->params.distortedHeight = host->params.undistortedHeight = 32;
  host->outputClearByte = kClear;

  DiscardSampleFilters();
  const KernelTableAllocFunc saved = kernel_table_alloc;
  kernel_table_alloc = NoMemory;
  std::unique_ptr<hostsim::World> output;
  ASSERT_EQ(host->SmartPreRender(PF_LRect{0, 0, 32, 32}), PF_Err_NONE);
  const PF_Err err = host->SmartRender(&output);
  kernel_table_alloc = saved;

  EXPECT_EQ(err, PF_Err_OUT_OF_MEMORY);
  EXPECT_EQ(host->CallCount(HostCall::Iterate), 0);
  EXPECT_TRUE(host->AllSuitesReleased());
  ASSERT_TRUE(output);
  for (int i = 0; i < 32 * 4; ++i) ASSERT_EQ(output->Row(7)[i], kClear);

  // The next render builds the tables and renders.
  ASSERT_EQ(host->SmartPreRender(PF_LRect{0, 0, 32, 32}), PF_Err_NONE);
  EXPECT_EQ(host->SmartRender(&output), PF_Err_NONE);
  EXPECT_NE(hosttest::LensOf(*host).lanczos2Kernel, nullptr);
}

// ---- The row callbacks: how a row is walked, where positions come from, what reaches the
// host's sampler and what is written ----

// Rows of one partial run, of whole runs and of both; nothing is written past a row's end,
// and the pixel address is asked once per row, not per run.
TEST(RowCallbacks, RunsOf64CoverExactlyTheRow) {
  for (Depth depth : kDepths) {
    for (int width : {1, 63, 64, 65, 130}) {
      SCOPED_TRACE(::testing::Message() << "depth " << static_cast<int>(depth) << " width "
                                        << width);
      Scene s(depth, 256, 4);
      s.host->outputPaddingBytes = 64;
      ASSERT_EQ(s.Run(PF_LRect{0, 0, width, 4}), PF_Err_NONE);
      ASSERT_EQ(s.output->width(), width);
      for (int y = 0; y < 4; ++y) {
        EXPECT_EQ(std::memcmp(s.output->Row(y), s.layer.Row(y),
                              static_cast<size_t>(width) * hostsim::PixelBytes(depth)),
                  0);
      }
      for (uint8_t b : s.output->PaddingBytes()) ASSERT_EQ(b, kClear) << "written past the row";
      EXPECT_EQ(s.host->CallCount(HostCall::GetPixelData), 4);
    }
  }
}

// Built-in hands the host's sampler each output pixel's input position in 16.16 fixed point
// relative to the input buffer, reads no pixels itself and ignores the sampler's errors. At
// zoom 2 Remove maps layer (x, y) to (x / 2 + 64, y / 2 + 16): half pixels.
TEST(RowCallbacks, BuiltInAsksTheHostSamplerAtFixedPointPositions) {
  for (Depth depth : kDepths) {
    SCOPED_TRACE(static_cast<int>(depth));
    Scene s(depth, 256, 64, kModeRemove, 1 /* Built-in */);
    s.params().zoom = 2;
    s.host->recordSamples = true;
    s.host->threads = 1;
    s.host->FailCall(HostCall::SubpixelSample, 3, PF_Err_OUT_OF_MEMORY);
    ASSERT_EQ(s.Run(PF_LRect{10, 20, 140, 30}), PF_Err_NONE);
    const PF_LRect in = s.report.supplied.result_rect;
    const auto positions = s.host->subpixelPositions();
    ASSERT_EQ(positions.size(), 130u * 10u);
    for (int y = 0; y < 10; ++y) {
      for (int x = 0; x < 130; ++x) {
        const auto p = positions[static_cast<size_t>(y) * 130 + x];
        ASSERT_EQ(p.first, (x + 10 + 128 - 2 * in.left) * 32768) << x << "," << y;
        ASSERT_EQ(p.second, (y + 20 + 32 - 2 * in.top) * 32768) << x << "," << y;
      }
    }
    EXPECT_EQ(s.host->CallCount(HostCall::GetPixelData), 0);
  }
}

// The float limits the rows give the kernel samplers: alpha at 1, colour only at 1e10.
TEST(RowCallbacks, FloatKernelClipsAlphaToOneButNotColour) {
  Scene s(Depth::kFloat, 32, 8, kModeRemove, 4 /* Lanczos-2 */);
  s.layer.Fill(2.0f, 3.5f, -1.0f, 0.25f);
  ASSERT_EQ(s.Run(), PF_Err_NONE);
  EXPECT_TRUE(s.EveryOutputPixel([&](int x, int y) {
    const hostsim::World& o = *s.output;
    return o.Get(x, y, 0) == 1.0f && std::fabs(o.Get(x, y, 1) - 3.5f) < 1e-5f &&
           o.Get(x, y, 2) == 0.0f && std::fabs(o.Get(x, y, 3) - 0.25f) < 1e-6f;
  }));
}

TEST(PixelsToFixed, RoundsTheSinglePrecisionProductToNearestEvenAndSaturates) {
  const struct {
    float pixels;
    int32_t fixed;
  } cases[] = {{2.5f, 163840},         {2.00001f, 131073},  // 131072.656 in single precision
               {0.5f / 65536.0f, 0},   {1.5f / 65536.0f, 2},       {-2.5f / 65536.0f, -2},
               {-3.25f, -212992},      {40000.0f, INT32_MAX},      {-40000.0f, INT32_MIN},
               {INFINITY, INT32_MAX},  {NAN, INT32_MIN}};
  for (const auto& c : cases) EXPECT_EQ(PixelsToFixed(c.pixels), c.fixed) << c.pixels;
}

}  // namespace
