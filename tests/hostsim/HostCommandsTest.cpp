// Commands as the host sends them: parameters, sequence data, global setup against the
// description, and the smart pre-render and render checkouts.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <stdexcept>

#include "FakeEffect.h"

using hostsim::Depth;
using hostsim::Host;
using hostsim::HostCall;
using hostsim::World;
using hostsim_test::Acquire;
using hostsim_test::FakeEntry;
using hostsim_test::ScopedEffect;

TEST(Params, AddedInOrderAndTheNthCanFail) {
  Host host(FakeEntry);
  host.FailCall(HostCall::AddParam, 3, 77);
  std::vector<PF_Err> results;
  ScopedEffect effect([&](PF_Cmd cmd, PF_InData* in, PF_OutData* out, void*) {
    if (cmd != PF_Cmd_PARAMS_SETUP) return PF_Err_NONE;
    for (int i = 1; i <= 4; ++i) {
      PF_ParamDef def{};
      def.uu.id = 100 + i;
      results.push_back(in->inter.add_param(in->effect_ref, -1, &def));
    }
    PF_ParamDef def{};
    results.push_back(in->inter.add_param(in->effect_ref, 2, &def));  // only appending is allowed
    out->num_params = 4;
    return PF_Err_NONE;
  });
  EXPECT_EQ(host.ParamsSetup(), 0);
  EXPECT_EQ(results, (std::vector<PF_Err>{0, 0, 77, 0, PF_Err_INVALID_INDEX}));
  ASSERT_EQ(host.addedParams().size(), 3u);
  EXPECT_EQ(host.addedParams()[0].uu.id, 101);
  EXPECT_EQ(host.addedParams()[2].uu.id, 104);
  EXPECT_EQ(host.inData().num_params, 4);
}

TEST(Params, CheckoutGivesTheValuesInTheirPublishedFields) {
  Host host(FakeEntry);
  World layer(Depth::k8, 30, 20);
  host.SetInputLayer(&layer);
  host.params.mode = 2;
  host.params.filter = 6;
  host.params.distortion = -50.25;
  host.params.cubic = 1e-7;
  host.params.quartic = 3;
  host.params.zoom = 1.5;
  host.params.distortedWidth = 1920.5;
  host.params.distortedHeight = 1080;
  host.params.pixelAspect = 0.9;
  host.params.undistortedWidth = 1e6;
  host.params.undistortedHeight = -0.25;
  host.inData().current_time = 48;
  std::vector<PF_ParamDef> defs(10);
  PF_Err outOfRange = 0;
  ScopedEffect effect([&](PF_Cmd cmd, PF_InData* in, PF_OutData*, void*) {
    if (cmd == PF_Cmd_PARAMS_SETUP) {  // a declared definition's id and name come back
      PF_ParamDef def{};
      def.uu.id = 0x6D6F6465;
      std::strcpy(def.name, "DistortMode");
      in->inter.add_param(in->effect_ref, -1, &def);
    }
    if (cmd != PF_Cmd_SMART_PRE_RENDER) return PF_Err_NONE;
    for (int i = 0; i < 10; ++i) {
      in->inter.checkout_param(in->effect_ref, i, in->current_time, in->time_step,
                               in->time_scale, &defs[static_cast<size_t>(i)]);
      in->inter.checkin_param(in->effect_ref, &defs[static_cast<size_t>(i)]);
    }
    PF_ParamDef spare{};
    outOfRange = in->inter.checkout_param(in->effect_ref, 10, 0, 1, 24, &spare);
    return PF_Err_NONE;
  });
  host.ParamsSetup();
  host.SmartPreRender(PF_LRect{0, 0, 1, 1});
  EXPECT_EQ(defs[0].param_type, PF_Param_LAYER);
  EXPECT_EQ(defs[0].u.ld.width, 30);
  EXPECT_EQ(defs[1].uu.id, 0x6D6F6465);
  EXPECT_STREQ(defs[1].name, "DistortMode");
  EXPECT_EQ(defs[1].u.pd.value, 2);
  EXPECT_EQ(defs[2].u.pd.value, 6);
  EXPECT_EQ(defs[3].u.fs_d.value, -50.25);
  EXPECT_EQ(defs[4].u.fs_d.value, 1e-7);  // double, not rounded through float
  EXPECT_EQ(defs[5].u.fs_d.value, 3.0);
  EXPECT_EQ(defs[6].u.fs_d.value, 1.5);
  EXPECT_EQ(defs[7].param_type, PF_Param_POINT);
  EXPECT_EQ(defs[7].u.td.x_value, 125861888);  // 1920.5 * 65536
  EXPECT_EQ(defs[7].u.td.y_value, 70778880);   // 1080 * 65536
  EXPECT_EQ(defs[8].u.fs_d.value, 0.9);
  EXPECT_EQ(defs[9].u.td.x_value, std::numeric_limits<PF_Fixed>::max());
  EXPECT_EQ(defs[9].u.td.y_value, -16384);
  EXPECT_EQ(outOfRange, PF_Err_INVALID_INDEX);
  const auto checkouts = host.paramCheckouts();
  ASSERT_EQ(checkouts.size(), 11u);
  EXPECT_EQ(checkouts[3].index, 3);
  EXPECT_EQ(checkouts[3].time, 48);
  EXPECT_EQ(checkouts[3].timeScale, 24u);
  EXPECT_EQ(host.CallCount(HostCall::CheckinParam), 10);
}

