// Commands as the host sends them: parameters, sequence data, global setup against the
// description, and the smart pre-render and render checkouts. What the real effect makes of
// them (reports, injected failures, overrides) is tested in tests/host.
#include <cstring>
#include <limits>
#include <stdexcept>

#include "FakeEffect.h"

using namespace hostsim_test;

TEST_F(HostTest, ParamsAreAppendedAndCheckedOutInTheirPublishedFields) {
  World layer(Depth::k8, 30, 20);
  host.SetInputLayer(&layer);
  host.params = {2, 6, -50.25, 1e-7, 3, 1.5, 1920.5, 1080, 0.9, 1e6, -0.25};
  std::vector<PF_ParamDef> defs(11);
  std::vector<PF_Err> errs;
  ScopedEffect effect([&](PF_Cmd cmd, PF_InData* in, PF_OutData* out, void*) {
    if (cmd == PF_Cmd_PARAMS_SETUP) {  // a declared name comes back; only appending is allowed
      std::strcpy(defs[0].name, "DistortMode");
      errs.push_back(in->inter.add_param(in->effect_ref, -1, &defs[0]));
      errs.push_back(in->inter.add_param(in->effect_ref, 2, &defs[0]));
      out->num_params = 10;
    }
    for (size_t i = 0; cmd == PF_Cmd_SMART_PRE_RENDER && i < defs.size(); ++i) {
      errs.push_back(in->inter.checkout_param(in->effect_ref, static_cast<PF_ParamIndex>(i), 0, 1,
                                              24, &defs[i]));
    }
    return PF_Err_NONE;
  });
  host.ParamsSetup();
  EXPECT_EQ(host.addedParams().size(), 1u);
  EXPECT_EQ(host.inData().num_params, 10);
  host.SmartPreRender(PF_LRect{0, 0, 1, 1});
  EXPECT_EQ(errs, (std::vector<PF_Err>{0, PF_Err_INVALID_INDEX, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                       PF_Err_INVALID_INDEX}));
  EXPECT_EQ(defs[0].u.ld.width, 30);  // the layer
  EXPECT_STREQ(defs[1].name, "DistortMode");
  EXPECT_EQ(std::vector<double>({1.0 * defs[1].u.pd.value, 1.0 * defs[2].u.pd.value,
                                 defs[3].u.fs_d.value, defs[4].u.fs_d.value, defs[5].u.fs_d.value,
                                 defs[6].u.fs_d.value, defs[8].u.fs_d.value}),
            std::vector<double>({2, 6, -50.25, 1e-7, 3, 1.5, 0.9}));  // doubles, not floats
  // Sizes in 16.16 fixed point: 1920.5, 1080, 1e6 (saturated) and -0.25 pixels.
  EXPECT_EQ(
      std::vector<PF_Fixed>(
          {defs[7].u.td.x_value, defs[7].u.td.y_value, defs[9].u.td.x_value, defs[9].u.td.y_value}),
      std::vector<PF_Fixed>({125861888, 70778880, std::numeric_limits<PF_Fixed>::max(), -16384}));
}

TEST(Sequence, HostKeepsInDataInStepAndSetsDownALiveSequenceAtTheEnd) {
  int setdowns = 0;
  ScopedEffect effect([&](PF_Cmd cmd, PF_InData* in, PF_OutData* out, void*) {
    setdowns += cmd == PF_Cmd_SEQUENCE_SETDOWN;  // the blocks are left to the host to free
    if (cmd != PF_Cmd_SEQUENCE_SETDOWN) out->sequence_data = in->utils->host_new_handle(64);
    return PF_Err_NONE;
  });
  {
    Host host(FakeEntry);
    for (auto command : {&Host::SequenceSetup, &Host::SequenceResetup}) {
      EXPECT_EQ((host.*command)(), 0);
      EXPECT_NE(host.inData().sequence_data, nullptr);
      EXPECT_EQ(host.inData().sequence_data, host.outData().sequence_data);
    }
    EXPECT_EQ(host.SequenceSetdown(), 0);
    EXPECT_EQ(host.inData().sequence_data, nullptr);
    EXPECT_EQ(host.outData().sequence_data, nullptr);
  }
  EXPECT_EQ(setdowns, 1);  // nothing alive: no second setdown
  Host(FakeEntry).SequenceSetup();
  EXPECT_EQ(setdowns, 2);  // the destructor sends setdown for a live sequence
}

