// The two forms of `veltrisca info`: one JSON object, or a readable summary. Both only
// print what the effect left in its sequence data and what the pre-render reported.
#ifndef VT_CLI_INFOREPORT_H
#define VT_CLI_INFOREPORT_H

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "cli/lens/LensFile.h"
#include "cli/lens/LensOptions.h"
#include "cli/session/EffectSession.h"

namespace veltrisca {

struct InfoResult {
  std::string about;       // the effect's about text
  ImageSize layer;         // the input layer's size
  PreRenderReadBack back;  // lens record and pre-render report
  std::string image;       // the image file the layer was read from, or empty
  std::string aspect;      // what the tool does with the pixel aspect (AspectText)
  ImageSize fitSize;       // the undistorted size render --fit would choose
  double beyondInvertible = 0;  // share of the distorted frame beyond what the lens inverts
  std::optional<RecordedLens> recorded;  // the lens the image records
  std::vector<std::string> lensNotes;    // how the recorded lens was used
};

// Every field of the lens record by name (the kernel pointers, which only a render sets, are
// left out; the inverse table only when withTable), then request, inputRequest,
// inputRequestField, hostSupplied, resultRect and maxResultRectReported, then image and
// recordedLens (with an image: the lens it records as a lens file's object, or null),
// pixelAspectHandling, fitUndistortedSize and beyondInvertible.
void WriteInfoJson(std::ostream& out, const InfoResult& info, bool withTable);
void WriteInfoText(std::ostream& out, const InfoResult& info);

}  // namespace veltrisca

#endif
