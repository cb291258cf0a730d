// The entry point as the host sees it: dispatch, About, global setup, the string table, the
// lifecycle of the sequence data, the parameter set and the names the plug-in exports.
#include <gtest/gtest.h>

#include <elf.h>

#include <climits>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

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
  const char* texts[16] = {
      "", "Veltrisca Distortion", "Veltrisca camera-matching lens distortion plugin.",
      "Error loading suite.", "Error releasing suite.", "DistortMode", "Remove|Apply",
      "FilterType", "Built-in|Nearest|BiLinear|Lanczos-2|Lanczos-3|Mitchell-Netravali",
      "DistortionX1000", "CubicX1000", "QuarticX1000", "ZoomFactor", "DistortedImgSize",
      "UndistortedImgSize", "PixelAspect"};
  for (int32_t id = 0; id < 16; ++id) {
    EXPECT_EQ(table[id].id, id);
    EXPECT_STREQ(table[id].text, texts[id]);
    EXPECT_EQ(getString(id), table[id].text);
  }
  EXPECT_EQ(sizeof(StringEntry), 260u);
}

// The block is the host's as handed out but for its first field, the mode -1 that says "not
// yet pre-rendered".
TEST(SequenceData, SetupAllocatesTheLensRecordMarkedNotYetPreRendered) {
  Host host(hosttest::Plugin());
  ASSERT_EQ(host.SequenceSetup(), PF_Err_NONE);
  ASSERT_NE(host.SequenceBlock(), nullptr);
  EXPECT_EQ(host.outData().flat_sdata_size, 8376);
  EXPECT_EQ(host.LiveHandleCount(), 1);
  const auto* bytes = static_cast<const uint8_t*>(host.SequenceBlock());
  EXPECT_EQ(hosttest::LensOf(host).distortMode, -1);
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

TEST(SequenceData, ResetupReplacesTheBlockWithAFreshOneAndSetdownFreesIt) {
  const hostsim::World layer(hostsim::Depth::k8, 16, 16);
  auto host = hosttest::ReadyHost(&layer);
  ASSERT_TRUE(host);
  ASSERT_EQ(host->SmartPreRender(PF_LRect{0, 0, 16, 16}), PF_Err_NONE);
  ASSERT_EQ(hosttest::LensOf(*host).distortMode, 1);
  EXPECT_EQ(host->SequenceResetup(), PF_Err_NONE);
  EXPECT_EQ(host->CallCount(HostCall::NewHandle), 2);
  EXPECT_EQ(hosttest::LensOf(*host).distortMode, -1);
  EXPECT_EQ(host->LiveHandleCount(), 1);

  EXPECT_EQ(host->Send(PF_Cmd_SEQUENCE_SETDOWN), PF_Err_NONE);
  EXPECT_EQ(host->inData().sequence_data, nullptr);
  EXPECT_EQ(host->outData().sequence_data, nullptr);
  EXPECT_EQ(host->LiveHandleCount(), 0);
  EXPECT_EQ(host->Send(PF_Cmd_SEQUENCE_SETDOWN), PF_Err_NONE);  // nothing left to free
  EXPECT_EQ(host->BadDisposeCount(), 0);

  Host fresh(hosttest::Plugin());  // a resetup without a handle only allocates
  EXPECT_EQ(fresh.SequenceResetup(), PF_Err_NONE);
  EXPECT_EQ(fresh.LiveHandleCount(), 1);
  EXPECT_EQ(fresh.BadDisposeCount(), 0);
  EXPECT_EQ(hosttest::LensOf(fresh).distortMode, -1);
}

// ---- The parameter set as the host receives it at parameter setup ----

// Ids as the host stores four characters: the first one most significant.
const struct {
  int32_t id;
  const char* name;
  PF_ParamType type;
  PF_ParamFlags flags;
} kExpected[9] = {
    {0x6D6F6465, "DistortMode", PF_Param_POPUP, PF_ParamFlag_CANNOT_INTERP},  // 'mode'
    {0x66696C74, "FilterType", PF_Param_POPUP, 0},  // 'filt'
    {0x71756164, "DistortionX1000", PF_Param_FLOAT_SLIDER, 0},  // 'quad'
    {0x63756265, "CubicX1000", PF_Param_FLOAT_SLIDER, 0},  // 'cube'
    {0x71756172, "QuarticX1000", PF_Param_FLOAT_SLIDER, 0},  // 'quar'
    {0x7A6F6F6D, "ZoomFactor", PF_Param_FLOAT_SLIDER, 0},  // 'zoom'
    {0x696D737A, "DistortedImgSize", PF_Param_POINT, 0},  // 'imsz'
    {0x70617370, "PixelAspect", PF_Param_FLOAT_SLIDER, PF_ParamFlag_CANNOT_INTERP},  // 'pasp'
    {0x7064737A, "UndistortedImgSize", PF_Param_POINT, 0},  // 'pdsz'
};

void ExpectPopup(const PF_ParamDef& def, int choices, const char* names, int dephault) {
  const PF_PopupDef& p = def.u.pd;
  EXPECT_TRUE(p.num_choices == choices && p.dephault == dephault && p.value == dephault);
  ASSERT_NE(p.u.namesptr, nullptr);
  EXPECT_STREQ(p.u.namesptr, names);
}

void ExpectSlider(const PF_ParamDef& def, float lo, float hi, float dephault, int precision) {
  const PF_FloatSliderDef& f = def.u.fs_d;
  EXPECT_TRUE(f.valid_min == lo && f.slider_min == lo && f.valid_max == hi && f.slider_max == hi);
  EXPECT_TRUE(f.dephault == dephault && f.value == static_cast<double>(dephault));
  EXPECT_TRUE(f.precision == precision && f.display_flags == 0 && f.curve_tolerance == 0.0f);
}

void ExpectPoint(const PF_ParamDef& def) {
  const PF_PointDef& t = def.u.td;
  EXPECT_TRUE(t.x_dephault == 0x00640000 && t.y_dephault == 0x00640000);  // 100.0
  EXPECT_TRUE(t.x_value == 0 && t.y_value == 0 && t.restrict_bounds == 0);
}

TEST(Params, NineDefinitionsInOrder) {
  Host host(hosttest::Plugin());
  ASSERT_EQ(host.ParamsSetup(), PF_Err_NONE);
  EXPECT_EQ(host.outData().num_params, 10);
  const std::vector<PF_ParamDef>& defs = host.addedParams();
  ASSERT_EQ(defs.size(), 9u);
  for (int i = 0; i < 9; ++i) {
    SCOPED_TRACE(kExpected[i].name);
    EXPECT_STREQ(defs[i].name, kExpected[i].name);
    EXPECT_TRUE(defs[i].uu.id == kExpected[i].id && defs[i].param_type == kExpected[i].type &&
                defs[i].flags == kExpected[i].flags);
    EXPECT_TRUE(defs[i].ui_flags == 0 && defs[i].ui_width == 0 && defs[i].ui_height == 0);
  }

  ExpectPopup(defs[0], 2, "Remove|Apply", 1);
  ExpectPopup(defs[1], 6, "Built-in|Nearest|BiLinear|Lanczos-2|Lanczos-3|Mitchell-Netravali", 4);
  for (int i : {2, 3, 4}) ExpectSlider(defs[i], -20000.0f, 20000.0f, 0.0f, 2);
  ExpectSlider(defs[5], 0.0f, 10.0f, 1.0f, 3);
  ExpectPoint(defs[6]);
  ExpectSlider(defs[7], 0.1f, 10.0f, 1.0f, 3);
  ExpectPoint(defs[8]);
  // The choices point into the static string table.
  auto getString = reinterpret_cast<char* (*)(int32_t)>(hosttest::Plugin().Symbol("GetStringPtr"));
  ASSERT_NE(getString, nullptr);
  EXPECT_EQ(defs[0].u.pd.u.namesptr, getString(6));
  EXPECT_EQ(defs[1].u.pd.u.namesptr, getString(8));
}

TEST(Params, StopsAddingAfterTheFirstRefusal) {
  Host host(hosttest::Plugin());
  host.FailCall(HostCall::AddParam, 3, PF_Err_OUT_OF_MEMORY);
  EXPECT_EQ(host.ParamsSetup(), PF_Err_OUT_OF_MEMORY);
  EXPECT_EQ(host.CallCount(HostCall::AddParam), 3);
  EXPECT_EQ(host.addedParams().size(), 2u);
  EXPECT_EQ(host.outData().num_params, 10);
}

// ---- The built plug-in shows the host exactly its seven names and nothing else ----

// Names of the defined symbols in the dynamic symbol table of an ELF64 file.
std::set<std::string> DefinedDynamicSymbols(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  const std::vector<char> bytes((std::istreambuf_iterator<char>(file)), {});
  std::set<std::string> names;
  Elf64_Ehdr header;
  if (bytes.size() < sizeof header) return names;
  std::memcpy(&header, bytes.data(), sizeof header);
  if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_ident[EI_CLASS] != ELFCLASS64) {
    return names;
  }
  auto section = [&](size_t index) {
    Elf64_Shdr s;
    std::memcpy(&s, bytes.data() + header.e_shoff + index * header.e_shentsize, sizeof s);
    return s;
  };
  for (size_t i = 0; i < header.e_shnum; ++i) {
    const Elf64_Shdr symbols = section(i);
    if (symbols.sh_type != SHT_DYNSYM) continue;
    const Elf64_Shdr strings = section(symbols.sh_link);
    for (size_t k = 0; k < symbols.sh_size / sizeof(Elf64_Sym); ++k) {
      Elf64_Sym sym;
      std::memcpy(&sym, bytes.data() + symbols.sh_offset + k * sizeof(Elf64_Sym), sizeof sym);
      const int binding = ELF64_ST_BIND(sym.st_info);
      if (sym.st_shndx != SHN_UNDEF && sym.st_name != 0 &&
          (binding == STB_GLOBAL || binding == STB_WEAK)) {
        names.insert(bytes.data() + strings.sh_offset + sym.st_name);
      }
    }
  }
  return names;
}

TEST(PluginExports, ExactlyTheSevenHostNames) {
  EXPECT_EQ(DefinedDynamicSymbols(VT_EFFECT_PATH),
            (std::set<std::string>{"EntryPointFunc", "g_strs", "GetStringPtr", "AEFX_AcquireSuite",
                                   "AEFX_ReleaseSuite", "AEFX_AcquireDrawbotSuites",
                                   "AEFX_ReleaseDrawbotSuites"}));
}

}  // namespace