TEST_F(HostTest, AboutClearsAStaleMessage) {
  std::strcpy(host.outData().return_msg, "stale");
  EXPECT_EQ(host.About(), 0);
  EXPECT_EQ(host.ReturnMessage(), "");
}

TEST(GlobalSetup, ComparesVersionAndFlagsWithTheDescription) {
  const hostsim::PluginDescription d = hostsim::ParsePluginDescription(
      "name=Test\nmatch_name=T\ncategory=T\nentry_point=T\nversion=0x90001\n"
      "out_flags=0x2000040\nout_flags2=0x1409\n",
      "Test.plugin");
  A_long reportedFlags = 0x2000040;
  ScopedEffect effect([&](PF_Cmd, PF_InData*, PF_OutData* out, void*) {
    out->my_version = 0x90001;
    out->out_flags |= reportedFlags;
    out->out_flags2 = 0x1409;
    return PF_Err_NONE;
  });
  Host host(FakeEntry, &d);
  host.outData().out_flags = 0x100;  // what an earlier command left is not the effect's
  EXPECT_EQ(host.GlobalSetup(), 0);
  EXPECT_EQ(host.globalOutFlags, 0x2000040u);
  EXPECT_EQ(host.globalOutFlags2, 0x1409u);
  reportedFlags = 0x2000000;
  std::string what;
  try {
    host.GlobalSetup();
  } catch (const hostsim::DescriptionMismatch& e) {
    what = e.what();
  }
  EXPECT_EQ(what,
            "plug-in \"Test\" does not match Test.plugin: at global setup it reports out_flags "
            "0x2000000 where the description says 0x2000040");
}

namespace {
// A fake render: the pre-render checks out `inputRequest` of layer 0 and reports
// `resultRect`; the render checks out input `checkoutId` and the output, and writes 0x11 to the
// output's first byte.
struct RenderTest : HostTest {
  PF_RenderRequest asked{};  // what the effect saw in the pre-render's input
  PF_LRect inputRequest{}, resultRect{};
  PF_CheckoutResult supplied{};
  PF_Err pixelsErr = -1, outputErr = -1;
  PF_EffectWorld *input = nullptr, *output = nullptr;
  A_long checkoutId = 0;
  std::vector<A_long> inputLayout;  // width, height, origin, row bytes
  int rowsNotTheLayers = 0;         // input rows that differ from the layer's at their place
  ScopedEffect effect{[this](PF_Cmd cmd, PF_InData* in, PF_OutData*, void* extra) -> PF_Err {
    if (cmd == PF_Cmd_SMART_PRE_RENDER) {
      auto* pre = static_cast<PF_PreRenderExtra*>(extra);
      asked = pre->input->output_request;
      PF_RenderRequest req = asked;
      req.rect = inputRequest;
      pre->output->result_rect = resultRect;
      return pre->cb->checkout_layer(in->effect_ref, 0, 0, &req, 0, 1, 24, &supplied);
    }
    if (cmd != PF_Cmd_SMART_RENDER) return PF_Err_NONE;
    auto* render = static_cast<PF_SmartRenderExtra*>(extra);
    pixelsErr = render->cb->checkout_layer_pixels(in->effect_ref, checkoutId, &input);
    outputErr = render->cb->checkout_output(in->effect_ref, &output);
    if (output) static_cast<uint8_t*>(output->data)[0] = 0x11;
    if (!input) return PF_Err_NONE;
    inputLayout = {input->width, input->height, input->origin_x, input->origin_y, input->rowbytes};
    const World& layer = *host.inputLayer();
    const int bytes = hostsim::PixelBytes(layer.depth());
    for (int y = 0; y < input->height; ++y) {
      rowsNotTheLayers += std::memcmp(static_cast<uint8_t*>(input->data) + y * input->rowbytes,
                                      layer.Row(input->origin_y + y) + input->origin_x * bytes,
                                      static_cast<size_t>(input->width * bytes)) != 0;
    }
    return PF_Err_NONE;
  }};
};
}  // namespace

