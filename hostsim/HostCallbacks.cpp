// The host's side of every call the effect makes: parameters, handles, the ANSI functions,
// pixel data, sampling, iteration, the basic suite and the suites it hands out, and the
// layer and output checkouts of smart rendering.
#include "hostsim/HostCallbacks.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>
#include <thread>

#include "hostsim/Sampling.h"
#include "hostsim/ThreadPool.h"

namespace hostsim {

namespace {

thread_local Host* current_host = nullptr;

// Sub-pixel sampler calls made by one thread's share of an iterate, counted here and added
// to the host's totals when the share ends: two shared atomic counters per pixel would have
// the iterate threads fight over one cache line.
struct SubpixelTally {
  Host* host = nullptr;
  int calls = 0;
};
thread_local SubpixelTally subpixel_tally;

// This thread's share of an iterate of `host`: sampler calls are tallied until it ends.
class TallyScope {
 public:
  explicit TallyScope(Host* host) : previous_(subpixel_tally) { subpixel_tally = {host, 0}; }
  ~TallyScope() {
    if (subpixel_tally.calls > 0) {
      HostCallbacks::AddSubpixelCalls(subpixel_tally.host, subpixel_tally.calls);
    }
    subpixel_tally = previous_;
  }
  TallyScope(const TallyScope&) = delete;
  TallyScope& operator=(const TallyScope&) = delete;

