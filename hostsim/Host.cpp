// The substitute host's commands and its books: what it hands the effect for each command,
// what it keeps afterwards, and what tests can ask about the calls it saw.
#include "hostsim/Host.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>

#include "hostsim/HostCallbacks.h"
#include "hostsim/ThreadPool.h"

namespace hostsim {

namespace {

// The largest block host_new_handle hands out; larger requests fail like an exhausted heap.
constexpr uint64_t kMaxHandleBytes = uint64_t{1} << 32;
constexpr SPErr kSPBadParameterError = 0x5061726D;  // 'Parm'

struct FlagGuard {
  bool& flag;
  explicit FlagGuard(bool& f) : flag(f) { flag = true; }
  ~FlagGuard() { flag = false; }
};

std::string Hex(uint32_t v) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%X", v);
  return text;
}

}  // namespace

// --- Construction ---------------------------------------------------------------------
Host::Host(const PluginModule& plugin)
    : entry_(plugin.entry()), description_(&plugin.description()) {
  Init();
}

Host::Host(PF_FilterProc entry, const PluginDescription* description)
    : entry_(entry), description_(description) {
  if (!entry) throw std::invalid_argument("Host needs an entry point");
  Init();
}

void Host::Init() {
  HostCallbacks::FillInteractCallbacks(&in_.inter);
  HostCallbacks::FillUtilCallbacks(&utils_);
  HostCallbacks::FillBasicSuite(&basic_);
  in_.utils = &utils_;
  in_.effect_ref = reinterpret_cast<PF_ProgPtr>(this);
  in_.quality = 1;  // high quality
  in_.version = PF_SpecVersion{PF_PLUG_IN_VERSION, PF_PLUG_IN_SUBVERS};
  in_.appl_id = 0x46585443;  // 'FXTC'
  in_.num_params = 1;        // the input layer, until the effect adds its own
  // Frame 0 of a 24 frames per second composition that is one frame long.
  in_.current_time = 0;
  in_.time_step = 1;
  in_.local_time_step = 1;
  in_.total_time = 1;
  in_.time_scale = 24;
  in_.field = PF_Field_FRAME;
  in_.downsample_x = PF_RationalScale{1, 1};
  in_.downsample_y = PF_RationalScale{1, 1};
  in_.pixel_aspect_ratio = PF_RationalScale{1, 1};
  in_.pica_basicP = &basic_;
  HostCallbacks::Register(this);
}

Host::~Host() {
  try {
    if (in_.sequence_data) SequenceSetdown();
  } catch (...) {
    // A destructor cannot report; the handles are freed below all the same.
  }
  ReleasePreRenderData();
  pool_.reset();
  for (auto& entry : handles_) {
    std::free(*entry.first);
    std::free(entry.first);
  }
  handles_.clear();
  HostCallbacks::Unregister(this);
}

void Host::SetInputLayer(const World* layer) {
  inputLayer_ = layer;
  in_.width = layer ? layer->width() : 0;
  in_.height = layer ? layer->height() : 0;
  in_.extent_hint = layer ? PF_Rect{0, 0, layer->width(), layer->height()} : PF_Rect{};
}

void Host::OverrideSuppliedRect(const PF_LRect& rect) {
  haveSuppliedOverride_ = true;
  suppliedOverride_ = rect;
}

void Host::OverrideInputPixelFormat(PF_PixelFormat format) {
  haveFormatOverride_ = true;
  formatOverride_ = format;
}

// --- Failure injection ----------------------------------------------------------------
void Host::FailCall(HostCall call, int nth, PF_Err err) {
  std::lock_guard<std::mutex> lock(mutex_);
  failures_[call] = {nth < 1 ? 1 : nth, err};
  failuresArmed_.store(static_cast<int>(failures_.size()));
}

void Host::RemoveSuite(const std::string& name) {
  std::lock_guard<std::mutex> lock(mutex_);
  removedSuites_.insert(name);
}

bool Host::ShouldFail(HostCall call, PF_Err* err) {
  if (failuresArmed_.load() == 0) return false;  // the common case, without a lock
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = failures_.find(call);
  if (it == failures_.end() || --it->second.first > 0) return false;
  *err = it->second.second;
  failures_.erase(it);
  failuresArmed_.store(static_cast<int>(failures_.size()));
  return true;
}

