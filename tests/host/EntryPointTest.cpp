// The entry point as the host sees it: dispatch, About, global setup, the string table and
// the lifecycle of the sequence data.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

#include "HostTestSupport.h"
#include "host/Strings.h"

namespace {

using hostsim::Host;
using hostsim::HostCall;

TEST(EntryPoint, AboutShowsNameVersionAndDescription) {
  Host host(hosttest::Plugin());
  EXPECT_EQ(host.About(), PF_Err_NONE);
  EXPECT_EQ(host.ReturnMessage(),
            "Veltrisca Distortion 1.2\r\rVeltrisca camera-matching lens distortion plugin.");
}

TEST(EntryPoint, GlobalSetupAddsOutFlagsAndAssignsOutFlags2) {
  Host host(hosttest::Plugin());
  const A_long hostBits = PF_OutFlag_I_DO_DIALOG | PF_OutFlag_NON_PARAM_VARY;
  host.outData().out_flags = hostBits;
  host.outData().out_flags2 = PF_OutFlag2_I_AM_THREADSAFE | PF_OutFlag2_I_USE_3D_CAMERA;
  EXPECT_EQ(host.Send(PF_Cmd_GLOBAL_SETUP), PF_Err_NONE);
  EXPECT_EQ(host.outData().my_version, 0x90001u);
  EXPECT_EQ(host.outData().out_flags, hostBits | 0x2000040);
  EXPECT_EQ(host.outData().out_flags2, 0x1409);

  // The host's own check against the description installed with the plug-in.
  EXPECT_EQ(host.GlobalSetup(), PF_Err_NONE);
}

TEST(EntryPoint, UnhandledCommandsDoNothing) {
  Host host(hosttest::Plugin());
  ASSERT_EQ(host.GlobalSetup(), PF_Err_NONE);
  ASSERT_EQ(host.SequenceSetup(), PF_Err_NONE);
  std::vector<PF_Cmd> commands{2, 3, 7, 25, 26, 33, 34, 1000, -1, -24, INT_MIN, INT_MAX};
  for (PF_Cmd cmd = 9; cmd <= 22; ++cmd) commands.push_back(cmd);
  for (PF_Cmd cmd : commands) {
    unsigned char inBefore[sizeof(PF_InData)], outBefore[sizeof(PF_OutData)];
    std::memcpy(inBefore, &host.inData(), sizeof inBefore);
    std::memcpy(outBefore, &host.outData(), sizeof outBefore);
    EXPECT_EQ(host.Send(cmd), PF_Err_NONE) << "command " << cmd;
    EXPECT_EQ(std::memcmp(inBefore, &host.inData(), sizeof inBefore), 0) << "command " << cmd;
    EXPECT_EQ(std::memcmp(outBefore, &host.outData(), sizeof outBefore), 0) << "command " << cmd;
  }
  EXPECT_EQ(host.LiveHandleCount(), 1);
}

TEST(EntryPoint, StringTableIsExportedWithIdsByPosition) {
  const hostsim::PluginModule& plugin = hosttest::Plugin();
  auto* table = static_cast<const StringEntry*>(plugin.Symbol("g_strs"));
  auto getString = reinterpret_cast<char* (*)(int32_t)>(plugin.Symbol("GetStringPtr"));
  ASSERT_NE(table, nullptr);
  ASSERT_NE(getString, nullptr);
  const char* texts[16] = {"",
                           "Veltrisca Distortion",
                           "Veltrisca camera-matching lens distortion plugin.",
                           "Error loading suite.",
                           "Error releasing suite.",
                           "DistortMode",
                           "Remove|Apply",
                           "FilterType",
                           "Built-in|Nearest|BiLinear|Lanczos-2|Lanczos-3|Mitchell-Netravali",
                           "DistortionX1000",
                           "CubicX1000",
                           "QuarticX1000",
                           "ZoomFactor",
                           "DistortedImgSize",
                           "UndistortedImgSize",
                           "PixelAspect"};
  for (int32_t id = 0; id < 16; ++id) {
    EXPECT_EQ(table[id].id, id);
    EXPECT_STREQ(table[id].text, texts[id]);
    EXPECT_EQ(getString(id), table[id].text);
  }
  EXPECT_EQ(sizeof(StringEntry), 260u);
}

TEST(SequenceData, SetupAllocatesTheLensRecordMarkedNotYetPreRendered) {
  Host host(hosttest::Plugin());
  ASSERT_EQ(host.SequenceSetup(), PF_Err_NONE);
  ASSERT_NE(host.SequenceBlock(), nullptr);
  EXPECT_EQ(host.outData().flat_sdata_size, 8376);
  EXPECT_EQ(host.LiveHandleCount(), 1);
  const auto* bytes = static_cast<const uint8_t*>(host.SequenceBlock());
  int32_t mode;
  std::memcpy(&mode, bytes, 4);
  EXPECT_EQ(mode, -1);
  // Every other byte is as the host handed it out.
  int untouched = 0;
  for (int i = 4; i < 8376; ++i) untouched += bytes[i] == hostsim::kNewHandleFill;
  EXPECT_EQ(untouched, 8376 - 4);
}

TEST(SequenceData, FailedAllocationReportsAndReturns512) {
  Host host(hosttest::Plugin());
  host.FailCall(HostCall::NewHandle, 1, 0);
  EXPECT_EQ(host.SequenceSetup(), PF_Err_INTERNAL_STRUCT_DAMAGED);
  EXPECT_EQ(host.outData().sequence_data, nullptr);
  EXPECT_EQ(host.ReturnMessage(), "Error loading suite.");
  EXPECT_NE(host.outData().out_flags & PF_OutFlag_DISPLAY_ERROR_MESSAGE, 0);
}

TEST(SequenceData, ResetupReplacesTheBlockWithAFreshOne) {
  const hostsim::World layer(hostsim::Depth::k8, 16, 16);
  auto host = hosttest::ReadyHost(&layer);
  ASSERT_TRUE(host);
  ASSERT_EQ(host->SmartPreRender(PF_LRect{0, 0, 16, 16}), PF_Err_NONE);
  ASSERT_EQ(hosttest::LensOf(*host).distortMode, 1);
  EXPECT_EQ(host->SequenceResetup(), PF_Err_NONE);
  EXPECT_EQ(host->CallCount(HostCall::NewHandle), 2);
  EXPECT_EQ(hosttest::LensOf(*host).distortMode, -1);
  EXPECT_EQ(host->LiveHandleCount(), 1);
  EXPECT_EQ(host->BadDisposeCount(), 0);
}

TEST(SequenceData, ResetupWithoutHandleOnlyAllocates) {
  Host host(hosttest::Plugin());
  EXPECT_EQ(host.SequenceResetup(), PF_Err_NONE);
  EXPECT_EQ(host.LiveHandleCount(), 1);
  EXPECT_EQ(host.BadDisposeCount(), 0);
  EXPECT_EQ(hosttest::LensOf(host).distortMode, -1);
}

TEST(SequenceData, SetdownFreesAndClearsBothRecords) {
  Host host(hosttest::Plugin());
  ASSERT_EQ(host.SequenceSetup(), PF_Err_NONE);
  EXPECT_EQ(host.Send(PF_Cmd_SEQUENCE_SETDOWN), PF_Err_NONE);
  EXPECT_EQ(host.inData().sequence_data, nullptr);
  EXPECT_EQ(host.outData().sequence_data, nullptr);
  EXPECT_EQ(host.LiveHandleCount(), 0);
  EXPECT_EQ(host.BadDisposeCount(), 0);

  // Nothing left to free: nothing happens.
  EXPECT_EQ(host.Send(PF_Cmd_SEQUENCE_SETDOWN), PF_Err_NONE);
  EXPECT_EQ(host.BadDisposeCount(), 0);
}

TEST(SequenceData, SystemHandlesServeWhenTheHostOffersNone) {
  const hostsim::World layer(hostsim::Depth::k8, 8, 8);
  Host host(hosttest::Plugin());
  host.SetInputLayer(&layer);
  host.handleCallbacks = false;
  ASSERT_EQ(host.SequenceSetup(), PF_Err_NONE);
  EXPECT_EQ(host.CallCount(HostCall::NewHandle), 0);
  EXPECT_EQ(host.LiveHandleCount(), 0);
  ASSERT_NE(host.SequenceBlock(), nullptr);
  EXPECT_EQ(hosttest::LensOf(host).distortMode, -1);
  // The block is fully usable: a frame's pre-render fills it.
  ASSERT_EQ(host.ParamsSetup(), PF_Err_NONE);
  EXPECT_EQ(host.SmartPreRender(PF_LRect{0, 0, 8, 8}), PF_Err_NONE);
  EXPECT_EQ(hosttest::LensOf(host).distortMode, 1);
  ASSERT_EQ(host.SequenceResetup(), PF_Err_NONE);
  EXPECT_EQ(host.SequenceSetdown(), PF_Err_NONE);  // the sanitizer checks the frees
  EXPECT_EQ(host.BadDisposeCount(), 0);
}

}  // namespace
