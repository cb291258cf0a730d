// The row callbacks, driven directly with a render record of the test's making: how a row is
// walked, where positions come from, what reaches the samplers and what is written.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "HostTestSupport.h"
#include "host/RenderRows.h"

namespace {

using hostsim::Depth;
using hostsim::World;

constexpr uint8_t kSentinel = 0xA5;
constexpr int kLayerWidth = 256;
constexpr int kLayerHeight = 64;

struct HostCalls {
  int pixelDataCalls = 0;
  PF_Err samplerResult = PF_Err_NONE;
  std::vector<std::pair<PF_Fixed, PF_Fixed>> positions;
  std::vector<void*> destinations;
};
HostCalls host_calls;

template <typename Pixel>
PF_Err PixelData(PF_EffectWorld* world, PF_PixelPtr, Pixel** pixels) {
  ++host_calls.pixelDataCalls;
  *pixels = static_cast<Pixel*>(world->data);
  return PF_Err_NONE;
}

template <typename Pixel>
PF_Err RecordSample(PF_ProgPtr, PF_Fixed x, PF_Fixed y, const PF_SampPB*, Pixel* dst) {
  host_calls.positions.emplace_back(x, y);
  host_calls.destinations.push_back(dst);
  std::memset(static_cast<void*>(dst), 0x11, sizeof(Pixel));
  return host_calls.samplerResult;
}

class RowCallbacks : public ::testing::Test {
 protected:
  void SetUp() override { host_calls = HostCalls{}; }

  // Input layer (kLayerWidth x kLayerHeight pattern) at inOrigin; an output row of `width`
  // pixels at outOrigin; the lens maps every layer pixel exactly onto itself at zoom 1.
  void Prepare(Depth depth, int filterType, int width, int outX = 0, int outY = 0, int inX = 0,
               int inY = 0, double zoom = 1.0) {
    host_calls = HostCalls{};
    lens = hosttest::MakeLens(kLayerWidth, kLayerHeight, kModeRemove, zoom, filterType);
    input = std::make_unique<World>(depth, kLayerWidth, kLayerHeight, inX, inY, 12);
    hosttest::FillPattern(*input);
    outputWorld = PF_EffectWorld{};
    outputWorld.width = width;
    outputWorld.origin_x = outX;
    outputWorld.origin_y = outY;
    pixelBytes = hostsim::PixelBytes(depth);
    row.assign(static_cast<size_t>(std::max(width, 0) + 1) * pixelBytes, kSentinel);

    utils = PF_UtilCallbacks{};
    utils.get_pixel_data8 = PixelData<PF_Pixel8>;
    utils.get_pixel_data16 = PixelData<PF_Pixel16>;
    pixelDataSuite = PF_PixelDataSuite1{};
    pixelDataSuite.get_pixel_data_float = PixelData<PF_PixelFloat>;
    inData = PF_InData{};
    inData.utils = &utils;

    rd = RenderData{};
    rd.lensData = &lens;
    rd.inData = &inData;
    rd.inputWorld = input->effectWorld();
    rd.outputWorld = &outputWorld;
    rd.sampPB.src = input->effectWorld();
    rd.pixelDataSuite = &pixelDataSuite;
    rd.sample8 = RecordSample<PF_Pixel>;
    rd.sample16 = RecordSample<PF_Pixel16>;
    rd.sampleFloat = RecordSample<PF_PixelFloat>;
  }

  PF_Err RenderRow(int y) {
    switch (input->depth()) {
      case Depth::k8:
        return DistortPixel8(&rd, 0, y, nullptr, reinterpret_cast<PF_Pixel*>(row.data()));
      case Depth::k16:
        return DistortPixel16(&rd, 0, y, nullptr, reinterpret_cast<PF_Pixel16*>(row.data()));
      case Depth::kFloat:
      default:
        return DistortPixelFloat(&rd, 0, y, nullptr,
                                 reinterpret_cast<PF_PixelFloat*>(row.data()));
    }
  }