TEST(Sequence, HostKeepsInDataInStepAndFreesWhatIsLeft) {
  int setdowns = 0;
  ScopedEffect effect([&](PF_Cmd cmd, PF_InData* in, PF_OutData* out, void*) {
    switch (cmd) {
      case PF_Cmd_SEQUENCE_SETUP:
        out->sequence_data = in->utils->host_new_handle(64);
        in->utils->host_new_handle(8);  // leaked on purpose: the host frees it
        break;
      case PF_Cmd_SEQUENCE_RESETUP:
        in->utils->host_dispose_handle(in->sequence_data);
        out->sequence_data = in->utils->host_new_handle(64);
        break;
      case PF_Cmd_SEQUENCE_SETDOWN:
        ++setdowns;
        in->utils->host_dispose_handle(in->sequence_data);
        break;
    }
    return PF_Err_NONE;
  });
  {
    Host host(FakeEntry);
    EXPECT_EQ(host.SequenceSetup(), 0);
    ASSERT_NE(host.inData().sequence_data, nullptr);
    EXPECT_EQ(host.inData().sequence_data, host.outData().sequence_data);
    EXPECT_EQ(host.SequenceBlock(), *host.inData().sequence_data);
    EXPECT_EQ(host.SequenceResetup(), 0);
    ASSERT_NE(host.inData().sequence_data, nullptr);
    EXPECT_EQ(host.inData().sequence_data, host.outData().sequence_data);
    EXPECT_EQ(host.LiveHandleCount(), 2);
    EXPECT_EQ(host.SequenceSetdown(), 0);
    EXPECT_EQ(host.inData().sequence_data, nullptr);
    EXPECT_EQ(host.outData().sequence_data, nullptr);
    EXPECT_EQ(host.LiveHandleCount(), 1);
    EXPECT_EQ(host.BadDisposeCount(), 0);
    EXPECT_EQ(setdowns, 1);
  }
  EXPECT_EQ(setdowns, 1);  // nothing alive: no second setdown
  {
    Host host(FakeEntry);
    host.SequenceSetup();
  }
  EXPECT_EQ(setdowns, 2);  // the destructor sends setdown for a live sequence
}

TEST(About, MessageComesBackAndAStaleOneIsCleared) {
  Host host(FakeEntry);
  std::strcpy(host.outData().return_msg, "stale");
  bool write = false;
  ScopedEffect effect([&](PF_Cmd cmd, PF_InData* in, PF_OutData* out, void*) {
    if (cmd == PF_Cmd_ABOUT && write) in->utils->ansi.sprintf(out->return_msg, "%s", "hello");
    return PF_Err_NONE;
  });
  EXPECT_EQ(host.About(), 0);
  EXPECT_EQ(host.ReturnMessage(), "");
  write = true;
  host.About();
  EXPECT_EQ(host.ReturnMessage(), "hello");
}

