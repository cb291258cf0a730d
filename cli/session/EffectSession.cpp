#include "cli/session/EffectSession.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <new>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "cli/shared/Errors.h"
#include "host/BuildStamp.h"

// Where the plug-in lies relative to the folder of the running tool: installed
// (bin/veltrisca beside lib/veltrisca/), then in the build tree (cli/ beside effect/).
// CMake sets both; the defaults are the usual layouts.
#ifndef VT_PLUGIN_DIR_FROM_TOOL
#define VT_PLUGIN_DIR_FROM_TOOL "../lib/veltrisca"
#endif
#ifndef VT_BUILD_PLUGIN_DIR_FROM_TOOL
#define VT_BUILD_PLUGIN_DIR_FROM_TOOL "../effect"
#endif

namespace veltrisca {

namespace {

constexpr const char* kPluginFile = "VeltriscaDistortion.so";

// The folder of the running executable, from /proc/self/exe (symbolic links resolved, so a
// link to the tool in another folder still finds the tool's own plug-in).
std::string ToolFolder() {
  std::string path(4096, '\0');
  const ssize_t n = readlink("/proc/self/exe", path.data(), path.size());
  if (n <= 0 || static_cast<size_t>(n) >= path.size()) return std::string();
  path.resize(static_cast<size_t>(n));
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

}  // namespace

std::vector<std::string> PluginCandidates() {
  const std::string folder = ToolFolder();
  if (folder.empty()) return {};
  return {folder + "/" VT_PLUGIN_DIR_FROM_TOOL "/" + kPluginFile,
          folder + "/" VT_BUILD_PLUGIN_DIR_FROM_TOOL "/" + kPluginFile};
}

std::string ResolvePluginPath(const std::string& option) {
  if (!option.empty()) return option;
  const char* env = std::getenv("VELTRISCA_PLUGIN");
  if (env && *env) return env;
  const std::vector<std::string> candidates = PluginCandidates();
  for (const std::string& path : candidates) {
    if (access(path.c_str(), R_OK) == 0) return path;
  }
  std::string looked;
  for (const std::string& path : candidates) looked += (looked.empty() ? "" : ", ") + path;
  throw EffectError("cannot find the effect plug-in " + std::string(kPluginFile) +
                    (looked.empty() ? std::string() : " (looked in " + looked + ")") +
                    "; choose one with --plugin or VELTRISCA_PLUGIN");
}

std::string PluginBuildId(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t at = bytes.find(kBuildStampPrefix);
  if (at == std::string::npos) return std::string();
  const std::string id = bytes.substr(at + sizeof kBuildStampPrefix - 1, kBuildIdLength);
  const bool hex = id.size() == static_cast<size_t>(kBuildIdLength) &&
                   id.find_first_not_of("0123456789abcdef") == std::string::npos;
  return hex ? id : std::string();
}

void CheckSameBuild(const std::string& path) {
  const std::string plugin = PluginBuildId(path);
  if (plugin == EffectBuildId()) return;
  throw EffectError("the effect plug-in " + path + " is " +
                    (plugin.empty() ? std::string("of no known build")
                                    : "build " + plugin) +
                    ", but this veltrisca carries the effect's code of build " +
                    EffectBuildId() +
                    " (it maps positions and reads the lens record with it); use the plug-in "
                    "built with this veltrisca");
}

std::unique_ptr<hostsim::PluginModule> LoadEffect(const std::string& path) {
  std::unique_ptr<hostsim::PluginModule> module;
  try {
    module = std::make_unique<hostsim::PluginModule>(path);
  } catch (const std::exception& e) {
    throw EffectError("cannot load the effect plug-in " + path + ": " + e.what() +
                      " (choose one with --plugin or VELTRISCA_PLUGIN)");
  }
  // The effect builds its kernel tables once per process and never frees them; a host keeps
  // a plug-in loaded until it quits. Mark the library as never to be unmapped, so that those
  // tables stay owned by its globals instead of being orphaned when the module is closed.
  dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
  CheckSameBuild(path);
  return module;
}

std::string EffectErrorText(PF_Err err) {
  const char* name = nullptr;
  switch (err) {
    case PF_Err_OUT_OF_MEMORY: name = "PF_Err_OUT_OF_MEMORY"; break;
    case PF_Err_INTERNAL_STRUCT_DAMAGED: name = "PF_Err_INTERNAL_STRUCT_DAMAGED"; break;
    case PF_Err_INVALID_INDEX: name = "PF_Err_INVALID_INDEX"; break;
    case PF_Err_UNRECOGNIZED_PARAM_TYPE: name = "PF_Err_UNRECOGNIZED_PARAM_TYPE"; break;
    case PF_Err_INVALID_CALLBACK: name = "PF_Err_INVALID_CALLBACK"; break;
    case PF_Err_BAD_CALLBACK_PARAM: name = "PF_Err_BAD_CALLBACK_PARAM"; break;
    case PF_Interrupt_CANCEL: name = "PF_Interrupt_CANCEL"; break;
    default: break;
  }
  return std::to_string(err) + (name ? std::string(" (") + name + ")" : std::string());
}

namespace {

// Host-side failures (description mismatch, a buffer the host cannot allocate) surface as
// exceptions from the substitute host; turn them into the tool's errors.
template <typename Call>
PF_Err Guarded(const char* command, Call call) {
  try {
    return call();
  } catch (const std::bad_alloc&) {
    throw IoError(std::string("out of memory during ") + command);
  } catch (const std::exception& e) {
    throw EffectError(std::string(command) + ": " + e.what());
  }
}

}  // namespace

EffectSession::EffectSession(const hostsim::PluginModule& module,
                             const hostsim::ParamValues& params, int threads)
    : host_(module) {
  host_.params = params;
  host_.threads = threads;
  // As a real host does: the effect reads the layer's own pixels rather than a copy, and the
  // output world is not cleared first: a new one already holds zeros, and a reused one is
  // overwritten whole by a render that succeeds (each row whole, or the whole world cleared
  // when no input pixel reaches it); one that fails is not used.
  host_.lendInputLayer = true;
  host_.clearOutput = false;
  Check("about", Guarded("about", [&] { return host_.About(); }));
  about_ = host_.ReturnMessage();
  Check("global setup", Guarded("global setup", [&] { return host_.GlobalSetup(); }));
  Check("parameter setup", Guarded("parameter setup", [&] { return host_.ParamsSetup(); }));
  Check("sequence setup", Guarded("sequence setup", [&] { return host_.SequenceSetup(); }));
  sequenceUp_ = true;
}

EffectSession::~EffectSession() {
  if (!sequenceUp_) return;
  try {
    host_.SequenceSetdown();
  } catch (...) {
    // Leaving anyway: the host's destructor cleans up what is left.
  }
}

void EffectSession::Check(const char* command, PF_Err err) {
  if (err == PF_Err_NONE) return;
  std::string message = std::string("the effect's ") + command + " failed with error " +
                        EffectErrorText(err);
  const std::string said = host_.ReturnMessage();
  if (!said.empty() && std::strcmp(command, "about") != 0) message += ": " + said;
  throw EffectError(message);
}

PreRenderReadBack EffectSession::PreRender(const PF_LRect& request) {
  PreRenderReadBack back;
  back.request = request;
  Check("smart pre-render",
        Guarded("smart pre-render", [&] { return host_.SmartPreRender(request, &back.report); }));
  const void* block = host_.SequenceBlock();
  if (!block) throw EffectError("the effect left no sequence data after its smart pre-render");
  std::memcpy(&back.lens, block, sizeof back.lens);
  return back;
}

std::unique_ptr<hostsim::World> EffectSession::Render(std::unique_ptr<hostsim::World> reuse) {
  std::unique_ptr<hostsim::World> output = std::move(reuse);
  host_.reuseOutput = output != nullptr;
  try {
    // All of them before the first render, so that a limit on threads is the command's error
    // rather than the effect's.
    host_.StartThreads();
  } catch (const std::system_error& e) {
    throw ThreadStartError(std::to_string(host_.ThreadCount()) + " render threads", e);
  }
  Check("smart render", Guarded("smart render", [&] { return host_.SmartRender(&output); }));
  return output;
}

void EffectSession::Finish() {
  if (!sequenceUp_) return;
  sequenceUp_ = false;
  Check("sequence setdown",
        Guarded("sequence setdown", [&] { return host_.SequenceSetdown(); }));
}

}  // namespace veltrisca