ThreadPool& Host::Pool(int participants) {
  if (!pool_ || pool_->workers() < participants - 1) {
    pool_.reset();
    pool_ = std::make_unique<ThreadPool>(participants - 1);
  }
  return *pool_;
}

// --- Commands -------------------------------------------------------------------------
PF_Err Host::Send(PF_Cmd cmd, void* extra) {
  HostCallbacks::SetHandleCallbacks(&utils_, handleCallbacks);
  in_.pica_basicP = basicSuitePresent ? &basic_ : nullptr;
  HostCallbacks::Scope scope(this);
  // Parameter values reach the effect only through checkout_param; the params array and
  // the old-style output world are not handed over.
  return entry_(cmd, &in_, &out_, nullptr, nullptr, extra);
}

PF_Err Host::About() {
  out_.return_msg[0] = '\0';
  return Send(PF_Cmd_ABOUT);
}

PF_Err Host::GlobalSetup() {
  out_.my_version = 0;
  out_.out_flags = 0;
  out_.out_flags2 = 0;
  const PF_Err err = Send(PF_Cmd_GLOBAL_SETUP);
  globalOutFlags = static_cast<A_u_long>(out_.out_flags);
  globalOutFlags2 = static_cast<A_u_long>(out_.out_flags2);
  if (err != PF_Err_NONE || !description_) return err;

  std::string differences;
  auto compare = [&](const char* what, uint32_t reported, uint32_t described) {
    if (reported == described) return;
    if (!differences.empty()) differences += "; ";
    differences += std::string(what) + " " + Hex(reported) + " where the description says " +
                   Hex(described);
  };
  compare("my_version", out_.my_version, description_->version);
  compare("out_flags", static_cast<uint32_t>(out_.out_flags), description_->outFlags);
  compare("out_flags2", static_cast<uint32_t>(out_.out_flags2), description_->outFlags2);
  if (!differences.empty()) {
    throw DescriptionMismatch("plug-in \"" + description_->name + "\" does not match " +
                              description_->path + ": at global setup it reports " +
                              differences);
  }
  return err;
}

PF_Err Host::ParamsSetup() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    addedParams_.clear();
  }
  const PF_Err err = Send(PF_Cmd_PARAMS_SETUP);
  in_.num_params = out_.num_params;
  return err;
}

PF_Err Host::SequenceSetup() {
  const PF_Err err = Send(PF_Cmd_SEQUENCE_SETUP);
  in_.sequence_data = out_.sequence_data;
  return err;
}

PF_Err Host::SequenceResetup() {
  const PF_Err err = Send(PF_Cmd_SEQUENCE_RESETUP);
  in_.sequence_data = out_.sequence_data;
  return err;
}

PF_Err Host::SequenceSetdown() {
  const PF_Err err = Send(PF_Cmd_SEQUENCE_SETDOWN);
  // The instance is gone for the host, whatever the effect did with its handle (a handle
  // the effect did not free is freed with the host).
  in_.sequence_data = nullptr;
  out_.sequence_data = nullptr;
  return err;
}

void Host::ReleasePreRenderData() {
  if (lastPreRender_.delete_pre_render_data_func && lastPreRender_.pre_render_data) {
    HostCallbacks::Scope scope(this);
    lastPreRender_.delete_pre_render_data_func(lastPreRender_.pre_render_data);
  }
  lastPreRender_.pre_render_data = nullptr;
  lastPreRender_.delete_pre_render_data_func = nullptr;
}

