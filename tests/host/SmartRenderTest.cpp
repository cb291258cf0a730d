// The smart render as the host sees it: which suites it takes and gives back, which iterate
// it runs, what it returns on every failure, and the pixels it writes.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "HostTestSupport.h"
#include "gulp/FGulp.h"
#include "lens/RunMapping.h"

namespace {

using hostsim::Depth;
using hostsim::Host;
using hostsim::HostCall;
using hostsim::World;

constexpr uint8_t kClear = 0x3C;
const Depth kDepths[] = {Depth::k8, Depth::k16, Depth::kFloat};

const char* IterateSuiteOf(Depth depth) {
  switch (depth) {
    case Depth::k8: return "PF Iterate8 Suite";
    case Depth::k16: return "PF iterate16 Suite";
    case Depth::kFloat:
    default: return "PF iterateFloat Suite";
  }
}

// A width x height pattern layer whose lens record (sizes equal to the layer, zero
// coefficients, zoom 1) maps every pixel exactly onto itself when the sizes are powers of two.
struct Scene {
  Scene(Depth depth, int width, int height, int filter)
      : layer(depth, width, height), request{0, 0, width, height} {
    hosttest::FillPattern(layer);
    host = hosttest::ReadyHost(&layer);
    host->params.filter = filter;
    host->params.distortedWidth = host->params.undistortedWidth = width;
    host->params.distortedHeight = host->params.undistortedHeight = height;
    host->outputClearByte = kClear;
  }
  PF_Err PreRender() { return host->SmartPreRender(request, &report); }
  PF_Err Render() { return host->SmartRender(&output); }
  PF_Err PreRenderAndRender() {
    const PF_Err err = PreRender();
    return err != PF_Err_NONE ? err : Render();
  }
  bool OutputUntouched() const {
    if (!output) return false;
    for (int y = 0; y < output->height(); ++y) {
      for (int i = 0; i < output->width() * hostsim::PixelBytes(output->depth()); ++i) {
        if (output->Row(y)[i] != kClear) return false;
      }
    }
    return true;
  }