TEST(GlobalSetup, ComparesVersionAndFlagsWithTheDescription) {
  hostsim::PluginDescription d;
  d.path = "Test.plugin";
  d.name = "Test";
  d.version = 0x90001;
  d.outFlags = 0x2000040;
  d.outFlags2 = 0x1409;
  A_long reportedFlags = 0x2000040;
  ScopedEffect effect([&](PF_Cmd cmd, PF_InData*, PF_OutData* out, void*) {
    if (cmd == PF_Cmd_GLOBAL_SETUP) {
      out->my_version = 0x90001;
      out->out_flags |= reportedFlags;
      out->out_flags2 = 0x1409;
    }
    return PF_Err_NONE;
  });
  Host host(FakeEntry, &d);
  host.outData().out_flags = 0x100;  // what an earlier command left is not the effect's
  EXPECT_EQ(host.GlobalSetup(), 0);
  EXPECT_EQ(host.globalOutFlags, 0x2000040u);
  EXPECT_EQ(host.globalOutFlags2, 0x1409u);

  reportedFlags = 0x2000000;
  try {
    host.GlobalSetup();
    FAIL() << "a mismatch must not pass";
  } catch (const hostsim::DescriptionMismatch& e) {
    const std::string what = e.what();
    EXPECT_NE(what.find("Test.plugin"), std::string::npos) << what;
    EXPECT_NE(what.find("out_flags 0x2000000"), std::string::npos) << what;
    EXPECT_NE(what.find("0x2000040"), std::string::npos) << what;
    EXPECT_EQ(what.find("out_flags2"), std::string::npos) << what;
  }
}

namespace {
struct RenderScript {
  PF_RenderRequest asked{};     // what the effect saw in the pre-render's input
  PF_LRect inputRequest{};      // what it asks of checkout_layer
  PF_LRect resultRect{};        // what it reports
  PF_Err checkoutErr = -1;
  PF_CheckoutResult supplied{};
  PF_Err pixelsErr = -1, outputErr = -1, formatErr = -1;
  PF_EffectWorld* input = nullptr;
  PF_EffectWorld inputCopy{};
  PF_EffectWorld* output = nullptr;
  PF_PixelFormat format = 0;
  A_long checkoutId = 0;
};

hostsim_test::EffectBody Renderer(RenderScript* s) {
  return [s](PF_Cmd cmd, PF_InData* in, PF_OutData*, void* extra) -> PF_Err {
    if (cmd == PF_Cmd_SMART_PRE_RENDER) {
      auto* pre = static_cast<PF_PreRenderExtra*>(extra);
      s->asked = pre->input->output_request;
      PF_RenderRequest req = pre->input->output_request;
      req.rect = s->inputRequest;
      s->checkoutErr = pre->cb->checkout_layer(in->effect_ref, 0, 0, &req, in->current_time,
                                               in->time_step, in->time_scale, &s->supplied);
      pre->output->result_rect = s->resultRect;
      return s->checkoutErr;
    }
    if (cmd == PF_Cmd_SMART_RENDER) {
      auto* render = static_cast<PF_SmartRenderExtra*>(extra);
      s->pixelsErr = render->cb->checkout_layer_pixels(in->effect_ref, s->checkoutId, &s->input);
      if (s->input) s->inputCopy = *s->input;
      s->outputErr = render->cb->checkout_output(in->effect_ref, &s->output);
      auto* ws = Acquire<PF_WorldSuite2>(in, "PF World Suite", 2);
      if (s->input) s->formatErr = ws->PF_GetPixelFormat(s->input, &s->format);
      in->pica_basicP->ReleaseSuite("PF World Suite", 2);
      if (s->output) static_cast<uint8_t*>(s->output->data)[0] = 0x11;
    }
    return PF_Err_NONE;
  };
}
}  // namespace

