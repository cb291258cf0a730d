// The substitute host: loads an effect plug-in with dlopen and answers its calls the way the
// real host does (handles, parameter checkout, layer checkout, suites, threaded iterate).
// Tests drive the effect through this class; so does the veltrisca tool.
//
// Host calls that carry no effect reference (the basic suite, handles, pixel data, the
// world suite) reach the Host that is running the current command on this thread, or whose
// iterate runs this row; outside any command they reach the most recently created Host
// still alive.
#ifndef VT_HOSTSIM_HOST_H
#define VT_HOSTSIM_HOST_H

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "AE_Effect.h"
#include "AE_EffectCB.h"
#include "AE_EffectCBSuites.h"
#include "AE_EffectSuites.h"
#include "common/EffectParams.h"
#include "hostsim/PluginDescription.h"
#include "hostsim/World.h"

namespace hostsim {

// A loaded effect: its description (see PluginDescription.h), the shared library and the
// entry point named by the description.
class PluginModule {
 public:
  // Reads the description (descriptionPath, or the .plugin file beside the library when
  // empty), loads the library with RTLD_NOW | RTLD_LOCAL and resolves the entry point.
  // Throws std::runtime_error naming the path and the cause on any failure.
  explicit PluginModule(const std::string& path, const std::string& descriptionPath = "");
  ~PluginModule();
  PluginModule(const PluginModule&) = delete;
  PluginModule& operator=(const PluginModule&) = delete;

  PF_FilterProc entry() const { return entry_; }
  void* Symbol(const char* name) const;  // null when absent
  const std::string& path() const { return path_; }
  const PluginDescription& description() const { return description_; }

