// The basic suite, the suites it hands out, handles, and the utility callbacks.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <thread>

#include "FakeEffect.h"

using hostsim::Depth;
using hostsim::Host;
using hostsim::HostCall;
using hostsim::World;
using hostsim_test::Acquire;
using hostsim_test::FakeEntry;
using hostsim_test::ScopedEffect;

namespace {

// Runs `body` as the effect's handling of an unassigned command, inside a command.
PF_Err During(Host& host, const std::function<void(PF_InData*)>& body) {
  ScopedEffect effect([&](PF_Cmd, PF_InData* in, PF_OutData*, void*) {
    body(in);
    return PF_Err_NONE;
  });
  return host.Send(PF_Cmd_COMPLETELY_GENERAL);
}

}  // namespace

TEST(BasicSuite, OffersEachSuiteOnlyUnderItsNameAndVersion) {
  Host host(FakeEntry);
  During(host, [&](PF_InData* in) {
    SPBasicSuite* basic = in->pica_basicP;
    ASSERT_NE(basic, nullptr);
    const void* suite = reinterpret_cast<const void*>(1);
    EXPECT_EQ(basic->AcquireSuite("PF World Suite", 1, &suite), hostsim::kSPSuiteNotFoundError);
    EXPECT_EQ(suite, nullptr);
    EXPECT_NE(basic->AcquireSuite("PF Iterate16 Suite", 1, &suite), 0);  // registered as "iterate16"
    EXPECT_EQ(suite, nullptr);
    for (const char* name : {"PF World Suite", "PF ANSI Suite", "PF Pixel Data Suite",
                             "PF Sampling8 Suite", "PF Sampling16 Suite",
                             "PF SamplingFloat Suite", "PF Iterate8 Suite", "PF iterate16 Suite",
                             "PF iterateFloat Suite", "DRAWBOT Draw Suite",
                             "DRAWBOT Supplier Suite", "DRAWBOT Surface Suite",
                             "DRAWBOT Path Suite"}) {
      const int32_t version = std::strcmp(name, "PF World Suite") == 0 ? 2 : 1;
      suite = nullptr;
      EXPECT_EQ(basic->AcquireSuite(name, version, &suite), 0) << name;
      EXPECT_NE(suite, nullptr) << name;
      EXPECT_EQ(basic->ReleaseSuite(name, version), 0) << name;
    }
  });
  EXPECT_EQ(host.AcquireCount("PF World Suite", 2), 1);
  EXPECT_EQ(host.AcquireCount("PF World Suite", 1), 0);
  EXPECT_EQ(host.ReleaseCount("DRAWBOT Path Suite"), 1);
  EXPECT_TRUE(host.AllSuitesReleased());
  EXPECT_EQ(host.suiteEvents().size(), 2u + 2u * 13u);
}

TEST(BasicSuite, UnbalancedAcquisitionsAndReleasesShow) {
  Host host(FakeEntry);
  During(host, [&](PF_InData* in) {
    EXPECT_NE(Acquire<PF_ANSICallbacksSuite1>(in, "PF ANSI Suite", 1), nullptr);
    EXPECT_NE(Acquire<PF_ANSICallbacksSuite1>(in, "PF ANSI Suite", 1), nullptr);
    EXPECT_EQ(in->pica_basicP->ReleaseSuite("PF ANSI Suite", 1), 0);
  });
  EXPECT_EQ(host.AcquireCount("PF ANSI Suite"), 2);
  EXPECT_FALSE(host.AllSuitesReleased());
  During(host, [&](PF_InData* in) {
    EXPECT_EQ(in->pica_basicP->ReleaseSuite("PF ANSI Suite", 1), 0);
    EXPECT_NE(in->pica_basicP->ReleaseSuite("PF ANSI Suite", 1), 0);  // one too many
  });
  EXPECT_TRUE(host.AllSuitesReleased());
  EXPECT_EQ(host.ReleaseCount("PF ANSI Suite", 1), 2);
  EXPECT_EQ(host.UnheldReleaseCount(), 1);
}

TEST(BasicSuite, RemovedSuitesAndInjectedFailuresComeBackNull) {
  Host host(FakeEntry);
  host.RemoveSuite("PF Sampling16 Suite");
  host.FailCall(HostCall::AcquireSuite, 2, 77);
  host.FailCall(HostCall::ReleaseSuite, 1, 78);
  During(host, [&](PF_InData* in) {
    EXPECT_EQ(Acquire<void>(in, "PF Sampling16 Suite", 1), nullptr);
    const void* suite = nullptr;
    EXPECT_EQ(in->pica_basicP->AcquireSuite("PF Sampling8 Suite", 1, &suite), 77);
    EXPECT_EQ(suite, nullptr);
    EXPECT_NE(Acquire<void>(in, "PF Sampling8 Suite", 1), nullptr);  // only the 2nd failed
    EXPECT_EQ(in->pica_basicP->ReleaseSuite("PF Sampling8 Suite", 1), 78);
  });
  EXPECT_EQ(host.AcquireCount("PF Sampling8 Suite"), 1);
  EXPECT_EQ(host.ReleaseCount("PF Sampling8 Suite"), 0);
  EXPECT_EQ(host.CallCount(HostCall::AcquireSuite), 3);
}

