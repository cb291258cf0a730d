#include "cli/session/Positions.h"

#include <algorithm>

#include "gulp/CpuFeatures.h"
#include "gulp/FGulp.h"
#include "lens/RunMapping.h"

namespace veltrisca {

std::vector<float> MapWindow(const VtAFXLensData& lens, const PF_LRect& window) {
  // The run operations pick their rounding route from the processor's features, which this
  // process detects for itself (the plug-in's own copy of the word lives in its library).
  CheckCPUFeatures();
  const long long width = static_cast<long long>(window.right) - window.left;
  const long long height = static_cast<long long>(window.bottom) - window.top;
  std::vector<float> xy(static_cast<size_t>(std::max(0LL, width) * std::max(0LL, height) * 2));
  FGulpPt in;
  size_t k = 0;
  for (long long y = 0; y < height; ++y) {
    // As the row callback forms them: whole-number layer positions, converted once.
    for (long long x0 = 0; x0 < width; x0 += FGulp::kCapacity) {
      const RowStep step{static_cast<float>(window.left + x0), static_cast<float>(window.top + y),
                         static_cast<int>(std::min<long long>(FGulp::kCapacity, width - x0))};
      MapRowStepToBufferPt(&lens, step, in, BufferOrigin{0.0f, 0.0f});
      for (int i = 0; i < step.len; ++i) {
        xy[k++] = in.x[i];
        xy[k++] = in.y[i];
      }
    }
  }
  return xy;
}

}  // namespace veltrisca
