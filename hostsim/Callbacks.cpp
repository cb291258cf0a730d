// The callbacks the effect reaches through PF_InData: the ANSI functions, handles, pixel
// addresses, the sub-pixel samplers, parameters, and the layer and output checkouts of smart
// rendering; and how each call finds the Host it belongs to.
#include "hostsim/HostCallbacks.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>

#include "hostsim/Sampling.h"

namespace hostsim {

thread_local SubpixelTally subpixel_tally;

namespace {

thread_local Host* current_host = nullptr;
std::mutex registry_mutex;
std::vector<Host*> live_hosts;  // in order of creation

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


PF_ANSICallbacksSuite1 AnsiFunctions() {
  return PF_ANSICallbacksSuite1{AnsiAtan, AnsiAtan2, AnsiCeil,    AnsiCos,    AnsiExp,
                                AnsiFabs, AnsiFloor, AnsiFmod,    AnsiHypot,  AnsiLog,
                                AnsiLog10, AnsiPow,  AnsiSin,     AnsiSinh,   AnsiSqrt,
                                AnsiTan,  AnsiSprintf, AnsiStrcpy, AnsiAsin, AnsiAcos};
}

// --- Pixel data -----------------------------------------------------------------------
namespace {
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

}  // namespace

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
namespace {
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

}  // namespace

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
  const PF_ANSICallbacksSuite1 f = AnsiFunctions();
  PF_ANSICallbacks& a = u->ansi;
  a.atan = f.atan;
  a.atan2 = f.atan2;
  a.ceil = f.ceil;
  a.cos = f.cos;
  a.exp = f.exp;
  a.fabs = f.fabs;
  a.floor = f.floor;
  a.fmod = f.fmod;
  a.hypot = f.hypot;
  a.log = f.log;
  a.log10 = f.log10;
  a.pow = f.pow;
  a.sin = f.sin;
  a.sinh = f.sinh;
  a.sqrt = f.sqrt;
  a.tan = f.tan;
  a.sprintf = f.sprintf;
  a.strcpy = f.strcpy;
  a.asin = f.asin;
  a.acos = f.acos;
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

// --- The books the callbacks keep -----------------------------------------------------
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
  // The kind and the value of each parameter come from the parameter table.
  const ParamValues& v = host->params;
  const ParamEntry& entry = Param(index);
  switch (entry.kind) {
    case ParamKind::kPopup:
      def.param_type = PF_Param_POPUP;
      def.u.pd.value = v.*entry.choiceValue;
      break;
    case ParamKind::kFloatSlider:
      def.param_type = PF_Param_FLOAT_SLIDER;
      def.u.fs_d.value = v.*entry.numberValue;
      break;
    case ParamKind::kPoint:
      def.param_type = PF_Param_POINT;
      def.u.td.x_value = PixelsToFixed(static_cast<float>(v.*entry.xValue));
      def.u.td.y_value = PixelsToFixed(static_cast<float>(v.*entry.yValue));
      break;
  }
  *param = def;
  return PF_Err_NONE;
}

Depth HostCallbacks::RenderDepth(const Host* host) {
  return host->inputLayer_ ? host->inputLayer_->depth() : Depth::k8;
}

}  // namespace hostsim
