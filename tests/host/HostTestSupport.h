// Pieces shared by the host-interface tests: the host's string callbacks, a lens record whose
// frame transform is exact, and pattern fills of worlds.
#ifndef VT_TESTS_HOST_HOSTTESTSUPPORT_H
#define VT_TESTS_HOST_HOSTTESTSUPPORT_H

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>

#include "AE_Effect.h"
#include "AE_EffectCB.h"
#include "hostsim/Host.h"
#include "hostsim/World.h"
#include "lens/LensData.h"

namespace hosttest {

inline int Sprintf(A_char* dst, const A_char* format, ...) {
  va_list args;
  va_start(args, format);
  const int n = std::vsnprintf(dst, PF_MAX_EFFECT_MSG_LEN + 1, format, args);
  va_end(args);
  return n;
}

inline A_char* Strcpy(A_char* dst, const A_char* src) { return std::strcpy(dst, src); }

// The built plug-in, loaded once for the whole test program.
const hostsim::PluginModule& Plugin();

// A host that has run global, parameter and sequence setup, as before the first frame.
std::unique_ptr<hostsim::Host> ReadyHost(const hostsim::World* inputLayer = nullptr);

// The lens record in the host's sequence data.
inline const VtAFXLensData& LensOf(const hostsim::Host& host) {
  return *static_cast<const VtAFXLensData*>(host.SequenceBlock());
}

// A lens record with zero coefficients, zoom `zoom`, pixel aspect 1 and both image sizes
// width x height, in the given mode, built as the pre-render builds it. With power-of-two
// sizes every step of the frame transform is exact, so the identity maps each pixel exactly
// onto itself.
VtAFXLensData MakeLens(int width, int height, int mode = kModeRemove, double zoom = 1.0,
                       int filterType = 2);

// Pixel (x, y) of a pattern that differs from pixel to pixel in every channel, in the
// world's own units: channel c of pixel (x, y).
float PatternValue(hostsim::Depth depth, int x, int y, int c);
void FillPattern(hostsim::World& world);

// True when channel values of two pixels of (possibly different) worlds are bit-identical.
bool SamePixel(const hostsim::World& a, int ax, int ay, const hostsim::World& b, int bx, int by);
bool IsTransparent(const hostsim::World& w, int x, int y);

}  // namespace hosttest

#endif
