// Suite access: the exported AEFX_ functions and the suite handler, against a basic suite
// whose answers each test sets.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "HostTestSupport.h"
#include "host/AEFX_SuiteHelper.h"
#include "host/SuiteHandler.h"

namespace {

// The basic suite's state: which suites exist and every call made.
struct FakeSuites {
  std::map<std::string, const void*> available;
  SPErr acquireResult = kSPNoError;
  SPErr releaseResult = kSPNoError;
  std::vector<std::pair<std::string, int32_t>> acquired;
  std::vector<std::pair<std::string, int32_t>> released;
};
FakeSuites fake;

SPErr FakeAcquire(const char* name, int32_t version, const void** suite) {
  fake.acquired.emplace_back(name, version);
  auto it = fake.available.find(name);
  *suite = it == fake.available.end() ? nullptr : it->second;
  return it == fake.available.end() ? SPErr{1} : fake.acquireResult;
}

SPErr FakeRelease(const char* name, int32_t version) {
  fake.released.emplace_back(name, version);
  return fake.releaseResult;
}

const int kSuiteTable[4] = {};  // any address serves as a suite

class SuiteAccess : public ::testing::Test {
 protected:
  void SetUp() override {
    fake = FakeSuites{};
    basic.AcquireSuite = FakeAcquire;
    basic.ReleaseSuite = FakeRelease;
    utils.ansi.sprintf = hosttest::Sprintf;
    utils.ansi.strcpy = hosttest::Strcpy;
    in.utils = &utils;
    in.pica_basicP = &basic;
  }
  bool Displayed() const { return (out.out_flags & PF_OutFlag_DISPLAY_ERROR_MESSAGE) != 0; }