PF_Err Host::SmartPreRender(const PF_LRect& request, PreRenderReport* report) {
  ReleasePreRenderData();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    paramCheckouts_.clear();
    // Each frame starts a new log, so that a long run of frames does not grow the host.
    suiteEvents_.clear();
  }
  preRender_ = PreRenderReport{};
  haveCheckout_ = false;
  checkedOutInput_.reset();
  checkedOutOutput_.reset();

  PF_PreRenderInput input{};
  input.output_request.rect = request;
  input.output_request.field = PF_Field_FRAME;
  input.output_request.channel_mask = kChannelMaskARGB;
  input.bitdepth = static_cast<short>(static_cast<int>(HostCallbacks::RenderDepth(this)));
  PF_PreRenderOutput output = preRenderOutputPreset;
  PF_PreRenderCallbacks callbacks{HostCallbacks::CheckoutLayer, HostCallbacks::GuidMixIn};
  PF_PreRenderExtra extra{&input, &output, &callbacks};
  preRender_.outputRequest = input.output_request;

  PF_Err err;
  {
    FlagGuard during(inPreRender_);
    err = Send(PF_Cmd_SMART_PRE_RENDER, &extra);
  }
  lastOutputRequest_ = input.output_request;
  lastPreRender_ = output;
  havePreRender_ = true;
  preRender_.output = output;
  if (report) *report = preRender_;
  return err;
}

PF_Err Host::SmartRender(std::unique_ptr<World>* output) {
  if (!havePreRender_) throw std::logic_error("SmartRender needs a SmartPreRender first");
  checkedOutInput_.reset();
  checkedOutOutput_.reset();
  if (reuseOutput && output) spareOutput_ = std::move(*output);

  PF_SmartRenderInput input{};
  input.output_request = lastOutputRequest_;
  input.bitdepth = static_cast<short>(static_cast<int>(HostCallbacks::RenderDepth(this)));
  input.pre_render_data = lastPreRender_.pre_render_data;
  PF_SmartRenderCallbacks callbacks{HostCallbacks::CheckoutLayerPixels,
                                    HostCallbacks::CheckinLayerPixels,
                                    HostCallbacks::CheckoutOutput};
  PF_SmartRenderExtra extra{&input, &callbacks};

  PF_Err err;
  {
    FlagGuard during(inRender_);
    err = Send(PF_Cmd_SMART_RENDER, &extra);
  }
  if (output) *output = std::move(checkedOutOutput_);
  checkedOutOutput_.reset();
  checkedOutInput_.reset();
  spareOutput_.reset();
  ReleasePreRenderData();
  return err;
}

// --- What the host saw ----------------------------------------------------------------
void* Host::SequenceBlock() const { return in_.sequence_data ? *in_.sequence_data : nullptr; }

int Host::CallCount(HostCall call) const {
  return callCounts_[static_cast<size_t>(call)].load();
}

int Host::AcquireCount(const std::string& suite, int32_t version) const {
  std::lock_guard<std::mutex> lock(mutex_);
  int n = 0;
  for (const auto& e : acquires_) {
    if (e.first.first == suite && (version == -1 || e.first.second == version)) n += e.second;
  }
  return n;
}

int Host::ReleaseCount(const std::string& suite, int32_t version) const {
  std::lock_guard<std::mutex> lock(mutex_);
  int n = 0;
  for (const auto& e : releases_) {
    if (e.first.first == suite && (version == -1 || e.first.second == version)) n += e.second;
  }
  return n;
}

bool Host::AllSuitesReleased() const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto count = [](const std::map<std::pair<std::string, int32_t>, int>& m,
                  const std::pair<std::string, int32_t>& key) {
    auto it = m.find(key);
    return it == m.end() ? 0 : it->second;
  };
  for (const auto& e : acquires_) {
    if (count(releases_, e.first) != e.second) return false;
  }
  return true;
}

std::vector<SuiteEvent> Host::suiteEvents() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return suiteEvents_;
}

std::vector<int> Host::iteratedRows() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return iteratedRows_;
}

IterateRecord Host::lastIterate() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lastIterate_;
}

std::vector<ParamCheckout> Host::paramCheckouts() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return paramCheckouts_;
}

std::vector<std::pair<PF_Fixed, PF_Fixed>> Host::subpixelPositions() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return subpixelPositions_;
}

int Host::LiveHandleCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return static_cast<int>(handles_.size());
}

int Host::BadDisposeCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return badDisposals_;
}