TEST(BasicSuite, CountsStayExactUnderConcurrentUse) {
  Host host(FakeEntry);
  During(host, [&](PF_InData* in) {
    SPBasicSuite* basic = in->pica_basicP;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([basic] {
        for (int i = 0; i < 500; ++i) {
          const void* s = nullptr;
          basic->AcquireSuite("PF Iterate8 Suite", 1, &s);
          basic->ReleaseSuite("PF Iterate8 Suite", 1);
        }
      });
    }
    for (std::thread& t : threads) t.join();
  });
  EXPECT_EQ(host.AcquireCount("PF Iterate8 Suite", 1), 2000);
  EXPECT_EQ(host.ReleaseCount("PF Iterate8 Suite", 1), 2000);
  EXPECT_TRUE(host.AllSuitesReleased());
}

TEST(Handles, FirstWordPointsAtAFilledBlockAndDisposalIsTracked) {
  Host host(FakeEntry);
  During(host, [&](PF_InData* in) {
    PF_Handle h = in->utils->host_new_handle(8376);
    ASSERT_NE(h, nullptr);
    ASSERT_NE(*h, nullptr);
    for (int i = 0; i < 8376; ++i) ASSERT_EQ(static_cast<uint8_t>((*h)[i]), hostsim::kNewHandleFill);
    (*h)[8375] = 1;  // the whole block is writable
    EXPECT_EQ(in->utils->host_get_handle_size(h), 8376u);
    EXPECT_EQ(host.LiveHandleCount(), 1);
    in->utils->host_dispose_handle(h);
    EXPECT_EQ(host.LiveHandleCount(), 0);
    in->utils->host_dispose_handle(h);  // a second time: refused, not freed again
    EXPECT_EQ(host.BadDisposeCount(), 1);
    // A handle left alive is freed with the host.
    EXPECT_NE(in->utils->host_new_handle(16), nullptr);
  });
  EXPECT_EQ(host.LiveHandleCount(), 1);
}

TEST(Handles, FailuresAndAbsentCallbacksAsConfigured) {
  Host host(FakeEntry);
  host.FailCall(HostCall::NewHandle, 2, 0);
  During(host, [&](PF_InData* in) {
    PF_Handle first = in->utils->host_new_handle(4);
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(in->utils->host_new_handle(4), nullptr);
    in->utils->host_dispose_handle(first);
    EXPECT_EQ(in->utils->host_new_handle(uint64_t{1} << 40), nullptr);  // refused, no abort
  });
  host.handleCallbacks = false;
  host.basicSuitePresent = false;
  During(host, [&](PF_InData* in) {
    EXPECT_EQ(in->utils->host_new_handle, nullptr);
    EXPECT_EQ(in->utils->host_dispose_handle, nullptr);
    EXPECT_EQ(in->pica_basicP, nullptr);
  });
  host.handleCallbacks = true;
  During(host, [&](PF_InData* in) { EXPECT_NE(in->utils->host_new_handle, nullptr); });
}

TEST(AnsiSuite, EntriesSitInTheirPublishedPlaces) {
  Host host(FakeEntry);
  During(host, [&](PF_InData* in) {
    auto* a = Acquire<PF_ANSICallbacksSuite1>(in, "PF ANSI Suite", 1);
    ASSERT_NE(a, nullptr);
    const double v = 0.3;
    EXPECT_EQ(a->sin(v), std::sin(v));
    EXPECT_EQ(a->cos(v), std::cos(v));
    EXPECT_EQ(a->tan(v), std::tan(v));
    EXPECT_EQ(a->atan2(v, 2.0), std::atan2(v, 2.0));
    EXPECT_EQ(a->pow(v, 3.0), std::pow(v, 3.0));
    EXPECT_EQ(a->asin(v), std::asin(v));
    EXPECT_EQ(a->acos(v), std::acos(v));
    EXPECT_EQ(in->utils->ansi.sin(v), std::sin(v));
    EXPECT_EQ(in->utils->ansi.acos(v), std::acos(v));
    char text[32];
    EXPECT_EQ(a->sprintf(text, "%s %d.%d\r\r%s", "A", 1, 2, "B"), 8);
    EXPECT_STREQ(text, "A 1.2\r\rB");
    in->pica_basicP->ReleaseSuite("PF ANSI Suite", 1);
  });
}

