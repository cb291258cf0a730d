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

DefaultWindow RemoveWindow(const PF_LRect& maxResultRect, const LensSizes& sizes,
                           double pixelAspect) {
  DefaultWindow w;
  // The frame reaches one column and row further than the image so that the last pixel's
  // right and bottom neighbours can be sampled; the image itself ends one short of it.
  w.rect = maxResultRect;
  w.rect.right = static_cast<A_long>(std::max<long long>(INT32_MIN, maxResultRect.right - 1LL));
  w.rect.bottom = static_cast<A_long>(std::max<long long>(INT32_MIN, maxResultRect.bottom - 1LL));
  if (pixelAspect != 1.0) {
    // The effect's frame is the undistorted width in square units over the aspect (a fraction
    // of a pixel wider than asked, EffectSizes); the columns are those the same frame has on
    // square pixels, as the effect truncates them.
    const double centre = sizes.distorted.width / 2.0, half = sizes.undistorted.width / 2.0;
    w.rect.left = std::max(w.rect.left, static_cast<A_long>(centre - half));
    w.rect.right = std::min(w.rect.right, static_cast<A_long>(centre + half + 1.5) - 1);
  }
  // The frame is centred on the plate; with an odd margin its truncated left edge cannot be.
  const long long width = static_cast<long long>(w.rect.right) - w.rect.left;
  const long long height = static_cast<long long>(w.rect.bottom) - w.rect.top;
  w.halfPixelX = width == sizes.undistorted.width &&
                 ((sizes.undistorted.width - sizes.distorted.width) & 1) != 0;
  w.halfPixelY = height == sizes.undistorted.height &&
                 ((sizes.undistorted.height - sizes.distorted.height) & 1) != 0;
  return w;
}

namespace {

// Start of a span of `length` pixels centred on `centre`; sets *half when the exact start
// is a half-pixel position (then the start is rounded down).
A_long CentredStart(float centre, int length, bool* half) {
  const double twice = std::isfinite(centre) ? std::round(2.0 * centre) : 0.0;
  const long long doubled = static_cast<long long>(std::clamp(twice, -4e9, 4e9)) - length;
  *half = (doubled & 1) != 0;
  const long long start = doubled >= 0 ? doubled / 2 : -((-doubled + 1) / 2);
  return static_cast<A_long>(std::clamp<long long>(start, INT32_MIN / 2, INT32_MAX / 2));
}

}  // namespace

DefaultWindow ApplyWindow(float lensCentreX, float lensCentreY, ImageSize distorted) {
  DefaultWindow w;
  w.rect.left = CentredStart(lensCentreX, distorted.width, &w.halfPixelX);
  w.rect.top = CentredStart(lensCentreY, distorted.height, &w.halfPixelY);
  w.rect.right = w.rect.left + distorted.width;
  w.rect.bottom = w.rect.top + distorted.height;
  return w;
}

}  // namespace veltrisca
