#include "Frames.h"

namespace veltrisca {

PF_LRect Offset(const PF_LRect& r, int dx, int dy) {
  return PF_LRect{r.left + dx, r.top + dy, r.right + dx, r.bottom + dy};
}

namespace {

ImageSize SizeOf(const PF_LRect& r) { return ImageSize{r.right - r.left, r.bottom - r.top}; }

}  // namespace

InputFrame PlaceInput(int mode, const PF_LRect& dataWindow, const PF_LRect& displayWindow) {
  InputFrame f;
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
                          const LensSizes& sizes, const InputFrame& input) {
  PF_LRect display = frame;
  if (mode != kModeApply) {
    const PF_LRect plate{0, 0, sizes.distorted.width, sizes.distorted.height};
    if (RectInside(plate, frame)) display = plate;
  }
  return OutputWindows{Offset(window, input.originX, input.originY),
                       Offset(display, input.originX, input.originY)};
}

}  // namespace veltrisca
