#include "cli/image/ImageGeometry.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "cli/shared/Errors.h"
#include "cli/lens/Fit.h"

namespace veltrisca {

PF_LRect Offset(const PF_LRect& r, int dx, int dy) {
  return PF_LRect{r.left + dx, r.top + dy, r.right + dx, r.bottom + dy};
}

OutputWindows AtOrigin(const OutputWindows& w) {
  return OutputWindows{Offset(w.data, -w.data.left, -w.data.top),
                       Offset(w.display, -w.data.left, -w.data.top)};
}

PF_LRect StretchX(const PF_LRect& r, double factor) {
  const auto scaled = [factor](A_long x) {
    return static_cast<A_long>(std::clamp<double>(std::round(x * factor), INT32_MIN, INT32_MAX));
  };
  return PF_LRect{scaled(r.left), r.top, scaled(r.right), r.bottom};
}

namespace {

ImageSize SizeOf(const PF_LRect& r) { return ImageSize{r.right - r.left, r.bottom - r.top}; }

}  // namespace

LayerPlacement PlaceInput(int mode, const PF_LRect& dataWindow, const PF_LRect& displayWindow) {
  LayerPlacement f;
  const bool overscan =
      RectInside(displayWindow, dataWindow) && !SameRect(dataWindow, displayWindow);
  if (mode == kModeApply && overscan) {
    f.overscan = true;
    f.originX = dataWindow.left;
    f.originY = dataWindow.top;
    f.frame = SizeOf(dataWindow);
    f.other = SizeOf(displayWindow);
    return f;
  }
  f.originX = displayWindow.left;
  f.originY = displayWindow.top;
  f.frame = SizeOf(displayWindow);
  return f;
}

OutputWindows PlaceOutput(int mode, const PF_LRect& window, const PF_LRect& frame,
                          const LensSizes& sizes, const LayerPlacement& input) {
  PF_LRect display = frame;
  if (mode != kModeApply) {
    const PF_LRect plate{0, 0, sizes.distorted.width, sizes.distorted.height};
    if (RectInside(plate, frame)) display = plate;
  }
  return OutputWindows{Offset(window, input.originX, input.originY),
                       Offset(display, input.originX, input.originY)};
}

FileLens PlanFileLens(const LensSettings& given, const InputImage& image, bool fit) {
  FileLens lens;
  lens.settings = given;
  if (!given.pixelAspectGiven) {
    // 0 (or a value that is no number) is how some writers say "not recorded": square.
    float fileAspect = image.spec.get_float_attribute("PixelAspectRatio", 1.0f);
    if (!(fileAspect > 0.0f) || std::isinf(fileAspect)) fileAspect = 1.0f;
    const SliderRange& range = Param(kParamPixelAspect).range;
    if (fileAspect < range.minimum || fileAspect > range.maximum) {
      throw IoError(image.path + ": its pixel aspect " + std::to_string(fileAspect) +
                    " is outside the effect's " + RangeText(range) + "; give " +
                    Param(kParamPixelAspect).option);
    }
    lens.settings.pixelAspect = fileAspect;
  }
  lens.frame = PlaceInput(lens.settings.mode, image.dataWindow, image.displayWindow);
  lens.sizes = ResolveSizes(lens.settings, lens.frame.frame, lens.frame.other);
  if (fit) lens.sizes.undistorted = FitUndistortedSize(lens.settings, lens.sizes.distorted);
  return lens;
}

PF_LRect LayerPixels(const InputImage& image, const LayerPlacement& frame) {
  // The whole union, not a margin of the filters' reach: the effect samples the part of the
  // layer it checks out, and positions are taken relative to that buffer's origin, so only the
  // same buffer as the full frame's gives the same result to the last bit.
  const PF_LRect& d = image.dataWindow;
  const PF_LRect& f = image.displayWindow;
  const PF_LRect both{std::min(d.left, f.left), std::min(d.top, f.top),
                      std::max(d.right, f.right), std::max(d.bottom, f.bottom)};
  const long long w = static_cast<long long>(both.right) - both.left;
  const long long h = static_cast<long long>(both.bottom) - both.top;
  if (w <= INT32_MAX && h <= INT32_MAX &&
      WorldBytes(w * h, image.depth) <= hostsim::kMaxWorldBytes) {
    return Offset(both, -frame.originX, -frame.originY);
  }
  // A frame too large for one host image around its data: a black margin wider than the widest
  // footprint (Lanczos-3's six taps) removes the seam all the same.
  constexpr int kMargin = 8;
  const PF_LRect near{
      static_cast<A_long>(std::max<long long>(both.left, d.left - 1LL * kMargin)),
      static_cast<A_long>(std::max<long long>(both.top, d.top - 1LL * kMargin)),
      static_cast<A_long>(std::min<long long>(both.right, d.right + 1LL * kMargin)),
      static_cast<A_long>(std::min<long long>(both.bottom, d.bottom + 1LL * kMargin))};
  return Offset(near, -frame.originX, -frame.originY);
}

std::string AspectText(const LensSettings& settings, const LensSizes& sizes) {
  if (settings.pixelAspect == 1.0) return "square pixels: the sizes go to the effect as they are";
  const LensSizes handed = EffectSizes(settings, sizes);
  char text[400];
  std::snprintf(text, sizeof text,
                "%g: the lens is radial in the desqueezed picture; the output keeps the "
                "input's squeezed pixels (%dx%d file pixels); the effect gets %dx%d distorted, "
                "%dx%d undistorted",
                settings.pixelAspect,
                settings.mode == kModeApply ? sizes.distorted.width : sizes.undistorted.width,
                settings.mode == kModeApply ? sizes.distorted.height : sizes.undistorted.height,
                handed.distorted.width, handed.distorted.height, handed.undistorted.width,
                handed.undistorted.height);
  return text;
}

}  // namespace veltrisca
