// `veltrisca stmap`: the effect's output-to-input mapping written as an ST map, the common
// currency of compositing packages. For each output pixel the map holds the input position
// that the render samples there, as s = (x + 0.5) / W, t = 1 - (y + 0.5) / H (x, y the input
// pixel index, W x H the input frame), in 32-bit float OpenEXR.
#ifndef VT_CLI_STMAP_H
#define VT_CLI_STMAP_H

#include <ostream>
#include <string>
#include <vector>

#include "cli/lens/LensOptions.h"
#include "cli/shared/Command.h"

namespace veltrisca {

struct StMapCommand {
  LensOptionText lens;
  std::string output;
  std::string size = "1920x1080";
  std::string like;    // an image whose frame size (and pixel aspect) the map takes
  std::string window;  // the data window in layer pixels; empty: the output frame
  std::string threads = "0";
  bool both = false;
  bool pixelAspectGiven = false;  // on the command line or in a lens file
  bool verbose = false;  // -v
  bool quiet = false;    // -q
};

// Nuke's ST convention for an input position given in pixel indices.
inline float SCoordinate(float x, int width) {
  return static_cast<float>((static_cast<double>(x) + 0.5) / width);
}
inline float TCoordinate(float y, int height) {
  return static_cast<float>(1.0 - (static_cast<double>(y) + 0.5) / height);
}

int RunStMap(const StMapCommand& command, const std::string& plugin, std::ostream& note);

CommandEntry AddStMapCommand(CLI::App& app);

}  // namespace veltrisca

#endif
