// Degenerate geometry through the plug-in's entry point and the substitute host: zero and
// negative image sizes, zoom 0, non-finite values, a lens whose monotonic limit is 0, and
// requests at the ends of the int32 range. docs/degenerate-geometry.md lists the decisions;
// each test below checks one of them from the host's side (rectangles reported, input asked
// for, pixels drawn).
//
// The layer is 64 x 48 with both image sizes 64 x 48 and pixel aspect 1, so the frame aspect
// is 4/3 and the frame centre is layer pixel (32, 24); the filter is "Nearest".
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "HostTestSupport.h"

namespace {

using hostsim::Depth;
using hostsim::Host;
using hostsim::HostCall;
using hostsim::ParamValues;
using hostsim::World;

constexpr int kWidth = 64;
constexpr int kHeight = 48;
constexpr int kCentreX = 32;
constexpr int kCentreY = 24;
constexpr int kRemove = 1;
constexpr int kApply = 2;
constexpr uint8_t kClear = 0x3C;
constexpr int32_t kBoundLimit = 1000000000;

const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();
const PF_LRect kFullFrame{0, 0, kWidth, kHeight};

void ExpectRect(const PF_LRect& r, int32_t left, int32_t top, int32_t right, int32_t bottom) {
  EXPECT_EQ(r.left, left);
  EXPECT_EQ(r.top, top);
  EXPECT_EQ(r.right, right);
  EXPECT_EQ(r.bottom, bottom);
}

bool IsEmpty(const PF_LRect& r) { return r.left >= r.right || r.top >= r.bottom; }

bool SameRect(const PF_LRect& a, const PF_LRect& b) {
  return a.left == b.left && a.top == b.top && a.right == b.right && a.bottom == b.bottom;
}

// One frame of the effect on a 64 x 48 pattern layer.
struct Scene {
  explicit Scene(int mode, Depth depth = Depth::k8) : layer(depth, kWidth, kHeight) {
    hosttest::FillPattern(layer);
    host = hosttest::ReadyHost(&layer);
    ParamValues& p = host->params;
    p.mode = mode;
    p.filter = 2;  // Nearest
    p.distortedWidth = p.undistortedWidth = kWidth;
    p.distortedHeight = p.undistortedHeight = kHeight;
    host->outputClearByte = kClear;
  }
  ParamValues& params() { return host->params; }
  // Pre-render and render; the first error, or 0.
  PF_Err Run(const PF_LRect& request = kFullFrame) {
    PF_Err err = host->SmartPreRender(request, &report);
    if (err != PF_Err_NONE) return err;
    return host->SmartRender(&output);
  }
  const PF_LRect& maxRect() const { return report.output.max_result_rect; }
  const PF_LRect& result() const { return report.output.result_rect; }
  const PF_LRect& inputRequest() const { return report.inputRequest.rect; }

  // Output pixel at layer position (x, y).
  bool OutputTransparentAt(int x, int y) const {
    return hosttest::IsTransparent(*output, x - output->originX(), y - output->originY());
  }
  bool OutputEqualsLayerAt(int x, int y, int layerX, int layerY) const {
    return hosttest::SamePixel(*output, x - output->originX(), y - output->originY(), layer,
                               layerX, layerY);
  }
  bool AllTransparent() const {
    for (int y = 0; y < output->height(); ++y) {
      for (int x = 0; x < output->width(); ++x) {
        if (!hosttest::IsTransparent(*output, x, y)) return false;
      }
    }
    return true;
  }
  // Every output pixel is the layer's frame-centre pixel.
  bool AllCentrePixel() const {
    for (int y = 0; y < output->height(); ++y) {
      for (int x = 0; x < output->width(); ++x) {
        if (!hosttest::SamePixel(*output, x, y, layer, kCentreX, kCentreY)) return false;
      }
    }
    return true;
  }

