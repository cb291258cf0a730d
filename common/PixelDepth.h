// The three pixel depths and what each party needs to know about one: bytes per pixel, bits
// per channel, and the largest colour and alpha values (the kernel sampler's upper clips).
// Every choice by depth goes through ForPixelDepth. Nothing here needs the host API's
// headers.
#ifndef VT_COMMON_PIXELDEPTH_H
#define VT_COMMON_PIXELDEPTH_H

#include <cstdint>
#include <initializer_list>

// Bits per channel; channels lie in memory as alpha, red, green, blue.
enum class Depth : int32_t { k8 = 8, k16 = 16, kFloat = 32 };

struct PixelDepth {
  Depth depth;
  int32_t hostFormat;  // the host's pixel format code (PF_PixelFormat_ARGB32, 64, 128)
  int32_t bytes;     // per pixel: 4, 8 or 16
  int32_t bitDepth;  // per channel: 8, 16 or 32
  float colorMax;    // 255, 32768, 1e10 (float colour is unbounded in practice)
  float alphaMax;    // 255, 32768, 1
};

inline constexpr PixelDepth kPixelDepth8{Depth::k8, 0x62677261, 4, 8, 255.0f, 255.0f};
inline constexpr PixelDepth kPixelDepth16{Depth::k16, 0x36316561, 8, 16, 32768.0f, 32768.0f};
inline constexpr PixelDepth kPixelDepthFloat{Depth::kFloat, 0x32336561, 16, 32, 1.0e10f, 1.0f};

// The depth as a type, for code that is compiled once per depth: Tag::kBits (8, 16, 32) and
// Tag::kInfo (its descriptor).
template <int Bits>
struct DepthTag {
  static constexpr int kBits = Bits;
  static constexpr const PixelDepth& kInfo =
      Bits == 8 ? kPixelDepth8 : Bits == 16 ? kPixelDepth16 : kPixelDepthFloat;
};

// Calls body(DepthTag<bits>{}) for 8, 16 and 32 bits per channel and returns its result;
// any other value calls unknown() instead.
template <class Body, class Unknown>
decltype(auto) ForPixelDepth(int32_t bitDepth, Body&& body, Unknown&& unknown) {
  switch (bitDepth) {
    case 8: return body(DepthTag<8>{});
    case 16: return body(DepthTag<16>{});
    case 32: return body(DepthTag<32>{});
    default: return unknown();
  }
}

// The same for a Depth; a value outside the three is taken as 8 bits.
template <class Body>
decltype(auto) ForPixelDepth(Depth depth, Body&& body) {
  return ForPixelDepth(static_cast<int32_t>(depth), body,
                       [&]() -> decltype(auto) { return body(DepthTag<8>{}); });
}

inline const PixelDepth& PixelDepthOf(Depth depth) {
  return ForPixelDepth(depth, [](auto tag) -> const PixelDepth& { return decltype(tag)::kInfo; });
}

// The bits per channel of a host pixel format code; 0 for a code that is none of the three.
constexpr int32_t BitDepthOfHostFormat(int32_t hostFormat) {
  for (const PixelDepth* d : {&kPixelDepth8, &kPixelDepth16, &kPixelDepthFloat}) {
    if (d->hostFormat == hostFormat) return d->bitDepth;
  }
  return 0;
}

#endif  // VT_COMMON_PIXELDEPTH_H