 private:
  std::string path_;
  PluginDescription description_;
  void* handle_ = nullptr;
  PF_FilterProc entry_ = nullptr;
};

// The values the host's parameter checkout returns, in user units (common/EffectParams.h).
// Sizes are in pixels and are handed to the effect as 16.16 fixed-point point parameters.
using ParamValues = EffectParamValues;

// Point parameters reach the effect as 16.16 fixed point through PixelsToFixed
// (common/EffectParams.h), the conversion the effect uses for the host's sampler.

// Host calls that can be made to fail on demand.
enum class HostCall {
  NewHandle,            // host_new_handle returns null
  AddParam,
  CheckoutParam,
  CheckinParam,
  CheckoutLayer,        // pre-render's checkout_layer
  CheckoutLayerPixels,  // smart render's input pixels
  CheckoutOutput,
  GetPixelFormat,
  GetPixelData,         // get_pixel_data8/16/_float
  Iterate,
  ReleaseSuite,
  AcquireSuite,         // the suite comes back null
  SubpixelSample,       // the sampler writes nothing
  kCount
};

// The error the basic suite returns for a suite it does not offer ('S!Fd').
constexpr SPErr kSPSuiteNotFoundError = 0x53214664;
// The error the basic suite returns for a malformed call: no name, or nowhere to put the
// suite ('Parm').
constexpr SPErr kSPBadParameterError = 0x5061726D;
// Every new handle's block is filled with this byte, so that reads of bytes an effect never
// wrote show up as a recognisable pattern rather than as zeros.
constexpr uint8_t kNewHandleFill = 0xA5;
// All four channels in a render request's channel mask.
constexpr PF_ChannelMask kChannelMaskARGB = 0xF;

struct PreRenderReport {
  PF_RenderRequest outputRequest{};  // what the host asked of the effect
  PF_RenderRequest inputRequest{};   // what the effect asked of checkout_layer (last call)
  PF_CheckoutResult supplied{};      // what the host gave back
  PF_PreRenderOutput output{};       // result_rect and max_result_rect
  int checkoutLayerCalls = 0;
  PF_ParamIndex checkoutIndex = -1;  // layer index, checkout id and time of the last call
  A_long checkoutId = -1;
  A_long checkoutTime = 0, checkoutTimeStep = 0;
  A_u_long checkoutTimeScale = 0;
};

struct ParamCheckout {
  PF_ParamIndex index;
  A_long time, timeStep;
  A_u_long timeScale;
};

struct SuiteEvent {
  bool acquire;  // false: release
  std::string name;
  int32_t version;
  SPErr result;
};

// What the last iterate call was given and did.
struct IterateRecord {
  int depthBits = 0;  // 8, 16 or 32: which suite (or utility callback) was called
  A_long progressBase = 0, progressFinal = 0;
  bool hadSource = false;
  PF_Rect area{};     // as passed (whole destination when null)
  void* refcon = nullptr;
  PF_EffectWorld* destination = nullptr;
  PF_Err result = 0;
  int threadsUsed = 0;  // distinct threads that ran at least one row
};

class ThreadPool;

class Host {
 public:
  explicit Host(const PluginModule& plugin);
  // A host for an entry point that is not in a loaded library (a test double); with no
  // description, GlobalSetup checks nothing against it.
  explicit Host(PF_FilterProc entry, const PluginDescription* description = nullptr);
  ~Host();  // sends sequence setdown if a sequence is still set up, then frees all handles
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  // --- set-up of the host's side ---
  ParamValues params;       // what checkout_param returns at the current time
  int threads = 0;          // iterate threads; 0 = all cores
  // Starts the iterate threads `threads` asks for now, instead of at the first iterate that
  // needs them (where a thread the system refuses fails the iterate with
  // PF_Err_OUT_OF_MEMORY); throws std::system_error when the system refuses one.
  void StartThreads();
  int ThreadCount() const;  // `threads`, or the processors when 0
  bool handleCallbacks = true;  // false: host_new_handle/host_dispose_handle are null
  bool basicSuitePresent = true;  // false: in_data->pica_basicP is null
  // Layer 0. Its top-left pixel lies at the world's origin in layer coordinates (normally
  // (0, 0)). Not owned; must outlive the renders that use it.
  void SetInputLayer(const World* layer);
  const World* inputLayer() const { return inputLayer_; }
  // Replace the rectangle the host supplies at checkout_layer (default: request ∩ layer).
  void OverrideSuppliedRect(const PF_LRect& rect);
  void ClearSuppliedRectOverride() { haveSuppliedOverride_ = false; }
  // The pixel format the world suite reports for every world (default: the world's own).
  void OverrideInputPixelFormat(PF_PixelFormat format);
  void ClearPixelFormatOverride() { haveFormatOverride_ = false; }
  // Row padding in bytes of the worlds the host hands to the effect.
  int inputPaddingBytes = 0;
  int outputPaddingBytes = 0;
  // Every byte of the output world (padding included) is set to this before the render,
  // unless clearOutput is off (then a new world holds zeros and a reused one what it held).
  uint8_t outputClearByte = 0;
  bool clearOutput = true;
  // The input the effect checks out points into the layer's own pixels (World::Lend) instead
  // of being a copy, as a real host hands over its buffers; only when the supplied rectangle
  // lies inside the layer (inputPaddingBytes does not apply then). Off by default, so that an
  // effect reading past its input is caught by the sanitizers at the copy's end.
  bool lendInputLayer = false;
  // SmartRender renders into the world the caller passes in *output when that world has the
  // depth, size, origin and padding the render needs (a host's buffer pool), instead of
  // allocating a new one.
  bool reuseOutput = false;
  // Called on the iterate threads as each row of an iterate call is done, with the rows done so
  // far and the rows of the call (a host's progress bar); must be safe to call concurrently.
  std::function<void(int64_t done, int64_t total)> rowProgress;
  // The PF_PreRenderOutput the host hands to the effect, before the effect writes it.
  PF_PreRenderOutput preRenderOutputPreset{};

  // --- failure injection ---
  // The nth call (1-based) of `call` from now on fails with `err` (null result for NewHandle
  // and AcquireSuite). One pending failure per kind of call; a new one replaces it.
  void FailCall(HostCall call, int nth, PF_Err err);
  // AcquireSuite of this suite name (any version) fails and leaves the suite null.
  void RemoveSuite(const std::string& name);

  // --- commands (return the effect's PF_Err) ---
  // Send passes the command with the records as they stand (only the handle callbacks and
  // the basic suite pointer follow handleCallbacks and basicSuitePresent); the named
  // commands below prepare what their command needs and keep the host's books afterwards.
  PF_Err Send(PF_Cmd cmd, void* extra = nullptr);
  PF_Err About();        // clears return_msg first
  // Clears my_version, out_flags and out_flags2 first. Afterwards, when the effect succeeded
  // and a description is known, throws DescriptionMismatch if my_version, out_flags or
  // out_flags2 differ from the description.
  PF_Err GlobalSetup();
  PF_Err ParamsSetup();  // records the added definitions afresh; in_data num_params follows
  // Setup and resetup store out_data->sequence_data into in_data->sequence_data; setdown
  // leaves both null.
  PF_Err SequenceSetup();
  PF_Err SequenceResetup();
  PF_Err SequenceSetdown();
  PF_Err SmartPreRender(const PF_LRect& request, PreRenderReport* report = nullptr);
  // Renders after a pre-render (throws std::logic_error without one). The output world is
  // sized from the pre-render's result_rect with that rectangle's top-left as origin and
  // filled with outputClearByte first (see clearOutput and reuseOutput); it is handed back
  // even when the effect fails, and is null when the effect did not check it out or the
  // result rectangle was empty.
  PF_Err SmartRender(std::unique_ptr<World>* output);