TEST(SmartPreRender, AsksForTheRequestAndSuppliesItsOverlapWithTheLayer) {
  Host host(FakeEntry);
  World layer(Depth::k8, 100, 50);
  host.SetInputLayer(&layer);
  RenderScript s;
  s.inputRequest = PF_LRect{-10, -5, 60, 70};
  s.resultRect = PF_LRect{1, 2, 30, 40};
  ScopedEffect effect(Renderer(&s));
  hostsim::PreRenderReport report;
  EXPECT_EQ(host.SmartPreRender(PF_LRect{3, 4, 50, 45}, &report), 0);
  EXPECT_EQ(s.asked.rect.left, 3);
  EXPECT_EQ(s.asked.rect.bottom, 45);
  EXPECT_EQ(s.asked.field, PF_Field_FRAME);
  EXPECT_EQ(s.asked.channel_mask, hostsim::kChannelMaskARGB);
  const PF_LRect supplied = s.supplied.result_rect;
  EXPECT_EQ(supplied.left, 0);
  EXPECT_EQ(supplied.top, 0);
  EXPECT_EQ(supplied.right, 60);
  EXPECT_EQ(supplied.bottom, 50);
  EXPECT_EQ(s.supplied.max_result_rect.right, 100);
  EXPECT_EQ(report.checkoutLayerCalls, 1);
  EXPECT_EQ(report.checkoutIndex, 0);
  EXPECT_EQ(report.checkoutId, 0);
  EXPECT_EQ(report.inputRequest.rect.left, -10);
  EXPECT_EQ(report.supplied.result_rect.right, 60);
  EXPECT_EQ(report.output.result_rect.bottom, 40);

  host.OverrideSuppliedRect(PF_LRect{5, 5, 6, 6});
  host.SmartPreRender(PF_LRect{3, 4, 50, 45}, &report);
  EXPECT_EQ(report.supplied.result_rect.left, 5);
  EXPECT_EQ(report.supplied.result_rect.right, 6);

  host.ClearSuppliedRectOverride();
  s.inputRequest = PF_LRect{200, 0, 300, 10};  // wholly outside the layer
  host.SmartPreRender(PF_LRect{3, 4, 50, 45}, &report);
  EXPECT_EQ(report.supplied.result_rect.right - report.supplied.result_rect.left, 0);

  host.FailCall(HostCall::CheckoutLayer, 1, 66);
  EXPECT_EQ(host.SmartPreRender(PF_LRect{3, 4, 50, 45}), 66);
}

