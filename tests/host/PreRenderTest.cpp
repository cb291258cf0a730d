// The smart pre-render as the host sees it: what it reads, what it asks of the input layer and
// which output rectangles it promises; and the rectangle arithmetic behind them.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <limits>
#include <vector>

#include "HostTestSupport.h"
#include "host/Rects.h"
#include "support/RectExpect.h"

namespace {

using hostsim::Depth;
using hostsim::Host;
using hostsim::HostCall;
using hostsim::World;

class PreRender : public ::testing::Test {
 protected:
  void SetUp() override {
    host = hosttest::ReadyHost(&layer);
    ASSERT_TRUE(host);
  }
  PF_Err Run(const PF_LRect& request) { return host->SmartPreRender(request, &report); }
  const World layer{Depth::k8, 1920, 1080};
  std::unique_ptr<Host> host;
  hostsim::PreRenderReport report;
};

TEST_F(PreRender, DefaultParametersFullFrame) {
  host->preRenderOutputPreset.solid = 1;
  host->preRenderOutputPreset.flags = PF_RenderOutputFlag_RETURNS_EXTRA_PIXELS;
  host->inData().current_time = 48;
  host->inData().time_step = 2;
  host->inData().time_scale = 25;
  ASSERT_EQ(Run(PF_LRect{0, 0, 1920, 1080}), PF_Err_NONE);
  // The output request but for rectangle and field, at the current time, layer 0, id 0.
  EXPECT_TRUE(RectIs(report.inputRequest.rect, -4, -4, 1924, 1084));
  EXPECT_EQ(report.inputRequest.field, PF_Field_FRAME);
  EXPECT_EQ(report.inputRequest.channel_mask, hostsim::kChannelMaskARGB);
  EXPECT_EQ(report.checkoutLayerCalls, 1);
  EXPECT_TRUE(report.checkoutIndex == 0 && report.checkoutId == 0);
  EXPECT_TRUE(report.checkoutTime == 48 && report.checkoutTimeStep == 2 &&
              report.checkoutTimeScale == 25u);
  EXPECT_TRUE(RectIs(report.supplied.result_rect, 0, 0, 1920, 1080));
  // Everything but the two rectangles is cleared.
  EXPECT_TRUE(RectIs(report.output.result_rect, 0, 0, 1920, 1080));
  EXPECT_TRUE(RectIs(report.output.max_result_rect, 0, 0, 1921, 1081));
  EXPECT_TRUE(report.output.solid == 0 && report.output.flags == 0);

  const std::vector<hostsim::ParamCheckout> checkouts = host->paramCheckouts();
  ASSERT_EQ(checkouts.size(), 9u);
  for (int i = 0; i < 9; ++i) {
    EXPECT_EQ(checkouts[i].index, i + 1);
    EXPECT_TRUE(checkouts[i].time == 48 && checkouts[i].timeStep == 2 &&
                checkouts[i].timeScale == 25u);
  }
  EXPECT_EQ(host->CallCount(HostCall::CheckinParam), 9);
}

TEST_F(PreRender, ParametersReachTheirFieldsInIndexOrder) {
  // Mode, filter, the three coefficients, zoom, distorted size, pixel aspect, undistorted size.
  host->params = hostsim::ParamValues{2, 5, -50, 12.5, -3, 1.5, 1920, 1080, 1.25, 2000, 1125};
  ASSERT_EQ(host->SmartPreRender(PF_LRect{0, 0, 64, 64}), PF_Err_NONE);
  const VtAFXLensData& lens = hosttest::LensOf(*host);
  EXPECT_EQ(lens.distortMode, 2);
  EXPECT_EQ(lens.filterType, 5);
  EXPECT_EQ(lens.quadratic, -50 * 0.001);
  EXPECT_EQ(lens.cubic, 12.5 * 0.001);
  EXPECT_EQ(lens.quartic, -3 * 0.001);
  EXPECT_EQ(lens.zoom, 1.5);
  EXPECT_EQ(lens.distortedWidth, 1920);
  EXPECT_EQ(lens.distortedHeight, 1080);
  EXPECT_EQ(lens.pixelAspect, 1.25);
  EXPECT_EQ(lens.undistortedWidth, 2000);
  EXPECT_EQ(lens.undistortedHeight, 1125);
  EXPECT_EQ(lens.quadraticF, -0.05f);  // derived: the record was rebuilt
}

TEST_F(PreRender, RectanglesOfEachLens) {
  struct Case {
    const char* name;
    int mode;
    double distortion, undistortedWidth, undistortedHeight;
    PF_LRect request, input, supplied, result, max;  // supplied: unchecked when empty
  };
  const Case cases[] = {
      {"larger undistorted frame", 1, 0, 2000, 1125, {-40, -22, 1961, 1104},
       {-44, -26, 1965, 1108}, {0, 0, 1920, 1080}, {-4, -4, 1924, 1084}, {-40, -22, 1961, 1104}},
      {"barrel, Remove", 1, -50, 1920, 1080, {0, 0, 1920, 1080}, {149, 23, 1772, 1057},
       {149, 23, 1772, 1057}, {0, 0, 1920, 1080}, {0, 0, 1921, 1081}},
      {"barrel, Apply", 2, -50, 1920, 1080, {0, 0, 1920, 1080}, {-166, -110, 2087, 1190},
       {0, 0, 1920, 1080}, {149, 23, 1772, 1057}, {0, 0, 1921, 1081}},
      // A request outside the frame is clipped empty and goes to the host unmapped.
      {"outside the frame", 1, 0, 1920, 1080, {2000, 1200, 2100, 1300}, {2000, 1200, 1921, 1081},
       {0, 0, 0, 0}, {2000, 1200, 1921, 1081}, {0, 0, 1921, 1081}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    host->params.mode = c.mode;
    host->params.distortion = c.distortion;
    host->params.undistortedWidth = c.undistortedWidth;
    host->params.undistortedHeight = c.undistortedHeight;
    ASSERT_EQ(Run(c.request), PF_Err_NONE);
    const auto expect = [](const PF_LRect& got, const PF_LRect& want) {
      EXPECT_TRUE(RectIs(got, want.left, want.top, want.right, want.bottom));
    };
    expect(report.inputRequest.rect, c.input);
    if (!IsEmptyRect(&c.supplied)) expect(report.supplied.result_rect, c.supplied);
    expect(report.output.result_rect, c.result);
    expect(report.output.max_result_rect, c.max);
  }
}

// Apply with a barrel lens, whose result narrows to what the supplied input covers ("barrel,
// Apply" above): not when nothing is supplied, and a failed checkout keeps the clipped request.
TEST_F(PreRender, EmptySupplyOrFailedCheckoutDoesNotNarrowTheResult) {
  host->params.distortion = -50;
  host->params.mode = 2;
  host->OverrideSuppliedRect(PF_LRect{0, 0, 0, 0});
  ASSERT_EQ(Run(PF_LRect{0, 0, 1920, 1080}), PF_Err_NONE);
  EXPECT_TRUE(RectIs(report.output.result_rect, 0, 0, 1920, 1080));
  host->FailCall(HostCall::CheckoutLayer, 1, PF_Err_OUT_OF_MEMORY);
  EXPECT_EQ(Run(PF_LRect{-10, -10, 1920, 1080}), PF_Err_OUT_OF_MEMORY);
  EXPECT_TRUE(RectIs(report.output.result_rect, 0, 0, 1920, 1080));
  EXPECT_TRUE(RectIs(report.output.max_result_rect, 0, 0, 1921, 1081));
}

// The later parameters are not checked out (their fields take the cleared definition's 0),
// every definition is checked in, the record is rebuilt and the host's output record is left
// as it was.
TEST_F(PreRender, FailedParameterCheckoutSkipsTheRestButChecksEverythingIn) {
  host->preRenderOutputPreset.result_rect = PF_LRect{1, 2, 3, 4};
  host->preRenderOutputPreset.max_result_rect = PF_LRect{5, 6, 7, 8};
  host->preRenderOutputPreset.solid = 1;
  host->params.mode = 2;
  host->params.distortion = -50;
  host->params.cubic = 7;
  host->FailCall(HostCall::CheckoutParam, 4, PF_Err_INVALID_INDEX);
  EXPECT_EQ(Run(PF_LRect{0, 0, 1920, 1080}), PF_Err_INVALID_INDEX);
  EXPECT_EQ(host->paramCheckouts().size(), 4u);
  EXPECT_EQ(host->CallCount(HostCall::CheckinParam), 9);
  EXPECT_EQ(report.checkoutLayerCalls, 0);
  EXPECT_TRUE(report.checkoutIndex == -1 && report.checkoutId == -1);  // none: no layer
  EXPECT_TRUE(RectIs(report.output.result_rect, 1, 2, 3, 4));
  EXPECT_TRUE(RectIs(report.output.max_result_rect, 5, 6, 7, 8));
  EXPECT_EQ(report.output.solid, 1);

  const VtAFXLensData& lens = hosttest::LensOf(*host);
  EXPECT_EQ(lens.distortMode, 2);
  EXPECT_EQ(lens.quadraticF, -0.05f);
  EXPECT_EQ(lens.cubic, 0.0);  // the failed checkout
  EXPECT_EQ(lens.undistortedHeight, 0);
}

TEST_F(PreRender, FailedCheckinStopsLaterCheckouts) {
  host->FailCall(HostCall::CheckinParam, 2, PF_Err_INTERNAL_STRUCT_DAMAGED + 3);
  EXPECT_EQ(Run(PF_LRect{0, 0, 100, 100}), PF_Err_INTERNAL_STRUCT_DAMAGED + 3);
  EXPECT_EQ(host->paramCheckouts().size(), 2u);
  EXPECT_EQ(host->CallCount(HostCall::CheckinParam), 9);
}

TEST_F(PreRender, MissingSequenceDataIs512) {
  const PF_Handle handle = host->inData().sequence_data;
  host->inData().sequence_data = nullptr;
  EXPECT_EQ(Run(PF_LRect{0, 0, 100, 100}), PF_Err_INTERNAL_STRUCT_DAMAGED);
  char* noBlock = nullptr;
  host->inData().sequence_data = &noBlock;
  EXPECT_EQ(Run(PF_LRect{0, 0, 100, 100}), PF_Err_INTERNAL_STRUCT_DAMAGED);
  EXPECT_EQ(host->CallCount(HostCall::CheckoutParam), 0);
  EXPECT_EQ(host->CallCount(HostCall::CheckoutLayer), 0);
  host->inData().sequence_data = handle;
}

// ---- Rectangle utilities and the mapping of a rectangle's border through a point mapping ----

TEST(RectUtilities, EmptinessAndUnion) {
  for (const PF_LRect& r : {PF_LRect{5, 5, 5, 10}, PF_LRect{0, 7, 10, 7}, PF_LRect{3, 0, 2, 5}}) {
    EXPECT_TRUE(IsEmptyRect(&r));
  }
  const PF_LRect pixel{0, 0, 1, 1}, src{0, 0, 4, 4}, emptySrc{-50, -50, -50, 100};
  EXPECT_FALSE(IsEmptyRect(&pixel));
  PF_LRect empty{9, 9, 9, 9}, dst{2, 2, 6, 6};
  UnionLRect(&src, &empty);  // an empty destination takes the source
  EXPECT_TRUE(RectIs(empty, 0, 0, 4, 4));
  UnionLRect(&src, &dst);
  EXPECT_TRUE(RectIs(dst, 0, 0, 6, 6));
  UnionLRect(&emptySrc, &dst);
  EXPECT_TRUE(RectIs(dst, 0, 0, 6, 6));
}

// The border line includes the right and bottom edges. The inverted rectangles tell the
// vertical edges' own range test from the horizontal edges' one.
TEST(RectUtilities, EdgePixels) {
  const struct {
    PF_LRect rect;
    int x, y;
    bool edge;
  } cases[] = {{{0, 0, 10, 10}, 10, 5, true},  {{0, 0, 10, 10}, 3, 0, true},
               {{0, 0, 10, 10}, 10, 10, true}, {{0, 0, 10, 10}, 0, 10, true},
               {{0, 0, 10, 10}, 5, 5, false},  {{0, 0, 10, 10}, 11, 0, false},
               {{0, 0, 10, 10}, 10, 11, false}, {{10, 0, 5, 10}, 10, 0, true},
               {{10, 0, 5, 10}, 10, 10, true}, {{0, 10, 10, 5}, 0, 10, true},
               {{0, 10, 10, 5}, 10, 10, true}};
  for (const auto& c : cases) {
    PF_LRect rect = c.rect;
    EXPECT_EQ(IsEdgePixel(&rect, c.x, c.y), c.edge)
        << c.x << "," << c.y << " of " << rect.left << "," << rect.top << "," << rect.right;
  }
}

std::vector<VtPt> mapped_points;
const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kInf = std::numeric_limits<float>::infinity();

VtPt RecordingIdentity(const VtAFXLensData&, VtPt p) {
  mapped_points.push_back(p);
  return p;
}

TEST(MapRectBounds, ElevenPointsOnEachSideOfABorderTwoPixelsOut) {
  mapped_points.clear();
  // Border at -2 and right/bottom + 1, then -2 / +3.
  EXPECT_TRUE(RectIs(MapRectBounds(PF_LRect{10, 20, 110, 70}, {}, RecordingIdentity), 6, 16,
                     114, 74));
  ASSERT_EQ(mapped_points.size(), 44u);
  for (const VtPt& p : mapped_points) {
    const bool vertical = std::fabs(p.x - 8.0f) < 1e-3f || std::fabs(p.x - 111.0f) < 1e-3f;
    const bool horizontal = std::fabs(p.y - 18.0f) < 1e-3f || std::fabs(p.y - 71.0f) < 1e-3f;
    EXPECT_TRUE(vertical || horizontal) << p.x << "," << p.y;
    EXPECT_TRUE(p.x >= 8.0f - 1e-3f && p.x <= 111.0f + 1e-3f && p.y >= 18.0f - 1e-3f &&
                p.y <= 71.0f + 1e-3f);
  }
}

// (No finite point at all gives an empty rectangle: DegenerateGeometryTest's kNothing.)
TEST(MapRectBounds, RoundsHalvesToEvenLeavesOutNonFinitePointsAndHoldsBounds) {
  // Border x from -2 to 3; shifted by -0.5 the ends land on -2.5 and 2.5, which round to -2
  // and 2 (away from zero would give -3 and 3).
  const auto shift = [](const VtAFXLensData&, VtPt p) { return VtPt{p.x - 0.5f, p.y}; };
  EXPECT_TRUE(RectIs(MapRectBounds(PF_LRect{0, 0, 2, 2}, {}, shift), -4, -4, 5, 6));
  // Border x runs -2, -0.7, 0.6, ... (steps of 1.3); the points left of 0 are not finite.
  const auto nanLeft = [](const VtAFXLensData&, VtPt p) {
    return p.x < 0.0f ? VtPt{kNaN, p.y} : p;
  };
  EXPECT_TRUE(RectIs(MapRectBounds(PF_LRect{0, 0, 10, 10}, {}, nanLeft), -1, -4, 14, 14));
  // Far beyond int32 on both sides, with infinities at one corner: held at +-1e9.
  const auto explode = [](const VtAFXLensData&, VtPt p) {
    return p.x < 0.0f && p.y < 0.0f ? VtPt{-kInf, -kInf} : VtPt{p.x * 1e30f, p.y * 1e30f};
  };
  EXPECT_TRUE(RectIs(MapRectBounds(PF_LRect{-5, -5, 5, 5}, {}, explode), -1000000000 - 2,
                     -1000000000 - 2, 1000000000 + 3, 1000000000 + 3));
}

// The border of a host rectangle at the int32 limits starts left of it, not wrapped around to
// the far right.
TEST(MapRectBounds, HostRectangleAtInt32LimitsDoesNotWrap) {
  mapped_points.clear();
  MapRectBounds(PF_LRect{INT_MIN, INT_MIN, INT_MAX, INT_MAX}, {}, RecordingIdentity);
  EXPECT_LT(mapped_points.front().x, -2.0e9f);
}

}  // namespace