TEST_F(RenderTest, InputIsTheRequestsOverlapWithTheLayerAndOutputTheResultRect) {
  World layer(Depth::k16, 8, 6);
  for (int i = 0; i < 8 * 6 * 4; ++i) layer.Set(i / 4 % 8, i / 32, i % 4, i);
  host.SetInputLayer(&layer);
  host.inputPaddingBytes = 6;
  host.outputPaddingBytes = 4;
  host.outputClearByte = 0x5A;
  inputRequest = PF_LRect{-2, 1, 7, 9};
  resultRect = PF_LRect{-3, 4, 5, 10};
  EXPECT_THROW(host.SmartRender(nullptr), std::logic_error);  // no pre-render yet
  EXPECT_EQ(host.SmartPreRender(PF_LRect{3, 4, 50, 45}), 0);
  EXPECT_EQ(Edges(asked.rect), Edges(PF_LRect{3, 4, 50, 45}));
  EXPECT_EQ(asked.field, PF_Field_FRAME);
  EXPECT_EQ(asked.channel_mask, hostsim::kChannelMaskARGB);
  EXPECT_EQ(Edges(supplied.result_rect), Edges(PF_LRect{0, 1, 7, 6}));
  EXPECT_EQ(Edges(supplied.max_result_rect), Edges(layer.Bounds()));
  std::unique_ptr<World> out;
  EXPECT_EQ(host.SmartRender(&out), 0);
  EXPECT_EQ(pixelsErr, 0);
  EXPECT_EQ(inputLayout, (std::vector<A_long>{7, 5, 0, 1, 7 * 8 + 6}));
  EXPECT_EQ(rowsNotTheLayers, 0);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(Edges(out->Bounds()), Edges(resultRect));
  std::vector<uint8_t> expected(8 * 6 * 8, 0x5A);  // 16-bit pixels
  expected[0] = 0x11;                              // the effect's write
  EXPECT_EQ(out->PackedBytes(), expected);
  EXPECT_EQ(out->PaddingBytes(), std::vector<uint8_t>(6 * 4, 0x5A));
}

TEST_F(RenderTest, EmptyRectanglesGiveNoWorldsAndOnlyTheCheckedOutIdHasPixels) {
  World layer(Depth::kFloat, 8, 6);
  host.SetInputLayer(&layer);
  inputRequest = PF_LRect{20, 20, 30, 30};  // nothing of the layer
  resultRect = PF_LRect{4, 4, 4, 9};        // empty
  host.SmartPreRender(PF_LRect{0, 0, 8, 6});
  EXPECT_EQ(supplied.result_rect.right - supplied.result_rect.left, 0);
  std::unique_ptr<World> out(new World(Depth::k8, 1, 1));
  EXPECT_EQ(host.SmartRender(&out), 0);
  EXPECT_EQ(std::vector<PF_Err>({pixelsErr, outputErr}), std::vector<PF_Err>({0, 0}));
  EXPECT_TRUE(!input && !output && !out);
  inputRequest = resultRect = PF_LRect{0, 0, 8, 6};
  host.SmartPreRender(PF_LRect{0, 0, 8, 6});
  checkoutId = 5;  // not the id the pre-render checked out
  host.SmartRender(&out);
  EXPECT_EQ(pixelsErr, PF_Err_BAD_CALLBACK_PARAM);
}
