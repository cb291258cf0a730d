// The lens record: the whole sequence data of one applied instance of the effect. The smart
// pre-render fills the parameter fields from the effect's parameters and then derives the
// frame transform, the monotonic limit of the lens polynomial, the output frame and the
// inverse radius table; the render adds the kernel-table pointers; the row callbacks read it.
#ifndef VT_LENS_LENSDATA_H
#define VT_LENS_LENSDATA_H

#include <cstddef>
#include <cstdint>

#include "AE_Effect.h"
#include "common/EffectParams.h"

// Lens polynomial r = u * (1 + quadratic*u^2 + cubic*u^3 + quartic*u^4) links an undistorted
// radius u to a distorted radius r in normalised lens space (origin at the optical centre,
// unit = half the undistorted frame's height).
struct VtAFXLensData {
  // Parameters, as checked out.
  int32_t distortMode;  // kModeRemove, kModeApply; -1 before the first pre-render
  int32_t filterType;   // kFilterBuiltIn .. kFilterMitchell
  double quadratic;     // DistortionX1000 / 1000
  double cubic;         // CubicX1000 / 1000
  double quartic;       // QuarticX1000 / 1000
  double zoom;
  int32_t distortedWidth;
  int32_t distortedHeight;
  int32_t undistortedWidth;
  int32_t undistortedHeight;
  double pixelAspect;
  // Frame transform: layer position -> normalised space (norm*) and back (pix*).
  float normScaleX;
  float normScaleY;
  float normOffsetX;
  float normOffsetY;
  float pixScaleX;
  float pixScaleY;
  float pixOffsetX;
  float pixOffsetY;
  float frameAspect;  // width over height of the undistorted frame in square units
  float quadraticF;
  float cubicF;
  float quarticF;
  float limitUndistorted;  // largest undistorted radius over which the polynomial rises
  float limitDistorted;    // the polynomial at limitUndistorted
  float invZoom;
  float limitUndistortedSq;
  PF_LRect maxResultRect;  // the whole output frame in layer pixels
  float lutScale;          // 2048 / limitDistorted
  float inverseTable[2050];
  int32_t tableValid;
  float* lanczos2Kernel;
  float* lanczos3Kernel;
  float* mitchellKernel;
};

// The host stores this block as the sequence data; its size and layout are fixed.
static_assert(sizeof(VtAFXLensData) == 8376, "lens record must be 8376 bytes");
static_assert(offsetof(VtAFXLensData, quadratic) == 8, "layout");
static_assert(offsetof(VtAFXLensData, distortedWidth) == 40, "layout");
static_assert(offsetof(VtAFXLensData, pixelAspect) == 56, "layout");
static_assert(offsetof(VtAFXLensData, normScaleX) == 64, "layout");
static_assert(offsetof(VtAFXLensData, limitUndistortedSq) == 124, "layout");
static_assert(offsetof(VtAFXLensData, maxResultRect) == 128, "layout");
static_assert(offsetof(VtAFXLensData, lutScale) == 144, "layout");
static_assert(offsetof(VtAFXLensData, inverseTable) == 148, "layout");
static_assert(offsetof(VtAFXLensData, tableValid) == 8348, "layout");
static_assert(offsetof(VtAFXLensData, lanczos2Kernel) == 8352, "layout");
static_assert(offsetof(VtAFXLensData, mitchellKernel) == 8368, "layout");

constexpr int32_t kLensDataSize = static_cast<int32_t>(sizeof(VtAFXLensData));
constexpr int kInverseTableIntervals = 2048;

// Derives the frame transform, output frame, coefficient copies, monotonic limit and table
// scale (everything but the table itself) from the parameter fields.
void SetupLensData(VtAFXLensData& lens);
// Sets limitUndistorted and limitDistorted: how far the polynomial keeps rising.
void FindMonotonicLimit(VtAFXLensData& lens);

// A point parameter coordinate (16.16 fixed) as a whole pixel count: converted to float,
// scaled by 2^-16 and rounded to nearest, ties to even.
int32_t PointToPixels(PF_Fixed v);
// Stores the value of the checked-out parameter at `paramIndex` (a ParamIndex) into its
// parameter field: popups as delivered, the
// coefficient sliders times 0.001 in double, zoom and pixel aspect as they are, the sizes
// through PointToPixels. Other indices are ignored.
void StoreLensParam(VtAFXLensData& lens, int32_t paramIndex, const PF_ParamDef& param);

#endif
