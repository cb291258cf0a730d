// The description of the input image and of the chosen kernel that a sampler works from,
// and the load and store of runs of pixels at 8, 16 and 32-bit float depth.
//
// Values travel in each format's own units (0..255, 0..32768, unscaled float); channels lie
// in memory in the order alpha, red, green, blue. Loads and stores never scale or clamp.
#ifndef VT_RESAMPLE_RESAMPLEDATA_H
#define VT_RESAMPLE_RESAMPLEDATA_H

#include <cstdint>

#include "common/PixelDepth.h"
#include "gulp/FGulp.h"

// Filled (after zeroing) by the row callbacks once per row; owns neither image nor table.
struct ResampleData {
  char* baseAddr;       // first byte of the input image (its top-left pixel)
  int32_t rowBytes;     // bytes from one input row to the next
  int32_t pixelBytes;   // 4, 8 or 16
  int32_t bitDepth;     // 8, 16 or 32 bits per channel (a PixelDepth's bitDepth)
  int32_t width;        // input size in pixels
  int32_t height;
  float colorMax;       // kernel sampler's upper clip of red, green, blue: 255, 32768, 1e10
  float alphaMax;       // kernel sampler's upper clip of alpha: 255, 32768, 1
  int32_t tapsX;        // kernel taps per row (4 or 6), 0 without a kernel
  int32_t tapsY;        // kernel tap rows, as tapsX
  int32_t tapOffsetX;   // first tap column is floor(x) - tapOffsetX
  int32_t tapOffsetY;   // first tap row is floor(y) - tapOffsetY
  float phasesPerPixel; // sub-pixel phases per pixel of the kernel table (64), 0 without one
  float phaseStride;    // floats per phase cell (16 or 40), 0 without a kernel
  float* kernelTable;   // the kernel table in use, null for nearest and bilinear
};

// Byte offsets of the pixels at the integral positions pt: out[k] = y*rowStride + x*pixelStride
// in wrapping 32-bit arithmetic, the coordinates converted by truncation (IndexCalcT) or by
// rounding to nearest, halves to even (IndexCalcR). With SSE4.1 whole blocks of 8 entries are
// written (out must hold 64); otherwise exactly len of pt.x entries.
void IndexCalcT(const FGulpPt& pt, int32_t rowStride, int32_t pixelStride, int32_t* out);
void IndexCalcR(const FGulpPt& pt, int32_t rowStride, int32_t pixelStride, int32_t* out);

// Loads the pixels at the integral positions pt (which must lie inside the image) into the
// four channel runs of out; the lengths of the runs are left as they are.
void SamplePix(const ResampleData* rd, const FGulpPt& pt, RGBAGulp& out);

// Writes len of in.r pixels consecutively from dst. Integer depths store the low bits of each
// value truncated toward zero; float pixels are copied bit for bit.
void StorePix(const ResampleData* rd, const RGBAGulp& in, void* dst);

#endif
