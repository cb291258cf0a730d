// Pieces shared by the host-interface tests: the built plug-in, hosts ready for a frame, the
// host's string callbacks, pattern layers and one frame of the effect on such a layer.
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

constexpr hostsim::Depth kDepths[] = {hostsim::Depth::k8, hostsim::Depth::k16,
                                      hostsim::Depth::kFloat};
constexpr uint8_t kClear = 0x3C;  // the host's fill of every output world
constexpr int kNearest = 2;

// The built plug-in, loaded once for the whole test program.
const hostsim::PluginModule& Plugin();

// A host of the built plug-in, of another `plugin` or of `entry`, an effect linked into the
// program, that has run global, parameter and sequence setup, as before the first frame.
std::unique_ptr<hostsim::Host> ReadyHost(const hostsim::World* inputLayer = nullptr,
                                         PF_FilterProc entry = nullptr,
                                         const hostsim::PluginModule* plugin = nullptr);

// The lens record in the host's sequence data.
inline const VtAFXLensData& LensOf(const hostsim::Host& host) {
  return *static_cast<const VtAFXLensData*>(host.SequenceBlock());
}

// A pattern that differs from pixel to pixel in every channel, never 0 (floats below 0 too).
void FillPattern(hostsim::World& world);

// True when channel values of two pixels of (possibly different) worlds are bit-identical.
bool SamePixel(const hostsim::World& a, int ax, int ay, const hostsim::World& b, int bx, int by);
bool IsTransparent(const hostsim::World& w, int x, int y);

// One frame of the effect on a width x height pattern layer whose image sizes are the layer's:
// with zero coefficients and zoom 1 every pixel maps onto itself (exactly when the sizes are
// powers of two).
struct Scene {
  Scene(hostsim::Depth depth, int width, int height, int mode = kModeRemove,
        int filter = kNearest, const hostsim::PluginModule* plugin = nullptr);
  hostsim::ParamValues& params() { return host->params; }
  PF_LRect frame() const { return PF_LRect{0, 0, layer.width(), layer.height()}; }
  PF_Err PreRender(const PF_LRect& request) { return host->SmartPreRender(request, &report); }
  PF_Err PreRender() { return PreRender(frame()); }
  PF_Err Render() { return host->SmartRender(&output); }
  // Pre-render and render; the first error, or 0.
  PF_Err Run(const PF_LRect& request);
  PF_Err Run() { return Run(frame()); }

  const PF_LRect& maxRect() const { return report.output.max_result_rect; }
  const PF_LRect& result() const { return report.output.result_rect; }
  const PF_LRect& inputRequest() const { return report.inputRequest.rect; }

  // An output exists and every byte of it, row padding included, is still the host's fill.
  bool OutputUntouched() const;
  // The output pixel at layer position (x, y).
  bool TransparentAt(int x, int y) const;
  bool LayerAt(int x, int y, int layerX, int layerY) const;
  // pred(x, y) holds for every output pixel, (x, y) its layer position.
  template <class Pred>
  bool EveryOutputPixel(Pred pred) const {
    for (int y = 0; y < output->height(); ++y) {
      for (int x = 0; x < output->width(); ++x) {
        if (!pred(x + output->originX(), y + output->originY())) return false;
      }
    }
    return true;
  }

  hostsim::World layer;
  std::unique_ptr<hostsim::Host> host;
  hostsim::PreRenderReport report;
  std::unique_ptr<hostsim::World> output;
};

}  // namespace hosttest

#endif
