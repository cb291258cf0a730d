// The tool's shared pieces: the one number reading, the one failure mapping, the memory
// budget, and the refusal of a plug-in of another build.
#include "../CliTestSupport.h"
#include "cli/shared/Errors.h"
#include "cli/shared/Memory.h"
#include "cli/shared/Numbers.h"

namespace vt_cli_test {
namespace {

using veltrisca::ReadReal;
using veltrisca::ReadWhole;

TEST(Numbers, OneStrictReadingWithoutBlanks) {
  struct Case {
    const char* text;
    bool whole, real;
    double value;
  };
  const Case cases[] = {
      {"12", true, true, 12},      {"-7", true, true, -7},    {"+3", true, true, 3},
      {"1.5", false, true, 1.5},   {"1e3", false, true, 1000}, {" 5", false, false, 0},
      {"5 ", false, false, 0},     {"", false, false, 0},     {"0x10", false, true, 16},
      {"9223372036854775808", false, true, 9223372036854775808.0}, {"-", false, false, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string("\"") + c.text + "\"");
    long long whole = 0;
    double real = 0;
    EXPECT_EQ(ReadWhole(c.text, &whole), c.whole);
    EXPECT_EQ(ReadReal(c.text, &real), c.real);
    if (c.whole) {
      EXPECT_EQ(whole, static_cast<long long>(c.value));
    }
    if (c.real) {
      EXPECT_EQ(real, c.value);
    }
  }
}

TEST(Numbers, SizesAndRectanglesRefuseWhatTheyCannotHold) {
  struct Case {
    const char* name;
    std::function<void()> parse;
  };
  const Case refused[] = {
      {"size with a blank", [] { veltrisca::ParseSize("--size", "10 x10"); }},
      {"size zero wide", [] { veltrisca::ParseSize("--size", "0x10"); }},
      {"size past the side", [] { veltrisca::ParseSize("--size", "32768x1"); }},
      {"rectangle of three", [] { veltrisca::ParseRect("--window", "0,0,1"); }},
      {"rectangle past int32", [] { veltrisca::ParseRect("--window", "0,0,2147483648,1"); }},
      {"threads past the limit", [] { veltrisca::ParseInt("--threads", "1025", 0, 1024); }},
  };
  for (const Case& c : refused) {
    SCOPED_TRACE(c.name);
    try {
      c.parse();
      ADD_FAILURE() << "accepted";
    } catch (const veltrisca::CliError& e) {
      EXPECT_EQ(e.exitCode(), veltrisca::kExitUsage);
    }
  }
  EXPECT_EQ(veltrisca::ParseSize("--size", "32767x1").width, 32767);
  EXPECT_EQ(veltrisca::RectText(veltrisca::ParseRect("--window", "-2,-1,2147483647,5")),
            "-2,-1,2147483647,5");
  EXPECT_EQ(veltrisca::RectArea(PF_LRect{-2, -1, 3, 4}), 25);
  EXPECT_EQ(veltrisca::RectArea(PF_LRect{3, 0, 3, 4}), 0);
}

TEST(Failures, EachKindHasOneMessageAndExitCode) {
  struct Case {
    const char* name;
    std::exception_ptr error;
    std::string message;
    int exitCode;
  };
  const Case cases[] = {
      {"usage", std::make_exception_ptr(veltrisca::UsageError("--x: bad")), "--x: bad",
       veltrisca::kExitUsage},
      {"effect", std::make_exception_ptr(veltrisca::EffectError("no")), "no",
       veltrisca::kExitEffect},
      {"memory", std::make_exception_ptr(std::bad_alloc()), "out of memory", veltrisca::kExitIo},
      {"library", std::make_exception_ptr(std::runtime_error("lib")), "lib", veltrisca::kExitIo},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const veltrisca::Failure f = veltrisca::FailureOf(c.error);
    EXPECT_EQ(f.message, c.message);
    EXPECT_EQ(f.exitCode, c.exitCode);
  }
  const veltrisca::Failure thread = veltrisca::FailureOf(std::make_exception_ptr(
      std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again))));
  EXPECT_EQ(thread.exitCode, veltrisca::kExitIo);
  EXPECT_EQ(thread.message.rfind("cannot start a thread", 0), 0u) << thread.message;
}

