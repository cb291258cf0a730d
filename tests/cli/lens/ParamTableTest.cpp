// The parameter table as the tool reads it: every parameter reaches the options, the help,
// lens files and the comparison that lets frames share one effect set-up.
#include "../CliTestSupport.h"
#include "cli/lens/LensFile.h"
#include "cli/lens/LensOptions.h"
#include "common/EffectParams.h"

namespace vt_cli_test {
namespace {

// A value of `param` other than the default.
void Change(const ParamEntry& param, EffectParamValues* values) {
  switch (param.kind) {
    case ParamKind::kPopup: values->*param.choiceValue = param.choiceCount; break;
    case ParamKind::kFloatSlider: values->*param.numberValue = param.range.maximum; break;
    case ParamKind::kPoint: values->*param.yValue += 1; break;
  }
}

TEST(ParamTable, EachParameterDecidesWhetherTwoSetUpsAreTheSame) {
  EXPECT_TRUE(SameParamValues(EffectParamValues{}, EffectParamValues{}));
  for (const ParamEntry& param : kParamTable) {
    SCOPED_TRACE(param.hostName);
    EffectParamValues changed;
    Change(param, &changed);
    EXPECT_FALSE(SameParamValues(EffectParamValues{}, changed));
    if (param.kind == ParamKind::kPoint) {
      EffectParamValues wider;
      wider.*param.xValue += 1;
      EXPECT_FALSE(SameParamValues(EffectParamValues{}, wider));
    }
  }
}

TEST(ParamTable, EveryOptionIsRegisteredAndTakesItsTableValues) {
  const std::string help = RunTool({"render", "--help"}).out;
  for (const ParamEntry& param : kParamTable) {
    SCOPED_TRACE(param.option);
    EXPECT_NE(help.find(param.option), std::string::npos);
    if (param.kind == ParamKind::kFloatSlider) {
      EXPECT_NE(help.find(std::string(param.hostName) + ", " + veltrisca::RangeText(param.range)),
                std::string::npos);
    }
    for (int c = 1; c <= param.choiceCount; ++c) {
      veltrisca::LensOptionText text;
      text[param.index] = param.choices[c - 1].word;
      const veltrisca::LensSettings s = veltrisca::ParseLensOptions(text);
      EXPECT_EQ(veltrisca::SettingChoice(s, param.index), c);
      EXPECT_STREQ(veltrisca::ChoiceName(param.index, c), param.choices[c - 1].hostText);
    }
  }
}

TEST(ParamTable, LensFilesKeepEveryParameterUnderItsKey) {
  veltrisca::LensOptionText text;
  text[kParamMode] = "apply";
  text[kParamFilter] = "mitchell";
  text[kParamDistortion] = "-12.5";
  text[kParamCubic] = "3";
  text[kParamQuartic] = "-4";
  text[kParamZoom] = "1.25";
  text[kParamPixelAspect] = "2";
  text[kParamDistortedSize] = "320x180";
  text[kParamUndistortedSize] = "352x198";
  const Json file = Json::parse(veltrisca::LensFileText(veltrisca::ParseLensOptions(text), ""));
  ScratchDir dir;
  const std::string path = (dir.path() / "lens.json").string();
  Write(path, file.dump());
  veltrisca::LensOptionText read;
  const std::vector<std::string> taken =
      veltrisca::MergeLensFile(path, &read, [](const std::string&) { return false; });
  EXPECT_EQ(taken.size(), static_cast<size_t>(kParamCount - 1));
  for (const ParamEntry& param : kParamTable) {
    SCOPED_TRACE(param.lensKey);
    EXPECT_TRUE(file.contains(param.lensKey));
  }
  const veltrisca::LensSettings a = veltrisca::ParseLensOptions(text);
  const veltrisca::LensSettings b = veltrisca::ParseLensOptions(read);
  for (const ParamEntry& param : kParamTable) {
    SCOPED_TRACE(param.lensKey);
    switch (param.kind) {
      case ParamKind::kPopup:
        EXPECT_EQ(veltrisca::SettingChoice(a, param.index), veltrisca::SettingChoice(b, param.index));
        break;
      case ParamKind::kFloatSlider:
        EXPECT_EQ(veltrisca::SettingNumber(a, param.index), veltrisca::SettingNumber(b, param.index));
        break;
      case ParamKind::kPoint:
        EXPECT_EQ(veltrisca::SettingSize(a, param.index)->width,
                  veltrisca::SettingSize(b, param.index)->width);
        EXPECT_EQ(veltrisca::SettingSize(a, param.index)->height,
                  veltrisca::SettingSize(b, param.index)->height);
        break;
    }
  }
}

}  // namespace
}  // namespace vt_cli_test
