// The plug-in's description and loading.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

#include "hostsim/Host.h"

using hostsim::DescriptionPathFor;
using hostsim::PluginDescription;
using hostsim::PluginModule;

namespace {

const std::string kValid =
    "# comment\n\nname = Veltrisca Distortion \nmatch_name=VLTR Veltrisca Distortion\r\n"
    "category=Distort\nentry_point=EntryPointFunc\nversion=589825\nout_flags=0x2000040\n"
    "out_flags2=0X1409\n";

std::string WriteTemp(const std::string& name, const std::string& text) {
  const std::string path = testing::TempDir() + name;
  std::ofstream(path) << text;
  return path;
}

std::string ErrorOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "";
}

}  // namespace

TEST(PluginDescription, ReadsEveryKeyAndRefusesMalformedTextNamingTheLine) {
  const PluginDescription d = hostsim::ParsePluginDescription(kValid, "x.plugin");
  EXPECT_EQ(std::vector<std::string>({d.name, d.matchName, d.category, d.entryPoint}),
            std::vector<std::string>({"Veltrisca Distortion", "VLTR Veltrisca Distortion",
                                      "Distort", "EntryPointFunc"}));
  EXPECT_EQ(std::vector<uint32_t>({d.version, d.outFlags, d.outFlags2}),
            std::vector<uint32_t>({0x90001, 0x2000040, 0x1409}));
  const std::string noFlags2 = kValid.substr(0, kValid.find("out_flags2"));
  std::vector<std::pair<std::string, std::string>> cases = {
      {kValid + "name=Again\n", "bad.plugin:10: \"name\" repeated"},
      {kValid + "nmae=x\n", "unknown key \"nmae\""},
      {kValid + "just words\n", "bad.plugin:10: expected key=value"},
      {noFlags2, "\"out_flags2\" is missing"},
      {kValid.substr(0, kValid.find("category")) + "category=\n" +
           kValid.substr(kValid.find("entry_point")),
       "\"category\" is empty"}};
  for (const char* number : {"0x100000000", "-1", "12abc", ""}) {
    cases.emplace_back(noFlags2 + "out_flags2=" + number + "\n", "out_flags2");
  }
  for (const auto& [text, error] : cases) {
    const std::string why = ErrorOf([&] { hostsim::ParsePluginDescription(text, "bad.plugin"); });
    EXPECT_NE(why.find(error), std::string::npos) << why << "\nfor\n" << text;
  }
}

TEST(PluginDescription, LivesBesideTheLibrary) {
  EXPECT_EQ(DescriptionPathFor("/a/b/VeltriscaDistortion.so"), "/a/b/VeltriscaDistortion.plugin");
  EXPECT_EQ(DescriptionPathFor("/a.d/effect"), "/a.d/effect.plugin");
  EXPECT_EQ(DescriptionPathFor("effect.so"), "effect.plugin");
  EXPECT_EQ(DescriptionPathFor("/a/.hidden"), "/a/.hidden.plugin");
}

// The built plug-in finds its description beside it; the macOS property list must carry the
// same values (which the host compares with what the effect reports).
TEST(PluginDescription, ShippedDescriptionsAgreeWithEachOther) {
  const PluginDescription d = PluginModule(VT_EFFECT_PATH).description();
  std::stringstream pipl;
  pipl << std::ifstream(VT_SOURCE_DIR "/effect/description/VeltriscaDistortionPiPL.r").rdbuf();
  for (const std::string& needle :
       {"\"" + d.name + "\"", "\"" + d.matchName + "\"", "\"" + d.category + "\"",
        "CodeMacIntel64 {\n\t\t\t\"" + d.entryPoint + "\"", std::to_string(d.version),
        std::string("0x2000040"), std::string("0x1409")}) {
    EXPECT_NE(pipl.str().find(needle), std::string::npos) << needle;
  }
}

TEST(PluginModule, ExplainsEveryLoadingFailure) {
  const std::string desc = WriteTemp("libm-test.plugin", kValid);
  const std::string notLibrary = WriteTemp("not-a-library.so", "plain text");
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[] { PluginModule("/nonexistent/Effect.so"); }, "/nonexistent/Effect.plugin"},
      {[&] { PluginModule("/nonexistent/Effect.so", desc); },
       "cannot load plug-in /nonexistent/Effect.so"},
      {[&] { PluginModule(notLibrary, desc); }, "cannot load plug-in " + notLibrary},
      // A real library without the entry point the description names.
      {[&] { PluginModule("libm.so.6", desc); },
       "has no entry point \"EntryPointFunc\" (named by " + desc}};
  for (const auto& [load, error] : cases) {
    const std::string why = ErrorOf(load);
    EXPECT_NE(why.find(error), std::string::npos) << why;
  }
  // The entry point is looked up by the name the description gives.
  std::string text = kValid;
  text.replace(text.find("EntryPointFunc"), 14, "cos");
  PluginModule libm("libm.so.6", WriteTemp("libm-cos.plugin", text));
  EXPECT_EQ(libm.entry(), reinterpret_cast<PF_FilterProc>(libm.Symbol("cos")));
  EXPECT_EQ(libm.Symbol("no_such_symbol_here"), nullptr);
}