TEST(MemoryBudget, BuffersAndTheCheckAtItsBoundary) {
  struct Case {
    Depth depth;
    uint64_t world, file;  // 10 pixels: a host world, a 3-channel file buffer
  };
  const Case cases[] = {{Depth::k8, 40, 30}, {Depth::k16, 80, 60}, {Depth::kFloat, 160, 120}};
  for (const Case& c : cases) {
    SCOPED_TRACE(PixelDepthOf(c.depth).bytes);
    EXPECT_EQ(veltrisca::WorldBytes(10, c.depth), c.world);
    EXPECT_EQ(veltrisca::FileBufferBytes(10, 3, c.depth), c.file);
    EXPECT_EQ(veltrisca::WorldBytes(-10, c.depth), 0u);
  }
  EXPECT_NO_THROW(veltrisca::CheckMemory(100, 100, "x"));
  EXPECT_THROW(veltrisca::CheckMemory(101, 100, "x"), veltrisca::CliError);
}

// VELTRISCA_MEMORY_LIMIT: digits with an optional K, M, G or T (binary), nothing else; a limit
// below the machine's is the budget.
TEST(MemoryBudget, TheUsersLimitIsAByteCount) {
  const std::pair<const char*, uint64_t> taken[] = {
      {"4096", 4096}, {"8k", 8192}, {"3M", 3u << 20}, {"1G", 1u << 30}};
  for (const auto& [text, bytes] : taken) {
    setenv("VELTRISCA_MEMORY_LIMIT", text, 1);
    EXPECT_EQ(veltrisca::AvailableMemoryBytes(), bytes) << text;
  }
  for (const char* text : {"K", "x1", "12KB", "1.5G", "-1", "20000000000000000000", "16777216T"}) {
    setenv("VELTRISCA_MEMORY_LIMIT", text, 1);
    EXPECT_NE(Refusal(veltrisca::kExitUsage, veltrisca::AvailableMemoryBytes).find(text),
              std::string::npos);
  }
  // Without it: what the machine has available, or less in a container; never "unlimited".
  unsetenv("VELTRISCA_MEMORY_LIMIT");
  std::ifstream meminfo("/proc/meminfo");
  std::string key;
  uint64_t kib = 0;
  while (meminfo >> key >> kib && key != "MemAvailable:") meminfo.ignore(64, '\n');
  ASSERT_EQ(key, "MemAvailable:");
  EXPECT_LE(veltrisca::AvailableMemoryBytes(), kib * 1024 + (1ull << 30));  // it changes
}

// A copy of the built plug-in with its build stamp changed, beside its description.
std::string PluginCopy(const ScratchDir& dir, const std::string& name,
                       const std::function<void(std::string*)>& edit) {
  std::string bytes = Slurp(VT_EFFECT_PATH);
  edit(&bytes);
  const std::string path = (dir.path() / (name + ".so")).string();
  Write(path, bytes);
  fs::copy_file(fs::path(VT_EFFECT_PATH).replace_extension(".plugin"),
                dir.path() / (name + ".plugin"));
  return path;
}

TEST(PluginBuild, APlugInOfAnotherBuildIsRefused) {
  ScratchDir dir;
  const std::string prefix = "veltrisca-effect-build:";
  struct Case {
    const char* name;
    std::function<void(std::string*)> edit;
    const char* says;
  };
  // Every copy of the stamp is edited: a sanitizer build may hold the stamp twice.
  const auto everyStamp = [&](std::string* b, const std::function<void(size_t)>& edit) {
    for (size_t at = b->find(prefix); at != std::string::npos; at = b->find(prefix, at + 1)) {
      edit(at);
    }
  };
  const Case cases[] = {
      {"other",
       [&](std::string* b) {
         everyStamp(b, [&](size_t at) { b->replace(at + prefix.size(), 16, "0123456789abcdef"); });
       },
       "is build 0123456789abcdef"},
      {"none", [&](std::string* b) { everyStamp(b, [&](size_t at) { (*b)[at] = 'X'; }); },
       "of no known build"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const RunResult r = RunTool({"--plugin", PluginCopy(dir, c.name, c.edit), "info"});
    EXPECT_EQ(r.exitCode, veltrisca::kExitEffect);
    EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
  }
  const RunResult same = RunTool({"--plugin", PluginCopy(dir, "same", [](std::string*) {}),
                                  "info"});
  EXPECT_EQ(same.exitCode, 0) << same.err;
}

}  // namespace
}  // namespace vt_cli_test