// --- The books the C callbacks keep (see HostCallbacks.cpp) ----------------------------
PF_Handle HostCallbacks::NewHandle(Host* host, A_u_longlong size) {
  Count(host, HostCall::NewHandle);
  PF_Err err = 0;
  if (host->ShouldFail(HostCall::NewHandle, &err)) return nullptr;
  if (size > kMaxHandleBytes) return nullptr;
  auto** master = static_cast<char**>(std::malloc(sizeof(char*)));
  char* block = static_cast<char*>(std::malloc(size ? static_cast<size_t>(size) : 1));
  if (!master || !block) {
    std::free(master);
    std::free(block);
    return nullptr;
  }
  std::memset(block, kNewHandleFill, static_cast<size_t>(size));
  *master = block;
  std::lock_guard<std::mutex> lock(host->mutex_);
  host->handles_[master] = static_cast<size_t>(size);
  return master;
}

void HostCallbacks::DisposeHandle(Host* host, PF_Handle handle) {
  if (!handle) return;
  std::lock_guard<std::mutex> lock(host->mutex_);
  auto it = host->handles_.find(handle);
  if (it == host->handles_.end()) {  // not ours, or freed already: leave it alone
    ++host->badDisposals_;
    return;
  }
  std::free(*handle);
  std::free(handle);
  host->handles_.erase(it);
}

A_u_longlong HostCallbacks::HandleSize(Host* host, PF_Handle handle) {
  std::lock_guard<std::mutex> lock(host->mutex_);
  auto it = host->handles_.find(handle);
  return it == host->handles_.end() ? 0 : it->second;
}

void HostCallbacks::RecordSubpixel(Host* host, PF_Fixed x, PF_Fixed y) {
  host->subpixelCalls_.fetch_add(1);
  Count(host, HostCall::SubpixelSample);
  if (host->recordSamples) {
    std::lock_guard<std::mutex> lock(host->mutex_);
    host->subpixelPositions_.emplace_back(x, y);
  }
}

void HostCallbacks::AddSubpixelCalls(Host* host, int calls) {
  host->subpixelCalls_.fetch_add(calls);
  host->callCounts_[static_cast<size_t>(HostCall::SubpixelSample)].fetch_add(calls);
}

bool HostCallbacks::FormatOverride(Host* host, PF_PixelFormat* format) {
  if (!host->haveFormatOverride_) return false;
  *format = host->formatOverride_;
  return true;
}

PF_Err HostCallbacks::NewSuiteWorld(Host* host, Depth depth, A_long width, A_long height,
                                    PF_EffectWorld* world) {
  std::unique_ptr<World> made;
  try {
    made = std::make_unique<World>(depth, width, height);
  } catch (const std::bad_alloc&) {
    return PF_Err_OUT_OF_MEMORY;
  } catch (const std::length_error&) {
    return PF_Err_OUT_OF_MEMORY;
  }
  *world = *made->effectWorld();
  std::lock_guard<std::mutex> lock(host->mutex_);
  host->suiteWorlds_[world->data] = std::move(made);
  return PF_Err_NONE;
}

PF_Err HostCallbacks::DisposeSuiteWorld(Host* host, PF_EffectWorld* world) {
  std::lock_guard<std::mutex> lock(host->mutex_);
  auto it = host->suiteWorlds_.find(world->data);
  if (!world->data || it == host->suiteWorlds_.end()) return PF_Err_BAD_CALLBACK_PARAM;
  host->suiteWorlds_.erase(it);
  *world = PF_EffectWorld{};
  return PF_Err_NONE;
}

SPErr HostCallbacks::AcquireSuiteFor(Host* host, const char* name, int32_t version,
                                     const void** suite, const void* offered) {
  Count(host, HostCall::AcquireSuite);
  PF_Err failure = 0;
  const bool failed = host->ShouldFail(HostCall::AcquireSuite, &failure);
  std::lock_guard<std::mutex> lock(host->mutex_);
  SPErr err = kSPNoError;
  if (failed) err = failure;
  else if (!offered || host->removedSuites_.count(name)) err = kSPSuiteNotFoundError;
  *suite = err == kSPNoError ? offered : nullptr;
  if (err == kSPNoError) ++host->acquires_[{name, version}];
  host->suiteEvents_.push_back(SuiteEvent{true, name, version, err});
  return err;
}

