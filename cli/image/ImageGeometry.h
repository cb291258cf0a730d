// The geometry of an image file as every command reads it: where the lens frame lies in the
// file, its pixel aspect, the default output window of each mode, and the windows of the file
// written.
//
// The layer the effect sees has its origin at a point of the input file: in Remove the top
// left of the plate's frame (its display window); in Apply the top left of the undistorted
// frame, which is the data window when that holds the display window and more (overscan),
// else the display window. Pixels of the data window outside the frame are input too, and the
// layer spans the display window as well, black where the file holds no pixels (LayerPixels).
//
// The output's data window is the rendered window; its display window is the frame of the
// result: in Apply the distorted frame; in Remove the plate's frame when the undistorted frame
// holds it (the rest is overscan around it), else the undistorted frame.
#ifndef VT_CLI_IMAGE_IMAGEGEOMETRY_H
#define VT_CLI_IMAGE_IMAGEGEOMETRY_H

#include <optional>

#include <string>

#include "AE_Effect.h"
#include "cli/image/ImageIO.h"
#include "cli/lens/LensOptions.h"
#include "common/Rect.h"

namespace veltrisca {

// The output rectangle rendered when --window is not given.
struct DefaultWindow {
  PF_LRect rect{};
  bool halfPixelX = false;  // the window sits half a pixel off the lens centre horizontally
  bool halfPixelY = false;
};

// Remove: the effect's output frame without the extra last column and row it reports; with a
// pixel aspect other than 1, the columns the frame of the file's undistorted width would
// have on square pixels.
DefaultWindow RemoveWindow(const PF_LRect& maxResultRect, const LensSizes& sizes,
                           double pixelAspect = 1.0);
// Apply: a window of the distorted size centred on the lens centre (lensCentreX/Y are the
// layer position of the normalised origin, which the effect keeps in pixOffsetX/Y). With an odd
// margin the window starts half a pixel left of (above) the centred position.
DefaultWindow ApplyWindow(float lensCentreX, float lensCentreY, ImageSize distorted);

struct LayerPlacement {
  int originX = 0, originY = 0;  // file position of the layer's (0, 0)
  ImageSize frame;               // the size tied to the layer (distorted in Remove)
  std::optional<ImageSize> other;  // Apply on overscan: the distorted size, the display's
  bool overscan = false;           // Apply: the undistorted frame is the data window
};
LayerPlacement PlaceInput(int mode, const PF_LRect& dataWindow, const PF_LRect& displayWindow);

struct OutputWindows {
  PF_LRect data{};     // file coordinates
  PF_LRect display{};  // file coordinates
};
// `window` is the rendered rectangle and `frame` the effect's output frame (Remove: the
// undistorted frame; Apply: the distorted size centred on the lens), both in layer pixels.
OutputWindows PlaceOutput(int mode, const PF_LRect& window, const PF_LRect& frame,
                          const LensSizes& sizes, const LayerPlacement& input);

PF_LRect Offset(const PF_LRect& r, int dx, int dy);
// A format without windows holds the data window alone at 0,0: both windows moved so.
OutputWindows AtOrigin(const OutputWindows& w);
// A rectangle's left and right edges times `factor`, rounded (render --desqueeze).
PF_LRect StretchX(const PF_LRect& r, double factor);

// The user's lens set on one file, as info, render and stmap --like all read it: the pixel
// aspect (--pixel-aspect, else the file's PixelAspectRatio, else 1; one outside the effect's
// 0.1..10 is refused, CliError(kExitIo)), the lens frame in the file and the two sizes in the
// file's own pixels (--fit chooses the undistorted one). ToParamValues hands them to the
// effect.
struct FileLens {
  LensSettings settings;
  LayerPlacement frame;
  LensSizes sizes;
};
FileLens PlanFileLens(const LensSettings& given, const InputImage& image, bool fit);

// The pixels of the input layer: the data window and the display window around it, transparent
// black where the file holds no pixels, so that a footprint across the data window's edge
// blends with the black outside it exactly as on a full frame; when that exceeds one host
// image, the data window and a black margin of 8 pixels. Layer coordinates.
PF_LRect LayerPixels(const InputImage& image, const LayerPlacement& frame);

// One line for info: what the tool does with a pixel aspect other than 1.
std::string AspectText(const LensSettings& settings, const LensSizes& sizes);

}  // namespace veltrisca

#endif
