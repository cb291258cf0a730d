// Internal to the substitute host: the C callbacks the effect calls, how each finds the Host
// it belongs to, and what the host's source files share (Callbacks.cpp, Suites.cpp,
// Iterate.cpp).
#ifndef VT_HOSTSIM_HOSTCALLBACKS_H
#define VT_HOSTSIM_HOSTCALLBACKS_H

#include "hostsim/Host.h"

namespace hostsim {

// The largest block host_new_handle hands out; larger requests fail like an exhausted heap.
constexpr uint64_t kMaxHandleBytes = uint64_t{1} << 32;

// Sub-pixel sampler calls made by one thread's share of an iterate, counted here and added
// to the host's totals when the share ends: two shared atomic counters per pixel would have
// the iterate threads fight over one cache line.
struct SubpixelTally {
  Host* host = nullptr;
  int calls = 0;
};
extern thread_local SubpixelTally subpixel_tally;

// The entry points of the utility callbacks and suites, each defined once: the ANSI
// functions, pixel addresses and samplers in Callbacks.cpp, iterate in Iterate.cpp.
PF_ANSICallbacksSuite1 AnsiFunctions();
PF_Err GetPixelData8(PF_EffectWorld* w, PF_PixelPtr p, PF_Pixel8** out);
PF_Err GetPixelData16(PF_EffectWorld* w, PF_PixelPtr p, PF_Pixel16** out);
PF_Err GetPixelDataFloat(PF_EffectWorld* w, PF_PixelPtr p, PF_PixelFloat** out);
PF_Err SubpixelSample8(PF_ProgPtr r, PF_Fixed x, PF_Fixed y, const PF_SampPB* p, PF_Pixel* d);
PF_Err SubpixelSample16(PF_ProgPtr r, PF_Fixed x, PF_Fixed y, const PF_SampPB* p,
                        PF_Pixel16* d);
PF_Err SubpixelSampleFloat(PF_ProgPtr r, PF_Fixed x, PF_Fixed y, const PF_SampPB* p,
                           PF_PixelFloat* d);
PF_Err NearestSample8(PF_ProgPtr r, PF_Fixed x, PF_Fixed y, const PF_SampPB* p, PF_Pixel* d);
PF_Err NearestSample16(PF_ProgPtr r, PF_Fixed x, PF_Fixed y, const PF_SampPB* p,
                       PF_Pixel16* d);
PF_Err NearestSampleFloat(PF_ProgPtr r, PF_Fixed x, PF_Fixed y, const PF_SampPB* p,
                          PF_PixelFloat* d);
PF_Err Iterate8(PF_InData* in_data, A_long base, A_long final, PF_EffectWorld* src,
                const PF_Rect* area, void* refcon,
                PF_Err (*fn)(void*, A_long, A_long, PF_Pixel*, PF_Pixel*), PF_EffectWorld* dst);
PF_Err Iterate16(PF_InData* in_data, A_long base, A_long final, PF_EffectWorld* src,
                 const PF_Rect* area, void* refcon,
                 PF_Err (*fn)(void*, A_long, A_long, PF_Pixel16*, PF_Pixel16*),
                 PF_EffectWorld* dst);
PF_Err IterateFloat(PF_InData* in_data, A_long base, A_long final, PF_EffectWorld* src,
                    const PF_Rect* area, void* refcon,
                    PF_Err (*fn)(void*, A_long, A_long, PF_PixelFloat*, PF_PixelFloat*),
                    PF_EffectWorld* dst);

struct HostCallbacks {
  // The host of this thread's command or iterate row, else the newest live host.
  static Host* Current();
  // The host an effect reference points at, when that host is alive; else null.
  static Host* FromRef(PF_ProgPtr effectRef);
  static void Register(Host* host);
  static void Unregister(Host* host);

  // Makes `host` this thread's current host for the scope's lifetime.
  class Scope {
   public:
    explicit Scope(Host* host);
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    Host* previous_;
  };

  static void Count(Host* host, HostCall call);
  static bool ShouldFail(Host* host, HostCall call, PF_Err* err) {
    // Nothing armed is the common case, checked here without a call (per pixel for the
    // host's sampler).
    if (host->failuresArmed_.load(std::memory_order_relaxed) == 0) return false;
    return host->ShouldFail(call, err);
  }

  // The host's books, kept for the C callbacks (HostCallbacks.cpp).
  static PF_Handle NewHandle(Host* host, A_u_longlong size);
  static void DisposeHandle(Host* host, PF_Handle handle);
  static A_u_longlong HandleSize(Host* host, PF_Handle handle);
  static void RecordSubpixel(Host* host, PF_Fixed x, PF_Fixed y);
  static void AddSubpixelCalls(Host* host, int calls);  // sampler calls counted elsewhere
  static bool FormatOverride(Host* host, PF_PixelFormat* format);
  static PF_Err NewSuiteWorld(Host* host, Depth depth, A_long width, A_long height,
                              PF_EffectWorld* world);
  static PF_Err DisposeSuiteWorld(Host* host, PF_EffectWorld* world);
  static SPErr AcquireSuiteFor(Host* host, const char* name, int32_t version,
                               const void** suite, const void* offered);
  static SPErr ReleaseSuiteFor(Host* host, const char* name, int32_t version, bool offered);
  static PF_Err AddParam(Host* host, PF_ParamIndex index, PF_ParamDefPtr def);
  static PF_Err CheckoutParam(Host* host, PF_ParamIndex index, A_long time, A_long timeStep,
                              A_u_long timeScale, PF_ParamDef* param);
  static Depth RenderDepth(const Host* host);
  static void FillUtilCallbacks(PF_UtilCallbacks* utils);
  static void FillInteractCallbacks(PF_InteractCallbacks* inter);
  static void FillBasicSuite(SPBasicSuite* basic);
  static void SetHandleCallbacks(PF_UtilCallbacks* utils, bool present);

  // Pre-render and render callbacks.
  static PF_Err CheckoutLayer(PF_ProgPtr effect_ref, PF_ParamIndex index, A_long checkout_idL,
                              const PF_RenderRequest* req, A_long what_time, A_long time_step,
                              A_u_long time_scale, PF_CheckoutResult* checkout_result);
  static PF_Err GuidMixIn(PF_ProgPtr effect_ref, A_u_long buf_sizeLu, const void* buf);
  static PF_Err CheckoutLayerPixels(PF_ProgPtr effect_ref, A_long checkout_idL,
                                    PF_EffectWorld** pixels);
  static PF_Err CheckinLayerPixels(PF_ProgPtr effect_ref, A_long checkout_idL);
  static PF_Err CheckoutOutput(PF_ProgPtr effect_ref, PF_EffectWorld** output);

  // Shared by the iterate suites and the utility callbacks (Iterate.cpp).
  static void FinishIterate(Host* host, IterateRecord record, std::vector<int> rows);
  template <typename Pixel>
  static PF_Err Iterate(int depthBits, PF_InData* in_data, A_long progress_base,
                        A_long progress_final, PF_EffectWorld* src, const PF_Rect* area,
                        void* refcon, PF_Err (*pix_fn)(void*, A_long, A_long, Pixel*, Pixel*),
                        PF_EffectWorld* dst);
};

}  // namespace hostsim

#endif
