#include "hostsim/Sampling.h"

#include <algorithm>
#include <cstdint>

namespace hostsim {

namespace {

constexpr int64_t kOne = 65536;  // 1.0 in 16.16 fixed point

int64_t FloorDivOne(int64_t v) { return v >= 0 ? v / kOne : -((-v + kOne - 1) / kOne); }

template <typename Pixel>
const Pixel* At(const PF_EffectWorld& w, int64_t x, int64_t y) {
  const auto* row = static_cast<const uint8_t*>(w.data) + y * static_cast<int64_t>(w.rowbytes);
  return reinterpret_cast<const Pixel*>(row) + x;
}

// The four neighbours and the fractional weights of a position; false when outside.
struct Footprint {
  int64_t x0, y0, x1, y1;
  int64_t fx, fy;  // 0 .. 65535
};

bool Locate(const PF_EffectWorld& w, PF_Fixed x, PF_Fixed y, Footprint* f) {
  if (!w.data || w.width <= 0 || w.height <= 0) return false;
  const int64_t ix = FloorDivOne(x), iy = FloorDivOne(y);
  if (ix < 0 || iy < 0 || ix >= w.width || iy >= w.height) return false;
  f->x0 = ix;
  f->y0 = iy;
  f->x1 = std::min<int64_t>(ix + 1, w.width - 1);
  f->y1 = std::min<int64_t>(iy + 1, w.height - 1);
  f->fx = int64_t{x} - ix * kOne;
  f->fy = int64_t{y} - iy * kOne;
  return true;
}

// Exact bilinear blend of integer channels: the four weights sum to 2^32, and the sum is
// rounded to nearest with halves up.
template <typename Channel>
Channel BlendInt(Channel p00, Channel p10, Channel p01, Channel p11, const Footprint& f) {
  const uint64_t wx1 = static_cast<uint64_t>(f.fx), wx0 = kOne - wx1;
  const uint64_t wy1 = static_cast<uint64_t>(f.fy), wy0 = kOne - wy1;
  const uint64_t sum = p00 * wx0 * wy0 + p10 * wx1 * wy0 + p01 * wx0 * wy1 + p11 * wx1 * wy1;
  return static_cast<Channel>((sum + (uint64_t{1} << 31)) >> 32);
}

float BlendFloat(float p00, float p10, float p01, float p11, const Footprint& f) {
  const double wx1 = static_cast<double>(f.fx) / kOne, wx0 = 1.0 - wx1;
  const double wy1 = static_cast<double>(f.fy) / kOne, wy0 = 1.0 - wy1;
  return static_cast<float>(double{p00} * wx0 * wy0 + double{p10} * wx1 * wy0 +
                            double{p01} * wx0 * wy1 + double{p11} * wx1 * wy1);
}

template <typename Pixel, typename Blend>
void SampleBilinear(const PF_EffectWorld& src, PF_Fixed x, PF_Fixed y, Pixel* dst,
                    Blend blend) {
  Footprint f;
  if (!Locate(src, x, y, &f)) {
    *dst = Pixel{};
    return;
  }
  const Pixel& a = *At<Pixel>(src, f.x0, f.y0);
  const Pixel& b = *At<Pixel>(src, f.x1, f.y0);
  const Pixel& c = *At<Pixel>(src, f.x0, f.y1);
  const Pixel& d = *At<Pixel>(src, f.x1, f.y1);
  Pixel out;
  out.alpha = blend(a.alpha, b.alpha, c.alpha, d.alpha, f);
  out.red = blend(a.red, b.red, c.red, d.red, f);
  out.green = blend(a.green, b.green, c.green, d.green, f);
  out.blue = blend(a.blue, b.blue, c.blue, d.blue, f);
  *dst = out;
}

template <typename Pixel>
void SampleNearest(const PF_EffectWorld& src, PF_Fixed x, PF_Fixed y, Pixel* dst) {
  const int64_t ix = FloorDivOne(int64_t{x} + kOne / 2);
  const int64_t iy = FloorDivOne(int64_t{y} + kOne / 2);
  if (!src.data || ix < 0 || iy < 0 || ix >= src.width || iy >= src.height) {
    *dst = Pixel{};
    return;
  }
  *dst = *At<Pixel>(src, ix, iy);
}

}  // namespace

void SampleBilinear8(const PF_EffectWorld& src, PF_Fixed x, PF_Fixed y, PF_Pixel* dst) {
  SampleBilinear(src, x, y, dst, BlendInt<A_u_char>);
}

void SampleBilinear16(const PF_EffectWorld& src, PF_Fixed x, PF_Fixed y, PF_Pixel16* dst) {
  SampleBilinear(src, x, y, dst, BlendInt<A_u_short>);
}

void SampleBilinearFloat(const PF_EffectWorld& src, PF_Fixed x, PF_Fixed y,
                         PF_PixelFloat* dst) {
  SampleBilinear(src, x, y, dst, BlendFloat);
}

void SampleNearest8(const PF_EffectWorld& src, PF_Fixed x, PF_Fixed y, PF_Pixel* dst) {
  SampleNearest(src, x, y, dst);
}

void SampleNearest16(const PF_EffectWorld& src, PF_Fixed x, PF_Fixed y, PF_Pixel16* dst) {
  SampleNearest(src, x, y, dst);
}

void SampleNearestFloat(const PF_EffectWorld& src, PF_Fixed x, PF_Fixed y,
                        PF_PixelFloat* dst) {
  SampleNearest(src, x, y, dst);
}

}  // namespace hostsim
