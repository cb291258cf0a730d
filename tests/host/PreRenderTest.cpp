// The smart pre-render as the host sees it: what it asks of the input layer and which output
// rectangles it promises.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "HostTestSupport.h"

namespace {

using hostsim::Depth;
using hostsim::Host;
using hostsim::HostCall;
using hostsim::World;

void ExpectRect(const PF_LRect& r, int left, int top, int right, int bottom) {
  EXPECT_EQ(r.left, left);
  EXPECT_EQ(r.top, top);
  EXPECT_EQ(r.right, right);
  EXPECT_EQ(r.bottom, bottom);
}

class PreRender : public ::testing::Test {
 protected:
  void SetUp() override {
    host = hosttest::ReadyHost(&layer);
    ASSERT_TRUE(host);
  }
  const World layer{Depth::k8, 1920, 1080};
  std::unique_ptr<Host> host;
  hostsim::PreRenderReport report;
};

TEST_F(PreRender, DefaultParametersFullFrame) {
  host->preRenderOutputPreset.solid = 1;
  host->preRenderOutputPreset.flags = PF_RenderOutputFlag_RETURNS_EXTRA_PIXELS;
  ASSERT_EQ(host->SmartPreRender(PF_LRect{0, 0, 1920, 1080}, &report), PF_Err_NONE);
  ExpectRect(report.inputRequest.rect, -4, -4, 1924, 1084);
  EXPECT_EQ(report.inputRequest.field, PF_Field_FRAME);
  EXPECT_EQ(report.checkoutLayerCalls, 1);
  EXPECT_EQ(report.checkoutIndex, 0);
  EXPECT_EQ(report.checkoutId, 0);
  ExpectRect(report.supplied.result_rect, 0, 0, 1920, 1080);
  ExpectRect(report.output.result_rect, 0, 0, 1920, 1080);
  ExpectRect(report.output.max_result_rect, 0, 0, 1921, 1081);
  EXPECT_EQ(report.output.solid, 0);
  EXPECT_EQ(report.output.flags, 0);

  const std::vector<hostsim::ParamCheckout> checkouts = host->paramCheckouts();
  ASSERT_EQ(checkouts.size(), 9u);
  for (int i = 0; i < 9; ++i) {
    EXPECT_EQ(checkouts[i].index, i + 1);
    EXPECT_EQ(checkouts[i].time, host->inData().current_time);
    EXPECT_EQ(checkouts[i].timeStep, host->inData().time_step);
    EXPECT_EQ(checkouts[i].timeScale, host->inData().time_scale);
  }
  EXPECT_EQ(host->CallCount(HostCall::CheckinParam), 9);
}

TEST_F(PreRender, ParametersReachTheirFieldsInIndexOrder) {
  host->params.mode = 2;
  host->params.filter = 5;
  host->params.distortion = -50;
  host->params.cubic = 12.5;
  host->params.quartic = -3;
  host->params.zoom = 1.5;
  host->params.undistortedWidth = 2000;
  host->params.undistortedHeight = 1125;
  host->params.pixelAspect = 1.25;
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

TEST_F(PreRender, LargerUndistortedFrameReachesBeyondTheLayer) {
  host->params.undistortedWidth = 2000;
  host->params.undistortedHeight = 1125;
  ASSERT_EQ(host->SmartPreRender(PF_LRect{-40, -22, 1961, 1104}, &report), PF_Err_NONE);
  ExpectRect(report.inputRequest.rect, -44, -26, 1965, 1108);
  ExpectRect(report.supplied.result_rect, 0, 0, 1920, 1080);
  ExpectRect(report.output.result_rect, -4, -4, 1924, 1084);
  ExpectRect(report.output.max_result_rect, -40, -22, 1961, 1104);
}

TEST_F(PreRender, BarrelDistortionInBothModes) {
  host->params.distortion = -50;
  ASSERT_EQ(host->SmartPreRender(PF_LRect{0, 0, 1920, 1080}, &report), PF_Err_NONE);
  ExpectRect(report.inputRequest.rect, 149, 23, 1772, 1057);
  ExpectRect(report.supplied.result_rect, 149, 23, 1772, 1057);
  ExpectRect(report.output.result_rect, 0, 0, 1920, 1080);

  host->params.mode = 2;
  ASSERT_EQ(host->SmartPreRender(PF_LRect{0, 0, 1920, 1080}, &report), PF_Err_NONE);
  ExpectRect(report.inputRequest.rect, -166, -110, 2087, 1190);
  ExpectRect(report.supplied.result_rect, 0, 0, 1920, 1080);
  ExpectRect(report.output.result_rect, 149, 23, 1772, 1057);
  ExpectRect(report.output.max_result_rect, 0, 0, 1921, 1081);
}

TEST_F(PreRender, EmptySupplyDoesNotNarrowTheResult) {
  host->params.distortion = -50;
  host->params.mode = 2;
  host->OverrideSuppliedRect(PF_LRect{0, 0, 0, 0});
  ASSERT_EQ(host->SmartPreRender(PF_LRect{0, 0, 1920, 1080}, &report), PF_Err_NONE);
  ExpectRect(report.output.result_rect, 0, 0, 1920, 1080);
}

TEST_F(PreRender, RequestOutsideTheFrameGoesToTheHostUnmapped) {
  ASSERT_EQ(host->SmartPreRender(PF_LRect{2000, 1200, 2100, 1300}, &report), PF_Err_NONE);
  ExpectRect(report.inputRequest.rect, 2000, 1200, 1921, 1081);
  EXPECT_EQ(report.inputRequest.field, PF_Field_FRAME);
  ExpectRect(report.output.result_rect, 2000, 1200, 1921, 1081);
  ExpectRect(report.output.max_result_rect, 0, 0, 1921, 1081);
}

TEST_F(PreRender, FailedCheckoutLayerKeepsTheClippedRequest) {
  host->params.distortion = -50;
  host->params.mode = 2;
  host->FailCall(HostCall::CheckoutLayer, 1, PF_Err_OUT_OF_MEMORY);
  EXPECT_EQ(host->SmartPreRender(PF_LRect{-10, -10, 1920, 1080}, &report), PF_Err_OUT_OF_MEMORY);
  ExpectRect(report.output.result_rect, 0, 0, 1920, 1080);
  ExpectRect(report.output.max_result_rect, 0, 0, 1921, 1081);
}

TEST_F(PreRender, FailedParameterCheckoutSkipsTheRestButChecksEverythingIn) {
  host->params.mode = 2;
  host->params.distortion = -50;
  host->params.cubic = 7;
  host->FailCall(HostCall::CheckoutParam, 4, PF_Err_INVALID_INDEX);
  EXPECT_EQ(host->SmartPreRender(PF_LRect{0, 0, 1920, 1080}, &report), PF_Err_INVALID_INDEX);
  EXPECT_EQ(host->paramCheckouts().size(), 4u);
  EXPECT_EQ(host->CallCount(HostCall::CheckinParam), 9);
  EXPECT_EQ(report.checkoutLayerCalls, 0);

  const VtAFXLensData& lens = hosttest::LensOf(*host);
  EXPECT_EQ(lens.distortMode, 2);
  EXPECT_EQ(lens.quadratic, -0.05);
  EXPECT_EQ(lens.quadraticF, -0.05f);  // rebuilt all the same
  EXPECT_EQ(lens.cubic, 0.0);          // the failed checkout left the cleared definition
  EXPECT_EQ(lens.quartic, 0.0);
  EXPECT_EQ(lens.zoom, 0.0);
  EXPECT_EQ(lens.distortedWidth, 0);
  EXPECT_EQ(lens.distortedHeight, 0);
  EXPECT_EQ(lens.pixelAspect, 0.0);
  EXPECT_EQ(lens.undistortedWidth, 0);
  EXPECT_EQ(lens.undistortedHeight, 0);
}

TEST_F(PreRender, FailedCheckinStopsLaterCheckouts) {
  host->FailCall(HostCall::CheckinParam, 2, PF_Err_INTERNAL_STRUCT_DAMAGED + 3);
  EXPECT_EQ(host->SmartPreRender(PF_LRect{0, 0, 100, 100}, &report),
            PF_Err_INTERNAL_STRUCT_DAMAGED + 3);
  EXPECT_EQ(host->paramCheckouts().size(), 2u);
  EXPECT_EQ(host->CallCount(HostCall::CheckinParam), 9);
}

TEST_F(PreRender, MissingSequenceDataIs512) {
  const PF_Handle handle = host->inData().sequence_data;
  host->inData().sequence_data = nullptr;
  EXPECT_EQ(host->SmartPreRender(PF_LRect{0, 0, 100, 100}, &report),
            PF_Err_INTERNAL_STRUCT_DAMAGED);
  char* noBlock = nullptr;
  host->inData().sequence_data = &noBlock;
  EXPECT_EQ(host->SmartPreRender(PF_LRect{0, 0, 100, 100}, &report),
            PF_Err_INTERNAL_STRUCT_DAMAGED);
  EXPECT_EQ(host->CallCount(HostCall::CheckoutParam), 0);
  EXPECT_EQ(host->CallCount(HostCall::CheckoutLayer), 0);
  host->inData().sequence_data = handle;
}

// --- With the pre-render records of the test's own making --------------------------------

struct LayerCheckout {
  int calls = 0;
  PF_ProgPtr effectRef = nullptr;
  PF_ParamIndex index = -1;
  A_long id = -1, time = -1, timeStep = -1;
  A_u_long timeScale = 0;
  PF_RenderRequest request{};
};
LayerCheckout layer_checkout;

PF_Err RecordCheckoutLayer(PF_ProgPtr effect_ref, PF_ParamIndex index, A_long id,
                           const PF_RenderRequest* req, A_long time, A_long timeStep,
                           A_u_long timeScale, PF_CheckoutResult* result) {
  layer_checkout.calls++;
  layer_checkout.effectRef = effect_ref;
  layer_checkout.index = index;
  layer_checkout.id = id;
  layer_checkout.time = time;
  layer_checkout.timeStep = timeStep;
  layer_checkout.timeScale = timeScale;
  layer_checkout.request = *req;
  result->result_rect = req->rect;
  return PF_Err_NONE;
}

TEST_F(PreRender, InputRequestKeepsTheOutputRequestButForRectAndField) {
  layer_checkout = LayerCheckout{};
  host->inData().current_time = 48;
  host->inData().time_step = 2;
  host->inData().time_scale = 25;
  PF_PreRenderInput input{};
  input.output_request.rect = PF_LRect{0, 0, 1920, 1080};
  input.output_request.field = PF_Field_UPPER;
  input.output_request.channel_mask = 0x5;
  input.output_request.preserve_rgb_of_zero_alpha = 1;
  input.output_request.reserved[2] = 77;
  PF_PreRenderOutput output;
  std::memset(&output, 0x5A, sizeof output);
  PF_PreRenderCallbacks callbacks{RecordCheckoutLayer, nullptr};
  PF_PreRenderExtra extra{&input, &output, &callbacks};
  ASSERT_EQ(host->Send(PF_Cmd_SMART_PRE_RENDER, &extra), PF_Err_NONE);

  ASSERT_EQ(layer_checkout.calls, 1);
  EXPECT_EQ(layer_checkout.effectRef, host->inData().effect_ref);
  EXPECT_EQ(layer_checkout.index, 0);
  EXPECT_EQ(layer_checkout.id, 0);
  EXPECT_EQ(layer_checkout.time, 48);
  EXPECT_EQ(layer_checkout.timeStep, 2);
  EXPECT_EQ(layer_checkout.timeScale, 25u);
  ExpectRect(layer_checkout.request.rect, -4, -4, 1924, 1084);
  EXPECT_EQ(layer_checkout.request.field, PF_Field_FRAME);
  EXPECT_EQ(layer_checkout.request.channel_mask, 0x5);
  EXPECT_EQ(layer_checkout.request.preserve_rgb_of_zero_alpha, 1);
  EXPECT_EQ(layer_checkout.request.reserved[2], 77);

  // Everything but the two rectangles is cleared.
  ExpectRect(output.result_rect, 0, 0, 1920, 1080);
  ExpectRect(output.max_result_rect, 0, 0, 1921, 1081);
  EXPECT_EQ(output.solid, 0);
  EXPECT_EQ(output.reserved, 0);
  EXPECT_EQ(output.flags, 0);
  EXPECT_EQ(output.pre_render_data, nullptr);
  EXPECT_EQ(output.delete_pre_render_data_func, nullptr);
}

TEST_F(PreRender, FailedParameterCheckoutLeavesTheOutputUntouched) {
  layer_checkout = LayerCheckout{};
  host->FailCall(HostCall::CheckoutParam, 4, PF_Err_INVALID_INDEX);
  PF_PreRenderInput input{};
  input.output_request.rect = PF_LRect{0, 0, 1920, 1080};
  PF_PreRenderOutput output, before;
  std::memset(&output, 0x5A, sizeof output);
  std::memcpy(&before, &output, sizeof output);
  PF_PreRenderCallbacks callbacks{RecordCheckoutLayer, nullptr};
  PF_PreRenderExtra extra{&input, &output, &callbacks};
  EXPECT_EQ(host->Send(PF_Cmd_SMART_PRE_RENDER, &extra), PF_Err_INVALID_INDEX);
  EXPECT_EQ(std::memcmp(&output, &before, sizeof output), 0);
  EXPECT_EQ(layer_checkout.calls, 0);
}

}  // namespace