 private:
  SubpixelTally previous_;
};
std::mutex registry_mutex;
std::vector<Host*> live_hosts;  // in order of creation

// The basic suite's error for a malformed call ('Parm').
constexpr SPErr kSPBadParameterError = 0x5061726D;
// The largest block host_new_handle hands out; larger requests fail like an exhausted heap.
constexpr uint64_t kMaxHandleBytes = uint64_t{1} << 32;
// An iterate thread claims 1 / (this * threads) of the rows left at a time.
constexpr A_long kIterateShareDivisor = 2;


// --- ANSI functions -------------------------------------------------------------------
A_FpLong AnsiAtan(A_FpLong v) { return std::atan(v); }
A_FpLong AnsiAtan2(A_FpLong y, A_FpLong x) { return std::atan2(y, x); }
A_FpLong AnsiCeil(A_FpLong v) { return std::ceil(v); }
A_FpLong AnsiCos(A_FpLong v) { return std::cos(v); }
A_FpLong AnsiExp(A_FpLong v) { return std::exp(v); }
A_FpLong AnsiFabs(A_FpLong v) { return std::fabs(v); }
A_FpLong AnsiFloor(A_FpLong v) { return std::floor(v); }
A_FpLong AnsiFmod(A_FpLong x, A_FpLong y) { return std::fmod(x, y); }
A_FpLong AnsiHypot(A_FpLong x, A_FpLong y) { return std::hypot(x, y); }
A_FpLong AnsiLog(A_FpLong v) { return std::log(v); }
A_FpLong AnsiLog10(A_FpLong v) { return std::log10(v); }
A_FpLong AnsiPow(A_FpLong x, A_FpLong y) { return std::pow(x, y); }
A_FpLong AnsiSin(A_FpLong v) { return std::sin(v); }
A_FpLong AnsiSinh(A_FpLong v) { return std::sinh(v); }
A_FpLong AnsiSqrt(A_FpLong v) { return std::sqrt(v); }
A_FpLong AnsiTan(A_FpLong v) { return std::tan(v); }
A_FpLong AnsiAsin(A_FpLong v) { return std::asin(v); }
A_FpLong AnsiAcos(A_FpLong v) { return std::acos(v); }

int AnsiSprintf(A_char* dst, const A_char* format, ...) {
  va_list args;
  va_start(args, format);
  const int n = std::vsprintf(dst, format, args);
  va_end(args);
  return n;
}

A_char* AnsiStrcpy(A_char* dst, const A_char* src) { return std::strcpy(dst, src); }

// --- Handles --------------------------------------------------------------------------
// A handle is a malloc'ed master pointer whose one word points at the malloc'ed block.
PF_Handle HostNewHandle(A_u_longlong size) {
  Host* host = HostCallbacks::Current();
  if (!host) return nullptr;
  return HostCallbacks::NewHandle(host, size);
}

void HostDisposeHandle(PF_Handle handle) {
  Host* host = HostCallbacks::Current();
  if (host) HostCallbacks::DisposeHandle(host, handle);
}

void* HostLockHandle(PF_Handle handle) { return handle ? *handle : nullptr; }
void HostUnlockHandle(PF_Handle) {}

A_u_longlong HostGetHandleSize(PF_Handle handle) {
  Host* host = HostCallbacks::Current();
  return host ? HostCallbacks::HandleSize(host, handle) : 0;
}

// --- Pixel data -----------------------------------------------------------------------
template <typename Pixel>
PF_Err GetPixelData(PF_EffectWorld* world, PF_PixelPtr pixels, Pixel** out,
                    PF_PixelFormat format) {
  Host* host = HostCallbacks::Current();
  if (host) {
    HostCallbacks::Count(host, HostCall::GetPixelData);
    PF_Err err = 0;
    if (HostCallbacks::ShouldFail(host, HostCall::GetPixelData, &err)) {
      if (out) *out = nullptr;
      return err;
    }
  }
  if (!world || !out) return PF_Err_BAD_CALLBACK_PARAM;
  if (PixelFormatOfWorld(*world) != format) {  // asking for 8-bit pixels of a deep world
    *out = nullptr;
    return PF_Err_BAD_CALLBACK_PARAM;
  }
  *out = static_cast<Pixel*>(pixels ? pixels : world->data);
  return PF_Err_NONE;
}

PF_Err GetPixelData8(PF_EffectWorld* w, PF_PixelPtr p, PF_Pixel8** out) {
  return GetPixelData(w, p, out, PF_PixelFormat_ARGB32);
}
PF_Err GetPixelData16(PF_EffectWorld* w, PF_PixelPtr p, PF_Pixel16** out) {
  return GetPixelData(w, p, out, PF_PixelFormat_ARGB64);
}
PF_Err GetPixelDataFloat(PF_EffectWorld* w, PF_PixelPtr p, PF_PixelFloat** out) {
  return GetPixelData(w, p, out, PF_PixelFormat_ARGB128);
}

// --- Sampling -------------------------------------------------------------------------
template <typename Pixel>
PF_Err Sample(PF_ProgPtr effect_ref, PF_Fixed x, PF_Fixed y, const PF_SampPB* params,
              Pixel* dst, PF_PixelFormat format,
              void (*sampler)(const PF_EffectWorld&, PF_Fixed, PF_Fixed, Pixel*),
              bool countAsSubpixel) {
  Host* host = HostCallbacks::FromRef(effect_ref);
  if (!host) return PF_Err_BAD_CALLBACK_PARAM;
  if (countAsSubpixel) {
    if (subpixel_tally.host == host && !host->recordSamples) {
      ++subpixel_tally.calls;
    } else {
      HostCallbacks::RecordSubpixel(host, x, y);
    }
  }
  PF_Err err = 0;
  if (HostCallbacks::ShouldFail(host, HostCall::SubpixelSample, &err)) return err;
  if (!params || !params->src || !dst) return PF_Err_BAD_CALLBACK_PARAM;
  if (PixelFormatOfWorld(*params->src) != format) return PF_Err_BAD_CALLBACK_PARAM;
  sampler(*params->src, x, y, dst);
  return PF_Err_NONE;
}

PF_Err SubpixelSample8(PF_ProgPtr r, PF_Fixed x, PF_Fixed y, const PF_SampPB* p, PF_Pixel* d) {
  return Sample(r, x, y, p, d, PF_PixelFormat_ARGB32, SampleBilinear8, true);
}
PF_Err SubpixelSample16(PF_ProgPtr r, PF_Fixed x, PF_Fixed y, const PF_SampPB* p,
                        PF_Pixel16* d) {
  return Sample(r, x, y, p, d, PF_PixelFormat_ARGB64, SampleBilinear16, true);
}
PF_Err SubpixelSampleFloat(PF_ProgPtr r, PF_Fixed x, PF_Fixed y, const PF_SampPB* p,
                           PF_PixelFloat* d) {
  return Sample(r, x, y, p, d, PF_PixelFormat_ARGB128, SampleBilinearFloat, true);
}
PF_Err NearestSample8(PF_ProgPtr r, PF_Fixed x, PF_Fixed y, const PF_SampPB* p, PF_Pixel* d) {
  return Sample(r, x, y, p, d, PF_PixelFormat_ARGB32, SampleNearest8, false);
}
PF_Err NearestSample16(PF_ProgPtr r, PF_Fixed x, PF_Fixed y, const PF_SampPB* p,
                       PF_Pixel16* d) {
  return Sample(r, x, y, p, d, PF_PixelFormat_ARGB64, SampleNearest16, false);
}
PF_Err NearestSampleFloat(PF_ProgPtr r, PF_Fixed x, PF_Fixed y, const PF_SampPB* p,
                          PF_PixelFloat* d) {
  return Sample(r, x, y, p, d, PF_PixelFormat_ARGB128, SampleNearestFloat, false);
}

// --- Iteration ------------------------------------------------------------------------
PF_Err Iterate8(PF_InData* in_data, A_long base, A_long final, PF_EffectWorld* src,
                const PF_Rect* area, void* refcon,
                PF_Err (*fn)(void*, A_long, A_long, PF_Pixel*, PF_Pixel*),
                PF_EffectWorld* dst) {
  return HostCallbacks::Iterate<PF_Pixel>(8, in_data, base, final, src, area, refcon, fn, dst);
}
PF_Err Iterate16(PF_InData* in_data, A_long base, A_long final, PF_EffectWorld* src,
                 const PF_Rect* area, void* refcon,
                 PF_Err (*fn)(void*, A_long, A_long, PF_Pixel16*, PF_Pixel16*),
                 PF_EffectWorld* dst) {
  return HostCallbacks::Iterate<PF_Pixel16>(16, in_data, base, final, src, area, refcon, fn,
                                            dst);
}
PF_Err IterateFloat(PF_InData* in_data, A_long base, A_long final, PF_EffectWorld* src,
                    const PF_Rect* area, void* refcon,
                    PF_Err (*fn)(void*, A_long, A_long, PF_PixelFloat*, PF_PixelFloat*),
                    PF_EffectWorld* dst) {
  return HostCallbacks::Iterate<PF_PixelFloat>(32, in_data, base, final, src, area, refcon, fn,
                                               dst);
}

// --- World suite ----------------------------------------------------------------------
PF_Err GetPixelFormat(const PF_EffectWorld* world, PF_PixelFormat* format) {
  Host* host = HostCallbacks::Current();
  if (host) {
    HostCallbacks::Count(host, HostCall::GetPixelFormat);
    PF_Err err = 0;
    if (HostCallbacks::ShouldFail(host, HostCall::GetPixelFormat, &err)) return err;
  }
  if (!world || !format) return PF_Err_BAD_CALLBACK_PARAM;
  PF_PixelFormat overridden = 0;
  *format = (host && HostCallbacks::FormatOverride(host, &overridden)) ? overridden
                                                             : PixelFormatOfWorld(*world);
  return PF_Err_NONE;
}

PF_Err NewWorld(PF_ProgPtr effect_ref, A_long width, A_long height, PF_Boolean /*clear*/,
                PF_PixelFormat format, PF_EffectWorld* world) {
  Host* host = HostCallbacks::FromRef(effect_ref);
  if (!host || !world || width <= 0 || height <= 0) return PF_Err_BAD_CALLBACK_PARAM;
  const int32_t bits = BitDepthOfHostFormat(format);
  if (bits == 0) return PF_Err_BAD_CALLBACK_PARAM;
  // Always cleared.
  return HostCallbacks::NewSuiteWorld(host, static_cast<Depth>(bits), width, height, world);
}

PF_Err DisposeWorld(PF_ProgPtr effect_ref, PF_EffectWorld* world) {
  Host* host = HostCallbacks::FromRef(effect_ref);
  if (!host || !world) return PF_Err_BAD_CALLBACK_PARAM;
  return HostCallbacks::DisposeSuiteWorld(host, world);
}

// --- The suites -----------------------------------------------------------------------
const PF_WorldSuite2 world_suite2 = {NewWorld, DisposeWorld, GetPixelFormat};
const PF_ANSICallbacksSuite1 ansi_suite1 = {
    AnsiAtan, AnsiAtan2, AnsiCeil, AnsiCos,  AnsiExp,  AnsiFabs,    AnsiFloor,
    AnsiFmod, AnsiHypot, AnsiLog,  AnsiLog10, AnsiPow, AnsiSin,     AnsiSinh,
    AnsiSqrt, AnsiTan,   AnsiSprintf, AnsiStrcpy, AnsiAsin, AnsiAcos};
const PF_PixelDataSuite1 pixel_data_suite1 = {GetPixelData8, GetPixelData16, GetPixelDataFloat};
// Area sampling is not offered by this host: its entries are null.
const PF_Sampling8Suite1 sampling8_suite1 = {NearestSample8, SubpixelSample8, nullptr};
const PF_Sampling16Suite1 sampling16_suite1 = {NearestSample16, SubpixelSample16, nullptr};
const PF_SamplingFloatSuite1 sampling_float_suite1 = {NearestSampleFloat, SubpixelSampleFloat,
                                                      nullptr};
const PF_Iterate8Suite1 iterate8_suite1 = {Iterate8, nullptr, nullptr, nullptr, nullptr};
const PF_iterate16Suite1 iterate16_suite1 = {Iterate16, nullptr, nullptr};
const PF_iterateFloatSuite1 iterate_float_suite1 = {IterateFloat, nullptr, nullptr};
// The drawing suites are offered so that acquiring them succeeds; this host draws nothing
// and their entries are null.
void* const drawbot_suite_dummy[32] = {};

struct SuiteEntry {
  const char* name;
  int32_t version;
  const void* suite;
};

const SuiteEntry offered_suites[] = {
    {kPFWorldSuite, 2, &world_suite2},
    {kPFANSISuite, 1, &ansi_suite1},
    {kPFPixelDataSuite, 1, &pixel_data_suite1},
    {kPFSampling8Suite, 1, &sampling8_suite1},
    {kPFSampling16Suite, 1, &sampling16_suite1},
    {kPFSamplingFloatSuite, 1, &sampling_float_suite1},
    {kPFIterate8Suite, 1, &iterate8_suite1},
    {kPFIterate16Suite, 1, &iterate16_suite1},
    {kPFIterateFloatSuite, 1, &iterate_float_suite1},
    {"DRAWBOT Draw Suite", 1, drawbot_suite_dummy},
    {"DRAWBOT Supplier Suite", 1, drawbot_suite_dummy},
    {"DRAWBOT Surface Suite", 1, drawbot_suite_dummy},
    {"DRAWBOT Path Suite", 1, drawbot_suite_dummy},
};

const void* FindSuite(const char* name, int32_t version) {
  for (const SuiteEntry& e : offered_suites) {
    if (e.version == version && std::strcmp(e.name, name) == 0) return e.suite;
  }
  return nullptr;
}

// --- Basic suite ----------------------------------------------------------------------
SPErr AcquireSuite(const char* name, int32_t version, const void** suite) {
  Host* host = HostCallbacks::Current();
  if (!name || !suite || !host) {
    if (suite) *suite = nullptr;
    return name && suite ? kSPSuiteNotFoundError : kSPBadParameterError;
  }
  return HostCallbacks::AcquireSuiteFor(host, name, version, suite, FindSuite(name, version));
}

SPErr ReleaseSuite(const char* name, int32_t version) {
  Host* host = HostCallbacks::Current();
  if (!name || !host) return kSPBadParameterError;
  return HostCallbacks::ReleaseSuiteFor(host, name, version, FindSuite(name, version) != nullptr);
}

SPBoolean IsEqual(const char* a, const char* b) { return a && b && std::strcmp(a, b) == 0; }

SPErr AllocateBlock(size_t size, void** block) {
  if (!block) return kSPBadParameterError;
  *block = size <= kMaxHandleBytes ? std::malloc(size ? size : 1) : nullptr;
  return *block ? 0 : kSPBadParameterError;
}

SPErr FreeBlock(void* block) {
  std::free(block);
  return 0;
}

SPErr ReallocateBlock(void* block, size_t size, void** newBlock) {
  if (!newBlock || size > kMaxHandleBytes) return kSPBadParameterError;
  void* moved = std::realloc(block, size ? size : 1);
  if (!moved) return kSPBadParameterError;
  *newBlock = moved;
  return 0;
}

SPErr Undefined() { return kSPBadParameterError; }

// --- Parameters -----------------------------------------------------------------------
PF_Err InterAddParam(PF_ProgPtr effect_ref, PF_ParamIndex index, PF_ParamDefPtr def) {
  Host* host = HostCallbacks::FromRef(effect_ref);
  if (!host) return PF_Err_BAD_CALLBACK_PARAM;
  return HostCallbacks::AddParam(host, index, def);
}

PF_Err InterCheckoutParam(PF_ProgPtr effect_ref, PF_ParamIndex index, A_long what_time,
                     A_long time_step, A_u_long time_scale, PF_ParamDef* param) {
  Host* host = HostCallbacks::FromRef(effect_ref);
  if (!host) return PF_Err_BAD_CALLBACK_PARAM;
  return HostCallbacks::CheckoutParam(host, index, what_time, time_step, time_scale, param);
}

PF_Err InterCheckinParam(PF_ProgPtr effect_ref, PF_ParamDef* param) {
  Host* host = HostCallbacks::FromRef(effect_ref);
  if (!host) return PF_Err_BAD_CALLBACK_PARAM;
  HostCallbacks::Count(host, HostCall::CheckinParam);
  PF_Err err = 0;
  if (HostCallbacks::ShouldFail(host, HostCall::CheckinParam, &err)) return err;
  return param ? PF_Err_NONE : PF_Err_BAD_CALLBACK_PARAM;
}

PF_Err Abort(PF_ProgPtr) { return PF_Err_NONE; }
PF_Err Progress(PF_ProgPtr, A_long, A_long) { return PF_Err_NONE; }

}  // namespace

// --- Finding the host -----------------------------------------------------------------
Host* HostCallbacks::Current() {
  if (current_host) return current_host;
  std::lock_guard<std::mutex> lock(registry_mutex);
  return live_hosts.empty() ? nullptr : live_hosts.back();
}

Host* HostCallbacks::FromRef(PF_ProgPtr effectRef) {
  Host* host = reinterpret_cast<Host*>(effectRef);
  if (!host) return nullptr;
  if (host == current_host) return host;  // the common case, without a lock
  std::lock_guard<std::mutex> lock(registry_mutex);
  return std::find(live_hosts.begin(), live_hosts.end(), host) != live_hosts.end() ? host
                                                                                  : nullptr;
}

void HostCallbacks::Register(Host* host) {
  std::lock_guard<std::mutex> lock(registry_mutex);
  live_hosts.push_back(host);
}

void HostCallbacks::Unregister(Host* host) {
  std::lock_guard<std::mutex> lock(registry_mutex);
  live_hosts.erase(std::remove(live_hosts.begin(), live_hosts.end(), host), live_hosts.end());
}

HostCallbacks::Scope::Scope(Host* host) : previous_(current_host) { current_host = host; }
HostCallbacks::Scope::~Scope() { current_host = previous_; }

void HostCallbacks::Count(Host* host, HostCall call) {
  host->callCounts_[static_cast<size_t>(call)].fetch_add(1);
}

void HostCallbacks::FillUtilCallbacks(PF_UtilCallbacks* u) {
  *u = PF_UtilCallbacks{};
  u->subpixel_sample = SubpixelSample8;
  u->iterate = Iterate8;
  u->host_new_handle = HostNewHandle;
  u->host_lock_handle = HostLockHandle;
  u->host_unlock_handle = HostUnlockHandle;
  u->host_dispose_handle = HostDisposeHandle;
  u->host_get_handle_size = HostGetHandleSize;
  u->subpixel_sample16 = SubpixelSample16;
  u->iterate16 = Iterate16;
  u->get_pixel_data8 = GetPixelData8;
  u->get_pixel_data16 = GetPixelData16;
  PF_ANSICallbacks& a = u->ansi;
  a.atan = AnsiAtan;
  a.atan2 = AnsiAtan2;
  a.ceil = AnsiCeil;
  a.cos = AnsiCos;
  a.exp = AnsiExp;
  a.fabs = AnsiFabs;
  a.floor = AnsiFloor;
  a.fmod = AnsiFmod;
  a.hypot = AnsiHypot;
  a.log = AnsiLog;
  a.log10 = AnsiLog10;
  a.pow = AnsiPow;
  a.sin = AnsiSin;
  a.sinh = AnsiSinh;
  a.sqrt = AnsiSqrt;
  a.tan = AnsiTan;
  a.sprintf = AnsiSprintf;
  a.strcpy = AnsiStrcpy;
  a.asin = AnsiAsin;
  a.acos = AnsiAcos;
}

void HostCallbacks::SetHandleCallbacks(PF_UtilCallbacks* u, bool present) {
  u->host_new_handle = present ? HostNewHandle : nullptr;
  u->host_dispose_handle = present ? HostDisposeHandle : nullptr;
}

void HostCallbacks::FillInteractCallbacks(PF_InteractCallbacks* inter) {
  *inter = PF_InteractCallbacks{};
  inter->checkout_param = InterCheckoutParam;
  inter->checkin_param = InterCheckinParam;
  inter->add_param = InterAddParam;
  inter->abort = Abort;
  inter->progress = Progress;
}

void HostCallbacks::FillBasicSuite(SPBasicSuite* basic) {
  basic->AcquireSuite = AcquireSuite;
  basic->ReleaseSuite = ReleaseSuite;
  basic->IsEqual = IsEqual;
  basic->AllocateBlock = AllocateBlock;
  basic->FreeBlock = FreeBlock;
  basic->ReallocateBlock = ReallocateBlock;
  basic->Undefined = Undefined;
}

// --- Smart rendering ------------------------------------------------------------------
PF_Err HostCallbacks::CheckoutLayer(PF_ProgPtr effect_ref, PF_ParamIndex index,
                                    A_long checkout_idL, const PF_RenderRequest* req,
                                    A_long what_time, A_long time_step, A_u_long time_scale,
                                    PF_CheckoutResult* checkout_result) {
  Host* host = FromRef(effect_ref);
  if (!host) return PF_Err_BAD_CALLBACK_PARAM;
  Count(host, HostCall::CheckoutLayer);
  PreRenderReport& rec = host->preRender_;
  ++rec.checkoutLayerCalls;
  rec.checkoutIndex = index;
  rec.checkoutId = checkout_idL;
  rec.checkoutTime = what_time;
  rec.checkoutTimeStep = time_step;
  rec.checkoutTimeScale = time_scale;
  if (req) rec.inputRequest = *req;
  if (!host->inPreRender_) return PF_Err_BAD_CALLBACK_PARAM;
  PF_Err err = 0;
  if (HostCallbacks::ShouldFail(host, HostCall::CheckoutLayer, &err)) return err;
  if (!req || !checkout_result) return PF_Err_BAD_CALLBACK_PARAM;
  if (index != kParamInput) return PF_Err_INVALID_INDEX;  // the effect's only layer

  const World* layer = host->inputLayer_;
  const PF_LRect layerBounds = layer ? layer->Bounds() : PF_LRect{0, 0, 0, 0};
  PF_LRect supplied{0, 0, 0, 0};
  if (host->haveSuppliedOverride_) {
    supplied = host->suppliedOverride_;
  } else if (layer && !IsEmptyRect(&req->rect)) {
    supplied = req->rect;
    IntersectRect(supplied, layerBounds);
    if (IsEmptyRect(&supplied)) supplied = PF_LRect{0, 0, 0, 0};
  }
  *checkout_result = PF_CheckoutResult{};
  checkout_result->result_rect = supplied;
  checkout_result->max_result_rect = layerBounds;
  checkout_result->par = PF_RationalScale{1, 1};
  checkout_result->ref_width = layer ? layer->width() : 0;
  checkout_result->ref_height = layer ? layer->height() : 0;
  rec.supplied = *checkout_result;
  host->haveCheckout_ = true;
  host->checkoutId_ = checkout_idL;
  host->lastSupplied_ = supplied;
  return PF_Err_NONE;
}

PF_Err HostCallbacks::GuidMixIn(PF_ProgPtr effect_ref, A_u_long, const void*) {
  return FromRef(effect_ref) ? PF_Err_NONE : PF_Err_BAD_CALLBACK_PARAM;
}

PF_Err HostCallbacks::CheckoutLayerPixels(PF_ProgPtr effect_ref, A_long checkout_idL,
                                          PF_EffectWorld** pixels) {
  Host* host = FromRef(effect_ref);
  if (!host) return PF_Err_BAD_CALLBACK_PARAM;
  Count(host, HostCall::CheckoutLayerPixels);
  if (pixels) *pixels = nullptr;
  if (!host->inRender_ || !pixels) return PF_Err_BAD_CALLBACK_PARAM;
  PF_Err err = 0;
  if (HostCallbacks::ShouldFail(host, HostCall::CheckoutLayerPixels, &err)) return err;
  if (!host->haveCheckout_ || checkout_idL != host->checkoutId_) return PF_Err_BAD_CALLBACK_PARAM;
  const PF_LRect& rect = host->lastSupplied_;
  if (IsEmptyRect(&rect)) return PF_Err_NONE;  // nothing was supplied: no pixels
  if (!host->checkedOutInput_) {
    try {
      if (host->lendInputLayer && host->inputLayer_) {
        // The layer's own pixels; null when the rectangle reaches outside the layer.
        host->checkedOutInput_ = World::Lend(*host->inputLayer_, rect);
      }
      if (!host->checkedOutInput_ && host->inputLayer_) {
        host->checkedOutInput_ = CopyRegion(*host->inputLayer_, rect, host->inputPaddingBytes);
      } else if (!host->checkedOutInput_) {
        const int64_t w = int64_t{rect.right} - rect.left, h = int64_t{rect.bottom} - rect.top;
        if (w > std::numeric_limits<int>::max() || h > std::numeric_limits<int>::max()) {
          return PF_Err_OUT_OF_MEMORY;
        }
        host->checkedOutInput_ = std::make_unique<World>(
            Depth::k8, static_cast<int>(w), static_cast<int>(h), rect.left, rect.top,
            host->inputPaddingBytes);
      }
    } catch (const std::bad_alloc&) {
      return PF_Err_OUT_OF_MEMORY;
    } catch (const std::length_error&) {
      return PF_Err_OUT_OF_MEMORY;
    }
  }
  *pixels = host->checkedOutInput_->effectWorld();
  return PF_Err_NONE;
}

PF_Err HostCallbacks::CheckinLayerPixels(PF_ProgPtr effect_ref, A_long checkout_idL) {
  Host* host = FromRef(effect_ref);
  if (!host || !host->inRender_ || !host->haveCheckout_ || checkout_idL != host->checkoutId_) {
    return PF_Err_BAD_CALLBACK_PARAM;
  }
  return PF_Err_NONE;
}

PF_Err HostCallbacks::CheckoutOutput(PF_ProgPtr effect_ref, PF_EffectWorld** output) {
  Host* host = FromRef(effect_ref);
  if (!host) return PF_Err_BAD_CALLBACK_PARAM;
  Count(host, HostCall::CheckoutOutput);
  if (output) *output = nullptr;
  if (!host->inRender_ || !output) return PF_Err_BAD_CALLBACK_PARAM;
  PF_Err err = 0;
  if (HostCallbacks::ShouldFail(host, HostCall::CheckoutOutput, &err)) return err;
  const PF_LRect rect = host->lastPreRender_.result_rect;
  if (IsEmptyRect(&rect)) return PF_Err_NONE;  // nothing to render: no output buffer
  if (!host->checkedOutOutput_) {
    const int64_t w = int64_t{rect.right} - rect.left, h = int64_t{rect.bottom} - rect.top;
    if (w > std::numeric_limits<int>::max() || h > std::numeric_limits<int>::max()) {
      return PF_Err_OUT_OF_MEMORY;
    }
    const Depth depth = HostCallbacks::RenderDepth(host);
    const World* spare = host->spareOutput_.get();
    if (spare && !spare->lent() && spare->depth() == depth && spare->width() == w &&
        spare->height() == h && spare->originX() == rect.left &&
        spare->originY() == rect.top &&
        spare->paddingBytes() == std::max(host->outputPaddingBytes, 0)) {
      host->checkedOutOutput_ = std::move(host->spareOutput_);
    } else {
      try {
        host->checkedOutOutput_ =
            std::make_unique<World>(depth, static_cast<int>(w), static_cast<int>(h),
                                    rect.left, rect.top, host->outputPaddingBytes);
      } catch (const std::bad_alloc&) {
        return PF_Err_OUT_OF_MEMORY;
      } catch (const std::length_error&) {
        return PF_Err_OUT_OF_MEMORY;
      }
    }
    if (host->clearOutput) host->checkedOutOutput_->FillBytes(host->outputClearByte);
  }
  *output = host->checkedOutOutput_->effectWorld();
  return PF_Err_NONE;
}

// --- Iterate --------------------------------------------------------------------------
template <typename Pixel>
PF_Err HostCallbacks::Iterate(int depthBits, PF_InData* in_data, A_long progress_base,
                              A_long progress_final, PF_EffectWorld* src, const PF_Rect* area,
                              void* refcon,
                              PF_Err (*pix_fn)(void*, A_long, A_long, Pixel*, Pixel*),
                              PF_EffectWorld* dst) {
  Host* host = in_data ? FromRef(in_data->effect_ref) : nullptr;
  if (!host) host = Current();
  if (!host) return PF_Err_BAD_CALLBACK_PARAM;
  Count(host, HostCall::Iterate);

  IterateRecord record;
  record.depthBits = depthBits;
  record.progressBase = progress_base;
  record.progressFinal = progress_final;
  record.hadSource = src != nullptr;
  record.refcon = refcon;
  record.destination = dst;
  if (area) record.area = *area;
  else if (dst) record.area = PF_Rect{0, 0, dst->width, dst->height};
  auto finish = [&](PF_Err err, std::vector<int> rows, int threadsUsed) {
    record.result = err;
    record.threadsUsed = threadsUsed;
    std::sort(rows.begin(), rows.end());
    std::lock_guard<std::mutex> lock(host->mutex_);
    host->lastIterate_ = record;
    host->iteratedRows_ = std::move(rows);
    return err;
  };

  PF_Err err = 0;
  if (HostCallbacks::ShouldFail(host, HostCall::Iterate, &err)) return finish(err, {}, 0);
  const PF_PixelFormat format = PixelFormatOf(static_cast<Depth>(depthBits));
  if (!dst || !pix_fn || !dst->data || PixelFormatOfWorld(*dst) != format ||
      (src && PixelFormatOfWorld(*src) != format)) {
    return finish(PF_Err_BAD_CALLBACK_PARAM, {}, 0);
  }

  // The area in the destination's buffer coordinates, kept inside the buffer.
  const A_long left = std::max<A_long>(record.area.left, 0);
  const A_long top = std::max<A_long>(record.area.top, 0);
  const A_long right = std::min<A_long>(record.area.right, dst->width);
  const A_long bottom = std::min<A_long>(record.area.bottom, dst->height);
  if (left >= right || top >= bottom) return finish(PF_Err_NONE, {}, 0);

  const int wanted = host->threads > 0
                         ? host->threads
                         : std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
  const int participants = static_cast<int>(std::min<int64_t>(wanted, int64_t{bottom} - top));

  // Rows are handed out from a shared counter in runs of consecutive rows, each run a share
  // of the rows still left (guided scheduling): a thread works through one region of the
  // frame, whose source pixels stay in its own cache, and the runs shrink to single rows
  // towards the end, so the threads still finish together whatever each row costs. Nothing
  // is allocated per row; the rows passed to the callback are marked for the host's books.
  std::vector<uint8_t> visited(static_cast<size_t>(bottom - top), 0);
  std::atomic<A_long> nextRow{top};
  std::atomic<PF_Err> firstError{PF_Err_NONE};
  std::atomic<bool> stop{false};
  std::atomic<int> threadsUsed{0};
  // Claims the next run [first, last); false when no rows are left.
  auto claim = [&](A_long& first, A_long& last) {
    first = nextRow.load(std::memory_order_relaxed);
    for (;;) {
      if (first >= bottom) return false;
      const A_long share = (bottom - first) / (kIterateShareDivisor * participants);
      last = first + std::max<A_long>(1, share);
      if (nextRow.compare_exchange_weak(first, last, std::memory_order_relaxed)) return true;
    }
  };

  auto job = [&] {
    Scope scope(host);
    TallyScope tally(host);
    bool ranRow = false;
    for (;;) {
      if (stop.load(std::memory_order_relaxed)) break;
      A_long first = 0, last = 0;
      if (!claim(first, last)) break;
      for (A_long y = first; y < last && !stop.load(std::memory_order_relaxed); ++y) {
        ranRow = true;
        visited[static_cast<size_t>(y - top)] = 1;
        auto* outRow = reinterpret_cast<Pixel*>(static_cast<uint8_t*>(dst->data) +
                                                static_cast<int64_t>(y) * dst->rowbytes);
        Pixel* inRow = nullptr;
        if (src && src->data && y < src->height) {
          inRow = reinterpret_cast<Pixel*>(static_cast<uint8_t*>(src->data) +
                                           static_cast<int64_t>(y) * src->rowbytes);
        }
        for (A_long x = left; x < right; ++x) {
          Pixel* in = (inRow && x < src->width) ? inRow + x : nullptr;
          const PF_Err e = pix_fn(refcon, x, y, in, outRow + x);
          if (e != PF_Err_NONE) {
            PF_Err none = PF_Err_NONE;
            firstError.compare_exchange_strong(none, e);
            stop.store(true);
            break;
          }
        }
      }
    }
    if (ranRow) threadsUsed.fetch_add(1);
  };

  if (ThreadPool::OnWorker() || participants <= 1) {
    job();  // an iterate inside an iterate row, or nothing to share: this thread alone
  } else {
    std::lock_guard<std::mutex> poolLock(host->poolMutex_);
    host->Pool(participants).Run(participants, job);
  }
  std::vector<int> rows;
  for (A_long y = top; y < bottom; ++y) {
    if (visited[static_cast<size_t>(y - top)]) rows.push_back(y);
  }
  return finish(firstError.load(), std::move(rows), threadsUsed.load());
}

}  // namespace hostsim