  // --- what the host saw ---
  PF_InData& inData() { return in_; }
  PF_OutData& outData() { return out_; }
  std::string ReturnMessage() const { return out_.return_msg; }
  void* SequenceBlock() const;  // the sequence data's block, or null
  const std::vector<PF_ParamDef>& addedParams() const { return addedParams_; }
  int CallCount(HostCall call) const;  // calls since construction, failed ones included
  // Successful acquisitions and releases; version -1 counts every version of the name.
  int AcquireCount(const std::string& suite, int32_t version = -1) const;
  int ReleaseCount(const std::string& suite, int32_t version = -1) const;
  bool AllSuitesReleased() const;  // every acquisition matched by a release
  // Releases of suites not held at the time (refused by the host, not in ReleaseCount).
  int UnheldReleaseCount() const { return unheldReleases_.load(); }
  // Every acquire and release since the last SmartPreRender began (or since construction),
  // in order.
  std::vector<SuiteEvent> suiteEvents() const;
  std::vector<int> iteratedRows() const;  // rows the last iterate passed to the callback, sorted
  IterateRecord lastIterate() const;
  std::vector<ParamCheckout> paramCheckouts() const;  // since the last SmartPreRender began
  int subpixelSampleCalls() const { return subpixelCalls_.load(); }
  std::vector<std::pair<PF_Fixed, PF_Fixed>> subpixelPositions() const;  // recorded when recordSamples
  bool recordSamples = false;
  A_u_long globalOutFlags = 0, globalOutFlags2 = 0;  // as reported at global setup
  int LiveHandleCount() const;   // handles made by host_new_handle and not yet disposed
  int BadDisposeCount() const;   // host_dispose_handle calls with a handle not alive
  const PluginDescription* description() const { return description_; }

 private:
  // The callbacks reach this object through effect_ref, which points at it, or through the
  // thread's current host; they live in HostCallbacks.cpp.
  friend struct HostCallbacks;
  void Init();
  bool ShouldFail(HostCall call, PF_Err* err);
  ThreadPool& Pool(int participants);
  void ReleasePreRenderData();  // the effect's pre_render_data, through its delete function

  PF_FilterProc entry_ = nullptr;
  const PluginDescription* description_ = nullptr;
  PF_InData in_{};
  PF_OutData out_{};
  PF_UtilCallbacks utils_{};
  SPBasicSuite basic_{};
  const World* inputLayer_ = nullptr;
  bool haveSuppliedOverride_ = false;
  PF_LRect suppliedOverride_{};
  bool haveFormatOverride_ = false;
  PF_PixelFormat formatOverride_ = 0;

  // Pre-render and render state.
  bool inPreRender_ = false, inRender_ = false;
  PreRenderReport preRender_{};
  bool haveCheckout_ = false;
  A_long checkoutId_ = 0;
  PF_LRect lastSupplied_{};
  bool havePreRender_ = false;
  PF_RenderRequest lastOutputRequest_{};
  PF_PreRenderOutput lastPreRender_{};
  std::unique_ptr<World> checkedOutInput_;
  std::unique_ptr<World> checkedOutOutput_;
  std::unique_ptr<World> spareOutput_;  // the caller's world offered for reuse
  bool outputCheckedOut_ = false;

  std::vector<PF_ParamDef> addedParams_;
  std::vector<ParamCheckout> paramCheckouts_;
  std::array<std::atomic<int>, static_cast<size_t>(HostCall::kCount)> callCounts_{};
  std::atomic<int> failuresArmed_{0};
  std::map<HostCall, std::pair<int, PF_Err>> failures_;
  std::map<std::pair<std::string, int32_t>, int> acquires_, releases_;
  std::atomic<int> unheldReleases_{0};
  std::vector<SuiteEvent> suiteEvents_;
  std::set<std::string> removedSuites_;
  std::map<PF_Handle, size_t> handles_;
  int badDisposals_ = 0;
  std::vector<int> iteratedRows_;
  IterateRecord lastIterate_{};
  mutable std::mutex mutex_;
  std::atomic<int> subpixelCalls_{0};
  std::vector<std::pair<PF_Fixed, PF_Fixed>> subpixelPositions_;
  std::mutex poolMutex_;  // held while an iterate runs on the pool
  std::unique_ptr<ThreadPool> pool_;
  std::map<void*, std::unique_ptr<World>> suiteWorlds_;  // PF_NewWorld's, by pixel address
};

}  // namespace hostsim

#endif