TEST(WorldSuite, ReportsEachWorldsFormatOrTheOverride) {
  Host host(FakeEntry);
  World w8(Depth::k8, 2, 2), w16(Depth::k16, 2, 2), wf(Depth::kFloat, 2, 2);
  auto check = [&](PF_PixelFormat f8, PF_PixelFormat f16, PF_PixelFormat ff) {
    During(host, [&](PF_InData* in) {
      auto* ws = Acquire<PF_WorldSuite2>(in, "PF World Suite", 2);
      ASSERT_NE(ws, nullptr);
      PF_PixelFormat f = 0;
      EXPECT_EQ(ws->PF_GetPixelFormat(w8.effectWorld(), &f), 0);
      EXPECT_EQ(f, f8);
      EXPECT_EQ(ws->PF_GetPixelFormat(w16.effectWorld(), &f), 0);
      EXPECT_EQ(f, f16);
      EXPECT_EQ(ws->PF_GetPixelFormat(wf.effectWorld(), &f), 0);
      EXPECT_EQ(f, ff);
    });
  };
  check(PF_PixelFormat_ARGB32, PF_PixelFormat_ARGB64, PF_PixelFormat_ARGB128);
  host.OverrideInputPixelFormat(0x12345678);
  check(0x12345678, 0x12345678, 0x12345678);
  host.ClearPixelFormatOverride();
  host.FailCall(HostCall::GetPixelFormat, 1, 55);
  During(host, [&](PF_InData* in) {
    auto* ws = Acquire<PF_WorldSuite2>(in, "PF World Suite", 2);
    PF_PixelFormat f = PF_PixelFormat_INVALID;
    EXPECT_EQ(ws->PF_GetPixelFormat(w8.effectWorld(), &f), 55);
    EXPECT_EQ(f, PF_PixelFormat_INVALID);
  });
}

TEST(PixelData, GivesTheFirstPixelOnlyForTheMatchingDepth) {
  Host host(FakeEntry);
  World w8(Depth::k8, 3, 2, 0, 0, 8), w16(Depth::k16, 3, 2), wf(Depth::kFloat, 3, 2);
  host.FailCall(HostCall::GetPixelData, 4, 99);
  During(host, [&](PF_InData* in) {
    PF_Pixel8* p8 = nullptr;
    EXPECT_EQ(in->utils->get_pixel_data8(w8.effectWorld(), nullptr, &p8), 0);
    EXPECT_EQ(static_cast<void*>(p8), w8.effectWorld()->data);
    PF_Pixel16* p16 = nullptr;
    EXPECT_EQ(in->utils->get_pixel_data16(w8.effectWorld(), nullptr, &p16),
              PF_Err_BAD_CALLBACK_PARAM);
    EXPECT_EQ(p16, nullptr);
    auto* pd = Acquire<PF_PixelDataSuite1>(in, "PF Pixel Data Suite", 1);
    PF_PixelFloat* pf = nullptr;
    EXPECT_EQ(pd->get_pixel_data_float(wf.effectWorld(), nullptr, &pf), 0);
    EXPECT_EQ(static_cast<void*>(pf), wf.effectWorld()->data);
    EXPECT_EQ(pd->get_pixel_data16(w16.effectWorld(), nullptr, &p16), 99);  // the 4th call
    EXPECT_EQ(p16, nullptr);
  });
}

TEST(SamplingSuites, SampleThroughTheEffectReferenceAndRecordPositions) {
  Host host(FakeEntry);
  host.recordSamples = true;
  World src(Depth::k16, 4, 4);
  src.Fill(32768, 100, 200, 300);
  PF_SampPB pb{};
  pb.src = src.effectWorld();
  host.FailCall(HostCall::SubpixelSample, 3, 61);
  During(host, [&](PF_InData* in) {
    auto* s16 = Acquire<PF_Sampling16Suite1>(in, "PF Sampling16 Suite", 1);
    auto* s8 = Acquire<PF_Sampling8Suite1>(in, "PF Sampling8 Suite", 1);
    ASSERT_NE(s16, nullptr);
    PF_Pixel16 out{};
    EXPECT_EQ(s16->subpixel_sample16(in->effect_ref, 0x18000, 0x10000, &pb, &out), 0);
    EXPECT_EQ(out.blue, 300);
    EXPECT_EQ(s16->subpixel_sample16(nullptr, 0, 0, &pb, &out), PF_Err_BAD_CALLBACK_PARAM);
    PF_Pixel out8{};
    EXPECT_EQ(s8->subpixel_sample(in->effect_ref, 0, 0, &pb, &out8), PF_Err_BAD_CALLBACK_PARAM);
    PF_Pixel16 untouched{1, 2, 3, 4};
    EXPECT_EQ(in->utils->subpixel_sample16(in->effect_ref, 5, 6, &pb, &untouched), 61);
    EXPECT_EQ(untouched.alpha, 1);
  });
  EXPECT_EQ(host.subpixelSampleCalls(), 3);  // the call with a foreign reference never arrived
  const auto positions = host.subpixelPositions();
  ASSERT_EQ(positions.size(), 3u);
  EXPECT_EQ(positions[0], std::make_pair(0x18000, 0x10000));
  EXPECT_EQ(positions[2], std::make_pair(5, 6));
}