  World layer;
  PF_LRect request;
  std::unique_ptr<Host> host;
  hostsim::PreRenderReport report;
  std::unique_ptr<World> output;
};

TEST(SmartRender, EachDepthRendersThroughItsOwnIterateSuite) {
  for (Depth depth : kDepths) {
    SCOPED_TRACE(static_cast<int>(depth));
    Scene scene(depth, 256, 64, 2 /* Nearest */);
    ASSERT_EQ(scene.PreRenderAndRender(), PF_Err_NONE);
    Host& host = *scene.host;
    for (Depth other : kDepths) {
      EXPECT_EQ(host.AcquireCount(IterateSuiteOf(other), 1), other == depth ? 1 : 0);
    }
    for (const char* sampling :
         {"PF Sampling8 Suite", "PF Sampling16 Suite", "PF SamplingFloat Suite"}) {
      EXPECT_EQ(host.AcquireCount(sampling, 1), 1) << sampling;
    }
    EXPECT_EQ(host.AcquireCount("PF World Suite", 2), 1);
    EXPECT_EQ(host.AcquireCount("PF ANSI Suite", 1), 1);
    EXPECT_EQ(host.AcquireCount("PF Pixel Data Suite", 1), 1);
    EXPECT_TRUE(host.AllSuitesReleased());

    const hostsim::IterateRecord it = host.lastIterate();
    EXPECT_EQ(it.depthBits, static_cast<int>(depth));
    EXPECT_FALSE(it.hadSource);
    EXPECT_EQ(it.progressBase, 0);
    EXPECT_EQ(it.progressFinal, 64);
    EXPECT_EQ(it.area.left, 0);
    EXPECT_EQ(it.area.top, 0);
    EXPECT_EQ(it.area.right, 1);
    EXPECT_EQ(it.area.bottom, 64);
    std::vector<int> rows(64);
    for (int y = 0; y < 64; ++y) rows[y] = y;
    EXPECT_EQ(host.iteratedRows(), rows);  // once per row

    // The kernel tables exist and the record points at them.
    const VtAFXLensData& lens = hosttest::LensOf(host);
    EXPECT_NE(lens.lanczos2Kernel, nullptr);
    EXPECT_NE(lens.lanczos3Kernel, nullptr);
    EXPECT_NE(lens.mitchellKernel, nullptr);
  }
}

TEST(SmartRender, IdentityLensReproducesTheInput) {
  for (Depth depth : kDepths) {
    for (int filter : {2 /* Nearest */, 3 /* BiLinear */}) {
      SCOPED_TRACE(::testing::Message() << "depth " << static_cast<int>(depth) << " filter " << filter);
      Scene scene(depth, 256, 64, filter);
      ASSERT_EQ(scene.PreRenderAndRender(), PF_Err_NONE);
      ASSERT_TRUE(scene.output);
      ASSERT_EQ(scene.output->width(), 256);
      ASSERT_EQ(scene.output->height(), 64);
      EXPECT_EQ(scene.output->PackedBytes(), scene.layer.PackedBytes());
    }
  }
}

// Mapped input positions of one output row, computed with the sequence's lens record.
std::vector<std::pair<float, float>> MappedRow(const VtAFXLensData& lens, int width, int y) {
  std::vector<std::pair<float, float>> positions;
  for (int x0 = 0; x0 < width; x0 += 64) {
    FGulpPt out, in;
    const int n = std::min(64, width - x0);
    out.x.SetLen(n, 0);
    out.y.SetLen(n, 0);
    for (int k = 0; k < n; ++k) {
      out.x[k] = static_cast<float>(x0 + k);
      out.y[k] = static_cast<float>(y);
    }
    MapOutToInPt(&lens, out, in);
    for (int k = 0; k < n; ++k) positions.emplace_back(in.x[k], in.y[k]);
  }
  return positions;
}

TEST(SmartRender, BiLinearIdentityDiffersOnlyWherePositionsSlipBelowZero) {
  // A 100 x 100 frame in Apply: its transform is not exact in single precision, so a few
  // positions of the first column and row come out a hair below 0, where the bilinear image
  // ends; everywhere else the identity reproduces the input.
  for (Depth depth : kDepths) {
    SCOPED_TRACE(static_cast<int>(depth));
    Scene scene(depth, 100, 100, 3);
    scene.host->params.mode = 2;
    ASSERT_EQ(scene.PreRenderAndRender(), PF_Err_NONE);
    ASSERT_TRUE(scene.output);
    ASSERT_EQ(scene.output->width(), 100);
    ASSERT_EQ(scene.output->height(), 100);
    const VtAFXLensData& lens = hosttest::LensOf(*scene.host);
    int exact = 0, slipped = 0;
    for (int y = 0; y < 100; ++y) {
      const auto positions = MappedRow(lens, 100, y);
      for (int x = 0; x < 100; ++x) {
        const auto [px, py] = positions[x];
        if (px < 0.0f || py < 0.0f) {
          ASSERT_TRUE(x == 0 || y == 0) << x << "," << y;
          EXPECT_TRUE(hosttest::IsTransparent(*scene.output, x, y)) << x << "," << y;
          ++slipped;
          continue;
        }
        const bool onItself = px == static_cast<float>(x) && py == static_cast<float>(y);
        // At 8 bits a blend that moved by a few ulps rounds back to the pixel itself; at the
        // deeper depths a large step to the neighbour can show, so only exact positions
        // must reproduce there.
        if (onItself || depth == Depth::k8) {
          ASSERT_TRUE(hosttest::SamePixel(*scene.output, x, y, scene.layer, x, y))
              << x << "," << y;
        }
        exact += onItself;
      }
    }
    EXPECT_GT(exact, 100 * 100 / 2);
    EXPECT_GT(slipped, 0);
  }
}

TEST(SmartRender, UnknownPixelFormatIs516AndWritesNothing) {
  Scene scene(Depth::k8, 64, 32, 2);
  scene.host->OverrideInputPixelFormat(0x41424344);
  ASSERT_EQ(scene.PreRender(), PF_Err_NONE);
  EXPECT_EQ(scene.Render(), PF_Err_BAD_CALLBACK_PARAM);
  EXPECT_TRUE(scene.OutputUntouched());
  EXPECT_EQ(scene.host->CallCount(HostCall::Iterate), 0);
  EXPECT_TRUE(scene.host->AllSuitesReleased());
}

TEST(SmartRender, FailedFormatQueryLeavesTheFormatUnknown) {
  // This host writes no format when the query fails, so the preset "invalid" stands.
  Scene scene(Depth::k16, 64, 32, 2);
  scene.host->FailCall(HostCall::GetPixelFormat, 1, PF_Err_OUT_OF_MEMORY);
  EXPECT_EQ(scene.PreRenderAndRender(), PF_Err_BAD_CALLBACK_PARAM);
  EXPECT_TRUE(scene.OutputUntouched());
  EXPECT_EQ(scene.host->CallCount(HostCall::Iterate), 0);
}

TEST(SmartRender, MissingSamplingOrIterateSuiteIs516AndReleasesEverything) {
  for (const char* missing : {"PF Sampling8 Suite", "PF Sampling16 Suite",
                              "PF SamplingFloat Suite", "PF Iterate8 Suite"}) {
    SCOPED_TRACE(missing);
    Scene scene(Depth::k8, 64, 32, 2);
    scene.host->RemoveSuite(missing);
    EXPECT_EQ(scene.PreRenderAndRender(), PF_Err_BAD_CALLBACK_PARAM);
    EXPECT_TRUE(scene.OutputUntouched());
    EXPECT_EQ(scene.host->CallCount(HostCall::Iterate), 0);
    EXPECT_EQ(scene.host->ReleaseCount("PF World Suite", 2), 1);
    EXPECT_EQ(scene.host->ReleaseCount("PF ANSI Suite", 1), 1);
    EXPECT_EQ(scene.host->ReleaseCount("PF Pixel Data Suite", 1), 1);
    EXPECT_TRUE(scene.host->AllSuitesReleased());
  }
}

TEST(SmartRender, MissingWorldSuiteStopsBeforeTheOtherHostSuites) {
  Scene scene(Depth::k8, 64, 32, 2);
  scene.host->RemoveSuite("PF World Suite");
  EXPECT_EQ(scene.PreRenderAndRender(), PF_Err_BAD_CALLBACK_PARAM);
  EXPECT_EQ(scene.host->ReturnMessage(), "Couldn't load suite.");
  EXPECT_NE(scene.host->outData().out_flags & PF_OutFlag_DISPLAY_ERROR_MESSAGE, 0);
  EXPECT_EQ(scene.host->AcquireCount("PF ANSI Suite"), 0);
  EXPECT_EQ(scene.host->AcquireCount("PF Pixel Data Suite"), 0);
  EXPECT_EQ(scene.host->AcquireCount("PF Sampling8 Suite"), 1);  // requested all the same
  EXPECT_EQ(scene.host->CallCount(HostCall::Iterate), 0);
  EXPECT_TRUE(scene.OutputUntouched());
  EXPECT_TRUE(scene.host->AllSuitesReleased());
  // The releases run for all three host suites whether or not they were had; the host refuses
  // the three it never handed out, and the message stays the load failure's.
  EXPECT_EQ(scene.host->UnheldReleaseCount(), 3);
}

TEST(SmartRender, MissingSequenceDataIs512EvenWithAMissingSuite) {
  for (bool worldSuiteMissing : {false, true}) {
    Scene scene(Depth::k8, 64, 32, 2);
    ASSERT_EQ(scene.PreRender(), PF_Err_NONE);
    const PF_Handle handle = scene.host->inData().sequence_data;
    scene.host->inData().sequence_data = nullptr;
    if (worldSuiteMissing) scene.host->RemoveSuite("PF World Suite");
    EXPECT_EQ(scene.Render(), PF_Err_INTERNAL_STRUCT_DAMAGED);
    scene.host->inData().sequence_data = handle;
    EXPECT_EQ(scene.host->CallCount(HostCall::Iterate), 0);
    EXPECT_TRUE(scene.OutputUntouched());
    EXPECT_TRUE(scene.host->AllSuitesReleased());
  }
}

TEST(SmartRender, FailedPixelAddressLeavesItsRowAndReturnsTheError) {
  for (Depth depth : kDepths) {
    SCOPED_TRACE(static_cast<int>(depth));
    Scene scene(depth, 64, 32, 2);
    scene.host->threads = 1;
    scene.host->FailCall(HostCall::GetPixelData, 5, PF_Err_OUT_OF_MEMORY);
    EXPECT_EQ(scene.PreRenderAndRender(), PF_Err_OUT_OF_MEMORY);
    ASSERT_TRUE(scene.output);
    // Rows 0..3 were rendered; row 4, whose address call failed, is untouched.
    const int rowBytes = 64 * hostsim::PixelBytes(depth);
    for (int y = 0; y < 4; ++y) {
      EXPECT_EQ(std::memcmp(scene.output->Row(y), scene.layer.Row(y), rowBytes), 0) << y;
    }
    for (int i = 0; i < rowBytes; ++i) ASSERT_EQ(scene.output->Row(4)[i], kClear);
    EXPECT_TRUE(scene.host->AllSuitesReleased());
  }
}

TEST(SmartRender, HostErrorsPassThroughAndReleaseResultsAreIgnored) {
  {
    Scene scene(Depth::k8, 64, 32, 2);
    scene.host->FailCall(HostCall::Iterate, 1, PF_Err_OUT_OF_MEMORY);
    EXPECT_EQ(scene.PreRenderAndRender(), PF_Err_OUT_OF_MEMORY);
    EXPECT_TRUE(scene.host->AllSuitesReleased());
  }
  for (HostCall call : {HostCall::CheckoutLayerPixels, HostCall::CheckoutOutput}) {
    Scene scene(Depth::k8, 64, 32, 2);
    scene.host->FailCall(call, 1, PF_Err_INVALID_CALLBACK);
    EXPECT_EQ(scene.PreRenderAndRender(), PF_Err_INVALID_CALLBACK);
    EXPECT_EQ(scene.host->CallCount(HostCall::AcquireSuite), 0);
  }
  {
    Scene scene(Depth::k8, 64, 32, 2);
    scene.host->FailCall(HostCall::ReleaseSuite, 1, 99);
    EXPECT_EQ(scene.PreRenderAndRender(), PF_Err_NONE);
  }
}

// Without input pixels every output pixel lies outside any input: transparent, at every depth.
TEST(SmartRender, NoInputPixelsGivesTransparentOutput) {
  for (Depth depth : kDepths) {
    SCOPED_TRACE(static_cast<int>(depth));
    Scene scene(depth, 64, 32, 2);
    scene.host->OverrideSuppliedRect(PF_LRect{0, 0, 0, 0});
    EXPECT_EQ(scene.PreRenderAndRender(), PF_Err_NONE);
    ASSERT_TRUE(scene.output);
    for (uint8_t byte : scene.output->PackedBytes()) ASSERT_EQ(byte, 0);
    EXPECT_EQ(scene.host->CallCount(HostCall::Iterate), 0);
    EXPECT_TRUE(scene.host->AllSuitesReleased());
  }
}

TEST(SmartRender, BuiltInAsksTheHostSamplerAtFixedPointPositions) {
  // Zoom 2 on a 256 x 64 frame: Remove maps layer (x, y) to (x / 2 + 64, y / 2 + 16), which
  // the input buffer (at the supplied rectangle's corner) holds at that minus its origin.
  Scene scene(Depth::k8, 256, 64, 1);
  scene.host->params.zoom = 2;
  scene.host->recordSamples = true;
  scene.host->threads = 1;
  ASSERT_EQ(scene.PreRenderAndRender(), PF_Err_NONE);
  const PF_LRect supplied = scene.report.supplied.result_rect;
  ASSERT_EQ(scene.output->width(), 256);
  const auto positions = scene.host->subpixelPositions();
  ASSERT_EQ(positions.size(), 256u * 64u);
  for (int y = 0; y < 64; ++y) {
    for (int x = 0; x < 256; ++x) {
      const auto p = positions[static_cast<size_t>(y) * 256 + x];
      ASSERT_EQ(p.first, (x + 128 - 2 * supplied.left) * 32768) << x << "," << y;
      ASSERT_EQ(p.second, (y + 32 - 2 * supplied.top) * 32768) << x << "," << y;
    }
  }
}

}  // namespace
