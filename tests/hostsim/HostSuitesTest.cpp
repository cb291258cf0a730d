// The basic suite, the suites it hands out, handles, and the utility callbacks.
#include <cmath>
#include <cstring>
#include <thread>

#include "FakeEffect.h"

using namespace hostsim_test;

TEST_F(HostTest, BasicSuiteOffersEachSuiteOnlyUnderItsNameAndVersion) {
  During([&](PF_InData* in) {
    const void* suite = reinterpret_cast<const void*>(1);
    EXPECT_EQ(in->pica_basicP->AcquireSuite("PF World Suite", 1, &suite),
              hostsim::kSPSuiteNotFoundError);
    EXPECT_EQ(suite, nullptr);
    EXPECT_EQ(Acquire<void>(in, "PF Iterate16 Suite"), nullptr);  // registered as "iterate16"
    // No name, or nowhere to put the suite: a bad parameter, not an unknown suite.
    suite = reinterpret_cast<const void*>(1);
    EXPECT_EQ(in->pica_basicP->AcquireSuite(nullptr, 1, &suite), hostsim::kSPBadParameterError);
    EXPECT_EQ(suite, nullptr);
    EXPECT_EQ(in->pica_basicP->AcquireSuite("PF World Suite", 2, nullptr),
              hostsim::kSPBadParameterError);
    for (const char* name :
         {"PF World Suite", "PF ANSI Suite", "PF Pixel Data Suite", "PF Sampling8 Suite",
          "PF Sampling16 Suite", "PF SamplingFloat Suite", "PF Iterate8 Suite",
          "PF iterate16 Suite", "PF iterateFloat Suite", "DRAWBOT Draw Suite",
          "DRAWBOT Supplier Suite", "DRAWBOT Surface Suite", "DRAWBOT Path Suite"}) {
      const int32_t version = std::strcmp(name, "PF World Suite") == 0 ? 2 : 1;
      EXPECT_NE(Acquire<void>(in, name, version), nullptr) << name;
      EXPECT_EQ(in->pica_basicP->ReleaseSuite(name, version), 0) << name;
    }
  });
  EXPECT_EQ(host.AcquireCount("PF World Suite", 2), 1);
  EXPECT_EQ(host.AcquireCount("PF World Suite", 1), 0);
  EXPECT_EQ(host.suiteEvents().size(), 2u + 2u * 13u);
}

TEST_F(HostTest, BasicSuiteCountsAcquisitionsAndReleasesAndShowsUnbalancedOnes) {
  During([&](PF_InData* in) {
    EXPECT_NE(Acquire<void>(in, "PF ANSI Suite"), nullptr);
    EXPECT_NE(Acquire<void>(in, "PF Sampling8 Suite"), nullptr);
    EXPECT_EQ(in->pica_basicP->ReleaseSuite("PF Sampling8 Suite", 1), 0);
    EXPECT_NE(in->pica_basicP->ReleaseSuite("PF Sampling8 Suite", 1), 0);  // one too many
  });
  EXPECT_FALSE(host.AllSuitesReleased());  // the ANSI suite is still held
  EXPECT_EQ(host.AcquireCount("PF Sampling8 Suite"), 1);
  EXPECT_EQ(host.ReleaseCount("PF Sampling8 Suite", 1), 1);
  EXPECT_EQ(host.ReleaseCount("PF Sampling8 Suite", 2), 0);
  EXPECT_EQ(host.ReleaseCount("PF ANSI Suite"), 0);
  EXPECT_EQ(host.UnheldReleaseCount(), 1);
  During([&](PF_InData* in) { in->pica_basicP->ReleaseSuite("PF ANSI Suite", 1); });
  EXPECT_TRUE(host.AllSuitesReleased());
}

TEST_F(HostTest, BasicSuiteCountsStayExactUnderConcurrentUse) {
  During([&](PF_InData* in) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([in] {
        for (int i = 0; i < 500; ++i) {
          Acquire<void>(in, "PF Iterate8 Suite");
          in->pica_basicP->ReleaseSuite("PF Iterate8 Suite", 1);
        }
      });
    }
    for (std::thread& t : threads) t.join();
  });
  EXPECT_EQ(host.AcquireCount("PF Iterate8 Suite", 1), 2000);
  EXPECT_EQ(host.ReleaseCount("PF Iterate8 Suite", 1), 2000);
}

TEST_F(HostTest, HandlesAreSizedAndTrackedAndTheCallbacksCanBeAbsent) {
  During([&](PF_InData* in) {
    PF_Handle h = in->utils->host_new_handle(8376);
    EXPECT_EQ(in->utils->host_get_handle_size(h), 8376u);
    EXPECT_NE(in->utils->host_new_handle(16), nullptr);  // left alive: freed with the host
    in->utils->host_dispose_handle(h);
    in->utils->host_dispose_handle(h);  // a second time: refused, not freed again
    EXPECT_EQ(host.BadDisposeCount(), 1);
    EXPECT_EQ(in->utils->host_new_handle(uint64_t{1} << 40), nullptr);  // refused, no abort
  });
  EXPECT_EQ(host.LiveHandleCount(), 1);
  host.handleCallbacks = false;
  host.basicSuitePresent = false;
  During([&](PF_InData* in) {
    EXPECT_EQ(in->utils->host_new_handle, nullptr);
    EXPECT_EQ(in->utils->host_dispose_handle, nullptr);
    EXPECT_EQ(in->pica_basicP, nullptr);
  });
}