SPErr HostCallbacks::ReleaseSuiteFor(Host* host, const char* name, int32_t version,
                                     bool offered) {
  Count(host, HostCall::ReleaseSuite);
  PF_Err failure = 0;
  const bool failed = host->ShouldFail(HostCall::ReleaseSuite, &failure);
  std::lock_guard<std::mutex> lock(host->mutex_);
  SPErr err = kSPNoError;
  if (failed) {
    err = failure;
  } else if (!offered) {
    err = kSPSuiteNotFoundError;
  } else {
    // A release of a suite the caller does not hold is refused and counted apart, so that
    // ReleaseCount and AllSuitesReleased only ever see releases of held suites.
    const std::pair<std::string, int32_t> key{name, version};
    int& released = host->releases_[key];
    if (released >= host->acquires_[key]) {
      err = kSPBadParameterError;
      ++host->unheldReleases_;
    } else {
      ++released;
    }
  }
  host->suiteEvents_.push_back(SuiteEvent{false, name, version, err});
  return err;
}

PF_Err HostCallbacks::AddParam(Host* host, PF_ParamIndex index, PF_ParamDefPtr def) {
  Count(host, HostCall::AddParam);
  PF_Err err = 0;
  if (host->ShouldFail(HostCall::AddParam, &err)) return err;
  if (!def) return PF_Err_BAD_CALLBACK_PARAM;
  if (index != -1) return PF_Err_INVALID_INDEX;  // parameters are only ever appended
  std::lock_guard<std::mutex> lock(host->mutex_);
  host->addedParams_.push_back(*def);
  return PF_Err_NONE;
}

PF_Err HostCallbacks::CheckoutParam(Host* host, PF_ParamIndex index, A_long time,
                                    A_long timeStep, A_u_long timeScale, PF_ParamDef* param) {
  Count(host, HostCall::CheckoutParam);
  {
    std::lock_guard<std::mutex> lock(host->mutex_);
    host->paramCheckouts_.push_back(ParamCheckout{index, time, timeStep, timeScale});
  }
  PF_Err err = 0;
  if (host->ShouldFail(HostCall::CheckoutParam, &err)) return err;
  if (!param) return PF_Err_BAD_CALLBACK_PARAM;
  if (index < kParamInput || index >= kParamCount) return PF_Err_INVALID_INDEX;

  PF_ParamDef def{};
  if (index == kParamInput) {
    def.param_type = PF_Param_LAYER;
    if (host->inputLayer_) def.u.ld = *host->inputLayer_->effectWorld();
    *param = def;
    return PF_Err_NONE;
  }
  {
    // The definition as the effect declared it, with the value at this time.
    std::lock_guard<std::mutex> lock(host->mutex_);
    if (static_cast<size_t>(index) <= host->addedParams_.size()) {
      def = host->addedParams_[static_cast<size_t>(index) - 1];
    }
  }
  const ParamValues& v = host->params;
  auto popup = [&](int value) {
    def.param_type = PF_Param_POPUP;
    def.u.pd.value = value;
  };
  auto slider = [&](double value) {
    def.param_type = PF_Param_FLOAT_SLIDER;
    def.u.fs_d.value = value;
  };
  auto point = [&](double x, double y) {
    def.param_type = PF_Param_POINT;
    def.u.td.x_value = PixelsToFixed(static_cast<float>(x));
    def.u.td.y_value = PixelsToFixed(static_cast<float>(y));
  };
  switch (index) {
    case kParamMode: popup(v.mode); break;
    case kParamFilter: popup(v.filter); break;
    case kParamDistortion: slider(v.distortion); break;
    case kParamCubic: slider(v.cubic); break;
    case kParamQuartic: slider(v.quartic); break;
    case kParamZoom: slider(v.zoom); break;
    case kParamDistortedSize: point(v.distortedWidth, v.distortedHeight); break;
    case kParamPixelAspect: slider(v.pixelAspect); break;
    case kParamUndistortedSize: point(v.undistortedWidth, v.undistortedHeight); break;
    default: break;
  }
  *param = def;
  return PF_Err_NONE;
}

Depth HostCallbacks::RenderDepth(const Host* host) {
  return host->inputLayer_ ? host->inputLayer_->depth() : Depth::k8;
}

}  // namespace hostsim
