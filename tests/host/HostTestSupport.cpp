#include "HostTestSupport.h"

#include <algorithm>
#include <vector>

namespace hosttest {

const hostsim::PluginModule& Plugin() {
  // Never unloaded: the plug-in keeps its kernel tables for the life of the process, and
  // unloading it at exit would make them look leaked.
  static const hostsim::PluginModule* module = new hostsim::PluginModule(
      VT_EFFECT_PATH, VT_SOURCE_DIR "/effect/description/VeltriscaDistortion.plugin");
  return *module;
}

std::unique_ptr<hostsim::Host> ReadyHost(const hostsim::World* inputLayer, PF_FilterProc entry,
                                         const hostsim::PluginModule* plugin) {
  auto host = entry ? std::make_unique<hostsim::Host>(entry)
                    : std::make_unique<hostsim::Host>(plugin ? *plugin : Plugin());
  host->SetInputLayer(inputLayer);
  host->threads = 2;
  if (host->GlobalSetup() != PF_Err_NONE || host->ParamsSetup() != PF_Err_NONE ||
      host->SequenceSetup() != PF_Err_NONE) {
    return nullptr;
  }
  return host;
}

void FillPattern(hostsim::World& world) {
  for (int y = 0; y < world.height(); ++y) {
    for (int x = 0; x < world.width(); ++x) {
      for (int c = 0; c < 4; ++c) {
        const int v = (x * 7 + y * 13 + c * 61) % 251 + 2;  // 2..252
        const float value = world.depth() == hostsim::Depth::k8    ? static_cast<float>(v)
                            : world.depth() == hostsim::Depth::k16 ? static_cast<float>(v * 129)
                                                                   : v / 255.0f - 0.25f;
        world.Set(x, y, c, value);
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

Scene::Scene(hostsim::Depth depth, int width, int height, int mode, int filter,
             const hostsim::PluginModule* plugin)
    : layer(depth, width, height) {
  FillPattern(layer);
  host = ReadyHost(&layer, nullptr, plugin);
  hostsim::ParamValues& p = host->params;
  p.mode = mode;
  p.filter = filter;
  p.distortedWidth = p.undistortedWidth = width;
  p.distortedHeight = p.undistortedHeight = height;
  host->outputClearByte = kClear;
}

PF_Err Scene::Run(const PF_LRect& request) {
  const PF_Err err = PreRender(request);
  return err != PF_Err_NONE ? err : Render();
}

bool Scene::OutputUntouched() const {
  if (!output) return false;
  std::vector<uint8_t> bytes = output->PackedBytes(), padding = output->PaddingBytes();
  bytes.insert(bytes.end(), padding.begin(), padding.end());
  return std::all_of(bytes.begin(), bytes.end(), [](uint8_t b) { return b == kClear; });
}

bool Scene::TransparentAt(int x, int y) const {
  return IsTransparent(*output, x - output->originX(), y - output->originY());
}

bool Scene::LayerAt(int x, int y, int layerX, int layerY) const {
  return SamePixel(*output, x - output->originX(), y - output->originY(), layer, layerX, layerY);
}

}  // namespace hosttest