// The record is filled in by position: a slot out of place answers with another function.
TEST_F(HostTest, AnsiSuiteSlotsHoldTheirFunctionsAndMatchTheUtilityRecord) {
  During([&](PF_InData* in) {
    auto* a = Acquire<PF_ANSICallbacksSuite1>(in, "PF ANSI Suite");
    EXPECT_EQ(std::memcmp(a, &in->utils->ansi, sizeof *a), 0);
    const double x = 0.5, y = 2.0;
    EXPECT_EQ(
        std::vector<double>({a->atan(x), a->ceil(x), a->cos(x), a->exp(x), a->fabs(x), a->floor(x),
                             a->log(x), a->log10(x), a->sin(x), a->sinh(x), a->sqrt(x), a->tan(x),
                             a->asin(x), a->acos(x), a->atan2(x, y), a->fmod(x, y), a->hypot(x, y),
                             a->pow(x, y)}),
        std::vector<double>({std::atan(x), std::ceil(x), std::cos(x), std::exp(x), std::fabs(x),
                             std::floor(x), std::log(x), std::log10(x), std::sin(x), std::sinh(x),
                             std::sqrt(x), std::tan(x), std::asin(x), std::acos(x),
                             std::atan2(x, y), std::fmod(x, y), std::hypot(x, y), std::pow(x, y)}));
    char text[32];
    EXPECT_EQ(a->sprintf(text, "%s %d.%d\r\r%s", "A", 1, 2, "B"), 8);
    EXPECT_STREQ(a->strcpy(text + 16, text), "A 1.2\r\rB");
    in->pica_basicP->ReleaseSuite("PF ANSI Suite", 1);
  });
}

// Positions, calls and injected failures as the real effect makes them: tests/host.
TEST_F(HostTest, PixelAndSamplingCallbacksAnswerOnlyForTheWorldsDepthAndTheEffect) {
  World src(Depth::k16, 4, 4, 0, 0, 8);
  src.Fill(32768, 100, 200, 300);
  PF_SampPB pb{};
  pb.src = src.effectWorld();
  During([&](PF_InData* in) {
    PF_Pixel16* p16 = nullptr;
    EXPECT_EQ(in->utils->get_pixel_data16(pb.src, nullptr, &p16), 0);
    EXPECT_EQ(static_cast<void*>(p16), pb.src->data);
    PF_Pixel8* p8 = reinterpret_cast<PF_Pixel8*>(p16);
    EXPECT_EQ(in->utils->get_pixel_data8(pb.src, nullptr, &p8), PF_Err_BAD_CALLBACK_PARAM);
    EXPECT_EQ(p8, nullptr);
    PF_PixelFormat f = PF_PixelFormat_INVALID;
    auto* world = Acquire<PF_WorldSuite2>(in, "PF World Suite", 2);
    EXPECT_EQ(world->PF_GetPixelFormat(pb.src, &f), 0);
    EXPECT_EQ(f, PF_PixelFormat_ARGB64);
    EXPECT_EQ(world->PF_GetPixelFormat(nullptr, &f), PF_Err_BAD_CALLBACK_PARAM);
    EXPECT_EQ(world->PF_GetPixelFormat(pb.src, nullptr), PF_Err_BAD_CALLBACK_PARAM);
    PF_EffectWorld made{};  // a world with no pixels on either side is refused
    for (const auto& [w, h] : {std::pair{0, 5}, std::pair{5, 0}, std::pair{-1, 5}}) {
      EXPECT_EQ(world->PF_NewWorld(in->effect_ref, w, h, 1, PF_PixelFormat_ARGB32, &made),
                PF_Err_BAD_CALLBACK_PARAM) << w << "x" << h;
    }
    auto* s16 = Acquire<PF_Sampling16Suite1>(in, "PF Sampling16 Suite");
    PF_Pixel16 out{};
    EXPECT_EQ(s16->subpixel_sample16(in->effect_ref, 0x18000, 0x10000, &pb, &out), 0);
    EXPECT_EQ(out.blue, 300);
    EXPECT_EQ(s16->subpixel_sample16(nullptr, 0, 0, &pb, &out), PF_Err_BAD_CALLBACK_PARAM);
    PF_Pixel out8{};
    EXPECT_EQ(Acquire<PF_Sampling8Suite1>(in, "PF Sampling8 Suite")
                  ->subpixel_sample(in->effect_ref, 0, 0, &pb, &out8),
              PF_Err_BAD_CALLBACK_PARAM);
  });
  EXPECT_EQ(host.subpixelSampleCalls(), 2);  // the call with a foreign reference never arrived
}
