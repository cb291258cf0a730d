#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>

#include "hostsim/World.h"

using hostsim::CopyRegion;
using hostsim::Depth;
using hostsim::PixelFormatOfWorld;
using hostsim::World;

TEST(World, LayoutHasPaddedStrideOriginAndDepthFlags) {
  World w(Depth::k16, 5, 3, 10, -20, 6);
  const PF_EffectWorld* e = w.effectWorld();
  EXPECT_EQ(e->rowbytes, 5 * 8 + 6);
  EXPECT_EQ(e->width, 5);
  EXPECT_EQ(e->height, 3);
  EXPECT_EQ(e->origin_x, 10);
  EXPECT_EQ(e->origin_y, -20);
  EXPECT_TRUE(e->world_flags & PF_WorldFlag_DEEP);
  EXPECT_EQ(static_cast<uint8_t*>(e->data), w.Row(0));
  EXPECT_EQ(w.Row(2) - w.Row(0), 2 * 46);
  EXPECT_EQ(reinterpret_cast<uint8_t*>(w.Pixel16(3, 1)), w.Row(1) + 3 * 8);
  const PF_LRect b = w.Bounds();
  EXPECT_EQ(b.left, 10);
  EXPECT_EQ(b.top, -20);
  EXPECT_EQ(b.right, 15);
  EXPECT_EQ(b.bottom, -17);
  EXPECT_EQ(w.paddingBytes(), 6);

  World w8(Depth::k8, 7, 2);
  EXPECT_EQ(w8.rowBytes(), 28);
  EXPECT_FALSE(w8.effectWorld()->world_flags & PF_WorldFlag_DEEP);
  World wf(Depth::kFloat, 7, 2, 0, 0, 4);
  EXPECT_EQ(wf.rowBytes(), 7 * 16 + 4);
}

TEST(World, PixelFormatSurvivesACopyOfTheRecordAndForeignWorldsFollowTheDeepFlag) {
  World f(Depth::kFloat, 2, 2), s(Depth::k16, 2, 2), e(Depth::k8, 2, 2);
  const PF_EffectWorld floatCopy = *f.effectWorld();
  EXPECT_EQ(PixelFormatOfWorld(floatCopy), PF_PixelFormat_ARGB128);
  EXPECT_EQ(PixelFormatOfWorld(*s.effectWorld()), PF_PixelFormat_ARGB64);
  EXPECT_EQ(PixelFormatOfWorld(*e.effectWorld()), PF_PixelFormat_ARGB32);

  PF_EffectWorld foreign{};
  EXPECT_EQ(PixelFormatOfWorld(foreign), PF_PixelFormat_ARGB32);
  foreign.world_flags = PF_WorldFlag_DEEP;
  EXPECT_EQ(PixelFormatOfWorld(foreign), PF_PixelFormat_ARGB64);
}

TEST(World, ChannelsLieInMemoryAsAlphaRedGreenBlue) {
  World w8(Depth::k8, 1, 1);
  for (int c = 0; c < 4; ++c) w8.Set(0, 0, c, 11.0f * (c + 1));
  const uint8_t expected8[4] = {11, 22, 33, 44};
  EXPECT_EQ(std::memcmp(w8.Row(0), expected8, 4), 0);

  World w16(Depth::k16, 1, 1);
  for (int c = 0; c < 4; ++c) w16.Set(0, 0, c, 1000.0f * (c + 1));
  uint16_t got16[4];
  std::memcpy(got16, w16.Row(0), 8);
  EXPECT_EQ(got16[0], 1000);
  EXPECT_EQ(got16[3], 4000);
  EXPECT_EQ(w16.Pixel16(0, 0)->red, 2000);
}