  World layer;
  std::unique_ptr<Host> host;
  hostsim::PreRenderReport report;
  std::unique_ptr<World> output;
};

// The input request MapRectBounds gives when no border point maps to a finite position: its
// starting bounds (+-1e9) with the margins, an empty rectangle.
void ExpectNothingRequested(const Scene& s) {
  ExpectRect(s.inputRequest(), kBoundLimit - 2, kBoundLimit - 2, -kBoundLimit + 3,
             -kBoundLimit + 3);
}

// --- Zero and negative sizes -------------------------------------------------------------

struct EmptyFrameCase {
  std::string name;
  void (*change)(ParamValues&);
};

std::vector<EmptyFrameCase> EmptyFrameCases() {
  return {
      {"undistorted width 0", [](ParamValues& p) { p.undistortedWidth = 0; }},
      {"undistorted height 0", [](ParamValues& p) { p.undistortedHeight = 0; }},
      {"all sizes 0",
       [](ParamValues& p) {
         p.distortedWidth = p.distortedHeight = p.undistortedWidth = p.undistortedHeight = 0;
       }},
      {"all sizes negative",
       [](ParamValues& p) {
         p.distortedWidth = p.undistortedWidth = -kWidth;
         p.distortedHeight = p.undistortedHeight = -kHeight;
       }},
      {"undistorted width negative", [](ParamValues& p) { p.undistortedWidth = -kWidth; }},
      {"undistorted height negative", [](ParamValues& p) { p.undistortedHeight = -kHeight; }},
      {"pixel aspect 0", [](ParamValues& p) { p.pixelAspect = 0; }},
      {"pixel aspect NaN", [](ParamValues& p) { p.pixelAspect = kNaN; }},
      {"pixel aspect infinite", [](ParamValues& p) { p.pixelAspect = kInf; }},
  };
}

// A frame without positive finite extent is reported empty; the empty clipped request goes to
// the host unchanged, the result is that empty rectangle, and nothing is rendered.
TEST(DegenerateGeometry, FrameWithoutExtentIsEmptyAndRendersNothing) {
  for (const EmptyFrameCase& c : EmptyFrameCases()) {
    for (int mode : {kRemove, kApply}) {
      SCOPED_TRACE(c.name + (mode == kApply ? ", Apply" : ", Remove"));
      Scene s(mode);
      c.change(s.params());
      ASSERT_EQ(s.Run(), PF_Err_NONE);
      EXPECT_TRUE(IsEmpty(s.maxRect()));
      EXPECT_TRUE(IsEmpty(s.result()));
      const PF_LRect clipped{std::max(0, s.maxRect().left), std::max(0, s.maxRect().top),
                             std::min(kWidth, s.maxRect().right),
                             std::min(kHeight, s.maxRect().bottom)};
      EXPECT_TRUE(SameRect(s.inputRequest(), clipped));
      EXPECT_TRUE(SameRect(s.result(), clipped));
      EXPECT_EQ(s.output, nullptr);
      EXPECT_EQ(s.host->CallCount(HostCall::Iterate), 0);
    }
  }
}

// A bound that comes out NaN is reported as 0. Undistorted width 0 makes the horizontal scale
// 0/0 in both modes, so left and right are 0; top and bottom are those of the 48-high frame:
// 24 - 24 = 0 and 24 + 24 + 1.5 = 49.5, truncated.
TEST(DegenerateGeometry, NotANumberBoundIsZero) {
  for (int mode : {kRemove, kApply}) {
    Scene s(mode);
    s.params().undistortedWidth = 0;
    ASSERT_EQ(s.Run(), PF_Err_NONE);
    ExpectRect(s.maxRect(), 0, 0, 0, kHeight + 1);
  }
}

// Negative sizes mirror the frame: with all four negative the scales and offsets change sign
// (pixScale -24 and -24, pixOffset -32 and -24), so the frame runs from (0, 0) to
// (-32 - 32 + 1.5, -24 - 24 + 1.5) = (-62, -46) after truncation: inverted, hence empty.
TEST(DegenerateGeometry, NegativeSizesGiveAnInvertedFrame) {
  for (int mode : {kRemove, kApply}) {
    Scene s(mode);
    ParamValues& p = s.params();
    p.distortedWidth = p.undistortedWidth = -kWidth;
    p.distortedHeight = p.undistortedHeight = -kHeight;
    ASSERT_EQ(s.Run(), PF_Err_NONE);
    ExpectRect(s.maxRect(), 0, 0, -(kWidth - 2), -(kHeight - 2));
  }
}

// A distorted size of 0 is not degenerate in Remove: the undistorted frame (64 x 48) is then
// centred on the layer origin, and zero coefficients map each pixel onto itself.
TEST(DegenerateGeometry, ZeroDistortedSizeCentresTheRemoveFrameOnTheOrigin) {
  Scene s(kRemove);
  s.params().distortedWidth = s.params().distortedHeight = 0;
  ASSERT_EQ(s.Run(PF_LRect{-40, -30, 40, 30}), PF_Err_NONE);
  ExpectRect(s.maxRect(), -kCentreX, -kCentreY, kCentreX + 1, kCentreY + 1);
  // Identity mapping: the clipped request plus the 4-pixel margins.
  ExpectRect(s.inputRequest(), -kCentreX - 4, -kCentreY - 4, kCentreX + 5, kCentreY + 5);
  // The host supplies (0, 0, 37, 29); mapped back and widened that is (-4, -4, 41, 33).
  ExpectRect(s.result(), -4, -4, kCentreX + 1, kCentreY + 1);
  ASSERT_TRUE(s.output);
  EXPECT_TRUE(s.OutputEqualsLayerAt(0, 0, 0, 0));
  EXPECT_TRUE(s.OutputEqualsLayerAt(kCentreX, kCentreY, kCentreX, kCentreY));
  EXPECT_TRUE(s.OutputTransparentAt(-2, 5));  // beyond Nearest's one-pixel edge extension
}

// --- Zoom 0 and other non-finite scales -----------------------------------------------------

// Apply with zoom 0 (and Remove with an infinite zoom, whose inverse is +-0) maps every output
// pixel onto the frame centre: the input request is the centre's 5 x 5 neighbourhood and the
// whole output repeats the centre pixel.
TEST(DegenerateGeometry, ZeroScaleRepeatsTheCentrePixel) {
  struct Case {
    int mode;
    double zoom;
  };
  for (const Case& c : {Case{kApply, 0.0}, Case{kRemove, kInf}, Case{kRemove, -kInf}}) {
    SCOPED_TRACE(c.mode);
    Scene s(c.mode);
    s.params().zoom = c.zoom;
    ASSERT_EQ(s.Run(), PF_Err_NONE);
    ExpectRect(s.inputRequest(), kCentreX - 2, kCentreY - 2, kCentreX + 3, kCentreY + 3);
    ExpectRect(s.result(), 0, 0, kWidth, kHeight);
    ASSERT_TRUE(s.output);
    EXPECT_TRUE(s.AllCentrePixel());
  }
}

// Remove with zoom 0 divides by zero (invZoom infinite), and a NaN or the other infinite zoom
// makes every mapped position non-finite: no border point maps, the host is asked for an empty
// rectangle, supplies nothing, and the output of the unchanged result rectangle is transparent
// (the host's fill byte is overwritten) at every depth.
TEST(DegenerateGeometry, NoFiniteMappingGivesTransparentOutput) {
  struct Case {
    int mode;
    double zoom;
  };
  const Case cases[] = {{kRemove, 0.0}, {kRemove, kNaN}, {kApply, kNaN}, {kApply, kInf},
                        {kApply, -kInf}};
  for (const Case& c : cases) {
    for (Depth depth : {Depth::k8, Depth::k16, Depth::kFloat}) {
      SCOPED_TRACE(std::to_string(c.mode) + " zoom " + std::to_string(c.zoom) + " depth " +
                   std::to_string(static_cast<int>(depth)));
      Scene s(c.mode, depth);
      s.params().zoom = c.zoom;
      ASSERT_EQ(s.Run(), PF_Err_NONE);
      ExpectNothingRequested(s);
      EXPECT_TRUE(IsEmpty(s.report.supplied.result_rect));
      ExpectRect(s.result(), 0, 0, kWidth, kHeight);
      ASSERT_TRUE(s.output);
      EXPECT_TRUE(s.AllTransparent());
      EXPECT_EQ(s.host->CallCount(HostCall::Iterate), 0);
    }
  }
}

// With sizes that differ Remove still uses the pixel aspect, and 0 makes the horizontal
// scale back to pixels infinite: the frame is held at +-1e9 columns, every mapped column is
// 0 x infinity, nothing is requested and the output is transparent. Apply does not use the
// pixel aspect when the sizes differ.
TEST(DegenerateGeometry, ZeroPixelAspectWithDifferentSizes) {
  Scene remove(kRemove);
  remove.params().pixelAspect = 0;
  remove.params().undistortedWidth = 60;
  ASSERT_EQ(remove.Run(), PF_Err_NONE);
  ExpectRect(remove.maxRect(), -kBoundLimit, 0, kBoundLimit, kHeight + 1);
  ExpectNothingRequested(remove);
  ExpectRect(remove.result(), 0, 0, kWidth, kHeight);
  ASSERT_TRUE(remove.output);
  EXPECT_TRUE(remove.AllTransparent());

  Scene apply(kApply);
  apply.params().pixelAspect = 0;
  apply.params().undistortedWidth = 60;
  ASSERT_EQ(apply.Run(), PF_Err_NONE);
  ExpectRect(apply.maxRect(), 0, 0, 61, kHeight + 1);
  ASSERT_TRUE(apply.output);
  EXPECT_TRUE(apply.OutputEqualsLayerAt(10, 10, 10, 10));
}

// A negative pixel aspect with equal sizes makes the frame aspect negative. Remove's frame is
// then inverted (empty); Apply's frame is the normal one, because the aspect cancels out of it
// (pixScaleX x A = 32) and only mirrors the normalised space, which with zero coefficients
// maps every pixel onto itself.
TEST(DegenerateGeometry, NegativePixelAspect) {
  Scene remove(kRemove);
  remove.params().pixelAspect = -1;
  ASSERT_EQ(remove.Run(), PF_Err_NONE);
  EXPECT_TRUE(IsEmpty(remove.maxRect()));
  EXPECT_EQ(remove.output, nullptr);

  Scene apply(kApply);
  apply.params().pixelAspect = -1;
  ASSERT_EQ(apply.Run(), PF_Err_NONE);
  ExpectRect(apply.maxRect(), 0, 0, kWidth + 1, kHeight + 1);
  ASSERT_TRUE(apply.output);
  EXPECT_TRUE(apply.OutputEqualsLayerAt(10, 10, 10, 10));
  EXPECT_TRUE(apply.OutputEqualsLayerAt(50, 40, 50, 40));
}

// --- Non-finite coefficients -------------------------------------------------------------

// A coefficient that is NaN or infinite never enables the inverse table and leaves the frame
// alone. A NaN or +infinite coefficient makes every mapped position non-finite: the output is
// transparent in both modes. A -infinite one makes the slope -infinite at the first step of
// the limit search, so the limit is 0: Apply then repeats the centre pixel (as for any limit
// of 0, below), while Remove's polynomial is still non-finite away from the centre and, held
// at the limit, 0 * -infinity at the pre-render's border: transparent.
TEST(DegenerateGeometry, NonFiniteCoefficients) {
  for (int coefficient = 0; coefficient < 3; ++coefficient) {
    for (double value : {kNaN, kInf, -kInf}) {
      for (int mode : {kRemove, kApply}) {
        SCOPED_TRACE("coefficient " + std::to_string(coefficient) + " = " +
                     std::to_string(value) + (mode == kApply ? ", Apply" : ", Remove"));
        Scene s(mode);
        double* fields[] = {&s.params().distortion, &s.params().cubic, &s.params().quartic};
        *fields[coefficient] = value;
        ASSERT_EQ(s.Run(), PF_Err_NONE);
        EXPECT_EQ(hosttest::LensOf(*s.host).tableValid, 0);
        ExpectRect(s.maxRect(), 0, 0, kWidth + 1, kHeight + 1);
        ASSERT_TRUE(s.output);
        if (mode == kApply && value == -kInf) {
          EXPECT_EQ(hosttest::LensOf(*s.host).limitUndistorted, 0.0f);
          EXPECT_TRUE(s.AllCentrePixel());
        } else {
          ExpectNothingRequested(s);
          EXPECT_TRUE(s.AllTransparent());
        }
      }
    }
  }
}

// --- A monotonic limit of 0 ----------------------------------------------------------------

// DistortionX1000 = -1e33 (quadratic -1e30) makes the slope negative at the first step of
// every pass, so the limit search accepts nothing: limit 0, no table.
void SetLimitZero(Scene& s) { s.params().distortion = -1e33; }

TEST(DegenerateGeometry, LimitZeroInApplyRepeatsTheCentrePixel) {
  Scene s(kApply);
  SetLimitZero(s);
  ASSERT_EQ(s.Run(), PF_Err_NONE);
  const VtAFXLensData& lens = hosttest::LensOf(*s.host);
  EXPECT_EQ(lens.limitUndistorted, 0.0f);
  EXPECT_EQ(lens.limitDistorted, 0.0f);
  EXPECT_EQ(lens.tableValid, 0);
  // Every radius lies beyond the limit, so every undistorted radius is held at 0.
  ExpectRect(s.inputRequest(), kCentreX - 2, kCentreY - 2, kCentreX + 3, kCentreY + 3);
  ASSERT_TRUE(s.output);
  EXPECT_TRUE(s.AllCentrePixel());
}

// In Remove the pre-render holds the polynomial's factor at its value at the limit (1), so the
// request maps onto itself; the back-mapping holds every undistorted radius at 0, so the
// result shrinks to the centre's 5 x 5 neighbourhood. The render evaluates the polynomial
// itself: the centre pixel maps onto itself, its neighbours far outside (transparent).
TEST(DegenerateGeometry, LimitZeroInRemoveShrinksTheResultToTheCentre) {
  Scene s(kRemove);
  SetLimitZero(s);
  ASSERT_EQ(s.Run(), PF_Err_NONE);
  ExpectRect(s.inputRequest(), -4, -4, kWidth + 4, kHeight + 4);
  ExpectRect(s.result(), kCentreX - 2, kCentreY - 2, kCentreX + 3, kCentreY + 3);
  ASSERT_TRUE(s.output);
  EXPECT_TRUE(s.OutputEqualsLayerAt(kCentreX, kCentreY, kCentreX, kCentreY));
  EXPECT_TRUE(s.OutputTransparentAt(kCentreX + 1, kCentreY));
  EXPECT_TRUE(s.OutputTransparentAt(kCentreX - 2, kCentreY - 2));
}

// --- Rectangle arithmetic at the int32 limits -------------------------------------------------

TEST(DegenerateGeometry, RequestAtTheInt32LimitsIsClippedToTheFrame) {
  for (int mode : {kRemove, kApply}) {
    Scene s(mode);
    const int32_t lo = std::numeric_limits<int32_t>::min();
    const int32_t hi = std::numeric_limits<int32_t>::max();
    ASSERT_EQ(s.Run(PF_LRect{lo, lo, hi, hi}), PF_Err_NONE);
    ExpectRect(s.result(), 0, 0, kWidth + 1, kHeight + 1);
    ExpectRect(s.inputRequest(), -4, -4, kWidth + 5, kHeight + 5);

    // Inverted: empty after the clip, so it goes to the host unchanged and nothing renders.
    Scene inverted(mode);
    ASSERT_EQ(inverted.Run(PF_LRect{hi, hi, lo, lo}), PF_Err_NONE);
    ExpectRect(inverted.inputRequest(), hi, hi, lo, lo);
    ExpectRect(inverted.result(), hi, hi, lo, lo);
    EXPECT_EQ(inverted.output, nullptr);
  }
}

// A frame wider than +-1e9 pixels (pixel aspect 1e-30 with sizes that differ, Remove) is
// reported held at +-1e9, and the mapped input request within +-(1e9 + margins).
TEST(DegenerateGeometry, BoundsAreHeldWithinOneBillion) {
  Scene s(kRemove);
  s.params().pixelAspect = 1e-30;
  s.params().undistortedWidth = 60;
  const int32_t lo = std::numeric_limits<int32_t>::min();
  const int32_t hi = std::numeric_limits<int32_t>::max();
  ASSERT_EQ(s.host->SmartPreRender(PF_LRect{lo, 0, hi, kHeight}, &s.report), PF_Err_NONE);
  ExpectRect(s.maxRect(), -kBoundLimit, 0, kBoundLimit, kHeight + 1);
  // The host supplies the layer (0, 0, 64, 48); the back-mapping is the identity up to
  // rounding, so the result is the layer widened by the margins, within the clipped request.
  ExpectRect(s.result(), -4, 0, kWidth + 4, kHeight);
  for (int32_t v : {s.inputRequest().left, s.inputRequest().right}) {
    EXPECT_GE(v, -kBoundLimit - 2);
    EXPECT_LE(v, kBoundLimit + 3);
  }
}

// A very wide frame (pixel aspect 1e6 with equal sizes: A = 4/3 * 1e6) puts the search end
// far beyond what a 0.002 step can reach in float. With zero coefficients P rises everywhere,
// so the search walks on until u + 0.002 rounds back to u: below 65536 the step rounds to at
// least one float spacing (2^-8 just below 65536, more than half of it), from 65536 on
// (spacing 2^-7) it rounds to nothing. The search ends there, at exactly 65536, and the
// finer passes cannot move either.
TEST(DegenerateGeometry, LimitSearchEndsWhereTheStepNoLongerMovesTheRadius) {
  Scene s(kApply);
  s.params().pixelAspect = 1e6;
  ASSERT_EQ(s.host->SmartPreRender(kFullFrame, &s.report), PF_Err_NONE);
  const VtAFXLensData& lens = hosttest::LensOf(*s.host);
  EXPECT_EQ(lens.limitUndistorted, 65536.0f);
  EXPECT_EQ(lens.limitDistorted, 65536.0f);
}

// Beyond that, a frame whose corner radius overflows float (pixel aspect 1e30) has no search
// at all: limit 0.
TEST(DegenerateGeometry, NoLimitSearchForAnInfiniteCornerRadius) {
  Scene s(kApply);
  s.params().pixelAspect = 1e30;
  ASSERT_EQ(s.Run(), PF_Err_NONE);
  const VtAFXLensData& lens = hosttest::LensOf(*s.host);
  EXPECT_EQ(lens.limitUndistorted, 0.0f);
  EXPECT_EQ(lens.tableValid, 0);
}

// --- Popup values outside their choices -----------------------------------------------------

// A filter type no popup choice has draws transparent rows at every depth.
TEST(DegenerateGeometry, UnknownFilterTypeDrawsTransparentRows) {
  for (int filter : {0, 7, -1, std::numeric_limits<int>::max()}) {
    for (Depth depth : {Depth::k8, Depth::k16, Depth::kFloat}) {
      SCOPED_TRACE(std::to_string(filter) + " depth " + std::to_string(static_cast<int>(depth)));
      Scene s(kRemove, depth);
      s.params().filter = filter;
      ASSERT_EQ(s.Run(), PF_Err_NONE);
      ASSERT_TRUE(s.output);
      EXPECT_TRUE(s.AllTransparent());
    }
  }
}

// Any mode other than 2 is Remove: with k2 = -0.05 the pictures differ between the modes, and
// modes 0, -1 and 3 draw exactly what mode 1 draws.
TEST(DegenerateGeometry, UnknownModeIsRemove) {
  Scene reference(kRemove);
  reference.params().distortion = -50;
  ASSERT_EQ(reference.Run(), PF_Err_NONE);
  Scene apply(kApply);
  apply.params().distortion = -50;
  ASSERT_EQ(apply.Run(), PF_Err_NONE);
  ASSERT_TRUE(reference.output && apply.output);
  EXPECT_NE(reference.output->PackedBytes(), apply.output->PackedBytes());
  for (int mode : {0, -1, 3}) {
    Scene s(mode);
    s.params().distortion = -50;
    ASSERT_EQ(s.Run(), PF_Err_NONE);
    ASSERT_TRUE(s.output);
    EXPECT_TRUE(SameRect(s.result(), reference.result()));
    EXPECT_EQ(s.output->PackedBytes(), reference.output->PackedBytes()) << "mode " << mode;
  }
}

}  // namespace
