// Degenerate geometry through the plug-in's entry point and the substitute host: zero and
// negative image sizes, zoom 0, non-finite values, a monotonic limit of 0, requests at the ends
// of the int32 range and popup values outside their choices (docs/degenerate-geometry.md),
// seen from the host's side: rectangles reported, input asked for, pixels drawn.
//
// The layer is 64 x 48 with both image sizes 64 x 48, pixel aspect 1 and the filter Nearest,
// so the frame centre is layer pixel (32, 24).
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

#include "HostTestSupport.h"
#include "common/Rect.h"
#include "support/RectExpect.h"

namespace {

using hostsim::Depth;
using hostsim::HostCall;
using hostsim::ParamValues;
using hosttest::Scene;

const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();
constexpr int32_t kLo = std::numeric_limits<int32_t>::min();
constexpr int32_t kHi = std::numeric_limits<int32_t>::max();
constexpr int32_t kBillion = 1000000000;

constexpr PF_LRect kFrame{0, 0, 64, 48};
constexpr PF_LRect kFrameMax{0, 0, 65, 49};  // the frame's right and bottom lines included
constexpr PF_LRect kCentre5{30, 22, 35, 27};  // the centre's 5 x 5 neighbourhood
// MapRectBounds when no border point maps to a finite position: its starting bounds (+-1e9)
// with the margins, an empty rectangle.
constexpr PF_LRect kNothing{kBillion - 2, kBillion - 2, -kBillion + 3, -kBillion + 3};

enum Outcome {
  kNoOutput,     // empty result, the request goes to the host unchanged, nothing rendered
  kTransparent,
  kUnmapped,     // no border point maps: nothing asked for, the whole frame cleared
  kCentre,       // every output pixel is the frame-centre pixel
  kCentreAlone,  // the centre pixel maps onto itself, every other one far outside
  kIdentity,     // the layer where it lies, transparent two pixels and more beyond it
  kAsRemove,     // exactly what mode 1 draws
  kAnything,
};

constexpr Depth k8 = Depth::k8, k16 = Depth::k16, kFloat = Depth::kFloat;

struct Row {
  const char* name;
  std::vector<int> modes;
  void (*change)(ParamValues&);
  Outcome outcome;
  Depth depth;
  std::optional<PF_LRect> maxRect = {}, input = {}, result = {};
  float limit = -1;  // the lens record's limitUndistorted, when not negative
  PF_LRect request = kFrame;
};

void ExpectRect(const char* what, const PF_LRect& got, const std::optional<PF_LRect>& want) {
  if (want) {
    EXPECT_TRUE(RectIs(got, want->left, want->top, want->right, want->bottom)) << what;
  }
}

const Row kRows[] = {
    // A frame without positive finite extent is empty and renders nothing. A bound that
    // comes out NaN is 0: undistorted width 0 makes the horizontal scale 0/0 (left = right =
    // 0; bottom 24 + 24 + 1.5 truncated). All sizes negative mirror the frame: it runs from
    // (0, 0) to (-32 - 32 + 1.5, -24 - 24 + 1.5), inverted.
    {"undistorted width 0", {1, 2}, [](ParamValues& p) { p.undistortedWidth = 0; }, kNoOutput, k8,
     PF_LRect{0, 0, 0, 49}},
    {"undistorted height 0", {1, 2}, [](ParamValues& p) { p.undistortedHeight = 0; }, kNoOutput,
     k8},
    {"all sizes negative", {1, 2},
     [](ParamValues& p) {
       p.distortedWidth = p.undistortedWidth = -64;
       p.distortedHeight = p.undistortedHeight = -48;
     },
     kNoOutput, k8, PF_LRect{0, 0, -62, -46}},
    {"undistorted height negative", {1, 2}, [](ParamValues& p) { p.undistortedHeight = -48; },
     kNoOutput, k8},
    {"pixel aspect 0", {1, 2}, [](ParamValues& p) { p.pixelAspect = 0; }, kNoOutput, k8},
    {"pixel aspect NaN", {1, 2}, [](ParamValues& p) { p.pixelAspect = kNaN; }, kNoOutput, k8},
    {"pixel aspect infinite", {1, 2}, [](ParamValues& p) { p.pixelAspect = kInf; }, kNoOutput, k8},
    // A negative aspect with equal sizes inverts Remove's frame; in Apply it cancels out of
    // the frame and only mirrors the normalised space.
    {"pixel aspect -1", {1}, [](ParamValues& p) { p.pixelAspect = -1; }, kNoOutput, k8},
    {"pixel aspect -1", {2}, [](ParamValues& p) { p.pixelAspect = -1; }, kIdentity, k8, kFrameMax},
    // Distorted size 0 is not degenerate in Remove: the undistorted frame is centred on the
    // layer origin. The host supplies (0, 0, 37, 29), mapped back and widened (-4, -4, 41, 33).
    {"distorted size 0", {1}, [](ParamValues& p) { p.distortedWidth = p.distortedHeight = 0; },
     kIdentity, k8, PF_LRect{-32, -24, 33, 25}, PF_LRect{-36, -28, 37, 29},
     PF_LRect{-4, -4, 33, 25}, -1, PF_LRect{-40, -30, 40, 30}},
    // Zoom 0 in Apply (and an infinite zoom in Remove, whose inverse is +-0) maps every pixel
    // onto the centre. Zoom 0 in Remove divides by zero, a NaN or the other infinite zoom makes
    // every mapped position non-finite.
    {"zoom 0", {2}, [](ParamValues& p) { p.zoom = 0; }, kCentre, k8, {}, kCentre5, kFrame},
    {"zoom infinite", {1}, [](ParamValues& p) { p.zoom = kInf; }, kCentre, k8, {}, kCentre5},
    {"zoom -infinite", {1}, [](ParamValues& p) { p.zoom = -kInf; }, kCentre, k16, {}, kCentre5},
    {"zoom 0", {1}, [](ParamValues& p) { p.zoom = 0; }, kUnmapped, k8},
    {"zoom NaN", {1}, [](ParamValues& p) { p.zoom = kNaN; }, kUnmapped, k16},
    {"zoom NaN", {2}, [](ParamValues& p) { p.zoom = kNaN; }, kUnmapped, kFloat},
    {"zoom infinite", {2}, [](ParamValues& p) { p.zoom = kInf; }, kUnmapped, k16},
    {"zoom -infinite", {2}, [](ParamValues& p) { p.zoom = -kInf; }, kUnmapped, kFloat},
    // With sizes that differ Remove uses the pixel aspect, and 0 makes the scale back to
    // pixels infinite: the frame is held at +-1e9 columns and every mapped column is
    // 0 x infinity. Apply does not use the aspect when the sizes differ.
    {"pixel aspect 0, sizes differ", {1},
     [](ParamValues& p) { p.pixelAspect = 0, p.undistortedWidth = 60; }, kUnmapped, k8,
     PF_LRect{-kBillion, 0, kBillion, 49}},
    {"pixel aspect 0, sizes differ", {2},
     [](ParamValues& p) { p.pixelAspect = 0, p.undistortedWidth = 60; }, kIdentity, k8,
     PF_LRect{0, 0, 61, 49}},
    // A NaN or +infinite coefficient makes every mapped position non-finite. A -infinite one
    // gives limit 0 (as DistortionX1000 = -1e33 does: the slope is negative at the first step
    // of every pass of the limit search). Apply then holds every radius at 0. In Remove the
    // pre-render holds the polynomial's factor at its value at the limit (1), so the request
    // maps onto itself, but the back-mapping holds every radius at 0 and the result shrinks to
    // the centre; the render evaluates the polynomial itself, non-finite for -infinity.
    {"k2 NaN", {1, 2}, [](ParamValues& p) { p.distortion = kNaN; }, kUnmapped, k8, kFrameMax},
    {"k3 infinite", {1, 2}, [](ParamValues& p) { p.cubic = kInf; }, kUnmapped, k8, kFrameMax},
    {"k4 -infinite", {1}, [](ParamValues& p) { p.quartic = -kInf; }, kUnmapped, k8, kFrameMax},
    {"k2 -infinite", {2}, [](ParamValues& p) { p.distortion = -kInf; }, kCentre, k8, kFrameMax,
     kCentre5, {}, 0},
    {"limit 0", {2}, [](ParamValues& p) { p.distortion = -1e33; }, kCentre, k8, {}, kCentre5, {},
     0},
    {"limit 0", {1}, [](ParamValues& p) { p.distortion = -1e33; }, kCentreAlone, k8, {},
     PF_LRect{-4, -4, 68, 52}, kCentre5, 0},
    // Requests at the int32 limits are clipped to the frame first; an inverted one is empty.
    {"request at the int32 limits", {1, 2}, [](ParamValues&) {}, kIdentity, k8, {},
     PF_LRect{-4, -4, 69, 53}, kFrameMax, -1, PF_LRect{kLo, kLo, kHi, kHi}},
    {"inverted request", {1, 2}, [](ParamValues&) {}, kNoOutput, k8, {},
     PF_LRect{kHi, kHi, kLo, kLo}, PF_LRect{kHi, kHi, kLo, kLo}, -1, PF_LRect{kHi, kHi, kLo, kLo}},
    // A frame wider than +-1e9 pixels is held there; the host supplies the layer, whose
    // back-mapping is the identity up to rounding, widened by the margins.
    {"pixel aspect 1e-30, sizes differ", {1},
     [](ParamValues& p) { p.pixelAspect = 1e-30, p.undistortedWidth = 60; }, kAnything, k8,
     PF_LRect{-kBillion, 0, kBillion, 49}, {}, PF_LRect{-4, 0, 68, 48}, -1,
     PF_LRect{kLo, 0, kHi, 48}},
    // Pixel aspect 1e6: with zero coefficients the limit search walks on until u + 0.002
    // rounds back to u, at exactly 65536 (float spacing 2^-7 there). At 1e30 the corner
    // radius overflows float and there is no search: limit 0.
    {"pixel aspect 1e6", {2}, [](ParamValues& p) { p.pixelAspect = 1e6; }, kAnything, k8, {}, {},
     {}, 65536},
    {"pixel aspect 1e30", {2}, [](ParamValues& p) { p.pixelAspect = 1e30; }, kAnything, k8, {},
     {}, {}, 0},
    // A filter type no popup choice has draws transparent rows; any mode but 2 is Remove.
    {"filter 7", {1}, [](ParamValues& p) { p.filter = 7; }, kTransparent, k8},
    {"filter -1", {1}, [](ParamValues& p) { p.filter = -1; }, kTransparent, k16},
    {"filter INT_MAX", {2}, [](ParamValues& p) { p.filter = kHi; }, kTransparent, kFloat},
    {"barrel", {0, -1, 3}, [](ParamValues& p) { p.distortion = -50; }, kAsRemove, k8},
};

TEST(DegenerateGeometry, EachCaseGivesItsRectanglesAndPixels) {
  for (const Row& row : kRows) {
    for (int mode : row.modes) {
      SCOPED_TRACE(::testing::Message() << row.name << ", mode " << mode);
      Scene s(row.depth, 64, 48, mode);
      row.change(s.params());
      ASSERT_EQ(s.Run(row.request), PF_Err_NONE);
      ExpectRect("max result", s.maxRect(), row.maxRect);
      const bool unmapped = row.outcome == kUnmapped;
      ExpectRect("input request", s.inputRequest(), unmapped ? kNothing : row.input);
      ExpectRect("result", s.result(), unmapped ? kFrame : row.result);
      if (row.limit >= 0) {
        EXPECT_EQ(hosttest::LensOf(*s.host).limitUndistorted, row.limit);
      }
      if (row.outcome == kNoOutput) {
        EXPECT_TRUE(IsEmptyRect(&row.request) || IsEmptyRect(&s.maxRect()));
        EXPECT_TRUE(IsEmptyRect(&s.result()));
        EXPECT_TRUE(SameRect(s.inputRequest(), s.result()));
        EXPECT_EQ(s.output, nullptr);
        EXPECT_EQ(s.host->CallCount(HostCall::Iterate), 0);
        continue;
      }
      ASSERT_TRUE(s.output);
      EXPECT_TRUE(s.EveryOutputPixel([&](int x, int y) {  // layer position (x, y)
        const bool inside = x >= 0 && y >= 0 && x < 64 && y < 48, centre = x == 32 && y == 24;
        const bool besideIt = x >= -1 && y >= -1 && x <= 64 && y <= 48;
        switch (row.outcome) {
          case kTransparent:
          case kUnmapped: return s.TransparentAt(x, y);
          case kCentre: return s.LayerAt(x, y, 32, 24);
          case kCentreAlone: return centre ? s.LayerAt(x, y, x, y) : s.TransparentAt(x, y);
          case kIdentity: return inside ? s.LayerAt(x, y, x, y) : besideIt || s.TransparentAt(x, y);
          default: return true;
        }
      }));
      if (row.outcome == kAsRemove) {
        Scene remove(row.depth, 64, 48, kModeRemove), apply(row.depth, 64, 48, kModeApply);
        row.change(remove.params());
        row.change(apply.params());
        ASSERT_EQ(remove.Run(), PF_Err_NONE);
        ASSERT_EQ(apply.Run(), PF_Err_NONE);
        EXPECT_NE(apply.output->PackedBytes(), remove.output->PackedBytes());
        EXPECT_TRUE(SameRect(s.result(), remove.result()));
        EXPECT_EQ(s.output->PackedBytes(), remove.output->PackedBytes());
      }
    }
  }
}

}  // namespace
