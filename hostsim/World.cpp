#include "hostsim/World.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <stdexcept>

namespace hostsim {

PF_PixelFormat PixelFormatOfWorld(const PF_EffectWorld& world) {
  const A_long code = world.reserved_long3;
  if (BitDepthOfHostFormat(code) != 0) return code;
  return (world.world_flags & PF_WorldFlag_DEEP) ? PF_PixelFormat_ARGB64
                                                 : PF_PixelFormat_ARGB32;
}

World::World(Depth depth, int width, int height, int originX, int originY, int paddingBytes)
    : depth_(depth) {
  width = std::max(width, 0);
  height = std::max(height, 0);
  paddingBytes = std::max(paddingBytes, 0);
  const int64_t rowBytes = int64_t{width} * PixelBytes(depth) + paddingBytes;
  if (rowBytes > std::numeric_limits<A_long>::max()) {
    throw std::length_error("world row of " + std::to_string(rowBytes) +
                            " bytes does not fit the host's row stride");
  }
  const uint64_t total = static_cast<uint64_t>(rowBytes) * static_cast<uint64_t>(height);
  // The host refuses buffers above 4 GiB rather than asking the allocator for them.
  if (total > kMaxWorldBytes) throw std::bad_alloc();
  bytes_.assign(static_cast<size_t>(total), 0);

  world_.world_flags =
      PF_WorldFlag_WRITEABLE | (depth == Depth::k16 ? A_long{PF_WorldFlag_DEEP} : A_long{0});
  base_ = bytes_.data();
  world_.data = bytes_.empty() ? nullptr : bytes_.data();
  world_.rowbytes = static_cast<A_long>(rowBytes);
  world_.width = width;
  world_.height = height;
  world_.extent_hint = PF_LRect{0, 0, width, height};
  world_.pix_aspect_ratio = PF_RationalScale{1, 1};
  world_.origin_x = originX;
  world_.origin_y = originY;
  world_.reserved_long3 = PixelFormatOf(depth);
}

World::World(LentTag, const World& layer, const PF_LRect& rect)
    : depth_(layer.depth_), world_(layer.world_), lent_(true) {
  const size_t pixelBytes = static_cast<size_t>(PixelBytes(depth_));
  // The effect only reads its input; the host's world record is not const-qualified.
  base_ = const_cast<uint8_t*>(layer.Row(rect.top - layer.originY())) +
          static_cast<size_t>(rect.left - layer.originX()) * pixelBytes;
  world_.data = base_;
  world_.width = rect.right - rect.left;
  world_.height = rect.bottom - rect.top;
  world_.extent_hint = PF_LRect{0, 0, world_.width, world_.height};
  world_.origin_x = rect.left;
  world_.origin_y = rect.top;
}

std::unique_ptr<World> World::Lend(const World& layer, const PF_LRect& rect) {
  const PF_LRect lb = layer.Bounds();
  if (!RectInside(rect, lb)) return nullptr;
  return std::unique_ptr<World>(new World(LentTag{}, layer, rect));
}

PF_LRect World::Bounds() const {
  // Saturating, so that a world placed near the edge of the int32 range cannot overflow.
  auto add = [](A_long a, A_long b) {
    const int64_t s = int64_t{a} + b;
    return static_cast<A_long>(std::min<int64_t>(s, std::numeric_limits<A_long>::max()));
  };
  return PF_LRect{world_.origin_x, world_.origin_y, add(world_.origin_x, world_.width),
                  add(world_.origin_y, world_.height)};
}

namespace {

// Round to nearest, halves away from zero, after clamping to [0, max]; NaN gives 0. Float
// channels store the value as given.
template <typename T>
T ToChannel(float value, float max) {
  if (!(value > 0.0f)) return 0;  // also NaN
  if (value >= max) return static_cast<T>(max);
  return static_cast<T>(std::floor(value + 0.5f));
}
template <>
float ToChannel<float>(float value, float) {
  return value;
}

}  // namespace

float World::Get(int x, int y, int c) const {
  return ForPixelDepth(depth_, [&](auto depth) {
    const auto* p = At<typename HostPixel<decltype(depth)::kBits>::Type>(x, y);
    const float v[4] = {static_cast<float>(p->alpha), static_cast<float>(p->red),
                        static_cast<float>(p->green), static_cast<float>(p->blue)};
    return v[c];
  });
}

void World::Set(int x, int y, int c, float value) {
  ForPixelDepth(depth_, [&](auto depth) {
    auto* p = At<typename HostPixel<decltype(depth)::kBits>::Type>(x, y);
    using Channel = decltype(p->alpha);
    Channel* v[4] = {&p->alpha, &p->red, &p->green, &p->blue};
    *v[c] = ToChannel<Channel>(value, decltype(depth)::kInfo.colorMax);
  });
}

void World::Fill(float a, float r, float g, float b) {
  const float values[4] = {a, r, g, b};
  for (int y = 0; y < height(); ++y) {
    for (int x = 0; x < width(); ++x) {
      for (int c = 0; c < 4; ++c) Set(x, y, c, values[c]);
    }
  }
}

void World::FillBytes(uint8_t byte) {
  if (!lent_) {
    std::fill(bytes_.begin(), bytes_.end(), byte);
    return;
  }
  const size_t rowPayload = static_cast<size_t>(width()) * PixelBytes(depth_);
  for (int y = 0; y < height(); ++y) std::memset(Row(y), byte, rowPayload);
}

std::vector<uint8_t> World::PackedBytes() const {
  const size_t rowPayload = static_cast<size_t>(width()) * PixelBytes(depth_);
  std::vector<uint8_t> out(rowPayload * static_cast<size_t>(height()));
  if (out.empty()) return out;
  for (int y = 0; y < height(); ++y) {
    std::memcpy(out.data() + rowPayload * y, Row(y), rowPayload);
  }
  return out;
}

std::vector<uint8_t> World::PaddingBytes() const {
  const size_t rowPayload = static_cast<size_t>(width()) * PixelBytes(depth_);
  const size_t padding = static_cast<size_t>(rowBytes()) - rowPayload;
  std::vector<uint8_t> out;
  if (padding == 0 || lent_) return out;
  out.reserve(padding * static_cast<size_t>(height()));
  for (int y = 0; y < height(); ++y) {
    out.insert(out.end(), Row(y) + rowPayload, Row(y) + rowPayload + padding);
  }
  return out;
}

std::unique_ptr<World> CopyRegion(const World& layer, const PF_LRect& rect, int paddingBytes) {
  const int64_t w = std::max<int64_t>(int64_t{rect.right} - rect.left, 0);
  const int64_t h = std::max<int64_t>(int64_t{rect.bottom} - rect.top, 0);
  if (w > std::numeric_limits<int>::max() || h > std::numeric_limits<int>::max()) {
    throw std::bad_alloc();
  }
  const bool empty = (w == 0 || h == 0);
  auto region = std::make_unique<World>(layer.depth(), empty ? 0 : static_cast<int>(w),
                                        empty ? 0 : static_cast<int>(h), rect.left, rect.top,
                                        paddingBytes);
  if (empty) return region;

  // The overlap of the region and the layer, in layer coordinates (64-bit: rectangles may
  // lie anywhere in the int32 range).
  const PF_LRect lb = layer.Bounds();
  const int64_t x0 = std::max<int64_t>(rect.left, lb.left);
  const int64_t x1 = std::min<int64_t>(rect.right, lb.right);
  const int64_t y0 = std::max<int64_t>(rect.top, lb.top);
  const int64_t y1 = std::min<int64_t>(rect.bottom, lb.bottom);
  if (x0 >= x1 || y0 >= y1) return region;
  const size_t pb = static_cast<size_t>(PixelBytes(layer.depth()));
  const size_t bytes = static_cast<size_t>(x1 - x0) * pb;
  for (int64_t y = y0; y < y1; ++y) {
    const uint8_t* from = layer.Row(static_cast<int>(y - lb.top)) + (x0 - lb.left) * pb;
    uint8_t* to = region->Row(static_cast<int>(y - rect.top)) + (x0 - rect.left) * pb;
    std::memcpy(to, from, bytes);
  }
  return region;
}

}  // namespace hostsim
