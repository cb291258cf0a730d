// The built plug-in shows the host exactly its seven names and nothing else.
#include <gtest/gtest.h>

#include <elf.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

namespace {

// Names of the defined symbols in the dynamic symbol table of an ELF64 file.
std::set<std::string> DefinedDynamicSymbols(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  const std::vector<char> bytes((std::istreambuf_iterator<char>(file)),
                                std::istreambuf_iterator<char>());
  std::set<std::string> names;
  if (bytes.size() < sizeof(Elf64_Ehdr)) return names;
  Elf64_Ehdr header;
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
      if (sym.st_shndx == SHN_UNDEF || sym.st_name == 0) continue;
      if (binding != STB_GLOBAL && binding != STB_WEAK) continue;
      names.insert(bytes.data() + strings.sh_offset + sym.st_name);
    }
  }
  return names;
}

TEST(PluginExports, ExactlyTheSevenHostNames) {
  const std::set<std::string> expected{"EntryPointFunc",        "g_strs",
                                       "GetStringPtr",          "AEFX_AcquireSuite",
                                       "AEFX_ReleaseSuite",     "AEFX_AcquireDrawbotSuites",
                                       "AEFX_ReleaseDrawbotSuites"};
  EXPECT_EQ(DefinedDynamicSymbols(VT_EFFECT_PATH), expected);
}

}  // namespace
