#include <cmath>
#include <cstring>
#include <new>
#include <stdexcept>
#include <tuple>

#include "FakeEffect.h"

using namespace hostsim_test;
using hostsim::CopyRegion;
using hostsim::PixelFormatOfWorld;

TEST(World, LayoutHasPaddedStrideOriginDepthFlagsAndPixelFormat) {
  World w(Depth::k16, 5, 3, 10, -20, 6), w8(Depth::k8, 7, 2), wf(Depth::kFloat, 7, 2, 0, 0, 4);
  const PF_EffectWorld* e = w.effectWorld();
  EXPECT_EQ(std::vector<A_long>({e->width, e->height, e->rowbytes, e->origin_x, e->origin_y}),
            std::vector<A_long>({5, 3, 5 * 8 + 6, 10, -20}));
  EXPECT_EQ(Edges(w.Bounds()), Edges(PF_LRect{10, -20, 15, -17}));
  EXPECT_EQ(w.paddingBytes(), 6);
  EXPECT_EQ(std::vector<int>({w8.rowBytes(), wf.rowBytes()}), std::vector<int>({28, 7 * 16 + 4}));
  EXPECT_TRUE(e->world_flags & PF_WorldFlag_DEEP);
  EXPECT_FALSE(w8.effectWorld()->world_flags & PF_WorldFlag_DEEP);
  // The format survives a copy of the record; a foreign record follows the deep flag.
  const PF_EffectWorld floatCopy = *wf.effectWorld();
  EXPECT_EQ(PixelFormatOfWorld(floatCopy), PF_PixelFormat_ARGB128);
  EXPECT_EQ(PixelFormatOfWorld(*e), PF_PixelFormat_ARGB64);
  EXPECT_EQ(PixelFormatOfWorld(*w8.effectWorld()), PF_PixelFormat_ARGB32);
  PF_EffectWorld foreign{};
  EXPECT_EQ(PixelFormatOfWorld(foreign), PF_PixelFormat_ARGB32);
  foreign.world_flags = PF_WorldFlag_DEEP;
  EXPECT_EQ(PixelFormatOfWorld(foreign), PF_PixelFormat_ARGB64);
}

TEST(World, ChannelsLieInMemoryAsAlphaRedGreenBlue) {
  World w16(Depth::k16, 1, 1);
  for (int c = 0; c < 4; ++c) w16.Set(0, 0, c, 1000.0f * (c + 1));
  const uint16_t expected16[4] = {1000, 2000, 3000, 4000};
  EXPECT_EQ(std::memcmp(w16.Row(0), expected16, 8), 0);
}

TEST(World, IntegerStoresRoundToNearestAndClampToTheDepthRange) {
  const std::tuple<Depth, float, float> cases[] = {
      {Depth::k16, 100.49f, 100},   {Depth::k16, 100.5f, 101}, {Depth::k16, 32767.5f, 32768},
      {Depth::k16, 40000, 32768},   {Depth::k16, -3, 0},       {Depth::k16, 0.49f, 0},
      {Depth::k16, 1e30f, 32768},   {Depth::k16, NAN, 0},      {Depth::k16, -INFINITY, 0},
      {Depth::k8, 254.5f, 255},     {Depth::k8, 254.49f, 254}, {Depth::k8, 300, 255},
      {Depth::k8, 0.5f, 1},         {Depth::k8, -0.5f, 0},     {Depth::kFloat, -0.25f, -0.25f},
      {Depth::kFloat, 1e10f, 1e10f}};
  for (const auto& [depth, in, out] : cases) {
    World w(depth, 1, 1);
    w.Set(0, 0, 2, in);
    EXPECT_EQ(w.Get(0, 0, 2), out) << static_cast<int>(depth) << "-bit store of " << in;
  }
}

TEST(World, PackedBytesLeaveOutThePaddingAndFillKeepsIt) {
  World w(Depth::k8, 2, 2, 0, 0, 3);
  w.FillBytes(0xEE);
  w.Fill(1, 2, 3, 4);
  EXPECT_EQ(w.PackedBytes(),
            std::vector<uint8_t>({1, 2, 3, 4, 1, 2, 3, 4, 1, 2, 3, 4, 1, 2, 3, 4}));
  EXPECT_EQ(w.PaddingBytes(), std::vector<uint8_t>(6, 0xEE));
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

TEST(World, CopyRegionAndLendTakeLayerPixelsWhereTheyOverlap) {
  World layer(Depth::k16, 4, 4, 2, 1, 8);  // covers x 2..5, y 1..4 of the layer
  for (int i = 0; i < 64; ++i) layer.Set(i / 4 % 4, i / 16, i % 4, 10.0f * i);
  auto layerValue = [&](int x, int y, int c) {  // layer coordinates; 0 outside
    return x >= 2 && x < 6 && y >= 1 && y < 5 ? layer.Get(x - 2, y - 1, c) : 0.0f;
  };
  const PF_LRect rect{1, 2, 5, 6}, inside{3, 1, 6, 3};
  auto region = CopyRegion(layer, rect, 10);
  EXPECT_EQ(region->rowBytes(), 4 * 8 + 10);
  EXPECT_EQ(region->depth(), Depth::k16);
  auto lent = World::Lend(layer, inside);
  ASSERT_NE(lent, nullptr);
  EXPECT_EQ(lent->rowBytes(), layer.rowBytes());
  EXPECT_EQ(World::Lend(layer, rect), nullptr);  // reaches outside the layer
  for (const World* world : {region.get(), lent.get()}) {
    const PF_LRect r = world->Bounds();
    EXPECT_EQ(Edges(r), Edges(world == lent.get() ? inside : rect));
    for (int i = 0; i < world->width() * world->height() * 4; ++i) {
      const int x = i / 4 % world->width(), y = i / 4 / world->width();
      EXPECT_EQ(world->Get(x, y, i % 4), layerValue(r.left + x, r.top + y, i % 4)) << x << "," << y;
    }
  }
  EXPECT_EQ(CopyRegion(layer, PF_LRect{3, 3, 3, 9})->width(), 0);
  EXPECT_EQ(CopyRegion(layer, PF_LRect{100, 100, 102, 101})->Get(1, 0, 0), 0.0f);
  // Filling a lent world fills every row of its own pixels and nothing else of the layer.
  std::vector<uint8_t> expected = layer.PackedBytes();
  for (int y = inside.top; y < inside.bottom; ++y) {
    for (int x = inside.left; x < inside.right; ++x) {
      std::fill_n(expected.begin() + ((y - 1) * 4 + (x - 2)) * 8, 8, uint8_t{0xAB});
    }
  }
  lent->FillBytes(0xAB);
  EXPECT_EQ(layer.PackedBytes(), expected);
}