  const uint8_t* RowPixel(int k) const { return row.data() + static_cast<size_t>(k) * pixelBytes; }
  bool RowPixelIs(int k, int inputX, int inputY) const {
    return std::memcmp(RowPixel(k), input->Row(inputY) + inputX * pixelBytes, pixelBytes) == 0;
  }
  bool RowPixelAllBytes(int k, uint8_t value) const {
    for (int i = 0; i < pixelBytes; ++i) {
      if (RowPixel(k)[i] != value) return false;
    }
    return true;
  }
  float RowChannel(int k, int c) const {
    switch (input->depth()) {
      case Depth::k8: return RowPixel(k)[c];
      case Depth::k16: {
        uint16_t v;
        std::memcpy(&v, RowPixel(k) + 2 * c, 2);
        return v;
      }
      case Depth::kFloat:
      default: {
        float v;
        std::memcpy(&v, RowPixel(k) + 4 * c, 4);
        return v;
      }
    }
  }

  VtAFXLensData lens{};
  std::unique_ptr<World> input;
  PF_EffectWorld outputWorld{};
  PF_UtilCallbacks utils{};
  PF_PixelDataSuite1 pixelDataSuite{};
  PF_InData inData{};
  RenderData rd{};
  std::vector<uint8_t> row;
  int pixelBytes = 4;
};

const Depth kDepths[] = {Depth::k8, Depth::k16, Depth::kFloat};

TEST_F(RowCallbacks, StepsOf64CoverExactlyTheRow) {
  for (Depth depth : kDepths) {
    for (int width : {1, 63, 64, 65, 130}) {
      SCOPED_TRACE(::testing::Message() << "depth " << static_cast<int>(depth) << " width " << width);
      Prepare(depth, 2 /* Nearest */, width);
      ASSERT_EQ(RenderRow(3), PF_Err_NONE);
      for (int k = 0; k < width; ++k) {
        ASSERT_TRUE(RowPixelIs(k, k, 3)) << "pixel " << k;
      }
      EXPECT_TRUE(RowPixelAllBytes(width, kSentinel)) << "written past the row";
      EXPECT_EQ(host_calls.pixelDataCalls, 1);  // once per row, not per step
    }
  }
}

TEST_F(RowCallbacks, BothBufferOriginsEnter) {
  // Output pixel k of row y lies at layer (10 + k, 20 + y); that layer position is input
  // buffer pixel (6 + k, 15 + y).
  Prepare(Depth::k8, 3 /* BiLinear */, 100, 10, 20, 4, 5);
  ASSERT_EQ(RenderRow(7), PF_Err_NONE);
  for (int k = 0; k < 100; ++k) {
    ASSERT_TRUE(RowPixelIs(k, k + 6, 7 + 15)) << "pixel " << k;
  }

  Prepare(Depth::k8, 1 /* Built-in */, 3, 10, 20, 4, 5);
  ASSERT_EQ(RenderRow(7), PF_Err_NONE);
  ASSERT_EQ(host_calls.positions.size(), 3u);
  for (int k = 0; k < 3; ++k) {
    EXPECT_EQ(host_calls.positions[k].first, (k + 6) << 16);
    EXPECT_EQ(host_calls.positions[k].second, 22 << 16);
  }
}

TEST_F(RowCallbacks, BuiltInCallsTheHostSamplerOncePerPixelAndIgnoresItsErrors) {
  for (Depth depth : kDepths) {
    Prepare(depth, 1, 130);
    host_calls.samplerResult = PF_Err_OUT_OF_MEMORY;
    ASSERT_EQ(RenderRow(9), PF_Err_NONE);
    ASSERT_EQ(host_calls.destinations.size(), 130u);
    for (int k = 0; k < 130; ++k) {
      EXPECT_EQ(host_calls.destinations[k], RowPixel(k));
      EXPECT_EQ(host_calls.positions[k], std::make_pair(k << 16, 9 << 16));
    }
    EXPECT_TRUE(RowPixelAllBytes(130, kSentinel));
    EXPECT_EQ(host_calls.pixelDataCalls, 0);
  }
}

TEST_F(RowCallbacks, BuiltInPassesHalfPixelPositionsInFixedPoint) {
  // At zoom 2, Remove maps layer x to x / 2 + 64 and y to y / 2 + 16 on this frame.
  Prepare(Depth::k16, 1, 40, 0, 0, 0, 0, 2.0);
  ASSERT_EQ(RenderRow(11), PF_Err_NONE);
  ASSERT_EQ(host_calls.positions.size(), 40u);
  for (int k = 0; k < 40; ++k) {
    EXPECT_EQ(host_calls.positions[k].first, (k + 128) * 32768) << k;
    EXPECT_EQ(host_calls.positions[k].second, (11 + 32) * 32768);
  }
}

TEST(PixelsToFixed, RoundsTheSinglePrecisionProductToNearestEven) {
  EXPECT_EQ(PixelsToFixed(2.5f), 163840);
  EXPECT_EQ(PixelsToFixed(2.00001f), 131073);  // 131072.656 in single precision
  EXPECT_EQ(PixelsToFixed(0.5f / 65536.0f), 0);
  EXPECT_EQ(PixelsToFixed(1.5f / 65536.0f), 2);
  EXPECT_EQ(PixelsToFixed(-2.5f / 65536.0f), -2);
  EXPECT_EQ(PixelsToFixed(-3.25f), -212992);
}

TEST(PixelsToFixed, SaturatesOutsideTheFixedPointRange) {
  EXPECT_EQ(PixelsToFixed(40000.0f), INT32_MAX);
  EXPECT_EQ(PixelsToFixed(-40000.0f), INT32_MIN);
  EXPECT_EQ(PixelsToFixed(INFINITY), INT32_MAX);
  EXPECT_EQ(PixelsToFixed(NAN), INT32_MIN);
}

TEST_F(RowCallbacks, UnknownFilterTypeRendersTheRowTransparent) {
  for (Depth depth : kDepths) {
    for (int filter : {0, 7, -3}) {
      Prepare(depth, filter, 70);
      ASSERT_EQ(RenderRow(2), PF_Err_NONE);
      for (int k = 0; k < 70; ++k) {
        ASSERT_TRUE(RowPixelAllBytes(k, 0)) << "pixel " << k;
      }
      EXPECT_TRUE(RowPixelAllBytes(70, kSentinel));
      EXPECT_TRUE(host_calls.positions.empty());
    }
  }
}

TEST_F(RowCallbacks, EmptyRowDoesNothing) {
  for (int width : {0, -5}) {
    for (int filter : {1, 2, 9}) {
      Prepare(Depth::k8, filter, width);
      EXPECT_EQ(RenderRow(0), PF_Err_NONE);
      EXPECT_TRUE(RowPixelAllBytes(0, kSentinel));
      EXPECT_EQ(host_calls.pixelDataCalls, 0);
      EXPECT_TRUE(host_calls.positions.empty());
    }
  }
}

TEST_F(RowCallbacks, LanczosReproducesIntegerPositionsAtIntegerDepths) {
  for (Depth depth : {Depth::k8, Depth::k16}) {
    for (int filter : {4, 5}) {
      Prepare(depth, filter, 130);
      ASSERT_EQ(RenderRow(30), PF_Err_NONE);
      for (int k = 0; k < 130; ++k) {
        ASSERT_TRUE(RowPixelIs(k, k, 30)) << "filter " << filter << " pixel " << k;
      }
    }
  }
}

TEST_F(RowCallbacks, MitchellBlursAnIsolatedPixel) {
  Prepare(Depth::k8, 6, 20);
  input->Fill(0, 0, 0, 0);
  for (int c = 0; c < 4; ++c) input->Set(10, 5, c, 255.0f);
  ASSERT_EQ(RenderRow(5), PF_Err_NONE);
  for (int c = 0; c < 4; ++c) {
    EXPECT_EQ(RowChannel(10, c), 201.0f);  // 0.79012346 * 255, rounded
  }
}

TEST_F(RowCallbacks, FloatKernelClipsAlphaToOneButNotColour) {
  Prepare(Depth::kFloat, 4, 20);
  input->Fill(2.0f, 3.5f, -1.0f, 0.25f);
  ASSERT_EQ(RenderRow(5), PF_Err_NONE);
  for (int k = 0; k < 20; ++k) {
    EXPECT_EQ(RowChannel(k, 0), 1.0f);                 // alpha clipped at 1
    EXPECT_NEAR(RowChannel(k, 1), 3.5f, 1e-5f);        // colour clipped only at 1e10
    EXPECT_EQ(RowChannel(k, 2), 0.0f);                 // nothing below 0
    EXPECT_NEAR(RowChannel(k, 3), 0.25f, 1e-6f);
  }
}

}  // namespace
