// `veltrisca render`: an image, or the frames of a shot, through the effect. The command
// turns its options into a RenderJob (cli/render/FrameStages.h), selects the frames
// (cli/render/ShotPipeline.h) and hands both to the pipeline.
#ifndef VT_CLI_RENDER_RENDERCOMMAND_H
#define VT_CLI_RENDER_RENDERCOMMAND_H

#include <ostream>
#include <string>
#include <vector>

#include "cli/lens/LensOptions.h"
#include "cli/render/FrameStages.h"
#include "cli/shared/Command.h"

namespace veltrisca {

struct RenderCommand {
  LensOptionText lens;
  std::string input;
  std::string output;
  std::string threads = "0";
  std::string window;  // empty: the default window of the mode
  std::string alpha;   // channel name, "none", or empty: the file's own alpha
  std::vector<std::string> channelFilters;  // --channel-filter PATTERN=FILTER, in order
  bool addAlpha = false;
  std::string dataType;     // -d
  std::string compression;  // --compression
  bool fit = false;         // remove: the smallest undistorted size holding the plate
  bool desqueeze = false;   // remove: an anamorphic result resampled to square pixels
  bool verbose = false;     // -v
  bool quiet = false;       // -q
  std::string frames;       // --frames LIST
  bool keepGoing = false;   // --keep-going
  bool skipExisting = false;  // --skip-existing
  std::string progress;     // --progress STYLE; empty: auto, none with -q
};

int RunRender(const RenderCommand& command, const std::string& plugin, std::ostream& out,
              std::ostream& note);

CommandEntry AddRenderCommand(CLI::App& app);

}  // namespace veltrisca

#endif