TEST(World, IntegerStoresRoundToNearestAndClampToTheDepthRange) {
  World w16(Depth::k16, 1, 1);
  struct Case {
    float in;
    float out;
  };
  const Case cases16[] = {{100.49f, 100},  {100.5f, 101},   {32767.5f, 32768}, {32768.0f, 32768},
                          {40000.0f, 32768}, {-3.0f, 0},     {0.49f, 0},        {1e30f, 32768},
                          {std::nanf(""), 0}, {-INFINITY, 0}};
  for (const Case& c : cases16) {
    w16.Set(0, 0, 1, c.in);
    EXPECT_EQ(w16.Get(0, 0, 1), c.out) << "16-bit store of " << c.in;
  }
  World w8(Depth::k8, 1, 1);
  const Case cases8[] = {{254.5f, 255}, {254.49f, 254}, {300.0f, 255}, {0.5f, 1}, {-0.5f, 0}};
  for (const Case& c : cases8) {
    w8.Set(0, 0, 2, c.in);
    EXPECT_EQ(w8.Get(0, 0, 2), c.out) << "8-bit store of " << c.in;
  }
  World wf(Depth::kFloat, 1, 1);
  wf.Set(0, 0, 3, -0.25f);
  EXPECT_EQ(wf.Get(0, 0, 3), -0.25f);
  wf.Set(0, 0, 0, 1e10f);
  EXPECT_EQ(wf.Get(0, 0, 0), 1e10f);
}

TEST(World, PackedBytesLeaveOutThePaddingAndFillKeepsIt) {
  World w(Depth::k8, 2, 2, 0, 0, 3);
  w.FillBytes(0xEE);
  w.Fill(1, 2, 3, 4);
  const std::vector<uint8_t> packed = w.PackedBytes();
  ASSERT_EQ(packed.size(), 16u);
  for (size_t i = 0; i < packed.size(); ++i) EXPECT_EQ(packed[i], i % 4 + 1);
  const std::vector<uint8_t> padding = w.PaddingBytes();
  ASSERT_EQ(padding.size(), 6u);
  for (uint8_t b : padding) EXPECT_EQ(b, 0xEE);
}

TEST(World, DegenerateSizesAreRefusedOrEmptyWithoutAllocating) {
  World empty(Depth::k8, -4, 3);
  EXPECT_EQ(empty.width(), 0);
  EXPECT_EQ(empty.effectWorld()->data, nullptr);
  EXPECT_TRUE(empty.PackedBytes().empty());
  // A float row of 2e8 pixels is 3.2e9 bytes: more than the host's 32-bit stride.
  EXPECT_THROW(World(Depth::kFloat, 200000000, 1), std::length_error);
  // 1e5 x 1e5 8-bit pixels are 40 GB: refused before any allocation.
  EXPECT_THROW(World(Depth::k8, 100000, 100000), std::bad_alloc);
}

TEST(World, CopyRegionTakesLayerPixelsWhereTheyOverlapAndZeroElsewhere) {
  World layer(Depth::k16, 4, 3, 2, 1);  // covers x 2..5, y 1..3 of the layer
  for (int y = 0; y < 3; ++y)
    for (int x = 0; x < 4; ++x)
      for (int c = 0; c < 4; ++c) layer.Set(x, y, c, 1000.0f * (y + 1) + 10.0f * (x + 1) + c);

  const PF_LRect rect{1, 2, 5, 6};
  auto region = CopyRegion(layer, rect, 10);
  ASSERT_EQ(region->width(), 4);
  ASSERT_EQ(region->height(), 4);
  EXPECT_EQ(region->originX(), 1);
  EXPECT_EQ(region->originY(), 2);
  EXPECT_EQ(region->rowBytes(), 4 * 8 + 10);
  EXPECT_EQ(region->depth(), Depth::k16);
  for (int y = 0; y < 4; ++y) {
    for (int x = 0; x < 4; ++x) {
      const int lx = rect.left + x - 2, ly = rect.top + y - 1;  // layer buffer position
      const bool inside = lx >= 0 && lx < 4 && ly >= 0 && ly < 3;
      for (int c = 0; c < 4; ++c) {
        const float expected = inside ? 1000.0f * (ly + 1) + 10.0f * (lx + 1) + c : 0.0f;
        EXPECT_EQ(region->Get(x, y, c), expected) << x << "," << y << " channel " << c;
      }
    }
  }
  EXPECT_EQ(CopyRegion(layer, PF_LRect{3, 3, 3, 9})->width(), 0);
  auto far = CopyRegion(layer, PF_LRect{100, 100, 102, 101});
  EXPECT_EQ(far->Get(1, 0, 0), 0.0f);
}