TEST(SmartRender, HandsOutTheSuppliedInputAndAnOutputOfTheResultRect) {
  Host host(FakeEntry);
  World layer(Depth::k16, 8, 6);
  for (int y = 0; y < 6; ++y)
    for (int x = 0; x < 8; ++x) layer.Set(x, y, 2, 100.0f * y + x);
  host.SetInputLayer(&layer);
  host.inputPaddingBytes = 6;
  host.outputPaddingBytes = 4;
  host.outputClearByte = 0x5A;
  RenderScript s;
  s.inputRequest = PF_LRect{2, 1, 7, 9};
  s.resultRect = PF_LRect{-3, 4, 5, 10};
  ScopedEffect effect(Renderer(&s));

  EXPECT_THROW(host.SmartRender(nullptr), std::logic_error);  // no pre-render yet
  host.SmartPreRender(PF_LRect{0, 0, 8, 6});
  std::unique_ptr<World> out;
  EXPECT_EQ(host.SmartRender(&out), 0);
  EXPECT_EQ(s.pixelsErr, 0);
  ASSERT_NE(s.input, nullptr);
  EXPECT_EQ(s.inputCopy.width, 5);
  EXPECT_EQ(s.inputCopy.height, 5);
  EXPECT_EQ(s.inputCopy.origin_x, 2);
  EXPECT_EQ(s.inputCopy.origin_y, 1);
  EXPECT_EQ(s.inputCopy.rowbytes, 5 * 8 + 6);
  EXPECT_EQ(s.format, PF_PixelFormat_ARGB64);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(out->width(), 8);
  EXPECT_EQ(out->height(), 6);
  EXPECT_EQ(out->originX(), -3);
  EXPECT_EQ(out->originY(), 4);
  EXPECT_EQ(out->rowBytes(), 8 * 8 + 4);
  EXPECT_EQ(out->depth(), Depth::k16);
  const std::vector<uint8_t> bytes = out->PackedBytes();
  EXPECT_EQ(bytes[0], 0x11);  // the effect's write
  for (size_t i = 1; i < bytes.size(); ++i) ASSERT_EQ(bytes[i], 0x5A) << i;
  for (uint8_t b : out->PaddingBytes()) ASSERT_EQ(b, 0x5A);

  // The checked-out input holds the layer's pixels at their layer positions (checked here,
  // while a render holds it, through a second render that copies the values out).
  std::vector<float> seen;
  ScopedEffect copier([&](PF_Cmd cmd, PF_InData* in, PF_OutData*, void* extra) {
    if (cmd != PF_Cmd_SMART_RENDER) return PF_Err_NONE;
    PF_EffectWorld* w = nullptr;
    static_cast<PF_SmartRenderExtra*>(extra)->cb->checkout_layer_pixels(in->effect_ref, 0, &w);
    for (int y = 0; y < w->height; ++y)
      for (int x = 0; x < w->width; ++x)
        seen.push_back(reinterpret_cast<PF_Pixel16*>(static_cast<uint8_t*>(w->data) +
                                                     y * w->rowbytes)[x].green);
    return PF_Err_NONE;
  });
  host.SmartRender(nullptr);
  ASSERT_EQ(seen.size(), 25u);
  for (int y = 0; y < 5; ++y)
    for (int x = 0; x < 5; ++x)
      EXPECT_EQ(seen[static_cast<size_t>(y * 5 + x)], 100.0f * (y + 1) + (x + 2));
}

TEST(SmartRender, EmptyRectanglesGiveNoWorldsAndFailuresPassThrough) {
  Host host(FakeEntry);
  World layer(Depth::kFloat, 8, 6);
  host.SetInputLayer(&layer);
  RenderScript s;
  s.inputRequest = PF_LRect{20, 20, 30, 30};  // nothing of the layer
  s.resultRect = PF_LRect{4, 4, 4, 9};        // empty
  ScopedEffect effect(Renderer(&s));
  host.SmartPreRender(PF_LRect{0, 0, 8, 6});
  std::unique_ptr<World> out(new World(Depth::k8, 1, 1));
  EXPECT_EQ(host.SmartRender(&out), 0);
  EXPECT_EQ(s.pixelsErr, 0);
  EXPECT_EQ(s.input, nullptr);
  EXPECT_EQ(s.outputErr, 0);
  EXPECT_EQ(s.output, nullptr);
  EXPECT_EQ(out, nullptr);

  s.inputRequest = PF_LRect{0, 0, 8, 6};
  s.resultRect = PF_LRect{0, 0, 8, 6};
  host.SmartPreRender(PF_LRect{0, 0, 8, 6});
  s.checkoutId = 5;  // not the id the pre-render checked out
  host.SmartRender(&out);
  EXPECT_EQ(s.pixelsErr, PF_Err_BAD_CALLBACK_PARAM);
  s.checkoutId = 0;
  host.FailCall(HostCall::CheckoutLayerPixels, 1, 70);
  host.FailCall(HostCall::CheckoutOutput, 1, 71);
  host.SmartRender(&out);
  EXPECT_EQ(s.pixelsErr, 70);
  EXPECT_EQ(s.input, nullptr);
  EXPECT_EQ(s.outputErr, 71);
  EXPECT_EQ(s.output, nullptr);
  host.OverrideInputPixelFormat(0x66646162);
  host.SmartRender(&out);
  EXPECT_EQ(s.format, 0x66646162);
  EXPECT_TRUE(host.AllSuitesReleased());
}
