#include "host/SmartRender.h"

#include <cstddef>
#include <cstring>

#include "AE_EffectCB.h"
#include "AE_EffectCBSuites.h"
#include "AE_EffectSuites.h"
#include "common/PixelDepth.h"
#include "host/AEFX_SuiteHelper.h"
#include "host/PreRender.h"
#include "host/RenderRows.h"
#include "host/SuiteHandler.h"
#include "resample/KernelTables.h"

static_assert(kPixelDepth8.hostFormat == PF_PixelFormat_ARGB32 &&
                  kPixelDepth16.hostFormat == PF_PixelFormat_ARGB64 &&
                  kPixelDepthFloat.hostFormat == PF_PixelFormat_ARGB128,
              "the host's pixel format codes");
static_assert(kPixelDepth8.bytes == sizeof(PF_Pixel) && kPixelDepth16.bytes == sizeof(PF_Pixel16) &&
                  kPixelDepthFloat.bytes == sizeof(PF_PixelFloat),
              "the host's pixel sizes");

namespace {

constexpr char kLoadFailedText[] = "Couldn't load suite.";
constexpr char kReleaseFailedText[] = "Couldn't release suite.";

// The suites taken with AEFX_AcquireSuite; null until acquired.
struct HostSuites {
  void* world = nullptr;      // PF_WorldSuite2
  void* ansi = nullptr;       // PF_ANSICallbacksSuite1
  void* pixelData = nullptr;  // PF_PixelDataSuite1
};

// Each suite only while no error is pending; returns the result of the last one tried.
PF_Err AcquireHostSuites(PF_InData* in_data, PF_OutData* out_data, HostSuites& suites) {
  PF_Err err = AEFX_AcquireSuite(in_data, out_data, kPFWorldSuite, kPFWorldSuiteVersion2,
                                 kLoadFailedText, &suites.world);
  if (err == PF_Err_NONE) {
    err = AEFX_AcquireSuite(in_data, out_data, kPFANSISuite, kPFANSISuiteVersion1,
                            kLoadFailedText, &suites.ansi);
  }
  if (err == PF_Err_NONE) {
    err = AEFX_AcquireSuite(in_data, out_data, kPFPixelDataSuite, kPFPixelDataSuiteVersion1,
                            kLoadFailedText, &suites.pixelData);
  }
  return err;
}

// Releases the three suites in acquisition order, also those that could not be had (the host
// answers such a release with an error that AEFX_ReleaseSuite does not pass on); keeps the
// first error.
PF_Err ReleaseHostSuites(PF_InData* in_data, PF_OutData* out_data, PF_Err err) {
  const PF_Err results[] = {
      AEFX_ReleaseSuite(in_data, out_data, kPFWorldSuite, kPFWorldSuiteVersion2,
                        kReleaseFailedText),
      AEFX_ReleaseSuite(in_data, out_data, kPFANSISuite, kPFANSISuiteVersion1,
                        kReleaseFailedText),
      AEFX_ReleaseSuite(in_data, out_data, kPFPixelDataSuite, kPFPixelDataSuiteVersion1,
                        kReleaseFailedText)};
  for (const PF_Err result : results) {
    if (err == PF_Err_NONE) err = result;
  }
  return err;
}

// Sets every pixel of the output to 0 in all channels (row padding is left alone).
PF_Err ClearOutput(const PF_WorldSuite2* worldSuite, PF_EffectWorld* output) {
  PF_PixelFormat format = PF_PixelFormat_INVALID;
  const PF_Err err = worldSuite->PF_GetPixelFormat(output, &format);
  if (err != PF_Err_NONE) return err;
  const size_t pixelBytes = ForPixelDepth(
      BitDepthOfHostFormat(format), [](auto depth) { return size_t(depth.kInfo.bytes); },
      [] { return size_t{0}; });
  if (pixelBytes == 0) return PF_Err_BAD_CALLBACK_PARAM;
  if (output->data == nullptr || output->width <= 0) return PF_Err_NONE;
  char* row = reinterpret_cast<char*>(output->data);
  for (A_long y = 0; y < output->height; ++y, row += output->rowbytes) {
    std::memset(row, 0, static_cast<size_t>(output->width) * pixelBytes);
  }
  return PF_Err_NONE;
}

// The iterate suite of each depth over `area` with the row callback of that depth.
PF_Err IterateRows(DepthTag<8>, AEGP_SuiteHandler& suites, PF_InData* in_data,
                   const PF_Rect* area, RenderData* renderData, PF_EffectWorld* output) {
  return suites.Iterate8Suite1()->iterate(in_data, 0, output->height, nullptr, area, renderData,
                                          DistortPixel8, output);
}
PF_Err IterateRows(DepthTag<16>, AEGP_SuiteHandler& suites, PF_InData* in_data,
                   const PF_Rect* area, RenderData* renderData, PF_EffectWorld* output) {
  return suites.Iterate16Suite1()->iterate(in_data, 0, output->height, nullptr, area,
                                           renderData, DistortPixel16, output);
}
PF_Err IterateRows(DepthTag<32>, AEGP_SuiteHandler& suites, PF_InData* in_data,
                   const PF_Rect* area, RenderData* renderData, PF_EffectWorld* output) {
  return suites.IterateFloatSuite1()->iterate(in_data, 0, output->height, nullptr, area,
                                              renderData, DistortPixelFloat, output);
}

// Everything between acquiring and releasing the host suites. `err` is the acquisition's
// result; the sampling suites are requested whatever it holds.
PF_Err RenderFrame(PF_InData* in_data, AEGP_SuiteHandler& suites, const HostSuites& host,
                   PF_EffectWorld* input, PF_EffectWorld* output, PF_Err err) {
  const PF_Sampling8Suite1* sampling8 = suites.Sampling8Suite1();
  const PF_Sampling16Suite1* sampling16 = suites.Sampling16Suite1();
  const PF_SamplingFloatSuite1* samplingFloat = suites.SamplingFloatSuite1();

  VtAFXLensData* lens = SequenceLensData(in_data->sequence_data);
  if (lens == nullptr) {
    err = PF_Err_INTERNAL_STRUCT_DAMAGED;
  }
  if (err != PF_Err_NONE) {
    return err;
  }

  RenderData renderData{};
  renderData.lensData = lens;
  renderData.inData = in_data;
  renderData.inputWorld = input;
  renderData.outputWorld = output;
  renderData.effectRef = in_data->effect_ref;
  renderData.sampPB.src = input;
  renderData.suites = &suites;
  renderData.pixelDataSuite = static_cast<const PF_PixelDataSuite1*>(host.pixelData);
  renderData.sample8 = sampling8->subpixel_sample;
  renderData.sample16 = sampling16->subpixel_sample16;
  renderData.sampleFloat = samplingFloat->subpixel_sample_float;

  err = BuildSampleFilters(static_cast<PF_ANSICallbacksSuite1*>(host.ansi),
                           lens->lanczos2Kernel, lens->lanczos3Kernel, lens->mitchellKernel);
  if (err != PF_Err_NONE) {
    return err;
  }

  if (output == nullptr) {
    return PF_Err_NONE;  // an empty result rectangle: nothing to render into
  }
  if (input == nullptr) {
    // No input pixels (the request mapped to nothing, or the host supplied nothing): every
    // output pixel lies outside any input, which the samplers draw as transparent.
    return ClearOutput(static_cast<const PF_WorldSuite2*>(host.world), output);
  }

  // One column wide: the host calls the row callback once per output row.
  const PF_Rect area = {0, 0, 1, output->height};
  PF_PixelFormat format = PF_PixelFormat_INVALID;
  const PF_Err formatErr =
      static_cast<const PF_WorldSuite2*>(host.world)->PF_GetPixelFormat(input, &format);

  // A format the effect does not know is refused whatever the format call returned.
  return ForPixelDepth(
      BitDepthOfHostFormat(format),
      [&](auto depth) {
        if (formatErr != PF_Err_NONE) return formatErr;
        PlanRows(renderData, decltype(depth)::kBits);
        return IterateRows(depth, suites, in_data, &area, &renderData, output);
      },
      [] { return PF_Err(PF_Err_BAD_CALLBACK_PARAM); });
}

}  // namespace

PF_Err SmartRender(PF_InData* in_data, PF_OutData* out_data, PF_SmartRenderExtra* extra) {
  PF_EffectWorld* input = nullptr;
  PF_EffectWorld* output = nullptr;
  // Id 0 is the checkout the pre-render made.
  PF_Err err = extra->cb->checkout_layer_pixels(in_data->effect_ref, 0, &input);
  if (err != PF_Err_NONE) {
    return err;
  }
  err = extra->cb->checkout_output(in_data->effect_ref, &output);
  if (err != PF_Err_NONE) {
    return err;
  }

  AEGP_SuiteHandler suites(in_data->pica_basicP);
  HostSuites host;
  err = AcquireHostSuites(in_data, out_data, host);
  try {
    err = RenderFrame(in_data, suites, host, input, output, err);
  } catch (PF_Err) {
    // A missing sampling or iterate suite: release ours, and let the handler release its
    // own while the error travels up to the entry point.
    ReleaseHostSuites(in_data, out_data, PF_Err_BAD_CALLBACK_PARAM);
    throw;
  }
  return ReleaseHostSuites(in_data, out_data, err);
}
