// The parameter set as the host receives it at parameter setup.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "HostTestSupport.h"

namespace {

using hostsim::Host;
using hostsim::HostCall;

// 'abcd' as the host stores a four-character id: the first character most significant.
int32_t FourCharId(const char* id) {
  return static_cast<int32_t>((uint32_t(uint8_t(id[0])) << 24) | (uint32_t(uint8_t(id[1])) << 16) |
                              (uint32_t(uint8_t(id[2])) << 8) | uint32_t(uint8_t(id[3])));
}

struct ExpectedParam {
  const char* id;
  const char* name;
  PF_ParamType type;
  PF_ParamFlags flags;
};

const ExpectedParam kExpected[9] = {
    {"mode", "DistortMode", PF_Param_POPUP, PF_ParamFlag_CANNOT_INTERP},
    {"filt", "FilterType", PF_Param_POPUP, 0},
    {"quad", "DistortionX1000", PF_Param_FLOAT_SLIDER, 0},
    {"cube", "CubicX1000", PF_Param_FLOAT_SLIDER, 0},
    {"quar", "QuarticX1000", PF_Param_FLOAT_SLIDER, 0},
    {"zoom", "ZoomFactor", PF_Param_FLOAT_SLIDER, 0},
    {"imsz", "DistortedImgSize", PF_Param_POINT, 0},
    {"pasp", "PixelAspect", PF_Param_FLOAT_SLIDER, PF_ParamFlag_CANNOT_INTERP},
    {"pdsz", "UndistortedImgSize", PF_Param_POINT, 0},
};

void ExpectPopup(const PF_ParamDef& def, int choices, const char* names, int dephault) {
  EXPECT_EQ(def.u.pd.num_choices, choices);
  EXPECT_EQ(def.u.pd.dephault, dephault);
  EXPECT_EQ(def.u.pd.value, dephault);
  ASSERT_NE(def.u.pd.u.namesptr, nullptr);
  EXPECT_STREQ(def.u.pd.u.namesptr, names);
}

void ExpectSlider(const PF_ParamDef& def, float lo, float hi, float dephault, int precision) {
  EXPECT_EQ(def.u.fs_d.valid_min, lo);
  EXPECT_EQ(def.u.fs_d.slider_min, lo);
  EXPECT_EQ(def.u.fs_d.valid_max, hi);
  EXPECT_EQ(def.u.fs_d.slider_max, hi);
  EXPECT_EQ(def.u.fs_d.dephault, dephault);
  EXPECT_EQ(def.u.fs_d.value, static_cast<double>(dephault));
  EXPECT_EQ(def.u.fs_d.precision, precision);
  EXPECT_EQ(def.u.fs_d.display_flags, 0);
  EXPECT_EQ(def.u.fs_d.curve_tolerance, 0.0f);
}

void ExpectPoint(const PF_ParamDef& def) {
  EXPECT_EQ(def.u.td.x_dephault, 0x00640000);
  EXPECT_EQ(def.u.td.y_dephault, 0x00640000);
  EXPECT_EQ(def.u.td.x_value, 0);
  EXPECT_EQ(def.u.td.y_value, 0);
  EXPECT_EQ(def.u.td.restrict_bounds, 0);
}

TEST(Params, NineDefinitionsInOrder) {
  Host host(hosttest::Plugin());
  ASSERT_EQ(host.ParamsSetup(), PF_Err_NONE);
  EXPECT_EQ(host.outData().num_params, 10);
  const std::vector<PF_ParamDef>& defs = host.addedParams();
  ASSERT_EQ(defs.size(), 9u);
  for (int i = 0; i < 9; ++i) {
    SCOPED_TRACE(kExpected[i].name);
    EXPECT_EQ(defs[i].uu.id, FourCharId(kExpected[i].id));
    EXPECT_STREQ(defs[i].name, kExpected[i].name);
    EXPECT_EQ(defs[i].param_type, kExpected[i].type);
    EXPECT_EQ(defs[i].flags, kExpected[i].flags);
    EXPECT_EQ(defs[i].ui_flags, 0);
    EXPECT_EQ(defs[i].ui_width, 0);
    EXPECT_EQ(defs[i].ui_height, 0);
  }
  EXPECT_EQ(FourCharId("mode"), 0x6D6F6465);

  ExpectPopup(defs[0], 2, "Remove|Apply", 1);
  ExpectPopup(defs[1], 6, "Built-in|Nearest|BiLinear|Lanczos-2|Lanczos-3|Mitchell-Netravali", 4);
  for (int i : {2, 3, 4}) ExpectSlider(defs[i], -20000.0f, 20000.0f, 0.0f, 2);
  ExpectSlider(defs[5], 0.0f, 10.0f, 1.0f, 3);
  ExpectPoint(defs[6]);
  ExpectSlider(defs[7], 0.1f, 10.0f, 1.0f, 3);
  uint32_t minBits;
  std::memcpy(&minBits, &defs[7].u.fs_d.valid_min, 4);
  EXPECT_EQ(minBits, 0x3DCCCCCDu);
  ExpectPoint(defs[8]);
}

TEST(Params, ChoicesPointIntoTheStaticStringTable) {
  Host host(hosttest::Plugin());
  ASSERT_EQ(host.ParamsSetup(), PF_Err_NONE);
  auto getString = reinterpret_cast<char* (*)(int32_t)>(hosttest::Plugin().Symbol("GetStringPtr"));
  ASSERT_NE(getString, nullptr);
  EXPECT_EQ(host.addedParams()[0].u.pd.u.namesptr, getString(6));
  EXPECT_EQ(host.addedParams()[1].u.pd.u.namesptr, getString(8));
}

TEST(Params, StopsAddingAfterTheFirstRefusal) {
  Host host(hosttest::Plugin());
  host.FailCall(HostCall::AddParam, 3, PF_Err_OUT_OF_MEMORY);
  EXPECT_EQ(host.ParamsSetup(), PF_Err_OUT_OF_MEMORY);
  EXPECT_EQ(host.CallCount(HostCall::AddParam), 3);
  EXPECT_EQ(host.addedParams().size(), 2u);
  EXPECT_EQ(host.outData().num_params, 10);
}

}  // namespace
