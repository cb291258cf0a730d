// Suite access: the exported AEFX_ functions and the suite handler, against a basic suite
// whose answers each test sets. What every render shows of them (the handler's suite names,
// acquiring once, releasing what is held, a missing suite's error) SmartRenderTest checks.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "HostTestSupport.h"
#include "host/AEFX_SuiteHelper.h"
#include "host/SuiteHandler.h"

namespace {

using Calls = std::vector<std::pair<std::string, int32_t>>;

// The basic suite's state: which suites exist and every call made.
struct FakeSuites {
  std::map<std::string, const void*> available;
  SPErr acquireResult = kSPNoError;
  SPErr releaseResult = kSPNoError;
  Calls acquired, released;
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
const Calls kDrawbotCalls{{"DRAWBOT Draw Suite", 1},
                          {"DRAWBOT Supplier Suite", 1},
                          {"DRAWBOT Surface Suite", 1},
                          {"DRAWBOT Path Suite", 1}};

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

// (Acquiring a suite that is there shows in every render.)
TEST_F(SuiteAccess, AcquireFailureShowsTheGivenOrTheGenericText) {
  fake.available["PF ANSI Suite"] = nullptr;  // "found", with no error, but null
  void* suite = nullptr;
  EXPECT_EQ(AEFX_AcquireSuite(&in, &out, "PF Other Suite", 2, nullptr, &suite),
            PF_Err_BAD_CALLBACK_PARAM);
  EXPECT_TRUE(Displayed());
  EXPECT_STREQ(out.return_msg, "Not able to acquire AEFX Suite.");
  EXPECT_EQ(AEFX_AcquireSuite(&in, &out, "PF ANSI Suite", 1, "Couldn't load suite.", &suite),
            PF_Err_BAD_CALLBACK_PARAM);
  EXPECT_STREQ(out.return_msg, "Couldn't load suite.");

  in.pica_basicP = nullptr;  // leaves the pointer alone
  suite = const_cast<int*>(&kSuiteTable[2]);
  EXPECT_EQ(AEFX_AcquireSuite(&in, &out, "PF World Suite", 2, nullptr, &suite),
            PF_Err_BAD_CALLBACK_PARAM);
  EXPECT_EQ(suite, &kSuiteTable[2]);
  EXPECT_STREQ(out.return_msg, "Not able to acquire AEFX Suite.");
}

TEST_F(SuiteAccess, ReleaseIgnoresTheHostsResultButFailsWithoutBasicSuite) {
  fake.releaseResult = 7;
  EXPECT_EQ(AEFX_ReleaseSuite(&in, &out, "PF ANSI Suite", 1, "Couldn't release suite."),
            PF_Err_NONE);
  EXPECT_EQ(fake.released, (Calls{{"PF ANSI Suite", 1}}));
  EXPECT_FALSE(Displayed());

  in.pica_basicP = nullptr;
  EXPECT_EQ(AEFX_ReleaseSuite(&in, &out, "PF ANSI Suite", 1, nullptr), PF_Err_BAD_CALLBACK_PARAM);
  EXPECT_TRUE(Displayed());
  EXPECT_STREQ(out.return_msg, "Not able to release AEFX Suite.");
  EXPECT_EQ(AEFX_ReleaseSuite(&in, &out, "PF ANSI Suite", 1, "Couldn't release suite."),
            PF_Err_BAD_CALLBACK_PARAM);
  EXPECT_STREQ(out.return_msg, "Couldn't release suite.");
}

TEST_F(SuiteAccess, DrawbotSuitesGoInOrderAndAcquiringStopsAtTheFirstMissing) {
  EXPECT_EQ(AEFX_AcquireDrawbotSuites(&in, &out, nullptr), PF_Err_UNRECOGNIZED_PARAM_TYPE);
  EXPECT_TRUE(Displayed());
  EXPECT_STREQ(out.return_msg, "NULL suite pointer passed to AEFX_AcquireDrawbotSuites");
  EXPECT_TRUE(fake.acquired.empty());

  for (int i = 0; i < 4; ++i) fake.available[kDrawbotCalls[i].first] = &kSuiteTable[i];
  DRAWBOT_Suites suites{};
  EXPECT_EQ(AEFX_AcquireDrawbotSuites(&in, &out, &suites), PF_Err_NONE);
  EXPECT_TRUE(suites.drawbot_suiteP == &kSuiteTable[0] &&
              suites.supplier_suiteP == &kSuiteTable[1] &&
              suites.surface_suiteP == &kSuiteTable[2] && suites.path_suiteP == &kSuiteTable[3]);
  EXPECT_EQ(fake.acquired, kDrawbotCalls);

  fake.acquired.clear();
  fake.available.erase("DRAWBOT Surface Suite");
  suites = DRAWBOT_Suites{};
  EXPECT_EQ(AEFX_AcquireDrawbotSuites(&in, &out, &suites), PF_Err_BAD_CALLBACK_PARAM);
  EXPECT_STREQ(out.return_msg, "Not able to acquire AEFX Suite.");
  EXPECT_EQ(fake.acquired.size(), 3u);  // the path suite is never asked for
  EXPECT_EQ(suites.supplier_suiteP, &kSuiteTable[1]);  // stays acquired
  EXPECT_TRUE(fake.released.empty());

  // Releases report each suite missing without a basic suite, but succeed.
  EXPECT_EQ(AEFX_ReleaseDrawbotSuites(&in, &out), PF_Err_NONE);
  EXPECT_EQ(fake.released, kDrawbotCalls);
  in.pica_basicP = nullptr;
  EXPECT_EQ(AEFX_ReleaseDrawbotSuites(&in, &out), PF_Err_NONE);
  EXPECT_TRUE(Displayed());
  EXPECT_STREQ(out.return_msg, "Not able to release AEFX Suite.");
}

// The rest of the handler, and the error it throws, show in every render (SmartRenderTest).
TEST_F(SuiteAccess, HandlerTreatsAHostErrorAsMissingAndNeedsABasicSuite) {
  fake.available["PF iterate16 Suite"] = &kSuiteTable[0];
  fake.acquireResult = 3;  // an error, with a suite all the same
  AEGP_SuiteHandler suites(&basic);
  EXPECT_THROW(suites.Iterate16Suite1(), PF_Err);
  EXPECT_THROW(AEGP_SuiteHandler none(nullptr), PF_Err);
}

}  // namespace
