// Image buffers in the host's layout: rows of alpha, red, green, blue pixels at 8 bits,
// 16 bits (0..32768) or 32-bit float, with a row stride that may exceed the row and an
// origin that places the buffer in the layer.
#ifndef VT_HOSTSIM_WORLD_H
#define VT_HOSTSIM_WORLD_H

#include <cstdint>
#include <memory>
#include <vector>

#include "AE_Effect.h"
#include "common/PixelDepth.h"
#include "common/Rect.h"

namespace hostsim {

using ::Depth;

inline int PixelBytes(Depth depth) { return PixelDepthOf(depth).bytes; }  // 4, 8 or 16
inline PF_PixelFormat PixelFormatOf(Depth depth) { return PixelDepthOf(depth).hostFormat; }

// The host's pixel record of each depth.
template <int Bits>
struct HostPixel;
template <>
struct HostPixel<8> {
  using Type = PF_Pixel;
};
template <>
struct HostPixel<16> {
  using Type = PF_Pixel16;
};
template <>
struct HostPixel<32> {
  using Type = PF_PixelFloat;
};

// The pixel format of a world as the host's world suite reports it. Worlds made here carry
// their format code in `reserved_long3` (the host's own field; effects never read it), so
// that a float world, which has no world flag of its own, is told apart from an 8-bit one
// even when an effect copies the PF_EffectWorld record. A world without such a code is
// 16-bit when it has PF_WorldFlag_DEEP and 8-bit otherwise.
PF_PixelFormat PixelFormatOfWorld(const PF_EffectWorld& world);

// The largest buffer the host allocates for one world.
constexpr uint64_t kMaxWorldBytes = uint64_t{1} << 32;

class World {
 public:
  // paddingBytes are added to every row's stride; the buffer is zero-filled (padding too).
  // Negative sizes or padding count as 0. Throws std::length_error when the row stride
  // does not fit the host's 32-bit field, std::bad_alloc when the buffer exceeds
  // kMaxWorldBytes or cannot be had.
  World(Depth depth, int width, int height, int originX = 0, int originY = 0,
        int paddingBytes = 0);
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  // A world that lends `rect` (layer coordinates) of `layer`'s own pixels instead of copying
  // them, as a host hands an effect its layer's buffer: same depth and row stride, origin at
  // the rectangle's top-left. Null unless the rectangle is non-empty and lies inside the
  // layer. It owns nothing, must not outlive the layer, and is only to be read: its row
  // padding is the layer's neighbouring pixels, so PaddingBytes() is empty and FillBytes()
  // fills the pixels only (it must not be called on an input that others read).
  static std::unique_ptr<World> Lend(const World& layer, const PF_LRect& rect);
  bool lent() const { return lent_; }

  Depth depth() const { return depth_; }
  int width() const { return world_.width; }
  int height() const { return world_.height; }
  int originX() const { return world_.origin_x; }
  int originY() const { return world_.origin_y; }
  int rowBytes() const { return world_.rowbytes; }
  int paddingBytes() const { return world_.rowbytes - world_.width * PixelBytes(depth_); }
  // The rectangle the buffer covers in layer coordinates.
  PF_LRect Bounds() const;

  PF_EffectWorld* effectWorld() { return &world_; }
  const PF_EffectWorld* effectWorld() const { return &world_; }

  uint8_t* Row(int y) { return base_ + static_cast<size_t>(y) * world_.rowbytes; }
  const uint8_t* Row(int y) const { return base_ + static_cast<size_t>(y) * world_.rowbytes; }
  template <typename Pixel>
  Pixel* At(int x, int y) { return reinterpret_cast<Pixel*>(Row(y)) + x; }
  template <typename Pixel>
  const Pixel* At(int x, int y) const { return reinterpret_cast<const Pixel*>(Row(y)) + x; }
  PF_Pixel* Pixel8(int x, int y) { return reinterpret_cast<PF_Pixel*>(Row(y)) + x; }
  PF_Pixel16* Pixel16(int x, int y) { return reinterpret_cast<PF_Pixel16*>(Row(y)) + x; }
  PF_PixelFloat* PixelF(int x, int y) { return reinterpret_cast<PF_PixelFloat*>(Row(y)) + x; }
  const PF_Pixel* Pixel8(int x, int y) const {
    return reinterpret_cast<const PF_Pixel*>(Row(y)) + x;
  }
  const PF_Pixel16* Pixel16(int x, int y) const {
    return reinterpret_cast<const PF_Pixel16*>(Row(y)) + x;
  }
  const PF_PixelFloat* PixelF(int x, int y) const {
    return reinterpret_cast<const PF_PixelFloat*>(Row(y)) + x;
  }

  // Channel c (0 alpha, 1 red, 2 green, 3 blue) of pixel (x, y) as a float in the depth's
  // own units, and the store of such a value: integer depths clamp to 0..255 or 0..32768
  // and round to nearest, halves away from zero; NaN stores 0. Float stores as given.
  float Get(int x, int y, int c) const;
  void Set(int x, int y, int c, float value);
  void Fill(float a, float r, float g, float b);
  // Every byte of the buffer, row padding included (to find writes past a row's end); a lent
  // world's pixels only.
  void FillBytes(uint8_t byte);
  // The payload bytes of every row (padding excluded), for exact comparisons.
  std::vector<uint8_t> PackedBytes() const;
  // The bytes of the row padding of every row, in order (none for a lent world).
  std::vector<uint8_t> PaddingBytes() const;

 private:
  struct LentTag {};
  World(LentTag, const World& layer, const PF_LRect& rect);

  Depth depth_;
  PF_EffectWorld world_{};
  std::vector<uint8_t> bytes_;
  uint8_t* base_ = nullptr;  // row 0: bytes_.data(), or the lender's pixels
  bool lent_ = false;
};

// A world of `depth` covering `rect` (layer coordinates; origin = its left and top), with
// the pixels of `layer` (placed in the layer at its own origin) where the two overlap and
// transparent zero pixels elsewhere. An empty rect gives a 0 x 0 world.
std::unique_ptr<World> CopyRegion(const World& layer, const PF_LRect& rect,
                                  int paddingBytes = 0);

}  // namespace hostsim

#endif
