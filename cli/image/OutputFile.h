// The output file of a render: its sample type (the input's where the format holds it, or
// -d), compression, windows and header, decided before any work and written at the end.
#ifndef VT_CLI_OUTPUTFILE_H
#define VT_CLI_OUTPUTFILE_H

#include <OpenImageIO/imageio.h>

#include <chrono>
#include <ostream>
#include <string>
#include <vector>

#include "cli/image/ImageGeometry.h"
#include "cli/image/ImageIO.h"

namespace veltrisca {

struct OutputChoice {
  std::string dataType;     // -d: "uint8", "uint16", "half", "float"; empty: from the input
  std::string compression;  // --compression; empty: the input's when the format is the same
};

struct OutputPlan {
  std::string format;                        // the writer's name ("openexr", "tiff", ...)
  OIIO::TypeDesc type;                       // sample type of every channel ...
  std::vector<OIIO::TypeDesc> channelTypes;  // ... unless these are given, one per channel
  bool windows = false;          // the format records data and display windows
  std::string compression;       // empty: the writer's default
  std::vector<std::string> notes;  // what differs from the input, for stderr
};

// Throws CliError(kExitUsage) for an unknown -d or compression name, CliError(kExitIo) when
// the format has no writer, writes no file, or cannot hold the channels (their number, an
// alpha) or the chosen type: every writer's limits, checked before any pixel is read.
OutputPlan PlanOutput(const std::string& path, const InputImage& input,
                      const OutputLayout& layout, const OutputChoice& choice);

// Writes `pixels` (covering windows.data) to `path` with the input's metadata, the plan's
// types and windows, and `extra` attributes over the input's. Notes what the writer changed.
void WriteOutput(const std::string& path, const std::string& shownPath, const InputImage& input,
                 const OutputLayout& layout, const OutputPlan& plan,
                 const OutputWindows& windows, const PixelBuffer& pixels,
                 const OIIO::ParamValueList& extra, std::vector<std::string>* notes);

// "uint8", "half", ... as oiiotool spells them.
std::string TypeName(OIIO::TypeDesc type);

// -v of the commands that write one image: what was written (its size, channels, type and
// format, from its header) and how long it took since `started`.
void ReportWritten(const std::string& path, std::chrono::steady_clock::time_point started,
                   std::ostream& out);

}  // namespace veltrisca

#endif
