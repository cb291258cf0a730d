// The plug-in's description and loading, and a smoke test of the real plug-in.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

#include "hostsim/Host.h"

using hostsim::DescriptionPathFor;
using hostsim::ParsePluginDescription;
using hostsim::PluginDescription;
using hostsim::PluginModule;

namespace {

const char* kValid =
    "# comment\n"
    "\n"
    "name = Veltrisca Distortion \n"
    "match_name=VLTR Veltrisca Distortion\r\n"
    "category=Distort\n"
    "entry_point=EntryPointFunc\n"
    "version=589825\n"
    "out_flags=0x2000040\n"
    "out_flags2=0X1409\n";

std::string WriteTemp(const std::string& name, const std::string& text) {
  const std::string path = testing::TempDir() + name;
  std::ofstream(path) << text;
  return path;
}

std::string ReadAll(const std::string& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
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

TEST(PluginDescription, ReadsEveryKey) {
  const PluginDescription d = ParsePluginDescription(kValid, "x.plugin");
  EXPECT_EQ(d.name, "Veltrisca Distortion");
  EXPECT_EQ(d.matchName, "VLTR Veltrisca Distortion");
  EXPECT_EQ(d.category, "Distort");
  EXPECT_EQ(d.entryPoint, "EntryPointFunc");
  EXPECT_EQ(d.version, 0x90001u);
  EXPECT_EQ(d.outFlags, 0x2000040u);
  EXPECT_EQ(d.outFlags2, 0x1409u);
}

TEST(PluginDescription, RefusesMalformedTextNamingTheLine) {
  const std::string valid = kValid;
  auto parse = [](const std::string& text) {
    return ErrorOf([&] { ParsePluginDescription(text, "bad.plugin"); });
  };
  EXPECT_NE(parse(valid + "name=Again\n").find("bad.plugin:10: \"name\" repeated"),
            std::string::npos);
  EXPECT_NE(parse(valid + "nmae=x\n").find("unknown key \"nmae\""), std::string::npos);
  EXPECT_NE(parse(valid + "just words\n").find("bad.plugin:10: expected key=value"),
            std::string::npos);
  std::string noFlags = valid.substr(0, valid.find("out_flags2"));
  EXPECT_NE(parse(noFlags).find("\"out_flags2\" is missing"), std::string::npos);
  for (const char* number : {"0x100000000", "-1", "12abc", ""}) {
    std::string text = noFlags + "out_flags2=" + number + "\n";
    EXPECT_NE(parse(text).find("out_flags2"), std::string::npos) << number;
  }
  EXPECT_NE(parse(valid.substr(0, valid.find("category")) + "category=\n" +
                  valid.substr(valid.find("entry_point")))
                .find("\"category\" is empty"),
            std::string::npos);
}

TEST(PluginDescription, LivesBesideTheLibrary) {
  EXPECT_EQ(DescriptionPathFor("/a/b/VeltriscaDistortion.so"), "/a/b/VeltriscaDistortion.plugin");
  EXPECT_EQ(DescriptionPathFor("/a.d/effect"), "/a.d/effect.plugin");
  EXPECT_EQ(DescriptionPathFor("effect.so"), "effect.plugin");
  EXPECT_EQ(DescriptionPathFor("/a/.hidden"), "/a/.hidden.plugin");
}

TEST(PluginDescription, ShippedDescriptionsAgreeWithEachOther) {
  const std::string dir = std::string(VT_SOURCE_DIR) + "/effect/description/";
  const PluginDescription d = hostsim::ReadPluginDescription(dir + "VeltriscaDistortion.plugin");
  EXPECT_EQ(d.name, "Veltrisca Distortion");
  EXPECT_EQ(d.entryPoint, "EntryPointFunc");
  EXPECT_EQ(d.version, 0x90001u);
  EXPECT_EQ(d.outFlags, 0x2000040u);
  EXPECT_EQ(d.outFlags2, 0x1409u);
  // The macOS property list must carry the same values.
  const std::string pipl = ReadAll(dir + "VeltriscaDistortionPiPL.r");
  for (const std::string& needle :
       {"\"" + d.name + "\"", "\"" + d.matchName + "\"", "\"" + d.category + "\"",
        std::string("CodeMacIntel64 {\n\t\t\t\"EntryPointFunc\""), std::string("589825"),
        std::string("0x2000040"), std::string("0x1409")}) {
    EXPECT_NE(pipl.find(needle), std::string::npos) << needle;
  }
}

TEST(PluginModule, ExplainsEveryLoadingFailure) {
  const std::string desc = WriteTemp("libm-test.plugin", kValid);
  std::string why = ErrorOf([&] { PluginModule("/nonexistent/Effect.so"); });
  EXPECT_NE(why.find("/nonexistent/Effect.plugin"), std::string::npos) << why;

  why = ErrorOf([&] { PluginModule("/nonexistent/Effect.so", desc); });
  EXPECT_NE(why.find("cannot load plug-in /nonexistent/Effect.so"), std::string::npos) << why;

  const std::string notLibrary = WriteTemp("not-a-library.so", "plain text");
  why = ErrorOf([&] { PluginModule(notLibrary, desc); });
  EXPECT_NE(why.find("cannot load plug-in " + notLibrary), std::string::npos) << why;

  // A real library without the entry point the description names.
  why = ErrorOf([&] { PluginModule("libm.so.6", desc); });
  EXPECT_NE(why.find("has no entry point \"EntryPointFunc\""), std::string::npos) << why;
  EXPECT_NE(why.find(desc), std::string::npos) << why;

  // The entry point is looked up by the name the description gives.
  std::string text = kValid;
  text.replace(text.find("EntryPointFunc"), 14, "cos");
  PluginModule libm("libm.so.6", WriteTemp("libm-cos.plugin", text));
  EXPECT_NE(libm.entry(), nullptr);
  EXPECT_NE(libm.Symbol("sin"), nullptr);
  EXPECT_EQ(libm.Symbol("no_such_symbol_here"), nullptr);
}

TEST(RealPlugin, LoadsFromItsDescriptionAndPassesGlobalSetup) {
  PluginModule plugin(VT_EFFECT_PATH);
  EXPECT_EQ(plugin.description().name, "Veltrisca Distortion");
  hostsim::Host host(plugin);
  EXPECT_EQ(host.About(), 0);
  EXPECT_EQ(host.ReturnMessage(),
            "Veltrisca Distortion 1.2\r\rVeltrisca camera-matching lens distortion plugin.");
  EXPECT_NO_THROW(EXPECT_EQ(host.GlobalSetup(), 0));
  EXPECT_EQ(host.outData().my_version, plugin.description().version);
  EXPECT_EQ(host.SequenceSetup(), 0);
  EXPECT_NE(host.SequenceBlock(), nullptr);
  EXPECT_EQ(host.LiveHandleCount(), 1);
  EXPECT_EQ(host.SequenceSetdown(), 0);
  EXPECT_EQ(host.LiveHandleCount(), 0);
  EXPECT_EQ(host.BadDisposeCount(), 0);
}
