// The suites the host hands out through the basic suite's AcquireSuite: the world, ANSI,
// pixel data, sampling and iterate suites, and the drawing suites (offered, never drawn
// with); and the host's books of which were acquired and released.
#include "hostsim/HostCallbacks.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>

namespace hostsim {

namespace {

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
const PF_ANSICallbacksSuite1 ansi_suite1 = AnsiFunctions();
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

}  // namespace

void HostCallbacks::FillBasicSuite(SPBasicSuite* basic) {
  basic->AcquireSuite = AcquireSuite;
  basic->ReleaseSuite = ReleaseSuite;
  basic->IsEqual = IsEqual;
  basic->AllocateBlock = AllocateBlock;
  basic->FreeBlock = FreeBlock;
  basic->ReallocateBlock = ReallocateBlock;
  basic->Undefined = Undefined;
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

}  // namespace hostsim