  SPBasicSuite basic{};
  PF_UtilCallbacks utils{};
  PF_InData in{};
  PF_OutData out{};
};

using Calls = std::vector<std::pair<std::string, int32_t>>;

TEST_F(SuiteAccess, AcquireReturnsTheHostsSuite) {
  fake.available["PF World Suite"] = &kSuiteTable[0];
  void* suite = nullptr;
  EXPECT_EQ(AEFX_AcquireSuite(&in, &out, "PF World Suite", 2, "oops", &suite), PF_Err_NONE);
  EXPECT_EQ(suite, &kSuiteTable[0]);
  EXPECT_EQ(fake.acquired, (Calls{{"PF World Suite", 2}}));
  EXPECT_FALSE(Displayed());
}

TEST_F(SuiteAccess, AcquireFailureShowsTheGivenOrTheGenericText) {
  void* suite = nullptr;
  EXPECT_EQ(AEFX_AcquireSuite(&in, &out, "PF World Suite", 2, nullptr, &suite),
            PF_Err_BAD_CALLBACK_PARAM);
  EXPECT_TRUE(Displayed());
  EXPECT_STREQ(out.return_msg, "Not able to acquire AEFX Suite.");

  EXPECT_EQ(AEFX_AcquireSuite(&in, &out, "PF World Suite", 2, "Couldn't load suite.", &suite),
            PF_Err_BAD_CALLBACK_PARAM);
  EXPECT_STREQ(out.return_msg, "Couldn't load suite.");
}

TEST_F(SuiteAccess, AcquireCountsANullSuiteAsMissingWhateverTheHostReturns) {
  fake.available["PF ANSI Suite"] = nullptr;  // "found", with no error, but null
  void* suite = nullptr;
  EXPECT_EQ(AEFX_AcquireSuite(&in, &out, "PF ANSI Suite", 1, nullptr, &suite),
            PF_Err_BAD_CALLBACK_PARAM);
}

TEST_F(SuiteAccess, AcquireWithoutBasicSuiteLeavesThePointerAlone) {
  in.pica_basicP = nullptr;
  void* suite = const_cast<int*>(&kSuiteTable[2]);
  EXPECT_EQ(AEFX_AcquireSuite(&in, &out, "PF World Suite", 2, nullptr, &suite),
            PF_Err_BAD_CALLBACK_PARAM);
  EXPECT_EQ(suite, &kSuiteTable[2]);
  EXPECT_STREQ(out.return_msg, "Not able to acquire AEFX Suite.");
}

TEST_F(SuiteAccess, ReleaseIgnoresTheHostsResult) {
  fake.releaseResult = 7;
  EXPECT_EQ(AEFX_ReleaseSuite(&in, &out, "PF ANSI Suite", 1, "Couldn't release suite."),
            PF_Err_NONE);
  EXPECT_EQ(fake.released, (Calls{{"PF ANSI Suite", 1}}));
  EXPECT_FALSE(Displayed());
}

TEST_F(SuiteAccess, ReleaseWithoutBasicSuiteFails) {
  in.pica_basicP = nullptr;
  EXPECT_EQ(AEFX_ReleaseSuite(&in, &out, "PF ANSI Suite", 1, nullptr), PF_Err_BAD_CALLBACK_PARAM);
  EXPECT_TRUE(Displayed());
  EXPECT_STREQ(out.return_msg, "Not able to release AEFX Suite.");
  EXPECT_EQ(AEFX_ReleaseSuite(&in, &out, "PF ANSI Suite", 1, "Couldn't release suite."),
            PF_Err_BAD_CALLBACK_PARAM);
  EXPECT_STREQ(out.return_msg, "Couldn't release suite.");
}

TEST_F(SuiteAccess, DrawbotNullRecordIsRefusedBeforeAskingTheHost) {
  EXPECT_EQ(AEFX_AcquireDrawbotSuites(&in, &out, nullptr), PF_Err_UNRECOGNIZED_PARAM_TYPE);
  EXPECT_TRUE(Displayed());
  EXPECT_STREQ(out.return_msg, "NULL suite pointer passed to AEFX_AcquireDrawbotSuites");
  EXPECT_TRUE(fake.acquired.empty());
}

TEST_F(SuiteAccess, DrawbotAcquiresAllFourInOrder) {
  fake.available = {{"DRAWBOT Draw Suite", &kSuiteTable[0]},
                    {"DRAWBOT Supplier Suite", &kSuiteTable[1]},
                    {"DRAWBOT Surface Suite", &kSuiteTable[2]},
                    {"DRAWBOT Path Suite", &kSuiteTable[3]}};
  DRAWBOT_Suites suites{};
  EXPECT_EQ(AEFX_AcquireDrawbotSuites(&in, &out, &suites), PF_Err_NONE);
  EXPECT_EQ(suites.drawbot_suiteP, &kSuiteTable[0]);
  EXPECT_EQ(suites.supplier_suiteP, &kSuiteTable[1]);
  EXPECT_EQ(suites.surface_suiteP, &kSuiteTable[2]);
  EXPECT_EQ(suites.path_suiteP, &kSuiteTable[3]);
  EXPECT_EQ(fake.acquired, (Calls{{"DRAWBOT Draw Suite", 1},
                                  {"DRAWBOT Supplier Suite", 1},
                                  {"DRAWBOT Surface Suite", 1},
                                  {"DRAWBOT Path Suite", 1}}));
}

TEST_F(SuiteAccess, DrawbotStopsAtTheFirstMissingSuite) {
  fake.available = {{"DRAWBOT Draw Suite", &kSuiteTable[0]},
                    {"DRAWBOT Supplier Suite", &kSuiteTable[1]},
                    {"DRAWBOT Path Suite", &kSuiteTable[3]}};
  DRAWBOT_Suites suites{};
  EXPECT_EQ(AEFX_AcquireDrawbotSuites(&in, &out, &suites), PF_Err_BAD_CALLBACK_PARAM);
  EXPECT_STREQ(out.return_msg, "Not able to acquire AEFX Suite.");
  EXPECT_EQ(fake.acquired.size(), 3u);  // the path suite is never asked for
  EXPECT_EQ(suites.drawbot_suiteP, &kSuiteTable[0]);  // stays acquired
  EXPECT_EQ(suites.supplier_suiteP, &kSuiteTable[1]);
  EXPECT_TRUE(fake.released.empty());
}

TEST_F(SuiteAccess, DrawbotReleaseReportsEachSuiteWithoutBasicSuiteButSucceeds) {
  EXPECT_EQ(AEFX_ReleaseDrawbotSuites(&in, &out), PF_Err_NONE);
  EXPECT_EQ(fake.released, (Calls{{"DRAWBOT Draw Suite", 1},
                                  {"DRAWBOT Supplier Suite", 1},
                                  {"DRAWBOT Surface Suite", 1},
                                  {"DRAWBOT Path Suite", 1}}));
  in.pica_basicP = nullptr;
  EXPECT_EQ(AEFX_ReleaseDrawbotSuites(&in, &out), PF_Err_NONE);
  EXPECT_TRUE(Displayed());
  EXPECT_STREQ(out.return_msg, "Not able to release AEFX Suite.");
}

TEST_F(SuiteAccess, HandlerAcquiresOnFirstUseAndReleasesOnceOnDestruction) {
  fake.available["PF Iterate8 Suite"] = &kSuiteTable[1];
  {
    AEGP_SuiteHandler suites(&basic);
    const void* first = suites.Iterate8Suite1();
    const void* second = suites.Iterate8Suite1();
    EXPECT_EQ(first, &kSuiteTable[1]);
    EXPECT_EQ(second, first);
    EXPECT_TRUE(fake.released.empty());
  }
  EXPECT_EQ(fake.acquired, (Calls{{"PF Iterate8 Suite", 1}}));
  EXPECT_EQ(fake.released, (Calls{{"PF Iterate8 Suite", 1}}));
}

TEST_F(SuiteAccess, HandlerNeverUsedReleasesNothing) {
  { AEGP_SuiteHandler suites(&basic); }
  EXPECT_TRUE(fake.acquired.empty());
  EXPECT_TRUE(fake.released.empty());
}

TEST_F(SuiteAccess, HandlerThrowsIntegerForMissingSuiteAndKeepsWhatItHolds) {
  fake.available["PF Sampling8 Suite"] = &kSuiteTable[0];
  fake.available["PF Sampling16 Suite"] = &kSuiteTable[0];
  {
    AEGP_SuiteHandler suites(&basic);
    suites.Sampling8Suite1();
    try {
      suites.SamplingFloatSuite1();
      ADD_FAILURE() << "no error thrown";
    } catch (PF_Err err) {
      EXPECT_EQ(err, PF_Err_BAD_CALLBACK_PARAM);
    }
  }
  EXPECT_EQ(fake.released, (Calls{{"PF Sampling8 Suite", 1}}));
}

TEST_F(SuiteAccess, HandlerTreatsAHostErrorAsMissingEvenWithASuite) {
  fake.available["PF iterate16 Suite"] = &kSuiteTable[0];
  fake.acquireResult = 3;
  AEGP_SuiteHandler suites(&basic);
  EXPECT_THROW(suites.Iterate16Suite1(), PF_Err);
}

TEST_F(SuiteAccess, HandlerOnNullBasicSuiteThrows) {
  EXPECT_THROW(AEGP_SuiteHandler suites(nullptr), PF_Err);
}

TEST_F(SuiteAccess, HandlerKnowsTheSuiteNamesAsTheHostRegistersThem) {
  for (const char* name : {"PF Sampling8 Suite", "PF Sampling16 Suite", "PF SamplingFloat Suite",
                           "PF Iterate8 Suite", "PF iterate16 Suite", "PF iterateFloat Suite"}) {
    fake.available[name] = &kSuiteTable[0];
  }
  {
    AEGP_SuiteHandler suites(&basic);
    suites.Sampling8Suite1();
    suites.Sampling16Suite1();
    suites.SamplingFloatSuite1();
    suites.Iterate8Suite1();
    suites.Iterate16Suite1();
    suites.IterateFloatSuite1();
  }
  const Calls expected{{"PF Sampling8 Suite", 1}, {"PF Sampling16 Suite", 1},
                       {"PF SamplingFloat Suite", 1}, {"PF Iterate8 Suite", 1},
                       {"PF iterate16 Suite", 1}, {"PF iterateFloat Suite", 1}};
  EXPECT_EQ(fake.acquired, expected);
  EXPECT_EQ(fake.released.size(), 6u);
}

}  // namespace
