#include "HostTestSupport.h"

#include "gulp/CpuFeatures.h"
#include "lens/InverseTable.h"
#include "resample/KernelTables.h"

namespace hosttest {

const hostsim::PluginModule& Plugin() {
  // Never unloaded: the plug-in keeps its kernel tables for the life of the process, and
  // unloading it at exit would make them look leaked.
  static const hostsim::PluginModule* module = new hostsim::PluginModule(
      VT_EFFECT_PATH, VT_SOURCE_DIR "/effect/description/VeltriscaDistortion.plugin");
  return *module;
}

std::unique_ptr<hostsim::Host> ReadyHost(const hostsim::World* inputLayer) {
  auto host = std::make_unique<hostsim::Host>(Plugin());
  host->SetInputLayer(inputLayer);
  host->threads = 2;
  if (host->GlobalSetup() != PF_Err_NONE || host->ParamsSetup() != PF_Err_NONE ||
      host->SequenceSetup() != PF_Err_NONE) {
    return nullptr;
  }
  return host;
}

VtAFXLensData MakeLens(int width, int height, int mode, double zoom, int filterType) {
  VtAFXLensData lens;
  std::memset(&lens, 0, sizeof lens);
  lens.distortMode = mode;
  lens.filterType = filterType;
  lens.zoom = zoom;
  lens.pixelAspect = 1.0;
  lens.distortedWidth = lens.undistortedWidth = width;
  lens.distortedHeight = lens.undistortedHeight = height;
  CheckCPUFeatures();
  SetupLensData(lens);
  BuildInverseTable(lens);
  BuildSampleFilters(nullptr, lens.lanczos2Kernel, lens.lanczos3Kernel, lens.mitchellKernel);
  return lens;
}

float PatternValue(hostsim::Depth depth, int x, int y, int c) {
  const int v = (x * 7 + y * 13 + c * 61) % 251 + 2;  // 2..252, never 0
  switch (depth) {
    case hostsim::Depth::k8:
      return static_cast<float>(v);
    case hostsim::Depth::k16:
      return static_cast<float>(v * 129);
    case hostsim::Depth::kFloat:
    default:
      return static_cast<float>(v) / 255.0f - 0.25f;  // negative values pass too
  }
}

void FillPattern(hostsim::World& world) {
  for (int y = 0; y < world.height(); ++y) {
    for (int x = 0; x < world.width(); ++x) {
      for (int c = 0; c < 4; ++c) {
        world.Set(x, y, c, PatternValue(world.depth(), x, y, c));
      }
    }
  }
}

bool SamePixel(const hostsim::World& a, int ax, int ay, const hostsim::World& b, int bx,
               int by) {
  const int bytes = hostsim::PixelBytes(a.depth());
  return std::memcmp(a.Row(ay) + ax * bytes, b.Row(by) + bx * bytes, bytes) == 0;
}

bool IsTransparent(const hostsim::World& w, int x, int y) {
  // By value, so that a float -0 (a negative value masked out) counts as 0 too.
  for (int c = 0; c < 4; ++c) {
    if (w.Get(x, y, c) != 0.0f) return false;
  }
  return true;
}

}  // namespace hosttest
