#include "host/RenderRows.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "common/PixelDepth.h"
#include "gulp/FGulp.h"
#include "host/Params.h"
#include "lens/RunMapping.h"
#include "resample/KernelTables.h"
#include "resample/ResampleData.h"
#include "resample/Samplers.h"

namespace {

// Per-depth pieces, chosen by overload on the pixel type.
constexpr const PixelDepth& FormatOf(const PF_Pixel*) { return kPixelDepth8; }
constexpr const PixelDepth& FormatOf(const PF_Pixel16*) { return kPixelDepth16; }
constexpr const PixelDepth& FormatOf(const PF_PixelFloat*) { return kPixelDepthFloat; }

PF_Err InputPixels(const RenderData& rd, PF_Pixel** pixels) {
  return rd.inData->utils->get_pixel_data8(rd.inputWorld, nullptr, pixels);
}
PF_Err InputPixels(const RenderData& rd, PF_Pixel16** pixels) {
  return rd.inData->utils->get_pixel_data16(rd.inputWorld, nullptr, pixels);
}
PF_Err InputPixels(const RenderData& rd, PF_PixelFloat** pixels) {
  return rd.pixelDataSuite->get_pixel_data_float(rd.inputWorld, nullptr, pixels);
}

PF_Err HostSample(const RenderData& rd, PF_Fixed x, PF_Fixed y, PF_Pixel* dst) {
  return rd.sample8(rd.effectRef, x, y, &rd.sampPB, dst);
}
PF_Err HostSample(const RenderData& rd, PF_Fixed x, PF_Fixed y, PF_Pixel16* dst) {
  return rd.sample16(rd.effectRef, x, y, &rd.sampPB, dst);
}
PF_Err HostSample(const RenderData& rd, PF_Fixed x, PF_Fixed y, PF_PixelFloat* dst) {
  return rd.sampleFloat(rd.effectRef, x, y, &rd.sampPB, dst);
}

// The kernel geometry of a filter type.
struct FilterKernel {
  int32_t taps;
  int32_t tapOffset;
  float phasesPerPixel;
  float phaseStride;
  float* table;
};

FilterKernel KernelOf(int32_t filterType, const VtAFXLensData& lens) {
  switch (filterType) {
    case kFilterLanczos2:
      return {kLanczos2Taps, kLanczos2TapOffset, kKernelPhases, kLanczos2CellFloats,
              lens.lanczos2Kernel};
    case kFilterLanczos3:
      return {kLanczos3Taps, kLanczos3TapOffset, kKernelPhases, kLanczos3CellFloats,
              lens.lanczos3Kernel};
    case kFilterMitchell:
      return {kMitchellTaps, kMitchellTapOffset, kKernelPhases, kMitchellCellFloats,
              lens.mitchellKernel};
    default:  // nearest and bilinear have no kernel
      return {0, 0, 0.0f, 0.0f, nullptr};
  }
}

// One step of the row: the output positions of pixels x0 .. x0 + len - 1 of row y (in the
// layer), mapped through the lens and moved into the input buffer's own pixels.
void MapStep(const RenderData& rd, A_long x0, A_long y, FGulpPt& inPos) {
  const PF_EffectWorld& output = *rd.outputWorld;
  const PF_EffectWorld& input = *rd.inputWorld;
  // The sums are whole numbers, so they are formed in integers and converted once.
  const RowStep step{static_cast<float>(output.origin_x + x0),
                     static_cast<float>(output.origin_y + y),
                     std::min<A_long>(FGulp::kCapacity, output.width - x0)};
  rd.mapStep(rd.lensData, step, inPos,
             BufferOrigin{static_cast<float>(input.origin_x), static_cast<float>(input.origin_y)});
}

template <typename Pixel>
PF_Err DistortRow(void* refcon, A_long y, Pixel* out) {
  const RenderData& rd = *static_cast<const RenderData*>(refcon);
  const A_long width = rd.outputWorld->width;
  if (width <= 0) {
    return PF_Err_NONE;
  }
  const int32_t filterType = rd.lensData->filterType;
  FGulpPt inPos;

  if (filterType == kFilterBuiltIn) {
    for (A_long x0 = 0; x0 < width; x0 += FGulp::kCapacity) {
      MapStep(rd, x0, y, inPos);
      Pixel* dst = out + x0;
      for (int k = 0; k < inPos.x.len; ++k) {
        // The host's sampler reports nothing the row could act on; its result is not used.
        HostSample(rd, PixelsToFixed(inPos.x[k]), PixelsToFixed(inPos.y[k]), dst + k);
      }
    }
    return PF_Err_NONE;
  }

  if (rd.sampler == nullptr) {
    // Not a type the popup can deliver; a transparent row is the only safe output.
    std::memset(static_cast<void*>(out), 0, static_cast<size_t>(width) * sizeof(Pixel));
    return PF_Err_NONE;
  }

  Pixel* pixels = nullptr;
  const PF_Err err = InputPixels(rd, &pixels);
  if (err != PF_Err_NONE) {
    return err;
  }

  const PixelDepth& format = FormatOf(out);
  const FilterKernel kernel = KernelOf(filterType, *rd.lensData);
  ResampleData resample;
  std::memset(&resample, 0, sizeof resample);
  resample.baseAddr = reinterpret_cast<char*>(pixels);
  resample.rowBytes = rd.inputWorld->rowbytes;
  resample.pixelBytes = format.bytes;
  resample.bitDepth = format.bitDepth;
  resample.width = rd.inputWorld->width;
  resample.height = rd.inputWorld->height;
  resample.colorMax = format.colorMax;
  resample.alphaMax = format.alphaMax;
  resample.tapsX = kernel.taps;
  resample.tapsY = kernel.taps;
  resample.tapOffsetX = kernel.tapOffset;
  resample.tapOffsetY = kernel.tapOffset;
  resample.phasesPerPixel = kernel.phasesPerPixel;
  resample.phaseStride = kernel.phaseStride;
  resample.kernelTable = kernel.table;

  for (A_long x0 = 0; x0 < width; x0 += FGulp::kCapacity) {
    MapStep(rd, x0, y, inPos);
    rd.sampler(&resample, inPos, out + x0);
  }
  return PF_Err_NONE;
}

}  // namespace

void PlanRows(RenderData& rd, int bitDepth) {
  const VtAFXLensData& lens = *rd.lensData;
  rd.mapStep = ChooseRowStepMapper(lens);
  switch (lens.filterType) {
    case kFilterNearest: rd.sampler = ChooseRunSampler(SamplerKind::kNearest, bitDepth); break;
    case kFilterBiLinear: rd.sampler = ChooseRunSampler(SamplerKind::kBiLinear, bitDepth); break;
    case kFilterLanczos2:
    case kFilterMitchell:
      rd.sampler = ChooseRunSampler(SamplerKind::kKernel4x4, bitDepth);
      break;
    case kFilterLanczos3: rd.sampler = ChooseRunSampler(SamplerKind::kKernel6x6, bitDepth); break;
    default: rd.sampler = nullptr; break;
  }
}

PF_Err DistortPixel8(void* refcon, A_long, A_long y, PF_Pixel*, PF_Pixel* out) {
  return DistortRow(refcon, y, out);
}

PF_Err DistortPixel16(void* refcon, A_long, A_long y, PF_Pixel16*, PF_Pixel16* out) {
  return DistortRow(refcon, y, out);
}

PF_Err DistortPixelFloat(void* refcon, A_long, A_long y, PF_PixelFloat*, PF_PixelFloat* out) {
  return DistortRow(refcon, y, out);
}
